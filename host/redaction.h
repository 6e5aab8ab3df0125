// Redactor: removes secrets from lines before they are shown.
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
  /// Hides `secret` wherever it occurs. Texts under four characters are ignored, because they occur
  /// in ordinary words.
  void AddSecret(const std::string& secret);

  /// The same for a token. Only the newest tokens are kept; older ones are no longer valid.
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
