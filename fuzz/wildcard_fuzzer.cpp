// Wildcard matching against the rules written down as a recursion. Input: expression, then name.
#include <cctype>
#include <map>
#include <string>
#include <utility>

#include "fuzz/input.h"
#include "helpers/wildcard.h"

namespace {

constexpr std::size_t kLongestName = 64;  // what the reference does in no time

class Reference {
 public:
  Reference(const std::string& expression, const std::string& name, bool ignore_case)
      : expression_(expression), name_(name), ignore_case_(ignore_case) {}

  bool Matches(std::size_t e = 0, std::size_t n = 0) {
    const auto known = known_.find({e, n});
    if (known != known_.end()) return known->second;
    const bool result = e == expression_.size() ? n == name_.size() : Step(expression_[e], e, n);
    known_[{e, n}] = result;
    return result;
  }

 private:
  bool Step(char pattern, std::size_t e, std::size_t n) {
    const bool left = n < name_.size();
    const std::size_t last_dot = name_.find_last_of('.');
    if (pattern == '*') return Matches(e + 1, n) || (left && Matches(e, n + 1));
    if (pattern == '<') return Run(e, n);
    if (pattern == '"') return Matches(e + 1, left && name_[n] == '.' ? n + 1 : n);
    if (!left) return false;
    if (pattern == '?') return Matches(e + 1, n + 1);
    if (pattern == '>') return Matches(e + 1, n == last_dot ? n : n + 1);
    return Folded(pattern) == Folded(name_[n]) && Matches(e + 1, n + 1);
  }

  // Up to the last dot that is left, or to the end without one.
  bool Run(std::size_t e, std::size_t n) {
    std::size_t end = name_.find_last_of('.');
    if (end == std::string::npos || end < n) end = name_.size();
    for (std::size_t at = n; at <= end; ++at) {
      if (Matches(e + 1, at)) return true;
    }
    return false;
  }

  int Folded(char character) const {
    const auto byte = static_cast<unsigned char>(character);
    return ignore_case_ ? std::toupper(byte) : byte;
  }

  const std::string& expression_;
  const std::string& name_;
  const bool ignore_case_;
  std::map<std::pair<std::size_t, std::size_t>, bool> known_;
};

std::wstring Widened(const std::string& text) {
  std::wstring wide;
  for (const char character : text) wide += static_cast<unsigned char>(character);
  return wide;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const std::string expression = input.Line();
  const std::string name = input.Line();
  for (const bool ignore_case : {false, true}) {
    const bool matches = IsNameInExpressionA(expression.c_str(), name.c_str(), ignore_case);
    Require(matches ==
                IsNameInExpression(Widened(expression).c_str(), Widened(name).c_str(), ignore_case),
            "wide characters match as narrow ones do");
    if (expression.size() > kLongestName || name.size() > kLongestName) continue;
    Require(matches == Reference(expression, name, ignore_case).Matches(), "as the rules say");
  }
  Require(IsNameInExpressionA("*", name.c_str(), false), "a star matches every name");
  return 0;
}
