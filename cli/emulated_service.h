// EmulatedService: a demo drive inside this program, served over plain HTTP on the loopback
// interface, for trying the program without an account.
//
// Threads: made and destroyed by one thread; the accessors may be called from any.
// Lifetime: serves until it is destroyed; then all changes on the drive are lost.
#pragma once

#include <memory>
#include <string>

#include "host/settings.h"

namespace emulator {
class Service;
}

namespace cli {

class EmulatedService {
 public:
  /// Throws a kFailed Failure when it cannot be started.
  EmulatedService();
  ~EmulatedService();
  EmulatedService(const EmulatedService&) = delete;
  EmulatedService& operator=(const EmulatedService&) = delete;

  host::ServiceSettings Settings() const;
  std::string IssueRefreshToken();

 private:
  std::unique_ptr<emulator::Service> service_;
};

}  // namespace cli
