// Folders: listings. Asks the service for the entries of a folder, once for all who wait, and keeps
// the folders that are in use fresh.
//
// Threads: everything needs the core's lock; operations that take the Lock release it while they
// wait.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <stop_token>
#include <vector>

#include "drive/core.h"
#include "drive/merge.h"

namespace drive {

class Folders {
 public:
  explicit Folders(Core& core) : core_(core) {}

  /// Returns once the folder was listed ever. Throws when that cannot be.
  void NeedListing(Lock& lock, ItemNumber folder, std::stop_token stop);
  /// As NeedListing; besides, an old listing is compared with the service first, if that answers.
  void NeedFreshListing(Lock& lock, ItemNumber folder, std::stop_token stop);
  /// Starts a comparison of an old listing, and does not wait for it.
  void Refresh(const Item& folder);

  /// Asks for one item that may be another than the catalog says.
  void Suspect(ItemNumber number);

  /// Lists now, on the caller's thread, for the sender. The lock is released during the request.
  void ListNow(Lock& lock, ItemNumber folder);

  /// Compares the folders in use whose listings are old.
  void Tick();

 private:
  struct Run {
    bool running = false;
    std::uint64_t ended = 0;  ///< counts the requests that ended
    std::optional<RemoteError> failure;
  };

  bool IsOld(const Item& folder) const;
  void Use(ItemNumber folder);
  void Start(ItemNumber folder);
  /// Waits for the request that is running, or starts one. Throws its failure.
  void Await(Lock& lock, ItemNumber folder, std::stop_token stop);

  Core& core_;
  std::map<ItemNumber, Run> runs_;
  std::map<ItemNumber, Answers::Question> applied_;  ///< the latest listing that counted
  std::map<ItemNumber, FileTime> used_;
  std::set<ItemNumber> suspected_;
};

}  // namespace drive
