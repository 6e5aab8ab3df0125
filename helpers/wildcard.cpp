#include "helpers/wildcard.h"

#include <cctype>
#include <cwctype>
#include <string_view>
#include <vector>

namespace {

char ToUpper(char character) {
  return static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
}

wchar_t ToUpper(wchar_t character) {
  return static_cast<wchar_t>(std::towupper(static_cast<std::wint_t>(character)));
}

// One column of the table matches[n]: whether the rest of the expression matches name[n..]. The
// expression is taken from its last character to its first, so that each step needs the column of
// the step before only; backtracking over the same choices would take exponential time.
template <typename Char>
class Matcher {
 public:
  Matcher(std::basic_string_view<Char> name, bool ignore_case)
      : name_(name), ignore_case_(ignore_case), matches_(name.size() + 1, false) {
    matches_.back() = true;
  }

  void Prepend(Char pattern) {
    std::vector<bool> next = matches_;
    for (std::size_t n = name_.size() + 1; n-- > 0;) next[n] = Step(pattern, n, next);
    matches_ = std::move(next);
  }

  bool Matches() const { return matches_.front(); }

 private:
  bool Step(Char pattern, std::size_t n, const std::vector<bool>& next) const {
    const bool at_end = n == name_.size();
    const bool at_dot = !at_end && name_[n] == Char{'.'};
    switch (pattern) {
      case Char{'*'}:
        return matches_[n] || (!at_end && next[n + 1]);
      case Char{'<'}:
        return matches_[n] || (!at_end && n != last_dot_ && next[n + 1]);
      case Char{'?'}:
        return !at_end && matches_[n + 1];
      case Char{'"'}:
        return matches_[at_dot ? n + 1 : n];
      case Char{'>'}:
        return !at_end && matches_[n == last_dot_ ? n : n + 1];
      default:
        return !at_end && Equal(pattern, name_[n]) && matches_[n + 1];
    }
  }

  bool Equal(Char a, Char b) const { return a == b || (ignore_case_ && ToUpper(a) == ToUpper(b)); }

  const std::basic_string_view<Char> name_;
  const bool ignore_case_;
  const std::size_t last_dot_ = name_.rfind(Char{'.'});
  std::vector<bool> matches_;
};

template <typename Char>
bool Match(const Char* expression, const Char* name, bool ignore_case) {
  if (expression == nullptr || name == nullptr) return false;
  Matcher<Char> matcher(name, ignore_case);
  const std::basic_string_view<Char> pattern(expression);
  for (auto at = pattern.rbegin(); at != pattern.rend(); ++at) matcher.Prepend(*at);
  return matcher.Matches();
}

}  // namespace

bool IsNameInExpression(const wchar_t* expression, const wchar_t* name, bool ignoreCase) {
  return Match(expression, name, ignoreCase);
}

bool IsNameInExpressionA(const char* expression, const char* name, bool ignoreCase) {
  return Match(expression, name, ignoreCase);
}
