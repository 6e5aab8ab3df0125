// Text helpers. Input: what is looked for, what replaces it, then the text.
#include <algorithm>
#include <stdexcept>
#include <vector>

#include "fuzz/input.h"
#include "helpers/text.h"
#include "support/text.h"

namespace {

void CheckSplit(const std::string& text) {
  static const std::regex kSlash("/");
  const std::vector<std::string> pieces = split(text, kSlash);
  const std::vector<std::string_view> views = onedrive4b::SplitAtSlash(text);
  Require(std::equal(pieces.begin(), pieces.end(), views.begin(), views.end()),
          "a path is cut as the expression cuts it");
}

// Marks every character with the replacement that inserted it, 0 for none.
void CheckReplace(const std::string& from, const std::string& to, const std::string& text) {
  std::string expected = text;
  std::vector<std::size_t> origin(text.size(), 0);
  std::size_t replacements = 0;
  for (std::size_t at = 0; !from.empty() && at + from.size() <= expected.size();) {
    const auto begin = origin.begin() + static_cast<std::ptrdiff_t>(at);
    const auto end = begin + static_cast<std::ptrdiff_t>(from.size());
    const bool inside = *begin != 0 && std::all_of(begin, end, [&](auto o) { return o == *begin; });
    if (inside || expected.compare(at, from.size(), from) != 0) {
      ++at;
      continue;
    }
    expected.replace(at, from.size(), to);
    origin.insert(origin.erase(begin, end), to.size(), ++replacements);
    at += from.size();
  }
  std::string replaced = text;
  replace_all(replaced, from, to);
  Require(replaced == expected, "what is replaced, and what is passed over");
  Require(ends_with(text + from, from), "a text ends with what it was given");
}

void CheckWide(const std::string& text) {
  try {
    Require(ws2s(s2ws(text)) == text, "what converts converts back");
  } catch (const std::range_error&) {
  }
}

void CheckStrip(const std::string& text) {
  std::string expected = text.substr(0, text.find('\0'));
  expected.erase(0, expected.find_first_not_of(' '));
  expected.erase(expected.find_last_not_of(' ') + 1);
  std::string apart(text.size() + 1, 'x');
  std::string source = text;
  strip(source.data(), apart.data());
  Require(std::string_view(apart).starts_with(expected + '\0'), "spaces at both ends go");
  source.push_back('\0');
  strip(source.data(), source.data());
  Require(std::string_view(source).starts_with(expected + '\0'), "in place, too");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const std::string from = input.Line();
  const std::string to = input.Line();
  const std::string text(input.Rest());
  CheckSplit(text);
  CheckReplace(from, to, text);
  CheckWide(text);
  CheckStrip(text);
  Require(string_format("%s|%d", from.c_str(), 7) == from + "|7", "formatted as printf does");
  return 0;
}
