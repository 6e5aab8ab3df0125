#include "cli/browser.h"

#include <array>
#include <cstdlib>

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

namespace cli {
namespace {

bool IsSet(const char* variable) {
  // The environment is only read before the program starts its threads.
  const char* value = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe)
  return value != nullptr && *value != '\0';
}

}  // namespace

bool HasBrowser() {
  return (IsSet("DISPLAY") || IsSet("WAYLAND_DISPLAY")) && !IsSet("SSH_CONNECTION");
}

void OpenInBrowser(const std::string& address) noexcept {
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) return;
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
  }
  std::array<char, 9> name{"xdg-open"};
  std::string copy = address;
  std::array<char*, 3> arguments = {name.data(), copy.data(), nullptr};
  pid_t child = 0;
  // The child is left to init: the program ends before the browser does.
  posix_spawnp(&child, name.data(), &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
}

}  // namespace cli
