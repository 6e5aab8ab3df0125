// Profile: what the host keeps for one sign-in, and the services that the module gets over it.
//
// The module withdraws the stored refresh token before it asks for new tokens, and gives the first
// token of a renewal back after the host may already have obtained a second one. Neither may cost
// the user the sign-in, so:
//   - a withdrawn token is only hidden from the module in this process; the store keeps it until
//     another one takes its place, and a host that crashes in between starts with it;
//   - a token that the authority issued is stored by the host at once, and from then on the host's
//     word counts, not the module's.
//
// Threads: every operation may be called from any thread.
// Lifetime: the store must outlive the profile, the profile the protocol objects made with it.
#pragma once

#include <atomic>
#include <filesystem>
#include <mutex>
#include <string>

#include "host/settings.h"
#include "host/value_store.h"
#include "onedrive4b/interfaces.h"

namespace host {

/// Letters, digits, ".", "_" and "-", not led by "." or "-", 64 characters at most: a name that
/// can never leave the profile folder.
bool IsProfileName(const std::string& name);

/// onedrive4b/NAME.json in the user's folder for state. Throws a kUsage Failure for a bad name and
/// when no home folder is known.
std::filesystem::path ProfileFile(const std::string& name);

class Profile final : public IProtocolManager {
 public:
  Profile(ValueStore& store, std::string name);

  AERROR GetPID(const char* module_key, char* buffer, int* length) override;
  AERROR SetValue(const char* pid, const char* key, const char* value) override;
  AERROR GetValue(const char* pid, const char* key, char* buffer, int* length) override;

  /// Keeps other processes of this profile out while a token is exchanged, so that two of them
  /// never spend the same one.
  [[nodiscard]] ValueStore::Hold HoldStore() { return ValueStore::Hold(store()); }

  /// The newest refresh token, withdrawn by the module or not; empty when there is none.
  std::string RefreshToken();
  /// Stores a token that the authority issued. On failure it counts in this process, and Failure
  /// is thrown.
  void KeepRefreshToken(const std::string& token);

  ServiceSettings Settings();
  void KeepSettings(const ServiceSettings& settings);

  /// Forgets the tokens; the settings stay for the next sign-in.
  void SignOut();

  /// Copies what was kept so far to `store`, and keeps all there from then on. For a sign-in that
  /// has yet to succeed: it begins with a store in memory. No other operation may be running, and
  /// the store must outlive the profile, too.
  void MoveTo(ValueStore& store);

 private:
  ValueStore& store() const { return *store_; }

  std::atomic<ValueStore*> store_;
  const std::string name_;  ///< also the id under which the module's values are stored
  std::mutex mutex_;
  bool withdrawn_ = false;  ///< the module removed the token and gave no other
  bool obtained_ = false;   ///< the host obtained a token in this process
};

}  // namespace host
