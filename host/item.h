// Item: one file or folder of the drive. Plain values; they use no memory of the module.
#pragma once

#include <cstdint>
#include <string>

#include "onedrive4b/records.h"

namespace host {

/// Id of the user's own drive, which the module shows as "My Drive" or as the top.
inline constexpr const char* kDriveId = "root";

struct Item {
  std::string id;    ///< names the item to the module; opaque
  std::string name;  ///< as the service sends it; normally UTF-8
  bool folder = false;
  bool made_up = false;   ///< a folder that the module synthesised; nothing can be added to it
  std::int64_t size = 0;  ///< bytes; 0 for folders
  std::string created;    ///< RFC 3339
  std::string modified;   ///< RFC 3339
  std::string etag;       ///< changes with every change of the item; empty when it is not known
};

Item ToItem(const _FS_FILE_V1& record);

/// The fields of an item that the module's operations read.
_FS_FILE_V2 ToRecord(const Item& item);

}  // namespace host
