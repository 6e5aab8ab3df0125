#include "drive/range_set.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace drive {

void RangeSet::Add(Range range) {
  if (range.empty()) return;
  auto next = ranges_.upper_bound(range.begin);
  if (next != ranges_.begin() && std::prev(next)->second >= range.begin) --next;
  while (next != ranges_.end() && next->first <= range.end) {
    range.begin = std::min(range.begin, next->first);
    range.end = std::max(range.end, next->second);
    next = ranges_.erase(next);
  }
  ranges_.emplace(range.begin, range.end);
}

void RangeSet::Cut(std::int64_t end) {
  ranges_.erase(ranges_.lower_bound(end), ranges_.end());
  if (!ranges_.empty()) {
    auto& last = ranges_.rbegin()->second;
    last = std::min(last, end);
  }
}

bool RangeSet::Contains(Range range) const { return !FirstGap(range).has_value(); }

std::optional<Range> RangeSet::FirstGap(Range range) const {
  if (range.empty()) return std::nullopt;
  auto next = ranges_.upper_bound(range.begin);
  if (next != ranges_.begin()) {
    range.begin = std::max(range.begin, std::prev(next)->second);
  }
  if (range.empty()) return std::nullopt;
  if (next != ranges_.end()) range.end = std::min(range.end, next->first);
  return range;
}

std::int64_t RangeSet::Bytes() const {
  std::int64_t bytes = 0;
  for (const auto& [begin, end] : ranges_) bytes += end - begin;
  return bytes;
}

std::string RangeSet::ToText() const {
  std::string text;
  for (const auto& [begin, end] : ranges_) {
    if (!text.empty()) text += ',';
    text += std::to_string(begin) + '-' + std::to_string(end);
  }
  return text;
}

RangeSet RangeSet::FromText(std::string_view text) {
  RangeSet set;
  const char* at = text.data();
  const char* const end = at + text.size();
  while (at != end) {
    Range range;
    const auto first = std::from_chars(at, end, range.begin);
    if (first.ec != std::errc{} || first.ptr == end || *first.ptr != '-') return {};
    const auto second = std::from_chars(first.ptr + 1, end, range.end);
    if (second.ec != std::errc{} || range.begin < 0 || range.empty()) return {};
    set.Add(range);
    at = second.ptr;
    if (at == end) break;
    if (*at != ',') return {};
    ++at;
  }
  return set;
}

}  // namespace drive
