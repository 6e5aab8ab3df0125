// Drive: the account's files as a local file system sees them, without anything of FUSE.
//
// Every change is made locally, recorded in the state folder, and sent afterwards. docs/drive.md
// describes the states of an item, what each operation does to them, and when a change is on disk.
//
// Threads: every operation may be called from any thread. Operations that may wait for the service
// take a stop token: once it is raised they end soon with Reason::kInterrupted. All throw Error.
// Lifetime: what the parts name must outlive it. No operation may be running when it is destroyed.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "drive/clock.h"
#include "drive/error.h"
#include "drive/item.h"
#include "drive/open_file.h"
#include "drive/remote.h"
#include "drive/watcher.h"
#include "drive/work.h"

namespace drive {

struct DriveOptions {
  std::filesystem::path state;  ///< the state folder; made with mode 0700 when it is missing
  /// Whose drive it is: a state folder belongs to one account. Empty: not known now.
  std::string account;
  std::string host;  ///< this machine's name, for the names of conflict copies
  bool read_only = false;
  std::int64_t cache_limit = std::int64_t{10} << 30;  ///< bytes of unchanged local copies
  std::chrono::seconds refresh{30};                   ///< how old a listing in use may be
  std::chrono::seconds upload_delay{5};               ///< how long a file rests before it is sent
  std::chrono::seconds patience{25};                  ///< how long an operation waits for an answer
};

/// What programs see of an item.
struct Attributes {
  ItemNumber number = 0;
  Kind kind = Kind::kFile;
  std::int64_t size = 0;  ///< bytes
  FileTime modified{};
  FileTime changed{};
  bool executable = false;
  bool writable = true;  ///< false: known not to be changeable
};

struct Entry {
  std::string name;
  Attributes attributes;
};

/// What is to be changed; what has no value stays.
struct AttributeChange {
  std::optional<std::int64_t> size;
  std::optional<FileTime> modified;
  std::optional<bool> executable;
};

/// What the service's side says of an item, for extended attributes.
struct RemoteState {
  std::string id;     ///< empty: not sent yet
  std::string etag;   ///< empty: not known
  std::string state;  ///< "clean", "changed", "sending" or "refused"
};

struct ActiveTransfer {
  std::string path;
  bool upload = false;
  std::int64_t done = 0;   ///< bytes
  std::int64_t total = 0;  ///< bytes
};

struct RefusedChange {
  std::string path;  ///< below the drive's top, "/" first
  std::string reason;
  FileTime since{};
};

struct Conflict {
  std::string path;     ///< where the service's version stands
  std::string kept_as;  ///< where ours stands
  FileTime since{};
};

struct Status {
  bool online = false;
  bool signed_out = false;
  std::int64_t pending = 0;        ///< items with unsent changes
  std::int64_t pending_bytes = 0;  ///< content to upload
  std::vector<ActiveTransfer> active;
  std::vector<RefusedChange> refused;
  std::vector<Conflict> conflicts;
  std::int64_t cache_bytes = 0;
  std::int64_t cache_limit = 0;
  std::int64_t known_items = 0;
};

struct DriveParts {
  Remote& remote;
  Work& work;
  const Clock& clock;
  Watcher& watcher;
};

class Drive {
 public:
  /// Opens the state folder. Throws Error: kBroken when it is damaged or another account's, kExists
  /// when another process has it open.
  Drive(DriveOptions options, const DriveParts& parts);
  ~Drive();
  Drive(const Drive&) = delete;
  Drive& operator=(const Drive&) = delete;

  /// Takes up what the last run left and begins to send. Call it once the threads may start.
  void Start();

  /// Lets nothing new begin at the service, and ends what is running there. Local operations go on
  /// to work.
  void StopSending();

  /// Whether the top's listing is known: then the drive can be used without the service.
  bool IsKnown() const;

  // Entries. ----------------------------------------------------------------------------------

  /// Names are found without regard to case. kNotFound only when the service or a listing says so.
  Attributes Lookup(ItemNumber folder, std::string_view name, std::stop_token stop);
  /// The attributes of an item, also of one that was removed and is still open.
  Attributes Get(ItemNumber number) const;
  /// Changes the size through the local copy, which may have to be fetched.
  Attributes Set(ItemNumber number, const AttributeChange& change, std::stop_token stop);
  /// The entries, without "." and "..", in no order.
  std::vector<Entry> List(ItemNumber folder, std::stop_token stop);
  /// The folder that holds it and its name there, as kept. The top holds itself; parent 0 means
  /// that the item was removed.
  Place PlaceOf(ItemNumber number) const;
  /// The spelling in which the folder keeps the name; empty when no such entry is known here.
  std::string KeptName(ItemNumber folder, std::string_view name) const;

  Attributes MakeFolder(ItemNumber folder, std::string_view name, std::stop_token stop);
  /// Makes an empty file; kExists when there is an entry of this name.
  Attributes MakeFile(ItemNumber folder, std::string_view name, bool executable,
                      std::stop_token stop);
  /// Replaces what stands at `to`, as rename(2) does, unless `keep` is set: then it is kExists.
  void Rename(ItemNumber from_folder, std::string_view from, ItemNumber to_folder,
              std::string_view to, bool keep, std::stop_token stop);
  void RemoveFile(ItemNumber folder, std::string_view name, std::stop_token stop);
  /// kNotEmpty also when only the service knows of an entry.
  void RemoveFolder(ItemNumber folder, std::string_view name, std::stop_token stop);

  // Content. ----------------------------------------------------------------------------------

  /// The file keeps the version that it has now until it is closed, whatever others do.
  std::shared_ptr<OpenFile> Open(ItemNumber number, OpenMode mode, std::stop_token stop);
  /// Bytes read; fewer than asked for at the end of the file.
  std::size_t Read(OpenFile& file, std::int64_t offset, std::span<char> to, std::stop_token stop);
  void Write(OpenFile& file, std::int64_t offset, std::span<const char> data, std::stop_token stop);
  /// Allocates, and extends the size unless `keep_size` is set.
  void Allocate(OpenFile& file, std::int64_t offset, std::int64_t length, bool keep_size,
                std::stop_token stop);
  /// Records size and time of what was written. May be called many times.
  void Flush(OpenFile& file);
  /// As Flush; returns when the content and its record are on the disk.
  void SyncFile(OpenFile& file);
  /// Returns when every change of names that was made before is on the disk.
  void SyncNames();
  /// The end of an open file: afterwards it rests for the upload delay, then it is sent.
  void Close(OpenFile& file);

  // The drive as a whole. ---------------------------------------------------------------------

  Space SpaceOf(std::stop_token stop);
  RemoteState StateOf(ItemNumber number) const;
  Status GetStatus() const;

  /// Sends everything at once. True: the service has everything. False: something was refused, or
  /// the time is over.
  bool Sync(std::chrono::milliseconds time, std::stop_token stop);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace drive
