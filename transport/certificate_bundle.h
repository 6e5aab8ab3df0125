// Finds the certificate bundle that the host ships next to its program.
#pragma once

#include <string>

namespace onedrive4b {

/// The "Frameworks" folder next to the folder of the running program, symbolic links resolved, with
/// a trailing "/". "" if it does not exist or contains no "cacert.pem".
std::string CertificateBundleFolder();

inline constexpr const char* kCertificateBundleName = "cacert.pem";

}  // namespace onedrive4b
