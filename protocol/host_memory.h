// Helpers to read and write the host's memory.
#pragma once

#include <cstdint>
#include <string>

#include "onedrive4b/aerror.h"
#include "onedrive4b/records.h"

namespace onedrive4b {

/// Kinds of items, in a record's `attr`.
inline constexpr std::uint32_t kFile = 1;
inline constexpr std::uint32_t kFolder = 2;
inline constexpr std::uint32_t kSynthesisedFolder = 0x42;

/// The text, or "" for null.
inline const char* TextOrEmpty(const char* text) { return text != nullptr ? text : ""; }

/// The current time for synthesised folders: local wall time in RFC 3339 form.
std::string LocalTimeText();

/// Sets all three times of the record.
void SetTimes(_FS_FILE_V2& file, const std::string& time);

}  // namespace onedrive4b
