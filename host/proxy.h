// Proxies: the choice between the command line's proxy and the environment's.
//
// Plain values. Every function may be called from any thread, except ProxyEnvironment::Read: call
// it at the program's start.
#pragma once

#include <cstdint>
#include <string>

namespace host {

/// A proxy in the module's terms. Empty `type`: none.
struct ProxySettings {
  std::string type;  ///< "SOCKS4", "SOCKS5", "HTTP with TUNNEL", "HTTP without TUNNEL"
  std::string host;
  std::uint16_t port = 0;
  std::string user;
  std::string password;
};

/// Reads [socks4|socks5|http]://[user[:password]@]host[:port]. `tunnel` counts for http only.
/// Throws a kUsage Failure that does not quote the text, which may contain a password.
ProxySettings ParseProxy(const std::string& url, bool tunnel);

/// The usual variables. An empty value counts as unset.
struct ProxyEnvironment {
  /// Reads https_proxy, http_proxy, all_proxy and no_proxy, or the same in capitals; not
  /// HTTP_PROXY, which a web server may set from a request's header.
  static ProxyEnvironment Read();

  std::string https_proxy{};
  std::string http_proxy{};
  std::string all_proxy{};
  std::string no_proxy{};  ///< hosts, domains, addresses or networks, separated by commas; "*": all
};

/// Whether `no_proxy` exempts a URL's host, by curl's rules: the host itself, a domain that it is
/// in, an address or its network.
bool IsExempt(const std::string& host, const std::string& no_proxy);

class ProxyRule {
 public:
  /// No proxy; ignores the environment.
  static ProxyRule None() { return {}; }
  /// `proxy`, for all but what `environment.no_proxy` exempts.
  static ProxyRule Fixed(ProxySettings proxy, const ProxyEnvironment& environment);
  /// The environment's proxies, but never for this machine itself.
  static ProxyRule FromEnvironment(ProxyEnvironment environment);

  /// The proxy for a request to `url`. Throws a kUsage Failure when the environment names one of a
  /// kind that is not supported.
  ProxySettings For(const std::string& url) const;

  /// The proxy that the module gets for a service at `url`. The module has one for all of its
  /// requests, and exempts what no_proxy names by itself.
  ProxySettings ForModule(const std::string& url) const;

 private:
  ProxySettings fixed_;
  ProxyEnvironment environment_;
};

}  // namespace host
