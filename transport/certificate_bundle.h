// Where the certificate bundle lies that the host ships beside its program.
#pragma once

#include <string>

namespace onedrive4b {

/// The "Frameworks" folder beside the folder of the running program, symbolic links resolved, with
/// a trailing "/". "" when it does not exist or holds no "cacert.pem".
std::string CertificateBundleFolder();

inline constexpr const char* kCertificateBundleName = "cacert.pem";

}  // namespace onedrive4b
