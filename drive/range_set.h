// RangeSet: which bytes of a file are here. Ranges are half open and never touch each other.
//
// Not shared between threads without the owner's lock.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace drive {

struct Range {
  std::int64_t begin = 0;
  std::int64_t end = 0;

  std::int64_t length() const { return end - begin; }
  bool empty() const { return end <= begin; }
  bool operator==(const Range&) const = default;
};

class RangeSet {
 public:
  void Add(Range range);
  /// Forgets everything at and behind `end`.
  void Cut(std::int64_t end);
  bool Contains(Range range) const;
  /// The first part of `range` that is missing.
  std::optional<Range> FirstGap(Range range) const;
  std::int64_t Bytes() const;
  bool empty() const { return ranges_.empty(); }

  /// "0-4096,8192-12288", and back; anything else reads as an empty set.
  std::string ToText() const;
  static RangeSet FromText(std::string_view text);

 private:
  std::map<std::int64_t, std::int64_t> ranges_;  ///< begin to end
};

}  // namespace drive
