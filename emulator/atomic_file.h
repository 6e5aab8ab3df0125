// Small files that others read while they are written.
// Threads: callable from any, for different paths. Lifetime: nothing is kept.
#pragma once

#include <filesystem>
#include <string_view>

#include <sys/types.h>

namespace emulator {

/// Readers see the old text or the new, never a part. The file is never readable to more than
/// `mode` says. Throws std::runtime_error with a text for people.
void ReplaceFile(const std::filesystem::path& path, std::string_view text, mode_t mode);

}  // namespace emulator
