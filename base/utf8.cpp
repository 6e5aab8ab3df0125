#include "base/utf8.h"

#include <wctype.h>

namespace base {
namespace {

char32_t ToLower(char32_t c, locale_t locale) {
  if (locale == nullptr) return c >= 'A' && c <= 'Z' ? c + 32 : c;
  return static_cast<char32_t>(towlower_l(static_cast<wint_t>(c), locale));
}

}  // namespace

CodePoint DecodeUtf8(std::string_view text, std::size_t at) noexcept {
  const auto lead = static_cast<unsigned char>(text[at]);
  if (lead < 0x80) return {lead, 1, true};
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || length > text.size() - at) return {};
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

std::string ValidUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const CodePoint c = DecodeUtf8(text, at);
    AppendUtf8(out, c.valid ? c.value : 0xFFFD);
    at += c.length;
  }
  return out;
}

std::string FoldCase(std::string_view text) {
  const locale_t locale = Utf8Locale();
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const CodePoint c = DecodeUtf8(text, at);
    if (c.valid) {
      AppendUtf8(out, ToLower(c.value, locale));
    } else {
      out += text[at];
    }
    at += c.length;
  }
  return out;
}

locale_t Utf8Locale() noexcept {
  // Never freed: threads that outlive main may still need it.
  static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  return locale;
}

}  // namespace base
