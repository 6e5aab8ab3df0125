#include "base/files.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace base {
namespace {

std::system_error Error(const std::string& what) { return {errno, std::generic_category(), what}; }

}  // namespace

bool WriteAll(int fd, std::string_view data) noexcept {
  while (!data.empty()) {
    const ssize_t wrote = ::write(fd, data.data(), data.size());
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 0) return false;
    data.remove_prefix(static_cast<std::size_t>(wrote));
  }
  return true;
}

bool WriteAllAt(int fd, std::int64_t offset, std::string_view data) noexcept {
  while (!data.empty()) {
    const ssize_t wrote = ::pwrite(fd, data.data(), data.size(), offset);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 0) return false;
    data.remove_prefix(static_cast<std::size_t>(wrote));
    offset += wrote;
  }
  return true;
}

std::string ReadToEnd(int fd, std::size_t limit) {
  std::string content;
  char buffer[16384];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got == 0) return content;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw Error("cannot read");
    content.append(buffer, static_cast<std::size_t>(got));
    if (content.size() > limit) {
      errno = EFBIG;
      throw Error("cannot read");
    }
  }
}

std::optional<std::string> ReadFileIfAny(const std::filesystem::path& file, std::size_t limit) {
  const UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd && errno == ENOENT) return std::nullopt;
  if (!fd) throw Error("cannot read " + file.string());
  return ReadToEnd(fd.get(), limit);
}

void ReplaceFile(const std::filesystem::path& file, std::string_view content, mode_t mode) {
  const std::string temporary = file.string() + ".new";
  // A file left by a crash may have another owner's mode or links: never write into it.
  ::unlink(temporary.c_str());
  UniqueFd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!fd) throw Error("cannot create " + temporary);
  const bool written = WriteAll(fd.get(), content) && ::fchmod(fd.get(), mode) == 0 &&
                       ::fsync(fd.get()) == 0 && fd.Close();
  if (!written || ::rename(temporary.c_str(), file.c_str()) != 0) {
    const int error = errno;
    ::unlink(temporary.c_str());
    errno = error;
    throw Error("cannot write " + file.string());
  }
  SyncFolder(file.parent_path());
}

void SyncFolder(const std::filesystem::path& folder) noexcept {
  const UniqueFd fd(
      ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd) ::fsync(fd.get());
}

}  // namespace base
