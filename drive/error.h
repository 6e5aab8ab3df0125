// Error: why the drive did not do what it was asked to. The mount turns each reason into an errno.
//
// Thrown from any thread; it owns its text.
#pragma once

#include <stdexcept>
#include <string>

namespace drive {

enum class Reason {
  kNotFound,     ///< no such entry, or the item is gone
  kExists,       ///< an entry of this name exists
  kNotEmpty,     ///< the folder holds entries, here or at the service
  kIsFolder,     ///< a file was needed
  kNotFolder,    ///< a folder was needed
  kOtherDrive,   ///< the service cannot move items between the drives of two accounts
  kIntoItself,   ///< a folder cannot be moved into itself
  kInvalidName,  ///< the service does not accept the name
  kNameTooLong,  ///< the name, or the path that it would make
  kInvalid,      ///< a length or offset that cannot be
  kDenied,       ///< the account may not change this
  kReadOnly,     ///< the drive is mounted for reading
  kNoSpace,      ///< the local disk is full
  kTooLarge,     ///< larger than the service's largest file
  kUnreachable,  ///< the service gives no answer
  kSignedOut,    ///< the account has to sign in again
  kInterrupted,  ///< whoever waited gave up
  kStale,        ///< the version that was opened exists nowhere any more
  kBroken,       ///< the state folder or the service is damaged
};

class Error : public std::runtime_error {
 public:
  Error(Reason reason, const std::string& what) : std::runtime_error(what), reason_(reason) {}

  Reason reason() const noexcept { return reason_; }

 private:
  Reason reason_;
};

}  // namespace drive
