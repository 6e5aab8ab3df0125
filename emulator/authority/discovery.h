// The discovery service: which services a user has, and where ("Discovery Service REST API" in the
// public documentation).
// Threads: a plain value, read by any thread. Lifetime: owns its text.
#pragma once

#include <string>

namespace emulator {

struct DiscoveryAddresses {
  std::string origin;
  std::string drive_endpoint;
  std::string drive_resource;
};

/// The document {"@odata.context": ..., "value": [...]}. The drive is the entry with the capability
/// "MyFiles" and the version "v2.0"; entries around it have one or the other.
std::string ServicesDocument(const DiscoveryAddresses& addresses);

}  // namespace emulator
