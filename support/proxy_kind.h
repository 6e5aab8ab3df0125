// Kinds of proxies.
#pragma once

#include <string>

#include "onedrive4b/export.h"

namespace onedrive4b {

/// The numbers are those of ProtocolUtil::curlProxyType.
enum class ProxyKind : int {
  kNone = 0,
  kSocks4 = 1,
  kSocks5 = 2,
  kHttpWithTunnel = 3,
  kHttpWithoutTunnel = 4,
};

}  // namespace onedrive4b

namespace ProtocolUtil {

/// Number for the name of a kind of proxy: "SOCKS4" 1, "SOCKS5" 2,
/// "HTTP with TUNNEL" 3, "HTTP without TUNNEL" 4, any other text 0 (no proxy). Callable from any
/// thread. Exported under its C++ name.
ONEDRIVE4B_EXPORT int curlProxyType(std::string name);

}  // namespace ProtocolUtil
