// Decodes and encodes UTF-8 (RFC 3629), and folds case.
//
// Pure functions, callable from any thread. None depends on the user's locale.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <locale.h>

namespace base {

struct CodePoint {
  char32_t value = 0;
  std::size_t length = 1;  ///< bytes of the character
  bool valid = false;      ///< false: one byte that is not part of a character
};

/// The character that begins at `at`, which is below the text's size. Overlong forms, surrogates
/// and values above U+10FFFF are not valid.
CodePoint DecodeUtf8(std::string_view text, std::size_t at) noexcept;

void AppendUtf8(std::string& out, char32_t value);

/// `text` with each invalid byte replaced by U+FFFD.
std::string ValidUtf8(std::string_view text);

/// Lower-case form, for comparing names without regard to case. Invalid bytes are unchanged, so two
/// texts that differ in them stay different.
std::string FoldCase(std::string_view text);

/// Unicode's character tables, independent of the user's locale; null if the system has none.
locale_t Utf8Locale() noexcept;

}  // namespace base
