// RedirectListener: takes the one request with which the browser brings back the authority's answer
// (RFC 8252, section 7.3).
//
// One thread. Listens on loopback only, on a port of the moment, from its making to its end.
#pragma once

#include <chrono>
#include <map>
#include <string>

#include "base/unique_fd.h"
#include "host/cancellation.h"

namespace host {

class RedirectListener {
 public:
  using Parameters = std::map<std::string, std::string>;

  /// Throws a kLocal Failure when no port can be had.
  RedirectListener();

  /// "http://localhost:PORT"
  std::string Address() const;

  /// The parameters of the first request whose "state" is this one; any other is told that it is
  /// not meant. Throws a kSignIn Failure when none comes in time.
  Parameters Await(const std::string& state, std::chrono::seconds time,
                   Cancellation& cancellation) const;

 private:
  base::UniqueFd v4_;
  base::UniqueFd v6_;  ///< browsers may take "localhost" for either; none without IPv6
  int port_ = 0;
};

}  // namespace host
