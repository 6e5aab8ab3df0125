#include "host/local_files.h"

#include <cerrno>
#include <system_error>

#include <unistd.h>

#include "base/files.h"
#include "host/failure.h"

namespace host {

std::string ReadSmallFile(const std::filesystem::path& file, std::size_t limit) {
  if (file == "-") {
    try {
      return base::ReadToEnd(STDIN_FILENO, limit);
    } catch (const std::system_error& error) {
      throw LocalFailure("read", "standard input", error.code().value());
    }
  }
  std::optional<std::string> content = ReadSmallFileIfAny(file, limit);
  if (!content) throw LocalFailure("read", file.string(), ENOENT);
  return *std::move(content);
}

std::optional<std::string> ReadSmallFileIfAny(const std::filesystem::path& file,
                                              std::size_t limit) {
  try {
    return base::ReadFileIfAny(file, limit);
  } catch (const std::system_error& error) {
    throw LocalFailure("read", file.string(), error.code().value());
  }
}

void ReplacePrivateFile(const std::filesystem::path& file, std::string_view content) {
  try {
    base::ReplaceFile(file, content, 0600);
  } catch (const std::system_error& error) {
    throw LocalFailure("write", file.string(), error.code().value());
  }
}

}  // namespace host
