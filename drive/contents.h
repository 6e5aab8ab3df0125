// Content: one version of one file, with its local copy; Contents: all that are open or being sent.
//
// A file that is opened gets the Content of its present version. When another version takes its
// place, the old Content goes on for those who have it open, on its own copy. Bytes that are
// missing are fetched from the service; bytes of two versions never meet in one copy: what one
// request did not fetch whole is kept only after the service has confirmed the version's tag.
//
// Programs write into the copy itself. A copy that holds changes is always complete. While it is
// being sent it stays as it is: the next write makes a copy of its own to go on with.
//
// Threads: everything needs the core's lock. Operations that take the Lock release it while they
// wait, read, write or copy.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <span>
#include <stop_token>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "drive/core.h"
#include "drive/open_file.h"
#include "drive/range_set.h"

namespace drive {

class Content {
 public:
  ItemNumber number = 0;
  std::string id;    ///< of the version's item at the service
  std::string etag;  ///< of the version
  std::int64_t size = 0;
  FileTime modified{};
  std::int64_t base_size = 0;  ///< of the service's version
  FileTime base_modified{};    ///< of the service's version
  std::int64_t copy = 0;
  std::shared_ptr<base::UniqueFd> fd;
  RangeSet ranges;  ///< present bytes; a dirty copy is complete without them

  bool current = true;  ///< false: another version took its place; the copy goes with this one
  bool dirty = false;
  bool unrecorded = false;       ///< size or time are newer than the catalog's
  bool unsynced = false;         ///< bytes were written since the last flush to the disk
  bool sending = false;          ///< the copy must stay as it is
  bool cloning = false;          ///< a writer is making a copy of its own
  bool recording = false;        ///< the ranges are on their way into the catalog
  std::uint64_t generation = 0;  ///< counts the writes
  int openers = 0;
  int writers = 0;
  int writing = 0;  ///< writes that are running
  FileTime written{};

  std::vector<Range> fetching;
  FileTime progress{};         ///< when bytes arrived last
  std::uint64_t failures = 0;  ///< counts failed fetches
  std::optional<RemoteError> failure;

  /// Shared by who reads and writes the copy's bytes; held alone by who takes bytes away.
  std::shared_mutex data;

  bool Has(Range range) const { return dirty || ranges.Contains(range); }
};

using ContentPointer = std::shared_ptr<Content>;

/// What an upload sends: the copy as it was when the upload began.
struct FrozenCopy {
  ContentPointer content;
  std::shared_ptr<base::UniqueFd> fd;
  std::int64_t copy = 0;
  std::int64_t size = 0;
  std::uint64_t generation = 0;
};

class Contents {
 public:
  explicit Contents(Core& core) : core_(core) {}

  // Operations of programs.
  std::shared_ptr<OpenFile> Open(Lock& lock, ItemNumber number, OpenMode mode,
                                 std::stop_token stop);
  std::size_t Read(Lock& lock, OpenFile& file, std::int64_t offset, std::span<char> to,
                   std::stop_token stop);
  void Write(Lock& lock, OpenFile& file, std::int64_t offset, std::span<const char> data,
             std::stop_token stop);
  void Allocate(Lock& lock, OpenFile& file, Range range, bool keep_size, std::stop_token stop);
  void Truncate(Lock& lock, ItemNumber number, std::int64_t size, std::stop_token stop);
  void SetModified(ItemNumber number, FileTime modified);
  void Flush(Content& content);
  void FlushAll();
  void Close(OpenFile& file);
  /// Returns when the bytes are on the disk.
  void SyncData(Lock& lock, const ContentPointer& content);
  /// The same for all that were written since the last time.
  void SyncAllData(Lock& lock);

  // What is known of files that are open.
  /// Puts the size and time of a file that is being written into `item`.
  void Overlay(Item& item) const;
  bool IsOpen(ItemNumber number) const;
  /// When a file that is open for writing may be sent; nothing when it is not open so.
  std::optional<FileTime> RestUntil(ItemNumber number) const;
  /// Whether all bytes of the item's version are here.
  bool IsComplete(const Item& item);

  /// Gives a new file its empty copy; a change must have begun.
  void AddCopy(Item& item);

  // Changes of an item's version; each changes `item` as well, which the caller then puts.
  /// Another version takes the place of what the item has: it has no copy afterwards.
  void Drop(Change& change, Item& item);
  /// The complete copy counts as a change that is to be sent.
  void MarkDirty(Change& change, Item& item);
  /// The service gave the version another tag, for a new name or place.
  void Retag(Change& change, Item& item, const std::string& etag);
  /// The item's row goes.
  void Forget(Change& change, const Item& item);

  // Sending.
  /// Nothing while the file is being written to at this moment.
  std::optional<FrozenCopy> Freeze(const Item& item);
  /// The upload ended. True: nothing was written since, the copy is what was sent.
  bool Thaw(const FrozenCopy& frozen);
  /// Lets a content go that nobody uses any more.
  void Release(const ContentPointer& content);
  /// After Thaw said true: the copy is the service's version.
  void MarkClean(Change& change, Item& item);

  ContentPointer ContentOf(const Item& item);
  /// Returns when the range is here.
  void Fetch(Lock& lock, const ContentPointer& content, Range range, std::stop_token stop);

  // The cache.
  /// Removes clean copies, those that were used longest ago first, down to the limit.
  void LimitCache();
  void LoadCacheSize();
  std::int64_t cache_bytes() const { return cache_bytes_; }
  std::vector<ActiveTransfer> Downloads() const;

 private:
  void MakeDirty(Lock& lock, const ContentPointer& content, std::int64_t keep,
                 std::stop_token stop);
  void ContinueOnOwnCopy(Lock& lock, const ContentPointer& content, std::int64_t keep,
                         std::stop_token stop);
  void Resize(Lock& lock, const ContentPointer& content, std::int64_t size, std::stop_token stop);
  void EnsureCopy(Content& content);
  void CheckSpace();
  bool StartMissing(const ContentPointer& content, Range range);
  void StartFetch(const ContentPointer& content, Range range);
  void RunFetch(const ContentPointer& content, Range range, std::stop_token stop);
  void Download(const ContentPointer& content, Range range, std::stop_token stop);
  void ReadAhead(OpenFile& file, Range read);
  void CloseContent(const ContentPointer& content);
  void Record(const ContentPointer& content);
  void RemoveCopy(Change& change, std::int64_t copy);
  ContentPointer Current(ItemNumber number) const;

  Core& core_;
  std::map<ItemNumber, ContentPointer> current_;
  std::map<ItemNumber, std::int64_t> versions_;  ///< counts replacements by others
  std::int64_t cache_bytes_ = 0;                 ///< of clean copies, open ones included
  std::int64_t chunk_limit_ = 1 << 20;           ///< bytes of one request; follows the line's speed
  int fetches_ = 0;                              ///< that are running or waiting
  FileTime space_checked_{};
  bool space_left_ = true;
};

}  // namespace drive
