#include "host/text.h"

#include <cstdio>
#include <limits>

#include <locale.h>
#include <wchar.h>

#include "base/utf8.h"

namespace host {
namespace {

// Controls (C0, DEL, C1), line and paragraph separators, and the marks that reorder or hide what is
// shown (Unicode's bidirectional formatting characters, the byte order mark).
bool IsUnsafe(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x200B || c == 0x200E || c == 0x200F ||
         (c >= 0x2028 && c <= 0x202E) || (c >= 0x2060 && c <= 0x206F) || c == 0x061C || c == 0xFEFF;
}

/// wcwidth has no variant that takes a locale, so this thread's is exchanged around it.
std::size_t Width(char32_t c) {
  const locale_t locale = base::Utf8Locale();
  if (c < 0x7F || locale == nullptr) return 1;
  const locale_t before = uselocale(locale);
  const int width = wcwidth(static_cast<wchar_t>(c));
  uselocale(before);
  return width < 0 ? 1 : static_cast<std::size_t>(width);
}

}  // namespace

std::string Formatted(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::string text = FormattedV(format, arguments);
  va_end(arguments);
  return text;
}

std::string FormattedV(const char* format, std::va_list arguments) {
  std::va_list again;
  va_copy(again, arguments);
  // The analyzer does not follow va_copy.
  const int length = std::vsnprintf(nullptr, 0, format, again);  // NOLINT(*valist*)
  va_end(again);
  if (length <= 0) return {};
  std::string text(static_cast<std::size_t>(length), '\0');
  const int written = std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  return written == length ? text : std::string();
}

std::string EscapeForTerminal(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const base::CodePoint c = base::DecodeUtf8(text, at);
    if (!c.valid) {
      out += Formatted("\\x%02X", static_cast<unsigned char>(text[at]));
    } else if (c.value == '\n') {
      out += "\\n";
    } else if (c.value == '\t') {
      out += "\\t";
    } else if (IsUnsafe(c.value)) {
      out += Formatted("\\u{%X}", static_cast<unsigned>(c.value));
    } else {
      out += text.substr(at, c.length);
    }
    at += c.length;
  }
  return out;
}

std::string Quoted(std::string_view text) { return "'" + EscapeForTerminal(text) + "'"; }

std::size_t DisplayWidth(std::string_view text) {
  std::size_t width = 0;
  for (std::size_t at = 0; at < text.size();) {
    const base::CodePoint c = base::DecodeUtf8(text, at);
    width += c.valid ? Width(c.value) : 1;
    at += c.length;
  }
  return width;
}

std::string Padded(std::string_view text, std::size_t width, bool right_aligned) {
  const std::size_t own = DisplayWidth(text);
  const std::string blanks(own < width ? width - own : 0, ' ');
  return right_aligned ? blanks + std::string(text) : std::string(text) + blanks;
}

std::string Shortened(std::string_view text, std::size_t width) {
  if (DisplayWidth(text) <= width) return std::string(text);
  constexpr std::size_t kDots = 3;
  std::size_t used = width > kDots ? kDots : 0;
  std::size_t at = 0;
  while (at < text.size()) {
    const base::CodePoint c = base::DecodeUtf8(text, at);
    const std::size_t cells = c.valid ? Width(c.value) : 1;
    if (used + cells > width) break;
    used += cells;
    at += c.length;
  }
  return std::string(text.substr(0, at)) + (width > kDots ? "..." : "");
}

std::string HumanSize(std::uint64_t bytes) {
  static constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1000) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  while (value >= 999.5 && unit + 1 < std::size(kUnits)) {
    value /= 1024;
    ++unit;
  }
  return Formatted("%.*f %s", value < 9.95 ? 1 : 0, value, kUnits[unit]);
}

std::optional<std::int64_t> ParseSize(std::string_view text) {
  std::int64_t value = 0;
  std::size_t at = 0;
  constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
    const int digit = text[at] - '0';
    if (value > (kMost - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  if (at == 0 || value == 0 || text.size() - at > 1) return std::nullopt;
  if (at == text.size()) return value;
  const std::size_t power = std::string_view("kKmMgG").find(text[at]);
  if (power == std::string_view::npos) return std::nullopt;
  const std::int64_t factor = std::int64_t{1} << (10 * (power / 2 + 1));
  if (value > kMost / factor) return std::nullopt;
  return value * factor;
}

std::string ClockTime(std::int64_t seconds) {
  const auto minutes = static_cast<long long>(seconds / 60);
  const int rest = static_cast<int>(seconds % 60);
  if (minutes < 60) return Formatted("%lld:%02d", minutes, rest);
  return Formatted("%lld:%02lld:%02d", minutes / 60, minutes % 60, rest);
}

}  // namespace host
