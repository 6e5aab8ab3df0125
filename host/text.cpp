#include "host/text.h"

#include <clocale>
#include <cstdio>
#include <limits>

#include <locale.h>
#include <wchar.h>
#include <wctype.h>

namespace host {
namespace {

struct CodePoint {
  char32_t value = 0;
  std::size_t length = 1;  ///< bytes taken
  bool valid = false;
};

// RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF.
CodePoint Decode(std::string_view text, std::size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  if (lead < 0x80) return {lead, 1, true};
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || at + length > text.size()) return {};
  char32_t value = lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[at + i]);
    if ((next & 0xC0U) != 0x80) return {};
    value = (value << 6U) | (next & 0x3FU);
  }
  const bool overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
  const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
  if (overlong || surrogate || value > 0x10FFFF) return {};
  return {value, length, true};
}

void AppendUtf8(std::string& out, char32_t value) {
  const auto byte = [&out](char32_t bits) { out += static_cast<char>(bits); };
  if (value < 0x80) {
    byte(value);
  } else if (value < 0x800) {
    byte(0xC0 | (value >> 6U));
    byte(0x80 | (value & 0x3FU));
  } else if (value < 0x10000) {
    byte(0xE0 | (value >> 12U));
    byte(0x80 | ((value >> 6U) & 0x3FU));
    byte(0x80 | (value & 0x3FU));
  } else {
    byte(0xF0 | (value >> 18U));
    byte(0x80 | ((value >> 12U) & 0x3FU));
    byte(0x80 | ((value >> 6U) & 0x3FU));
    byte(0x80 | (value & 0x3FU));
  }
}

// Controls (C0, DEL, C1), line and paragraph separators, and the marks that reorder or hide what is
// shown (Unicode's bidirectional formatting characters, the byte order mark).
bool IsUnsafe(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x200B || c == 0x200E || c == 0x200F ||
         (c >= 0x2028 && c <= 0x202E) || (c >= 0x2060 && c <= 0x206F) || c == 0x061C || c == 0xFEFF;
}

/// The character tables of Unicode, whatever the user's locale is.
class CharacterTables {
 public:
  CharacterTables() : locale_(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)) {}
  ~CharacterTables() {
    if (locale_ != nullptr) freelocale(locale_);
  }
  CharacterTables(const CharacterTables&) = delete;
  CharacterTables& operator=(const CharacterTables&) = delete;

  char32_t ToLower(char32_t c) const {
    if (locale_ == nullptr) return c >= 'A' && c <= 'Z' ? c + 32 : c;
    return static_cast<char32_t>(towlower_l(static_cast<wint_t>(c), locale_));
  }

  /// wcwidth has no variant that takes a locale, so this thread's is exchanged around it.
  std::size_t Width(char32_t c) const {
    if (c < 0x7F || locale_ == nullptr) return 1;
    const locale_t before = uselocale(locale_);
    const int width = wcwidth(static_cast<wchar_t>(c));
    uselocale(before);
    return width < 0 ? 1 : static_cast<std::size_t>(width);
  }

 private:
  locale_t locale_;
};

const CharacterTables& Tables() {
  static const CharacterTables tables;
  return tables;
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
    const CodePoint c = Decode(text, at);
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
    const CodePoint c = Decode(text, at);
    width += c.valid ? Tables().Width(c.value) : 1;
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
    const CodePoint c = Decode(text, at);
    const std::size_t cells = c.valid ? Tables().Width(c.value) : 1;
    if (used + cells > width) break;
    used += cells;
    at += c.length;
  }
  return std::string(text.substr(0, at)) + (width > kDots ? "..." : "");
}

std::string ValidUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const CodePoint c = Decode(text, at);
    AppendUtf8(out, c.valid ? c.value : 0xFFFD);
    at += c.length;
  }
  return out;
}

std::string FoldCase(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const CodePoint c = Decode(text, at);
    if (c.valid) {
      AppendUtf8(out, Tables().ToLower(c.value));
    } else {
      out += text[at];
    }
    at += c.length;
  }
  return out;
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
