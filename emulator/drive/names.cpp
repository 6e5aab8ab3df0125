#include "emulator/drive/names.h"

#include <algorithm>
#include <array>
#include <utility>

#include "base/utf8.h"

namespace emulator {

std::string FoldName(std::string_view name) { return base::FoldCase(name); }

namespace {

/// COM0 to COM9, LPT0 to LPT9.
bool IsPort(std::string_view folded) {
  return folded.size() == 4 && (folded.starts_with("com") || folded.starts_with("lpt")) &&
         folded[3] >= '0' && folded[3] <= '9';
}

bool IsReserved(std::string_view folded) {
  constexpr std::array<std::string_view, 6> kReserved = {".lock", "con", "prn",
                                                         "aux",   "nul", "desktop.ini"};
  return std::find(kReserved.begin(), kReserved.end(), folded) != kReserved.end() ||
         IsPort(folded) || folded.starts_with("~$") ||
         folded.find("_vti_") != std::string_view::npos;
}

}  // namespace

bool IsValidName(std::string_view name) {
  constexpr std::string_view kForbidden = "/\\:*?\"<>|";
  constexpr std::size_t kLongestName = 255;
  if (name.empty() || name.back() == '.' || name.back() == ' ' || name.front() == ' ') return false;
  const auto bad = [&](char c) {
    return static_cast<unsigned char>(c) < 0x20 || kForbidden.find(c) != std::string_view::npos;
  };
  return std::none_of(name.begin(), name.end(), bad) && base::ValidUtf8(name) == name &&
         Utf16Length(name) <= kLongestName && !IsReserved(FoldName(name));
}

std::size_t Utf16Length(std::string_view text) {
  std::size_t length = 0;
  for (std::size_t at = 0; at < text.size();) {
    const base::CodePoint point = base::DecodeUtf8(text, at);
    length += point.value > 0xFFFF ? 2 : 1;
    at += point.length;
  }
  return length;
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
