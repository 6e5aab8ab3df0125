#include "helpers/system.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include <sys/stat.h>

namespace {

constexpr mode_t kDirectoryMode = 0755;
constexpr std::size_t kPiece = 127;

bool MakeDirectory(const std::string& path) {
  if (mkdir(path.c_str(), kDirectoryMode) == 0 || errno == EEXIST) return true;
  errno = ENOTDIR;
  return false;
}

struct ClosePipe {
  void operator()(std::FILE* stream) const { pclose(stream); }
};

}  // namespace

bool CreateDirectoryRecursively(std::string path) {
  // The search starts behind the first character: the root needs no creating.
  for (std::size_t at = 1; (at = path.find_first_of("/\\", at)) != std::string::npos; ++at) {
    if (!MakeDirectory(path.substr(0, at))) return false;
  }
  return MakeDirectory(path);
}

std::string pexec(std::string command) {
  // NOLINTNEXTLINE(cert-env33-c): running a command is what it is for
  const std::unique_ptr<std::FILE, ClosePipe> stream(popen(command.c_str(), "re"));
  if (!stream) throw std::runtime_error("popen() failed!");
  std::string output;
  std::array<char, kPiece> piece;
  while (const std::size_t read = std::fread(piece.data(), 1, piece.size(), stream.get())) {
    output.append(piece.data(), read);
  }
  return output;
}
