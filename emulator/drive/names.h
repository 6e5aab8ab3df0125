// Rules of item names: which are allowed, which are equal, and what a renamed duplicate is called.
// Threads: all functions are pure. Lifetime: results own their text.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace emulator {

/// Two names are the same item's when their folded forms are equal (the service ignores case).
std::string FoldName(std::string_view name);

/// Public documentation, "Restrictions and limitations": UTF-8 with none of / \ : * ? " < > | and
/// no control characters, at most 255 UTF-16 units, no space at either end and no dot at the end,
/// not
/// "_vti_" anywhere, not "~$" at the start, and none of the reserved names, whatever the case.
bool IsValidName(std::string_view name);

/// UTF-16 units of the longest path, with the slashes between the names.
inline constexpr std::size_t kLongestPath = 400;
std::size_t Utf16Length(std::string_view text);

/// "report.txt", 2 -> "report 2.txt"
std::string NumberedName(const std::string& name, int number);

/// By the extension; "application/octet-stream" when it is not known.
std::string MimeType(std::string_view name);

}  // namespace emulator
