// Runs a fuzz target over the files of the given folders: what the fuzzer once found stays found.
// Fails when a folder holds no file.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/input.h"

namespace {

bool Replay(const std::filesystem::path& path) {
  // Named first, so that the last name is the culprit's.
  std::printf("%s\n", path.c_str());
  std::fflush(stdout);
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  if (!file.good() && !file.eof()) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  return true;
}

std::vector<std::filesystem::path> FilesIn(const char* folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 2) {
    std::fprintf(stderr, "usage: %s FOLDER...\n", arguments[0]);
    return EXIT_FAILURE;
  }
  for (int index = 1; index < count; ++index) {
    const std::vector<std::filesystem::path> files = FilesIn(arguments[index]);
    if (files.empty()) {
      std::fprintf(stderr, "no files in %s\n", arguments[index]);
      return EXIT_FAILURE;
    }
    if (!std::all_of(files.begin(), files.end(), Replay)) return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
