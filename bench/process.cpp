#include "bench/process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {
namespace {

constexpr int kLongestSilence = 120000;  // milliseconds

std::array<int, 2> Pipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  return ends;
}

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

}  // namespace

Process::Process(const std::vector<std::string>& arguments) : name_(arguments.at(0)) {
  const auto [child_input, input] = Pipe();
  const auto [output, child_output] = Pipe();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, child_input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, child_output, STDOUT_FILENO);
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  const int error = posix_spawnp(&pid_, pointers[0], &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(child_input);
  close(child_output);
  input_ = input;
  output_ = output;
  if (error != 0) {
    close(input_);
    close(output_);
    throw std::system_error(error, std::generic_category(), name_);
  }
}

Process::~Process() {
  close(input_);
  close(output_);
  if (pid_ < 0) return;
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

bool Process::ReadMore() {
  pollfd waiting{output_, POLLIN, 0};
  if (poll(&waiting, 1, kLongestSilence) == 0) throw std::runtime_error(name_ + " takes too long");
  std::array<char, 4096> piece;
  const ssize_t length = read(output_, piece.data(), piece.size());
  if (length > 0) text_.append(piece.data(), static_cast<std::size_t>(length));
  return length > 0;
}

std::string Process::ReadLine() {
  while (text_.find('\n') == std::string::npos) {
    if (!ReadMore()) throw std::runtime_error(name_ + " ended without an answer");
  }
  const std::size_t end = text_.find('\n');
  std::string line = text_.substr(0, end);
  text_.erase(0, end + 1);
  return line;
}

std::string Process::Finish(double& cpu) {
  while (ReadMore()) {
  }
  int status = 0;
  rusage usage{};
  wait4(std::exchange(pid_, -1), &status, 0, &usage);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error(name_ + " failed");
  cpu = Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
  return text_;
}

}  // namespace bench
