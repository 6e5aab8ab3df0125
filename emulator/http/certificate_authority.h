// A certificate authority and the one server certificate that it signs.
// Threads: a plain value once made. Lifetime: the authority's key is gone when the function that
// makes it returns; it is never stored, so that nothing else can ever be signed with it.
#pragma once

#include <filesystem>
#include <string>

namespace emulator {

struct ServerIdentity {
  std::string authority_pem;    // what clients have to trust
  std::string certificate_pem;  // the server's
  std::string key_pem;          // the server's
};

/// EC P-256; good for `host_name`, localhost, 127.0.0.1 and ::1, for two weeks.
/// Throws std::runtime_error when the library refuses.
ServerIdentity MakeServerIdentity(const std::string& host_name);

/// What `file` keeps from an earlier run, if it is good for `host_name` for two more weeks;
/// otherwise a new one, good for a year, which the file keeps from now on, readable to its owner
/// alone. Throws std::runtime_error with a text for people, also when the file is damaged.
ServerIdentity KeepServerIdentity(const std::filesystem::path& file, const std::string& host_name);

}  // namespace emulator
