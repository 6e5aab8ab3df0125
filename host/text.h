// Text for people: names that are safe for a terminal, aligned columns, sizes.
//
// Pure functions, callable from any thread. None depends on the user's locale: texts are UTF-8 and
// numbers are written the C way.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace host {

/// Formats like printf, without a length limit.
[[gnu::format(printf, 1, 2)]] std::string Formatted(const char* format, ...);
std::string FormattedV(const char* format, std::va_list arguments);

/// `text` with everything escaped that could control a terminal or be invisible: control characters
/// as
/// `\n`, `\t` or `\u{..}`, direction marks as `\u{..}`, bytes that are not UTF-8 as `\x..`.
std::string EscapeForTerminal(std::string_view text);

/// 'text', escaped, for messages.
std::string Quoted(std::string_view text);

/// Width of an escaped text in terminal cells.
std::size_t DisplayWidth(std::string_view text);

/// `text` filled with blanks to `width` cells, at its right or (`right_aligned`) at its left.
std::string Padded(std::string_view text, std::size_t width, bool right_aligned = false);

/// The first `width` cells of an escaped text; "..." replaces the rest.
std::string Shortened(std::string_view text, std::size_t width);

/// "0 B", "999 B", "1.5 KiB", "12 MiB": three digits at most before the unit.
std::string HumanSize(std::uint64_t bytes);

/// Reads "500", "64k", "2M", "1G" (factors of 1024). Empty for other texts, zero or overflow.
std::optional<std::int64_t> ParseSize(std::string_view text);

/// "1:02:03" or "2:03".
std::string ClockTime(std::int64_t seconds);

}  // namespace host
