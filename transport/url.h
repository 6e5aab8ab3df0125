// Comparison of URLs.
#pragma once

#include <string>

namespace onedrive4b {

/// Whether both URLs have the same scheme, host and port (RFC 6454, section 5). False if one of
/// them does not parse; an invalid port is only noticed if the two texts differ.
bool SameOrigin(const std::string& a, const std::string& b);

}  // namespace onedrive4b
