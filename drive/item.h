// Item: what the drive knows of one file or folder, on this machine and at the service.
//
// An item has two places and two contents: the local ones, which programs see, and the service's as
// they were last heard of. Where they differ there is a change to send; there is no other list of
// changes. Plain values.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace drive {

/// Our own number of an item, never given twice. The mount uses it as the inode number.
using ItemNumber = std::int64_t;

inline constexpr ItemNumber kTop = 1;

/// Wall-clock time, as files have it.
using FileTime = std::chrono::sys_time<std::chrono::nanoseconds>;

enum class Kind : std::int8_t {
  kFile = 0,
  kFolder = 1,
  /// A folder that is not the service's, such as "Shared with me": its entries cannot be changed.
  kFixedFolder = 2,
};

/// A folder and a name in it.
struct Place {
  ItemNumber parent = 0;  ///< 0: nowhere
  std::string name;

  bool operator==(const Place&) const = default;
};

/// Why the service did not accept a change, and when it is tried again.
struct Refusal {
  std::string reason;  ///< empty: not refused
  FileTime since{};
  FileTime retry{};
  int attempts = 0;
};

struct Item {
  ItemNumber number = 0;
  Kind kind = Kind::kFile;

  Place place;            ///< as programs see it; parent 0 once it was removed here
  std::int64_t size = 0;  ///< bytes
  FileTime modified{};
  FileTime changed{};  ///< of the local attributes
  bool executable = false;

  std::string id;  ///< the service's; empty: the service does not have the item
  /// Where the service has it; parent 0: nowhere. Without an id: where it was to be made by a
  /// request that had no answer, so that the service may have it there.
  Place base;
  /// Where a request without an answer was to move it; parent 0: there is no such request.
  Place tried;
  std::string etag;            ///< of the service's version
  std::int64_t base_size = 0;  ///< bytes of that version
  FileTime base_modified{};    ///< of that version

  std::int64_t copy = 0;  ///< number of the local copy; 0: none
  std::string copy_etag;  ///< the version that the copy is of, or was made from
  /// Digests of contents that were sent without an answer: the service may have one of them.
  std::string sent;
  bool dirty = false;  ///< the copy holds changes to send; it is complete then
  FileTime due{};      ///< when a dirty file may be sent
  FileTime listed{};   ///< folders: when the service was last listed completely; 0: never
  Refusal refusal;

  bool IsFolder() const { return kind != Kind::kFile; }
  bool IsRemoved() const { return place.parent == 0; }
  bool IsSent() const { return !id.empty(); }
  bool IsUncertain() const { return id.empty() && base.parent != 0; }
  bool IsMoved() const { return IsSent() && !IsRemoved() && place != base; }
  /// Whether the service has yet to hear of something.
  bool IsPending() const {
    if (number == kTop || kind == Kind::kFixedFolder) return false;
    if (IsRemoved()) return IsSent() || IsUncertain();
    return !IsSent() || dirty || place != base || tried.parent != 0;
  }
  /// A pending file of which only the content is to be sent, so that nothing is to do before `due`.
  bool OnlyRests() const {
    const bool in_place =
        !IsRemoved() && tried.parent == 0 && (IsSent() ? place == base : base.parent == 0);
    return dirty && kind == Kind::kFile && in_place;
  }
};

}  // namespace drive
