// The end of the program: the message about a failure, and the exit code.
//
// Callable from any thread.
#pragma once

#include "host/failure.h"

namespace cli {

/// Exit codes. Documented in --help and the manual page; never renumbered.
enum class ExitCode : int {
  kOk = 0,
  kFailed = 1,         ///< the service or the module refused or failed an operation
  kUsage = 2,          ///< the command line is invalid
  kModule = 3,         ///< the module could not be loaded
  kSignIn = 4,         ///< not signed in, or the sign-in failed
  kNotFound = 5,       ///< a remote path does not exist
  kLocal = 6,          ///< a local file, folder or the output could not be read or written
  kProxy = 7,          ///< the proxy cannot be reached or rejected the request
  kInterrupted = 130,  ///< ended by Ctrl-C or SIGTERM
};

ExitCode ExitCodeOf(host::FailureKind kind) noexcept;

/// Writes "onedrive4b: <what>" and the advice to standard error.
void PrintFailure(const host::Failure& failure) noexcept;

}  // namespace cli
