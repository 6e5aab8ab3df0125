// Reading and replacing whole files: reading with a limit, replacing atomically.
//
// Callable from any thread. Failures are std::system_error with the system's error number, unless a
// function says otherwise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace base {

/// Writes all of the text, with as many system calls as needed. Returns false with errno set.
bool WriteAll(int fd, std::string_view data) noexcept;
/// The same, at `offset` of the file.
bool WriteAllAt(int fd, std::int64_t offset, std::string_view data) noexcept;

/// Reads `fd` up to its end. More than `limit` bytes are EFBIG.
std::string ReadToEnd(int fd, std::size_t limit);

/// The file's content; empty optional if the file does not exist. Otherwise like ReadToEnd.
std::optional<std::string> ReadFileIfAny(const std::filesystem::path& file, std::size_t limit);

/// Replaces the content of `file` and sets `mode`: writes `file`.new, flushes it to the disk,
/// renames it. Readers see the old content or the new, never a part, and at no moment does the file
/// allow more than `mode`. One caller at a time for one file. On failure the old file is unchanged.
void ReplaceFile(const std::filesystem::path& file, std::string_view content, mode_t mode);

/// Flushes the entries of a folder to the disk, if the file system supports it.
void SyncFolder(const std::filesystem::path& folder) noexcept;

}  // namespace base
