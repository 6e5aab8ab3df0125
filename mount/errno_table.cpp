#include "mount/errno_table.h"

#include <cerrno>

namespace mounted {

int ErrnoOf(drive::Reason reason) noexcept {
  using drive::Reason;
  switch (reason) {
    case Reason::kNotFound:
      return ENOENT;
    case Reason::kExists:
      return EEXIST;
    case Reason::kNotEmpty:
      return ENOTEMPTY;
    case Reason::kIsFolder:
      return EISDIR;
    case Reason::kNotFolder:
      return ENOTDIR;
    case Reason::kOtherDrive:
      return EXDEV;  // mv copies and removes instead
    case Reason::kIntoItself:
    case Reason::kInvalidName:  // as vfat does for a name that it cannot keep
    case Reason::kInvalid:
      return EINVAL;
    case Reason::kNameTooLong:
      return ENAMETOOLONG;
    case Reason::kDenied:
      return EACCES;
    case Reason::kReadOnly:
      return EROFS;
    case Reason::kNoSpace:
      return ENOSPC;
    case Reason::kTooLarge:
      return EFBIG;
    case Reason::kUnreachable:
      return EHOSTUNREACH;  // "No route to host" says more than an input/output error
    case Reason::kSignedOut:
      return EKEYEXPIRED;  // the sign-in is no longer good
    case Reason::kInterrupted:
      return EINTR;
    case Reason::kStale:
      return ESTALE;
    case Reason::kBroken:
      break;
  }
  return EIO;
}

}  // namespace mounted
