// A file of records that is appended to: a change costs what it is long, however much is kept. Each
// record is a line with a checksum, so that one a killed run left unfinished is known for what it
// is.
//
// Records outlive the process at once, and the machine after a Replace: between two of these
// nothing waits for the disk. Threads: one at a time. Lifetime: holds its file open.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

namespace emulator {

class Journal {
 public:
  /// Makes the file, readable to its owner alone, where there is none. Reads what is in it, and
  /// cuts off an unfinished record at its end. Throws std::runtime_error with a text for people,
  /// also when a record before the last is damaged.
  explicit Journal(std::filesystem::path file);

  /// What the file held when it was opened, in order; once.
  std::vector<std::string> TakeRecords() { return std::move(records_); }
  bool IsEmpty() const { return size_ == 0; }
  std::uint64_t Size() const { return size_; }  // bytes

  /// `record` holds no line feed. Whole or not at all: throws std::runtime_error.
  void Append(std::string_view record);
  /// Puts one record in the place of all: readers of the file see the old ones or the new one.
  void Replace(std::string_view record);

 private:
  void Open();
  void Read();

  const std::filesystem::path file_;
  base::UniqueFd fd_;
  std::uint64_t size_ = 0;
  std::vector<std::string> records_;
};

}  // namespace emulator
