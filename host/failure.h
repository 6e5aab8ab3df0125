// Failure: the one exception of the host library, and the kinds of failures that callers tell
// apart.
//
// Thrown from any thread; it owns its texts.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace host {

enum class FailureKind {
  kFailed,       ///< the service or the module failed an operation for an unknown reason
  kUsage,        ///< the caller's settings or arguments are invalid
  kModule,       ///< the module could not be loaded
  kSignIn,       ///< not signed in, or the authority refused
  kNotFound,     ///< the item does not exist (404)
  kDenied,       ///< the account may not do this (403)
  kRefused,      ///< the service does not accept the name or the request (400)
  kConflict,     ///< an item of this name exists, or another change is running (409)
  kChanged,      ///< the item is no longer the one that the caller knew (412, 416)
  kLocked,       ///< somebody has the item open (423)
  kQuota,        ///< the drive is full (507)
  kTooLarge,     ///< the file is too large for the service (413)
  kThrottled,    ///< the service receives too many requests (429, 503)
  kTrouble,      ///< a fault in the service (other 5xx)
  kUnreachable,  ///< no answer came: no connection, time-out, a broken transfer
  kProxy,        ///< the proxy cannot be reached or rejected the request
  kLocal,        ///< a local file, folder or the output could not be read or written
  kInterrupted,  ///< the caller cancelled the operation
};

/// Whether the same operation may succeed later without a change by the user.
bool MayPass(FailureKind kind) noexcept;

/// `what()` says what failed, `advice()` what the person can do about it (may be empty). Neither
/// holds a secret.
class Failure : public std::runtime_error {
 public:
  Failure(FailureKind kind, const std::string& what, std::string advice = {}, int error_number = 0)
      : std::runtime_error(what),
        kind_(kind),
        error_number_(error_number),
        advice_(std::make_shared<const std::string>(std::move(advice))) {}

  FailureKind kind() const noexcept { return kind_; }
  const std::string& advice() const noexcept { return *advice_; }
  /// The system's, for kLocal; 0 when there is none.
  int error_number() const noexcept { return error_number_; }

 private:
  FailureKind kind_;
  int error_number_;
  std::shared_ptr<const std::string> advice_;  ///< shared, because copying must not throw
};

/// "cannot <action> <path>: <the system's text for the error number>", as a kLocal failure.
Failure LocalFailure(const std::string& action, const std::string& path, int error_number);

}  // namespace host
