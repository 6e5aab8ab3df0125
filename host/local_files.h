// Small whole files: reading with a limit, replacing without a moment of half content.
//
// Callable from any thread.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace host {

/// The file's content; "-" is standard input. Throws a kLocal Failure when it cannot be read or is
/// longer than `limit` bytes.
std::string ReadSmallFile(const std::filesystem::path& file, std::size_t limit);

/// As ReadSmallFile, but nothing for a file that does not exist.
std::optional<std::string> ReadSmallFileIfAny(const std::filesystem::path& file, std::size_t limit);

/// Gives `file` the content and mode 0600: written to `file`.new, flushed to the disk, renamed.
/// One caller at a time for one file. Throws a kLocal Failure; the old file then stands.
void ReplacePrivateFile(const std::filesystem::path& file, std::string_view content);

/// Writes all of it, however often the system takes only a part. False with errno set.
bool WriteAll(int fd, std::string_view data) noexcept;

/// Flushes the entries of a folder to the disk, as far as the file system can.
void SyncFolder(const std::filesystem::path& folder) noexcept;

}  // namespace host
