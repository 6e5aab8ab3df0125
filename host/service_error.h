// Why an operation of the module failed. Its result says little (FAILED, mostly); the HTTP status
// or the transfer library's reason stands in the lines that it logged meanwhile.
//
// Pure functions, callable from any thread.
#pragma once

#include <string>
#include <vector>

#include "host/failure.h"
#include "onedrive4b/aerror.h"

namespace host {

struct ServiceError {
  std::string line;        ///< the line that tells most, without the module's tag; empty for none
  int status = 0;          ///< the HTTP status that it reports; 0 for none
  bool lost = false;       ///< the transfer failed: no whole answer came
  bool proxy = false;      ///< the proxy's doing
  bool throttled = false;  ///< the service kept asking for fewer requests (429)
};

/// What the error lines of one operation say, oldest first: the newest line with a status or a
/// transfer error counts, without one the newest.
ServiceError ReadServiceError(const std::vector<std::string>& lines);

FailureKind KindOf(AERROR result, const ServiceError& error);

/// What a person can do about it; empty when nothing is known to help.
std::string AdviceFor(const ServiceError& error);

}  // namespace host
