// Watcher: who is told of changes that did not come through the drive's own operations: what others
// changed, and what a conflict renamed. The mount tells the kernel.
//
// Called from any thread, with the drive's lock held: implementations only take a note and return.
#pragma once

#include <string>

#include "drive/item.h"

namespace drive {

class Watcher {
 public:
  virtual ~Watcher() = default;

  /// `name` in `folder` stands for another item now, or for none.
  virtual void EntryChanged(ItemNumber folder, const std::string& name) = 0;

  /// `number`, which stood as `name` in `folder`, is gone.
  virtual void EntryGone(ItemNumber folder, const std::string& name, ItemNumber number) = 0;

  /// Size, time or content of the file are others now.
  virtual void FileChanged(ItemNumber number) = 0;
};

}  // namespace drive
