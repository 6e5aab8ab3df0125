// Rules of item names: which are allowed, which are equal, and what a renamed duplicate is called.
// Threads: all functions are pure. Lifetime: results own their text.
#pragma once

#include <string>
#include <string_view>

namespace emulator {

/// Two names are the same item's when their folded forms are equal (the service ignores case).
std::string FoldName(std::string_view name);

/// Public documentation, "Restrictions and limitations": none of / \ : * ? " < > |, no control
/// characters, not empty, no space or dot at the end, at most 255 characters.
bool IsValidName(std::string_view name);

/// "report.txt", 2 -> "report 2.txt"
std::string NumberedName(const std::string& name, int number);

/// By the extension; "application/octet-stream" when it is not known.
std::string MimeType(std::string_view name);

}  // namespace emulator
