// What tests of host and command line share: a folder of its own for each test, and the kind of
// failure that something ends with.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "host/failure.h"

namespace host {

/// A folder of its own for each test, removed afterwards.
class FolderTest : public testing::Test {
 protected:
  ~FolderTest() override { std::filesystem::remove_all(folder_); }

  std::filesystem::path Write(const std::string& name, const std::string& content) const {
    std::ofstream(folder_ / name, std::ios::binary) << content;
    return folder_ / name;
  }
  static std::string Read(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  std::set<std::string> Names() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_))
      names.insert(entry.path().filename());
    return names;
  }
  static unsigned Mode(const std::filesystem::path& file) {
    struct stat status {};
    stat(file.c_str(), &status);
    return status.st_mode & 07777U;
  }

  static std::filesystem::path MakeFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "onedrive4b_test.XXXXXX").string();
    return mkdtemp(name.data());
  }

  const std::filesystem::path folder_ = MakeFolder();
};

template <typename Function>
std::optional<FailureKind> KindOf(Function function) {
  try {
    function();
  } catch (const Failure& failure) {
    return failure.kind();
  }
  return std::nullopt;
}

}  // namespace host
