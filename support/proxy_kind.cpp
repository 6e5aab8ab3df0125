#include "support/proxy_kind.h"

using onedrive4b::ProxyKind;

int ProtocolUtil::curlProxyType(std::string name) {
  const auto kind = [&name] {
    if (name == "SOCKS4") return ProxyKind::kSocks4;
    if (name == "SOCKS5") return ProxyKind::kSocks5;
    if (name == "HTTP with TUNNEL") return ProxyKind::kHttpWithTunnel;
    if (name == "HTTP without TUNNEL") return ProxyKind::kHttpWithoutTunnel;
    return ProxyKind::kNone;
  };
  return static_cast<int>(kind());
}
