#include "drive/names.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>

#include "base/utf8.h"
#include "drive/error.h"

namespace drive {
namespace {

constexpr std::size_t kLongestName = 255;

bool IsDeviceName(const std::string& key) {
  static constexpr std::array<std::string_view, 4> kNames = {"con", "prn", "aux", "nul"};
  if (std::find(kNames.begin(), kNames.end(), key) != kNames.end()) return true;
  const bool port = key.starts_with("com") || key.starts_with("lpt");
  return port && key.size() == 4 && key[3] >= '0' && key[3] <= '9';
}

/// Reserved by the service; `key` is the name in lower case.
bool IsReserved(const std::string& key) {
  return key == ".lock" || key == "desktop.ini" || key.starts_with("~$") ||
         key.find("_vti_") != std::string::npos || IsDeviceName(key);
}

bool HasForbiddenCharacter(std::string_view name) {
  return std::any_of(name.begin(), name.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F ||
           std::string_view("\"*:<>?/\\|").find(c) != std::string_view::npos;
  });
}

bool IsValidUtf8(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const base::CodePoint point = base::DecodeUtf8(text, at);
    if (!point.valid) return false;
    at += point.length;
  }
  return true;
}

/// The longest beginning of `text` of at most `units` UTF-16 units.
std::string_view Shortened(std::string_view text, std::size_t units) {
  std::size_t at = 0;
  while (at < text.size()) {
    const base::CodePoint point = base::DecodeUtf8(text, at);
    const std::size_t width = point.value > 0xFFFF ? 2 : 1;
    if (width > units) break;
    units -= width;
    at += point.length;
  }
  return text.substr(0, at);
}

}  // namespace

std::string NameKey(std::string_view name) { return base::FoldCase(name); }

std::size_t Utf16Length(std::string_view text) noexcept {
  std::size_t length = 0;
  for (std::size_t at = 0; at < text.size();) {
    const base::CodePoint point = base::DecodeUtf8(text, at);
    length += point.value > 0xFFFF ? 2 : 1;
    at += point.length;
  }
  return length;
}

void CheckName(std::string_view name) {
  const auto refuse = [&](const char* why) {
    throw Error(Reason::kInvalidName,
                "the service does not accept the name '" + base::ValidUtf8(name) + "': " + why);
  };
  if (name.empty() || name == "." || name == "..") refuse("it is not a name");
  if (Utf16Length(name) > kLongestName) {
    throw Error(Reason::kNameTooLong, "the name is longer than 255 characters");
  }
  if (!IsValidUtf8(name)) refuse("it is not UTF-8");
  if (HasForbiddenCharacter(name)) refuse("it holds one of \" * : < > ? / \\ | or a control code");
  if (name.front() == ' ' || name.back() == ' ') refuse("it begins or ends with a blank");
  if (name.back() == '.') refuse("it ends with a dot");
  if (IsReserved(NameKey(name))) refuse("it is reserved");
}

bool CanBeShown(std::string_view name) noexcept {
  return !name.empty() && name != "." && name != ".." && name.size() <= 1024 &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

std::string ConflictName(std::string_view name, std::string_view host, FileTime now, int attempt) {
  const std::time_t seconds =
      std::chrono::floor<std::chrono::seconds>(now).time_since_epoch().count();
  std::tm parts{};
  localtime_r(&seconds, &parts);
  std::array<char, 32> date{};
  const std::size_t length = std::strftime(date.data(), date.size(), "%Y-%m-%d", &parts);

  std::string mark = " (conflict ";
  // What a host may be called is looser than what a file may be called.
  for (const char c : host) mark += HasForbiddenCharacter({&c, 1}) ? '-' : c;
  mark += ' ';
  mark.append(date.data(), length);
  if (attempt > 1) mark += ' ' + std::to_string(attempt);
  mark += ')';

  const std::size_t dot = name.rfind('.');
  const bool has_extension = dot != std::string_view::npos && dot > 0 && name.size() - dot <= 16;
  const std::string_view extension = has_extension ? name.substr(dot) : std::string_view();
  const std::string_view stem = name.substr(0, name.size() - extension.size());
  const std::size_t room = kLongestName - Utf16Length(mark) - Utf16Length(extension);
  return std::string(Shortened(stem, room)) + mark + std::string(extension);
}

}  // namespace drive
