#include "emulator/drive/names.h"

#include <algorithm>
#include <array>
#include <utility>

#include "base/utf8.h"

namespace emulator {

std::string FoldName(std::string_view name) { return base::FoldCase(name); }

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

}  // namespace emulator
