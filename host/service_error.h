// Why an operation of the module failed. Its result is usually only FAILED; the HTTP status or the
// transfer library's reason is in the lines that the operation logged.
//
// Pure functions, callable from any thread.
#pragma once

#include <string>
#include <vector>

#include "host/failure.h"
#include "onedrive4b/aerror.h"

namespace host {

struct ServiceError {
  std::string line;        ///< the most informative line, without the module's tag; empty for none
  int status = 0;          ///< the HTTP status that it reports; 0 for none
  bool lost = false;       ///< the transfer failed: there is no complete answer
  bool proxy = false;      ///< the proxy failed
  bool throttled = false;  ///< the service kept throttling (429)
};

/// Evaluates the error lines of one operation, oldest first: the newest line with a status or a
/// transfer error counts or, without such a line, the newest one.
ServiceError ReadServiceError(const std::vector<std::string>& lines);

FailureKind KindOf(AERROR result, const ServiceError& error);

/// Advice for the user; empty if there is none.
std::string AdviceFor(const ServiceError& error);

}  // namespace host
