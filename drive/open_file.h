// OpenFile: one opening of a file. Made by Drive::Open and ended by Drive::Close.
//
// Threads: the drive's operations on it may run in several threads at once.
#pragma once

#include <cstdint>
#include <memory>

#include "drive/item.h"

namespace drive {

class Content;

struct OpenMode {
  bool write = false;
  bool truncate = false;  ///< with `write`: the file is emptied
};

struct OpenFile {
  ItemNumber number = 0;
  bool write = false;
  std::shared_ptr<Content> content;  ///< the version that it reads and writes
  /// Changes with the version: what the kernel cached for another value is not this content.
  std::int64_t version = 0;
  bool closed = false;
  // Of sequential reading; guarded by the content's lock.
  std::int64_t next_offset = 0;
  std::int64_t read_ahead = 0;
};

}  // namespace drive
