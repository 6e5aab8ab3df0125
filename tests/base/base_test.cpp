// Hunts names that become others on their way through UTF-8, and documents that are taken for what
// they are not.
#include <gtest/gtest.h>

#include "base/json_text.h"
#include "base/utf8.h"

namespace base {
namespace {

TEST(Utf8, NamesFoldWithoutRegardToCaseAndKeepBrokenBytes) {
  const std::pair<const char*, const char*> cases[] = {
      {"Report.TXT", "report.txt"},
      {"ÜBER Straße ΣΑΣ", "über straße σασ"},
      {"\xC3", "\xC3"},
      {"\xC3Z", "\xC3z"},                // not a character of two bytes
      {"\xE4\xF6", "\xE4\xF6"},          // Latin 1
      {"\xC0\x81", "\xC0\x81"},          // overlong
      {"\xED\xA0\x80", "\xED\xA0\x80"},  // a surrogate
      {"\xF4\x90\x80\x80", "\xF4\x90\x80\x80"},
      {"\xF0\x90\x90\x80", "\xF0\x90\x90\xA8"},
  };
  for (const auto& [name, folded] : cases) EXPECT_EQ(FoldCase(name), folded) << name;
  EXPECT_NE(FoldCase("\xE4"), FoldCase("\xC3\xA4")) << "a byte is not the character it looks like";
}

TEST(Json, OwnDocumentsAreReadStrictlyAndForeignOnesAreNot) {
  struct Case {
    const char* text;
    bool strict;
    bool foreign;
  };
  for (const Case& c : {
           Case{"{\"a\":1}", true, true},
           {"{\"a\":1,\"a\":2}", false, true},
           {"{\"a\":1} // end", false, true},
           {"[1]", true, false},
           {"{\"a\":", false, false},
           {"", false, false},
       }) {
    EXPECT_EQ(ParseJson(c.text).has_value(), c.strict) << c.text;
    EXPECT_EQ(ParseJsonObject(c.text).has_value(), c.foreign) << c.text;
  }
  EXPECT_FALSE(ParseJsonObject(std::string(100'000, '[')));
}

}  // namespace
}  // namespace base
