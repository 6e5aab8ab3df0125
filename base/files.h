// Whole files and whole writes: reading with a limit, replacing without a moment of half content.
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

/// Writes all of it, however often the system takes only a part. False with errno set.
bool WriteAll(int fd, std::string_view data) noexcept;
/// The same, at `offset` of the file.
bool WriteAllAt(int fd, std::int64_t offset, std::string_view data) noexcept;

/// What follows in `fd` up to its end. More than `limit` bytes are EFBIG.
std::string ReadToEnd(int fd, std::size_t limit);

/// The file's content; nothing for a file that does not exist. As ReadToEnd.
std::optional<std::string> ReadFileIfAny(const std::filesystem::path& file, std::size_t limit);

/// Gives `file` the content and `mode`: written to `file`.new, flushed to the disk, renamed.
/// Readers see the old content or the new, never a part, and the file is never readable to more
/// than `mode` says. One caller at a time for one file. On failure the old file stands.
void ReplaceFile(const std::filesystem::path& file, std::string_view content, mode_t mode);

/// Flushes the entries of a folder to the disk, as far as the file system can.
void SyncFolder(const std::filesystem::path& folder) noexcept;

}  // namespace base
