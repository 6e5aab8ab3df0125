// Redactor: takes secrets out of lines before anyone sees them.
//
// Callable from any thread.
#pragma once

#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

namespace host {

class Redactor {
 public:
  /// `secret` will be hidden wherever it occurs. Texts under four characters are ignored: hiding
  /// them would tear ordinary words.
  void AddSecret(const std::string& secret);

  /// The same for a token, of which there are ever more: only the newest are kept, the others have
  /// long been replaced.
  void AddToken(const std::string& token);

  /// `line` without known secrets, bearer tokens, values of token-like form fields and JSON
  /// members, queries and user parts of URLs.
  std::string Redact(std::string_view line) const;

 private:
  mutable std::mutex mutex_;
  std::set<std::string> secrets_;
  std::deque<std::string> tokens_;  ///< oldest first
};

}  // namespace host
