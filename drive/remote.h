// Remote: the service as the drive sees it. Each operation is one request, or a few.
//
// Threads: every operation may be called from several threads at once. All throw RemoteError.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <vector>

#include "drive/item.h"

namespace drive {

/// Why a request failed, as far as the drive acts on it.
enum class Trouble {
  kNotFound,     ///< the service says that the item does not exist
  kDenied,       ///< the account may not do this
  kInvalid,      ///< the service does not accept the name or the request
  kNameTaken,    ///< another item has the name
  kChanged,      ///< the item is no longer of the version that was named
  kLocked,       ///< somebody has the file open
  kFull,         ///< the drive is full
  kTooLarge,     ///< the service takes no files of this size
  kThrottled,    ///< the service asks for fewer requests
  kUnreachable,  ///< no answer, or a fault at the service
  kSignedOut,    ///< the sign-in is no longer good
  kStopped,      ///< the stop token was raised
  kFailed,       ///< anything else
};

class RemoteError : public std::runtime_error {
 public:
  RemoteError(Trouble trouble, const std::string& what)
      : std::runtime_error(what), trouble_(trouble) {}

  Trouble trouble() const noexcept { return trouble_; }

 private:
  Trouble trouble_;
};

struct RemoteItem {
  std::string id;
  std::string name;
  Kind kind = Kind::kFile;
  std::int64_t size = 0;  ///< bytes
  FileTime modified{};
  std::string etag;  ///< empty: not known
};

/// Whether `remote` is the version of which the tag is `etag`, or, where one of the tags is not
/// known, of this size and time.
inline bool IsVersion(const RemoteItem& remote, const std::string& etag, std::int64_t size,
                      FileTime modified) {
  if (!remote.etag.empty() && !etag.empty()) return remote.etag == etag;
  return remote.size == size && remote.modified == modified;
}

struct Space {
  std::uint64_t total = 0;  ///< bytes
  std::uint64_t used = 0;
};

/// Takes a piece of a download: the offset in the file and its bytes. May throw, which ends the
/// download. Called in order, on the thread that asked.
using PieceSink = std::function<void(std::int64_t offset, std::span<const char> piece)>;

/// Fills `to` with the bytes at `offset`; returns how many, at least 1.
using PieceSource = std::function<std::size_t(std::int64_t offset, std::span<char> to)>;

struct RemoteUpload {
  std::string folder_id;
  std::string name;
  std::int64_t size = 0;
  std::string etag;  ///< the version to replace; empty: no item of this name may exist
};

enum class RequestEvent {
  kQuestion,   ///< a request that changes nothing goes out
  kThrottled,  ///< the service has asked for fewer requests; the request waits and is repeated
};

class Remote {
 public:
  /// Called from the threads of the requests, while they run. It does not throw.
  using Observer = std::function<void(RequestEvent)>;

  virtual ~Remote() = default;

  /// Set before the first request and not changed afterwards.
  virtual void SetObserver(Observer observer) = 0;

  /// The drive's top.
  virtual RemoteItem Top() = 0;
  /// All entries of a folder; throws unless the listing is complete.
  virtual std::vector<RemoteItem> List(const std::string& folder_id) = 0;
  virtual RemoteItem Describe(const std::string& id) = 0;
  virtual RemoteItem MakeFolder(const std::string& folder_id, const std::string& name) = 0;
  /// `item`'s id, kind and etag count; kChanged when its etag is no longer the service's.
  virtual RemoteItem Rename(const RemoteItem& item, const std::string& name) = 0;
  virtual RemoteItem Move(const RemoteItem& item, const std::string& folder_id,
                          const std::string& name) = 0;
  /// Deletes the item as it is, a folder with all it holds.
  virtual void Delete(const RemoteItem& item) = 0;
  virtual void Read(const std::string& id, std::int64_t offset, std::int64_t length,
                    const PieceSink& to, std::stop_token stop) = 0;
  virtual RemoteItem Upload(const RemoteUpload& upload, const PieceSource& from,
                            std::stop_token stop) = 0;
  virtual Space GetSpace() = 0;
};

}  // namespace drive
