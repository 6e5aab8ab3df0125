// Settings files, against a reading of the rules on the whole text. Input: section, key and size of
// the caller's buffer, then the file.
#include <memory>
#include <string>

#include <strings.h>
#include <sys/mman.h>
#include <unistd.h>

#include "fuzz/input.h"
#include "helpers/settings_file.h"

namespace {

constexpr const char* kDefault = "the default";
constexpr std::size_t kLongestLine = 1023;  // lines that the reader takes whole
constexpr int kLargestBuffer = 4096;

// A file in memory, kept for all inputs, under a name that can be opened.
class MemoryFile {
 public:
  MemoryFile() : descriptor_(memfd_create("settings", 0)) {
    Require(descriptor_ >= 0, "there is a file in memory");
  }

  std::string Hold(std::string_view text) const {
    Require(ftruncate(descriptor_, 0) == 0 && pwrite(descriptor_, text.data(), text.size(), 0) ==
                                                  static_cast<ssize_t>(text.size()),
            "the file takes its text");
    return "/proc/self/fd/" + std::to_string(descriptor_);
  }

 private:
  int descriptor_;
};

std::string Trimmed(std::string text) {
  text.erase(0, text.find_first_not_of(' '));
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

bool SameText(const std::string& a, const std::string& b) {
  return strcasecmp(a.c_str(), b.c_str()) == 0;
}

// What the lookup gives; `known` is false for what the reference does not cover.
std::string Expected(std::string_view text, const std::string& section, const std::string& key,
                     bool& found, bool& known) {
  found = false;
  FuzzInput file(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  known = text.find('\0') == std::string_view::npos && section.size() < kLongestLine;
  bool inside = false;
  while (!file.AtEnd()) {
    std::string line = file.Line();
    known = known && line.size() <= kLongestLine;
    while (line.ends_with('\r')) line.pop_back();
    if (!inside) {
      inside = SameText(line, "[" + section + "]");
    } else if (line.starts_with('[')) {
      return kDefault;
    } else if (const std::size_t equals = line.find('='); equals != std::string::npos) {
      if (!SameText(Trimmed(line.substr(0, equals)), key)) continue;
      found = true;
      const std::string value = line.substr(equals + 1);
      return value.substr(std::min(value.find_first_not_of(' '), value.size()));
    }
  }
  return kDefault;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const MemoryFile memory;
  FuzzInput input(data, size);
  std::string section = input.Line();
  std::string key = input.Line();
  const int room = static_cast<int>(NumberIn(input.Line()) % kLargestBuffer);
  std::string path = memory.Hold(input.Rest());
  std::string fallback = kDefault;
  const auto capacity = static_cast<std::size_t>(std::max(room, 0));
  const std::unique_ptr<char[]> out(new char[capacity]);
  const bool found = GetPrivateProfileString(section.data(), key.data(), fallback.data(), out.get(),
                                             room, path.data());
  bool expect_found = false;
  bool known = false;
  const std::string value = Expected(input.Rest(), section, key, expect_found, known);
  if (known) Require(found == expect_found, "a value is found where there is one");
  if (capacity == 0) return 0;
  Require(std::memchr(out.get(), '\0', capacity) != nullptr, "the text ends in its buffer");
  if (known) Require(out.get() == value.substr(0, capacity - 1), "the value is the file's");
  return 0;
}
