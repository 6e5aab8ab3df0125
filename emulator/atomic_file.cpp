#include "emulator/atomic_file.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

namespace emulator {
namespace {

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(fd, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace

void ReplaceFile(const std::filesystem::path& path, std::string_view text, mode_t mode) {
  std::string temporary = path.string() + ".XXXXXX";
  const auto fail = [&] {
    throw std::runtime_error("cannot write " + path.string() + ": " +
                             std::generic_category().message(errno));
  };
  const int fd = ::mkstemp(temporary.data());  // 0600 until it is complete
  if (fd < 0) fail();
  const bool written = WriteAll(fd, text) && ::fchmod(fd, mode) == 0 && ::fsync(fd) == 0;
  const bool closed = ::close(fd) == 0;
  if (written && closed && ::rename(temporary.c_str(), path.c_str()) == 0) return;
  const int error = errno;
  ::unlink(temporary.c_str());
  errno = error;
  fail();
}

}  // namespace emulator
