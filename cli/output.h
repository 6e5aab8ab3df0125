// Output: standard output with error checks, and text in columns.
//
// One thread at a time. The descriptor is the caller's and must stay open.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace cli {

class Output {
 public:
  explicit Output(int fd) : fd_(fd) {}

  /// Buffered. Throws a kLocal Failure when the output cannot be written (a full disk, a closed
  /// pipe).
  void Write(std::string_view text);
  void Flush();

  int fd() const noexcept { return fd_; }

 private:
  int fd_;
  std::string buffer_;
};

/// Rows of cells that are written so that columns line up. The last column is never padded.
class Table {
 public:
  /// `right_aligned` columns, by index, get their blanks at the left.
  explicit Table(std::vector<bool> right_aligned) : right_aligned_(std::move(right_aligned)) {}

  /// Cells are escaped texts, one for each column.
  void Add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  void WriteTo(Output& out) const;

 private:
  std::vector<bool> right_aligned_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace cli
