#include "mount/background.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/files.h"
#include "host/failure.h"

namespace mounted {
namespace {

constexpr off_t kLongestLog = off_t{4} << 20U;

[[noreturn]] void WaitAndEnd(pid_t child, int pipe) {
  char ready = 0;
  ssize_t got = 0;
  do {
    got = ::read(pipe, &ready, 1);
  } while (got < 0 && errno == EINTR);
  if (got == 1) ::_exit(0);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
}

}  // namespace

Background Background::Start() {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) throw host::LocalFailure("open", "a pipe", errno);
  base::UniqueFd read_end(ends[0]);
  base::UniqueFd write_end(ends[1]);
  const pid_t child = ::fork();
  if (child < 0) throw host::LocalFailure("start", "a process", errno);
  if (child > 0) {
    write_end.Close();
    WaitAndEnd(child, read_end.get());
  }
  ::setsid();
  Background background;
  background.pipe_ = std::move(write_end);
  return background;
}

void Background::Ready(const std::filesystem::path& log) {
  TellSystemd("READY=1");
  if (!pipe_) return;
  struct stat status = {};
  // The last log is kept beside the new one.
  if (::stat(log.c_str(), &status) == 0 && status.st_size > kLongestLog) {
    ::rename(log.c_str(), (log.string() + ".1").c_str());
  }
  const base::UniqueFd nothing(::open("/dev/null", O_RDWR | O_CLOEXEC));
  const base::UniqueFd file(::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  ::dup2(nothing.get(), STDIN_FILENO);
  ::dup2(nothing.get(), STDOUT_FILENO);
  ::dup2(file ? file.get() : nothing.get(), STDERR_FILENO);
  // The folder that the command was started in can be unmounted.
  if (::chdir("/") != 0) return;
  base::WriteAll(pipe_.get(), "R");  // whoever started it may have gone
  pipe_.Close();
}

void TellSystemd(const char* state) noexcept {
  const char* path = std::getenv("NOTIFY_SOCKET");  // NOLINT(concurrency-mt-unsafe)
  sockaddr_un address{};
  if (path == nullptr || std::strlen(path) >= sizeof(address.sun_path) || *path == '\0') return;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path, std::strlen(path));
  if (address.sun_path[0] == '@') address.sun_path[0] = '\0';
  const base::UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
  ::sendto(socket.get(), state, std::strlen(state), MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&address), length);
}

}  // namespace mounted
