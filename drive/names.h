// Names: which names the service accepts, how they are compared, and how a conflict is named.
//
// Pure functions, callable from any thread.
// Source: "Invalid file names and file types in OneDrive and SharePoint", the operator's public
// support page.
#pragma once

#include <string>
#include <string_view>

#include "drive/item.h"

namespace drive {

/// Longest path below the drive's top that the service accepts, in UTF-16 units.
inline constexpr std::size_t kLongestPath = 400;

/// What names are compared by: two names with the same key cannot stand in one folder.
std::string NameKey(std::string_view name);

/// Length in UTF-16 units, in which the service counts.
std::size_t Utf16Length(std::string_view text) noexcept;

/// Throws Error, kInvalidName or kNameTooLong, for a name that the service does not accept.
void CheckName(std::string_view name);

/// Whether a name that came from the service can be an entry of a folder here.
bool CanBeShown(std::string_view name) noexcept;

/// "NAME (conflict HOST DATE).EXT", with a number behind the date when `attempt` is above 1;
/// shortened so that the service accepts it.
std::string ConflictName(std::string_view name, std::string_view host, FileTime now, int attempt);

}  // namespace drive
