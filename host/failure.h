// Failure: the one exception of the host program, and the exit codes that it ends with.
//
// Thrown from any thread and caught once, where the program prints it; it owns its texts.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace host {

/// What the program returns to the shell. Documented in --help; never renumbered.
enum class ExitCode : int {
  kOk = 0,
  kFailed = 1,         ///< the service or the module refused or failed an operation
  kUsage = 2,          ///< the command line makes no sense
  kModule = 3,         ///< the module could not be loaded
  kSignIn = 4,         ///< not signed in, or the sign-in failed
  kNotFound = 5,       ///< a remote path does not exist
  kLocal = 6,          ///< a local file, folder or the output could not be read or written
  kProxy = 7,          ///< the proxy cannot be reached, or refuses
  kInterrupted = 130,  ///< ended by Ctrl-C or SIGTERM
};

/// `what()` says what failed, `advice()` what the person can do about it (may be empty). Neither
/// holds a secret.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string& what, std::string advice = {})
      : std::runtime_error(what), code_(code), advice_(std::move(advice)) {}

  ExitCode code() const noexcept { return code_; }
  const std::string& advice() const noexcept { return advice_; }

 private:
  ExitCode code_;
  std::string advice_;
};

/// Writes "onedrive4b: <what>" and the advice to standard error.
void PrintFailure(const Failure& failure) noexcept;

/// "cannot <action> <path>: <the system's text for the error number>", as a kLocal failure.
Failure LocalFailure(const std::string& action, const std::string& path, int error_number);

}  // namespace host
