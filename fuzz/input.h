// How fuzz targets take their input apart, and how they state what must hold.
//
// Inputs are lines, so that the corpus can be read and written by hand: a few lines with a meaning
// of their own, then the document under test.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Ends the program, in all kinds of builds, when what must hold does not.
inline void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  bool AtEnd() const { return rest_.empty(); }

  /// Up to the line feed or the first NUL of the line, so that it equals its C string.
  std::string Line() {
    const std::string_view line = rest_.substr(0, rest_.find('\n'));
    rest_.remove_prefix(std::min(line.size() + 1, rest_.size()));
    return std::string(line.substr(0, line.find('\0')));
  }

  /// All that is left, NULs included.
  std::string_view Rest() const { return rest_; }

 private:
  std::string_view rest_;
};

/// The number that a text begins with; 0 for none.
inline long long NumberIn(const std::string& text) {
  return std::strtoll(text.c_str(), nullptr, 10);
}

/// Ends at its NUL.
inline bool IsCText(const std::string& text) { return std::strlen(text.c_str()) == text.size(); }
