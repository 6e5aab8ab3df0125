// A certificate authority made for one run and a server certificate signed by it.
// Threads: a plain value once made. Lifetime: the authority's key is gone when the constructor
// function returns; it is never stored, so that nothing else can ever be signed with it.
#pragma once

#include <string>

namespace emulator {

struct ServerIdentity {
  std::string authority_pem;    // what clients have to trust
  std::string certificate_pem;  // the server's
  std::string key_pem;          // the server's; stays in memory
};

/// EC P-256; good for `host_name`, localhost, 127.0.0.1 and ::1, for two weeks.
/// Throws std::runtime_error when the library refuses.
ServerIdentity MakeServerIdentity(const std::string& host_name);

}  // namespace emulator
