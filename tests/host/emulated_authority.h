// EmulatedAuthority: a service of its own in front of which a test signs in.
#pragma once

#include "emulator/service.h"
#include "host/cancellation.h"
#include "host/http_client.h"
#include "host/log.h"
#include "host/settings.h"
#include "tests/host/folder_test.h"
#include "tests/host/quiet_sink.h"

namespace host {

/// The service kills each refresh token once it was used.
class EmulatedAuthority : public FolderTest {
 protected:
  static emulator::ServiceOptions Options() {
    emulator::ServiceOptions options;
    options.tls = false;
    options.seed = false;
    options.revoke_used_refresh_tokens = true;
    options.device_poll_interval = std::chrono::seconds(1);
    return options;
  }

  emulator::Service service_{Options()};
  ServiceSettings settings_;
  HttpClient http_{HttpSettings{}};
  Redactor redactor_;
  QuietSink sink_;
  Log log_{sink_, redactor_};
  Cancellation cancellation_;
};

}  // namespace host
