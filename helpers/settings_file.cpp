#include "helpers/settings_file.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <strings.h>

#include "helpers/text.h"

namespace {

constexpr std::size_t kLineBuffer = 2048;
constexpr std::size_t kLongestSection = 1021;
constexpr std::size_t kLongestName = 1023;

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

void CopyOut(std::string_view text, char* out, int size) {
  if (out == nullptr || size <= 0) return;
  const std::size_t length = text.copy(out, static_cast<std::size_t>(size) - 1);
  out[length] = '\0';
}

// The next line without its line end; a line longer than the buffer comes in pieces.
std::optional<std::string> ReadLine(std::FILE* file) {
  std::array<char, kLineBuffer> buffer;
  if (std::fgets(buffer.data(), buffer.size(), file) == nullptr) return std::nullopt;
  std::string line = buffer.data();
  line.erase(line.find_last_not_of("\r\n") + 1);
  return line;
}

std::optional<std::string> ValueIfNamed(const std::string& line, const char* key) {
  const std::size_t equals = line.find('=');
  if (equals == std::string::npos) return std::nullopt;
  std::string name = line.substr(0, std::min(equals, kLongestName));
  strip(name.data(), name.data());
  if (strcasecmp(name.c_str(), key) != 0) return std::nullopt;
  const std::size_t value = line.find_first_not_of(' ', equals + 1);
  return value == std::string::npos ? std::string() : line.substr(value);
}

std::optional<std::string> Find(std::FILE* file, const char* section, const char* key) {
  const std::string header = "[" + std::string(section).substr(0, kLongestSection) + "]";
  bool inside = false;
  while (const std::optional<std::string> line = ReadLine(file)) {
    if (!inside) {
      inside = strcasecmp(line->c_str(), header.c_str()) == 0;
      continue;
    }
    if (line->starts_with('[')) break;
    if (std::optional<std::string> value = ValueIfNamed(*line, key)) return value;
  }
  return std::nullopt;
}

}  // namespace

bool GetPrivateProfileString(char* section, char* key, char* defaultValue, char* out, int size,
                             char* path) {
  std::optional<std::string> value;
  if (section != nullptr && key != nullptr && path != nullptr) {
    if (const File file{std::fopen(path, "re")}) value = Find(file.get(), section, key);
  }
  if (value) {
    CopyOut(*value, out, size);
  } else {
    CopyOut(defaultValue != nullptr ? defaultValue : "", out, size);
  }
  return value.has_value();
}
