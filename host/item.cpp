#include "host/item.h"

#include <cstring>
#include <memory>

namespace host {
namespace {

// Bits of a record's `attr`.
constexpr std::uint32_t kFile = 1;
constexpr std::uint32_t kFolder = 2;
constexpr std::uint32_t kMadeUp = 0x40;

}  // namespace

Item ToItem(const _FS_FILE_V1& record) {
  return {.id = record.id,
          .name = record.filename,
          .folder = (record.attr & kFolder) != 0,
          .made_up = (record.attr & kMadeUp) != 0,
          .size = record.size,
          .created = record.crtime,
          .modified = record.lasttime,
          .etag = record.eTag ? record.eTag.get() : ""};
}

_FS_FILE_V2 ToRecord(const Item& item) {
  _FS_FILE_V2 record;
  record.id = item.id;
  record.attr = (item.folder ? kFolder : kFile) | (item.made_up ? kMadeUp : 0);
  record.size = item.size;
  record.crtime = item.created;
  record.lasttime = record.accesstime = item.modified;
  record.filename = item.name;
  if (!item.etag.empty()) {
    record.eTag = std::make_shared<char[]>(item.etag.size() + 1);
    std::memcpy(record.eTag.get(), item.etag.c_str(), item.etag.size() + 1);
  }
  return record;
}

}  // namespace host
