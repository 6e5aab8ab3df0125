// Small whole files of the host, with failures that name them.
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

/// Like ReadSmallFile, but an empty optional if the file does not exist.
std::optional<std::string> ReadSmallFileIfAny(const std::filesystem::path& file, std::size_t limit);

/// base::ReplaceFile with mode 0600. Throws a kLocal Failure; the old file is unchanged then.
void ReplacePrivateFile(const std::filesystem::path& file, std::string_view content);

}  // namespace host
