// ItemClient: the drive of a session by ids. Each operation throws a Failure that names the
// operation and the item; `shown` is the item's name in messages, usually a path.
//
// Threads: every operation may be called from several threads at once. Callbacks of a transfer run
// on its caller's thread.
// Lifetime: the session must outlive it. Its results use no memory of the module.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/item.h"
#include "host/session.h"

namespace host {

struct Space {
  std::uint64_t total = 0;  ///< bytes
  std::uint64_t used = 0;
};

/// A part of a file that is to be read.
struct ReadRequest {
  std::string id;
  std::int64_t offset = 0;
  std::int64_t length = 0;
  std::shared_ptr<_FS_HANDLE> handle;  ///< ends the transfer when its state is raised
};

/// Where an item is to be.
struct NewPlace {
  std::string folder_id;
  std::string name;
  std::string shown;
};

/// A file that is to be written.
struct UploadRequest {
  NewPlace place;
  std::int64_t size = 0;
  std::shared_ptr<_FS_HANDLE> handle;  ///< as for ReadRequest
  std::string etag = {};               ///< of the version that it replaces (guard_uploads)
};

class ItemClient {
 public:
  explicit ItemClient(Session& session) : session_(session) {}

  std::string UserName() const;
  Space DriveSpace() const;

  /// The folder that is shown as the drive's top. Its name is empty.
  Item Top() const;

  std::vector<Item> List(const std::string& id, const std::string& shown) const;

  /// The current item.
  Item Describe(const std::string& id, const std::string& shown) const;

  Item MakeFolder(const NewPlace& place) const;

  /// Like Move, fails if the item's tag is known and differs from the service's current tag.
  Item Rename(const Item& item, const std::string& name, const std::string& shown) const;

  /// Puts the item into another folder, under its old name or a new one.
  Item Move(const Item& item, const NewPlace& place, const std::string& shown) const;

  /// Deletes the current version of the item; a folder with its contents.
  void Delete(const Item& item, const std::string& shown) const;

  /// Pieces arrive in order; after a repeated request they start again at the first byte. Fewer
  /// bytes than requested mean the end of the file.
  void Read(const ReadRequest& request, IFetchCallback& to, const std::string& shown) const;

  /// Creates the file, or a new version of the file with this name. Reads `from` again from its
  /// start when a request is repeated. `shown`: the source of the content.
  Item Upload(const UploadRequest& request, ICacheIO& from, const std::string& shown) const;

 private:
  Session& session_;
};

}  // namespace host
