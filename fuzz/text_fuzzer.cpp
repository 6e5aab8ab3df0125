// Text helpers. Input: what is looked for, what replaces it, then the text.
#include <stdexcept>

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

void CheckReplace(const std::string& from, const std::string& to, const std::string& text) {
  std::string expected;
  std::size_t at = 0;
  for (std::size_t next; !from.empty() && (next = text.find(from, at)) != std::string::npos;) {
    expected.append(text, at, next - at).append(to);
    at = next + from.size();
  }
  expected.append(text, at);
  std::string replaced = text;
  replace_all(replaced, from, to);
  Require(replaced == expected, "every occurrence is replaced, and nothing else");
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
