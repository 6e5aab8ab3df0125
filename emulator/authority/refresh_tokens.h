// The refresh tokens that were issued, which a file keeps for the next run.
// Threads: one at a time. Lifetime: without a file the tokens end with the object.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <json/value.h>

#include "emulator/drive/identity.h"
#include "emulator/store/journal.h"

namespace emulator {

struct RefreshToken {
  Identity user;
  bool revoked = false;
};

class RefreshTokens {
 public:
  /// `file`: readable to its owner alone; empty: none. Throws std::runtime_error with a text for
  /// people, as do Issue and the revocations when the file cannot be written.
  explicit RefreshTokens(const std::filesystem::path& file);

  std::string Issue(const Identity& user);
  /// nullptr: it was never issued. Tokens are never forgotten, so the pointer stays valid.
  const RefreshToken* Find(std::string_view token) const;
  /// Does nothing for one that was never issued.
  void Revoke(std::string_view token);
  void RevokeAll();

 private:
  void Read();

  std::map<std::string, RefreshToken, std::less<>> tokens_;
  std::optional<Journal> journal_;  // of {"tokens": [{"token", "user", "revoked"}]}
};

}  // namespace emulator
