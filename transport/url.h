// Questions about URLs.
#pragma once

#include <string>

namespace onedrive4b {

/// Whether both URLs have the same scheme, host and port (RFC 6454, section 5). False when either
/// does not parse, though a port that is none is only seen when their texts differ.
bool SameOrigin(const std::string& a, const std::string& b);

}  // namespace onedrive4b
