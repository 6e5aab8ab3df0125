// RemoteDrive: the drive of a session, by paths.
//
// Threads: as the session's protocol object: several at once.
// Lifetime: the session must outlive it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/remote_path.h"
#include "host/session.h"

namespace host {

/// A place for an item that may not exist yet.
struct RemotePlace {
  RemoteItem folder;               ///< the folder it is in
  std::string name;                ///< as asked for; empty for the drive's top
  std::optional<RemoteItem> item;  ///< what is there
};

class RemoteDrive {
 public:
  explicit RemoteDrive(Session& session) : session_(session) {}

  IProtocol_V2& protocol() const { return session_.protocol(); }
  const Session& session() const { return session_; }

  /// Entries of a folder, sorted by name. Throws Failure.
  std::vector<_FS_FILE_V2> List(const std::string& id, const std::string& path) const;

  /// The item that `path` names. Throws Failure.
  RemoteItem Find(const std::string& path) const;

  /// Where `path` is or would be: its folder must exist, the item itself need not. Throws Failure.
  RemotePlace Locate(const std::string& path) const;

  /// The place `name` in `folder`. Throws Failure.
  RemotePlace Inside(const RemoteItem& folder, const std::string& name) const;

  /// What the service says of the item now. Throws Failure.
  _FS_FILE_V2 Describe(const RemoteItem& item) const;

  /// The folder that new things go to unless another is named: the user's own drive.
  RemoteItem OwnDrive() const;

  /// Makes the folder `name`. Throws Failure.
  RemoteItem MakeFolder(const RemoteItem& parent, const std::string& name) const;

 private:
  RemoteItem Top() const;

  Session& session_;
};

}  // namespace host
