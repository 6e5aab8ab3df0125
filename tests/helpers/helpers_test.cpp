// Hunts helpers that cut, match or create the wrong thing.
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "helpers/option_item.h"
#include "helpers/settings_file.h"
#include "helpers/system.h"
#include "helpers/text.h"
#include "helpers/wildcard.h"
#include "support/proxy_kind.h"
#include "support/text.h"

namespace {

namespace fs = std::filesystem;

class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (fs::temp_directory_path() / "onedrive4b-test-XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() { fs::remove_all(path_); }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

TEST(Text, SplitsAlikeWithAndWithoutRegularExpression) {
  struct Case {
    const char* text;
    std::vector<std::string> pieces;
  };
  for (const Case& c : {
           Case{"/a//b", {"", "a", "", "b"}},
           {"a/", {"a"}},
           {"", {""}},
           {"/", {""}},
           {"//", {"", ""}},
           {"a", {"a"}},
           {"b!x9/01DEF", {"b!x9", "01DEF"}},
       }) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(split(c.text, std::regex("\\/")), c.pieces);
    const auto views = onedrive4b::SplitAtSlash(c.text);
    EXPECT_EQ(std::vector<std::string>(views.begin(), views.end()), c.pieces);
  }
  EXPECT_EQ(split(std::wstring(L"a, b"), std::wregex(L", ")),
            (std::vector<std::wstring>{L"a", L"b"}));
}

TEST(Text, FormatsTextLongerThanItsFirstBuffer) {
  const std::string longer(5000, 'x');
  EXPECT_EQ(string_format("%s", longer.c_str()), longer);
  EXPECT_EQ(string_format("%d-%s|", 12, "ab"), "12-ab|");
  EXPECT_EQ(string_format("%s%s", "1234", ""), "1234");  // exactly as long as the buffer
  EXPECT_EQ(string_format(""), "");
  EXPECT_EQ(string_format("%s", ""), "");
  EXPECT_EQ(string_format("%ls", L"\xD800"), "");  // the C library refuses it for ever
}

TEST(Text, ReplacesFromTheInsertedTextOn) {
  struct Case {
    const char *text, *from, *to, *result;
  };
  for (const Case& c : {Case{"aXbX", "X", "YY", "aYYbYY"},
                        {"aaa", "a", "aa", "aaaaaa"},
                        {"aaa", "aa", "b", "ba"},
                        {"aaaaaa", "aa", "", "aa"},     // the search goes on two characters later
                        {"abb", "ab", "xxa", "xxxxa"},  // begins inside: replaced
                        {"abc", "", "x", "abc"},
                        {"abc", "c", "", "ab"}}) {
    std::string text = c.text;
    replace_all(text, c.from, c.to);
    EXPECT_EQ(text, c.result) << c.text;
  }
  std::wstring wide = L"a.b";
  replace_all(wide, L".", L"::");
  EXPECT_EQ(wide, L"a::b");
}

TEST(Text, StripsConvertsAndComparesEnds) {
  char buffer[16];
  for (const auto& [from, to] :
       {std::pair{"  a b  ", "a b"}, {"   ", ""}, {"", ""}, {"\ta ", "\ta"}}) {
    std::string source = from;
    strip(source.data(), buffer);
    EXPECT_STREQ(buffer, to);
  }
  EXPECT_TRUE(ends_with("a.txt", ".txt"));
  EXPECT_TRUE(ends_with("a", ""));
  EXPECT_FALSE(ends_with("txt", "a.txt"));
  EXPECT_EQ(s2ws("\xF0\x9F\x98\x80"), L"\U0001F600");
  EXPECT_EQ(ws2s(L"\u00e9"), "\xC3\xA9");
  EXPECT_THROW(s2ws("\xC3"), std::range_error);
  EXPECT_THROW(ws2s(std::wstring(1, static_cast<wchar_t>(0x110000))), std::range_error);
}

TEST(Wildcard, MatchesAsDosDid) {
  struct Case {
    const char *expression, *name;
    bool matches;
  };
  for (const Case& c : {
           Case{"*", "", true},
           {"", "", true},
           {"", "a", false},
           {"*.txt", "a.txt", true},
           {"*.txt", "a.TXT", false},
           {"a?c", "abc", true},
           {"a?c", "ac", false},
           {"ab?", "ab", false},
           {"*a*b", "xxaxxbxb", true},
           {"*a*b", "xxaxxbxc", false},
           {"<.doc", "report.final.doc", true},
           {"<.doc", "report.final.docx", false},
           {"<", "no dot", true},
           {"<", "a.b", false},
           {"<b", "a.b", false},
           {"a\"", "a", true},
           {"a\"b", "a.b", true},
           {"a\"b", "ab", true},
           {"a>", "ab", true},
           {"a>", "a", false},
           {">>>.c", "a.b.c", true},  // the first dot is eaten, the last one is not
           {">.c", ".c", true},
           {"a>c", "a.c", false},
           {"a>.c", "a.c", true},
           {"a>b.c", "a.b.c", true},
       }) {
    SCOPED_TRACE(std::string(c.expression) + " ~ " + c.name);
    EXPECT_EQ(IsNameInExpressionA(c.expression, c.name, false), c.matches);
    EXPECT_EQ(IsNameInExpression(s2ws(c.expression).c_str(), s2ws(c.name).c_str(), false),
              c.matches);
  }
  EXPECT_TRUE(IsNameInExpressionA("*.txt", "a.TXT", true));
  EXPECT_FALSE(IsNameInExpressionA(nullptr, "a", true));
}

TEST(Wildcard, ManyStarsTakeNoExponentialTime) {
  std::string expression;
  for (int i = 0; i < 200; ++i) expression += "*a<";
  EXPECT_FALSE(
      IsNameInExpressionA((expression + "b").c_str(), std::string(3000, 'a').c_str(), true));
}

TEST(SettingsFile, FindsValues) {
  const TemporaryFolder folder;
  const std::string path = folder.path() / "settings.ini";
  std::ofstream(path) << "Host = outside\r\n"
                         " [Proxy]\n"
                         "[Proxy]\r\n"
                         ";Host = not a comment\n"
                         "no equals sign\n"
                         "Host = example \r\n"
                         "Empty=\n"
                         "Port=80=81\n"
                      << "Long = " << std::string(3000, 'x') << "\n"
                      << "[Other]\nUser = u\n[Proxy]\nLate = never\n";
  struct Case {
    const char *section, *key, *value;  // null: not found
  };
  for (const Case& c : {
           Case{"proxy", "host", "example "},
           {"Proxy", ";Host", "not a comment"},
           {"PROXY", "EMPTY", ""},
           {"Proxy", "Port", "80=81"},
           {"Other", "User", "u"},
           {"Proxy", "User", nullptr},
           {"Proxy", "Late", nullptr},
           {"Nowhere", "Host", nullptr},
       }) {
    std::string section = c.section;
    std::string key = c.key;
    std::string fallback = "fallback";
    std::string file = path;
    char out[64] = "";
    SCOPED_TRACE(section + "/" + key);
    EXPECT_EQ(GetPrivateProfileString(section.data(), key.data(), fallback.data(), out, sizeof out,
                                      file.data()),
              c.value != nullptr);
    EXPECT_STREQ(out, c.value != nullptr ? c.value : "fallback");
    char small[4] = "###";
    GetPrivateProfileString(section.data(), key.data(), fallback.data(), small, 3, file.data());
    EXPECT_LT(std::string(small).size(), 3U);
    EXPECT_EQ(small[3], '\0');
  }
  std::string missing = path + ".missing";
  char text[] = "x";
  char out[8];
  EXPECT_FALSE(GetPrivateProfileString(text, text, text, out, sizeof out, missing.data()));
  EXPECT_STREQ(out, "x");
}

TEST(System, CreatesFoldersAndRunsCommands) {
  const TemporaryFolder folder;
  const std::string nested = folder.path() / "x/y/";
  EXPECT_TRUE(CreateDirectoryRecursively(nested));
  EXPECT_TRUE(CreateDirectoryRecursively(nested));
  struct stat status {};
  ASSERT_EQ(stat(nested.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0755U & ~umask(umask(0)));

  std::ofstream(folder.path() / "file") << "in the way";
  errno = 0;
  EXPECT_FALSE(CreateDirectoryRecursively(folder.path() / "file/below/it"));
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_FALSE(CreateDirectoryRecursively(""));

  EXPECT_EQ(pexec("printf '%0300d' 7"), std::string(299, '0') + "7");
  EXPECT_EQ(pexec("true"), "");
}

TEST(ProtocolUtil, NamesProxiesAndMakesItems) {
  for (const auto& [name, kind] : {std::pair{"SOCKS4", 1},
                                   {"SOCKS5", 2},
                                   {"HTTP with TUNNEL", 3},
                                   {"HTTP without TUNNEL", 4},
                                   {"socks5", 0},
                                   {"", 0}}) {
    EXPECT_EQ(ProtocolUtil::curlProxyType(name), kind) << name;
  }
  char name[] = "n";
  char value[] = "v";
  char label[] = "l";
  char fallback[] = "d";
  EXPECT_EQ(ProtocolUtil::createItem(name, value, label, fallback, true, false).ToText(),
            R"({"n":{"default":"d","label":"l","optional":false,"read_only":true,"value":"v"}})");
  EXPECT_FALSE(
      ProtocolUtil::createItem(name, value, label, nullptr, true, false).HasObject("n/default"));
}

}  // namespace
