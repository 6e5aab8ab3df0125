// What operations read from and write into memory of the host.
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

/// Never null, for "%s" and for copying.
inline const char* TextOrEmpty(const char* text) { return text != nullptr ? text : ""; }

/// Now, as the host shows it for synthesised folders: local wall time in RFC 3339 form.
std::string LocalTimeText();

/// Gives the record one time for all three.
void SetTimes(_FS_FILE_V2& file, const std::string& time);

}  // namespace onedrive4b
