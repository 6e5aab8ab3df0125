#include "emulator/names.h"

#include <algorithm>
#include <array>
#include <clocale>
#include <cwchar>
#include <cwctype>
#include <utility>

#include <locale.h>
#include <strings.h>

namespace emulator {
namespace {

/// Unicode's case tables without touching the process's locale.
class Utf8Locale {
 public:
  Utf8Locale() : locale_(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)) {}
  ~Utf8Locale() {
    if (locale_ != nullptr) freelocale(locale_);
  }
  Utf8Locale(const Utf8Locale&) = delete;
  Utf8Locale& operator=(const Utf8Locale&) = delete;

  char32_t Lower(char32_t c) const {
    const auto wide = static_cast<wint_t>(c);
    return static_cast<char32_t>(locale_ == nullptr ? std::towlower(wide)
                                                    : towlower_l(wide, locale_));
  }

 private:
  locale_t locale_;
};

/// Takes one character off the front; a byte that starts none stands for itself.
char32_t TakeCharacter(std::string_view& text) {
  const auto first = static_cast<unsigned char>(text.front());
  std::size_t length = 1;
  if (first >= 0xF0) {
    length = 4;
  } else if (first >= 0xE0) {
    length = 3;
  } else if (first >= 0xC0) {
    length = 2;
  }
  if (length == 1 || text.size() < length) {
    text.remove_prefix(1);
    return first;
  }
  char32_t c = first & (0xFFU >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    c = (c << 6U) | (static_cast<unsigned char>(text[i]) & 0x3FU);
  }
  text.remove_prefix(length);
  return c;
}

void AppendUtf8(char32_t c, std::string& text) {
  const auto tail = [&](unsigned shift) {
    text += static_cast<char>(0x80U | ((c >> shift) & 0x3FU));
  };
  if (c < 0x80) {
    text += static_cast<char>(c);
  } else if (c < 0x800) {
    text += static_cast<char>(0xC0U | (c >> 6U));
    tail(0);
  } else if (c < 0x10000) {
    text += static_cast<char>(0xE0U | (c >> 12U));
    tail(6);
    tail(0);
  } else {
    text += static_cast<char>(0xF0U | (c >> 18U));
    tail(12);
    tail(6);
    tail(0);
  }
}

}  // namespace

std::string FoldName(std::string_view name) {
  static const Utf8Locale locale;
  std::string folded;
  folded.reserve(name.size());
  while (!name.empty()) AppendUtf8(locale.Lower(TakeCharacter(name)), folded);
  return folded;
}

bool IsValidName(std::string_view name) {
  constexpr std::string_view kForbidden = "/\\:*?\"<>|";
  constexpr std::size_t kMaxCharacters = 255;
  if (name.empty() || name.back() == '.' || name.back() == ' ' || name.front() == ' ') return false;
  const auto bad = [&](char c) {
    return static_cast<unsigned char>(c) < 0x20 || kForbidden.find(c) != std::string_view::npos;
  };
  if (std::any_of(name.begin(), name.end(), bad)) return false;
  const auto starts = std::count_if(name.begin(), name.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U;
  });
  return static_cast<std::size_t>(starts) <= kMaxCharacters;
}

std::string NumberedName(const std::string& name, int number) {
  const auto dot = name.rfind('.');
  const auto stem_length = dot == std::string::npos || dot == 0 ? name.size() : dot;
  return name.substr(0, stem_length) + " " + std::to_string(number) + name.substr(stem_length);
}

std::string MimeType(std::string_view name) {
  using Entry = std::pair<std::string_view, std::string_view>;
  static constexpr std::array<Entry, 14> kTypes = {{
      {".txt", "text/plain"},
      {".md", "text/markdown"},
      {".csv", "text/csv"},
      {".html", "text/html"},
      {".json", "application/json"},
      {".xml", "text/xml"},
      {".svg", "image/svg+xml"},
      {".png", "image/png"},
      {".jpg", "image/jpeg"},
      {".pdf", "application/pdf"},
      {".zip", "application/zip"},
      {".docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
      {".xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
      {".pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
  }};
  const std::string folded = FoldName(name);
  const auto* const found = std::find_if(kTypes.begin(), kTypes.end(), [&](const Entry& entry) {
    return folded.ends_with(entry.first);
  });
  return std::string(found == kTypes.end() ? "application/octet-stream" : found->second);
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace emulator
