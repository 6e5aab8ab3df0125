#include "host/local_files.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "host/failure.h"

namespace host {
namespace {

std::string ReadAll(int fd, const std::string& name, std::size_t limit) {
  std::string content;
  char buffer[16384];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got == 0) return content;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw LocalFailure("read", name, errno);
    content.append(buffer, static_cast<std::size_t>(got));
    if (content.size() > limit) throw LocalFailure("read", name, EFBIG);
  }
}

}  // namespace

std::string ReadSmallFile(const std::filesystem::path& file, std::size_t limit) {
  if (file == "-") return ReadAll(STDIN_FILENO, "standard input", limit);
  std::optional<std::string> content = ReadSmallFileIfAny(file, limit);
  if (!content) throw LocalFailure("read", file.string(), ENOENT);
  return *std::move(content);
}

std::optional<std::string> ReadSmallFileIfAny(const std::filesystem::path& file,
                                              std::size_t limit) {
  const base::UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd && errno == ENOENT) return std::nullopt;
  if (!fd) throw LocalFailure("read", file.string(), errno);
  return ReadAll(fd.get(), file.string(), limit);
}

void ReplacePrivateFile(const std::filesystem::path& file, std::string_view content) {
  const std::string temporary = file.string() + ".new";
  // A file left by a crash may have another owner's mode or links: never write into it.
  ::unlink(temporary.c_str());
  base::UniqueFd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!fd) throw LocalFailure("create", temporary, errno);
  const bool written = WriteAll(fd.get(), content) && ::fsync(fd.get()) == 0 && fd.Close();
  if (!written || ::rename(temporary.c_str(), file.c_str()) != 0) {
    const int error = errno;
    ::unlink(temporary.c_str());
    throw LocalFailure("write", file.string(), error);
  }
  SyncFolder(file.parent_path());
}

bool WriteAll(int fd, std::string_view data) noexcept {
  while (!data.empty()) {
    const ssize_t wrote = ::write(fd, data.data(), data.size());
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 0) return false;
    data.remove_prefix(static_cast<std::size_t>(wrote));
  }
  return true;
}

void SyncFolder(const std::filesystem::path& folder) noexcept {
  const base::UniqueFd fd(
      ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd) ::fsync(fd.get());
}

}  // namespace host
