#include "host/proxy.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <utility>

#include <arpa/inet.h>
#include <strings.h>

#include "host/failure.h"
#include "host/text.h"
#include "host/url.h"

namespace host {
namespace {

constexpr std::uint16_t kDefaultPort = 1080;
constexpr const char* kForms = "use socks4://, socks5:// or http://[user:password@]host[:port]";

std::string Variable(const char* name) {
  // The environment is only read before the program starts its threads.
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
  return value == nullptr ? "" : value;
}

std::string VariableOr(const char* name, const char* other) {
  std::string value = Variable(name);
  return value.empty() ? Variable(other) : value;
}

/// An address as its bytes; nothing for a name.
struct Address {
  int family = 0;
  std::array<unsigned char, 16> bytes{};
};

std::optional<Address> ParseAddress(std::string text) {
  if (text.starts_with('[') && text.ends_with(']')) text = text.substr(1, text.size() - 2);
  for (const int family : {AF_INET, AF_INET6}) {
    Address address{family, {}};
    if (::inet_pton(family, text.c_str(), address.bytes.data()) == 1) return address;
  }
  return std::nullopt;
}

bool SameBits(const Address& a, const Address& b, unsigned bits) {
  const unsigned whole = bits / CHAR_BIT;
  if (!std::equal(a.bytes.begin(), a.bytes.begin() + whole, b.bytes.begin())) return false;
  const unsigned rest = bits % CHAR_BIT;
  if (rest == 0) return true;
  const unsigned differ = static_cast<unsigned>(a.bytes.at(whole)) ^ b.bytes.at(whole);
  return differ >> (CHAR_BIT - rest) == 0;
}

/// `entry`: an address, or a network such as 10.0.0.0/8.
bool IsInNetwork(const Address& address, std::string_view entry) {
  const std::size_t slash = entry.find('/');
  const std::optional<Address> network = ParseAddress(std::string(entry.substr(0, slash)));
  if (!network || network->family != address.family) return false;
  unsigned bits = address.family == AF_INET ? 32 : 128;
  if (slash != std::string_view::npos) {
    const std::string_view length = entry.substr(slash + 1);
    unsigned given = 0;
    const auto read = std::from_chars(length.data(), length.data() + length.size(), given);
    if (read.ec != std::errc() || read.ptr != length.data() + length.size() || given > bits) {
      return false;
    }
    bits = given;
  }
  return SameBits(address, *network, bits);
}

bool IsInDomain(std::string_view host, std::string_view domain) {
  if (domain.starts_with('.')) domain.remove_prefix(1);
  if (domain.ends_with('.')) domain.remove_suffix(1);
  if (host.ends_with('.')) host.remove_suffix(1);
  if (domain.empty() || host.size() < domain.size()) return false;
  const std::string_view end = host.substr(host.size() - domain.size());
  if (strncasecmp(end.data(), domain.data(), domain.size()) != 0) return false;
  return host.size() == domain.size() || host[host.size() - domain.size() - 1] == '.';
}

/// The proxy that the variable `name` holds for a URL of `scheme`. Without scheme of its own it
/// speaks HTTP, as for other programs.
ProxySettings ParseVariable(const char* name, const std::string& value, const std::string& scheme) {
  const bool has_scheme = value.find("://") != std::string::npos;
  try {
    const std::string url = has_scheme ? value : "http://" + value;
    const bool socks = url.starts_with("socks");
    return ParseProxy(url, socks || scheme == "https");
  } catch (const Failure&) {
    throw Failure(FailureKind::kUsage,
                  std::string(name) + " in the environment is not a supported proxy address",
                  std::string(kForms) + "; --proxy none turns it off");
  }
}

}  // namespace

ProxySettings ParseProxy(const std::string& url, bool tunnel) {
  const Url parsed(url);
  const std::string scheme = parsed.Part(CURLUPART_SCHEME);
  ProxySettings proxy;
  if (scheme == "socks4") {
    proxy.type = "SOCKS4";
  } else if (scheme == "socks5") {
    proxy.type = "SOCKS5";
  } else if (scheme == "http") {
    proxy.type = tunnel ? "HTTP with TUNNEL" : "HTTP without TUNNEL";
  } else {
    throw Failure(FailureKind::kUsage, "invalid proxy address", kForms);
  }
  if (!tunnel && scheme != "http") {
    throw Failure(FailureKind::kUsage, "--proxy-no-tunnel needs an http:// proxy");
  }
  proxy.host = parsed.Part(CURLUPART_HOST);
  const std::string path = parsed.Part(CURLUPART_PATH);
  if (proxy.host.empty() || (path != "/" && !path.empty()) ||
      !parsed.Part(CURLUPART_QUERY).empty()) {
    throw Failure(FailureKind::kUsage, "invalid proxy address", kForms);
  }
  const std::string port = parsed.Part(CURLUPART_PORT);
  proxy.port = port.empty() ? kDefaultPort
                            : static_cast<std::uint16_t>(std::strtoul(port.c_str(), nullptr, 10));
  proxy.user = parsed.Part(CURLUPART_USER, CURLU_URLDECODE);
  proxy.password = parsed.Part(CURLUPART_PASSWORD, CURLU_URLDECODE);
  return proxy;
}

ProxyEnvironment ProxyEnvironment::Read() {
  return {.https_proxy = VariableOr("https_proxy", "HTTPS_PROXY"),
          .http_proxy = Variable("http_proxy"),
          .all_proxy = VariableOr("all_proxy", "ALL_PROXY"),
          .no_proxy = VariableOr("no_proxy", "NO_PROXY")};
}

bool IsExempt(const std::string& host, const std::string& no_proxy) {
  constexpr const char* kSeparators = ", \t";
  const std::optional<Address> address = ParseAddress(host);
  std::string_view rest = no_proxy;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find_first_of(kSeparators), rest.size());
    const std::string_view entry = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (entry == "*") return true;
    if (address ? IsInNetwork(*address, entry) : IsInDomain(host, entry)) return true;
  }
  return false;
}

ProxyRule ProxyRule::Fixed(ProxySettings proxy, const ProxyEnvironment& environment) {
  ProxyRule rule;
  rule.fixed_ = std::move(proxy);
  rule.environment_.no_proxy = environment.no_proxy;
  return rule;
}

ProxyRule ProxyRule::FromEnvironment(ProxyEnvironment environment) {
  ProxyRule rule;
  rule.environment_ = std::move(environment);
  return rule;
}

ProxySettings ProxyRule::For(const std::string& url) const {
  const Url parsed(url);
  const std::string host = parsed.Part(CURLUPART_HOST);
  if (IsExempt(host, environment_.no_proxy)) return {};
  if (!fixed_.type.empty()) return fixed_;
  if (IsLoopback(host)) return {};
  const std::string scheme = parsed.Part(CURLUPART_SCHEME);
  if (scheme == "https" && !environment_.https_proxy.empty()) {
    return ParseVariable("https_proxy", environment_.https_proxy, scheme);
  }
  if (scheme == "http" && !environment_.http_proxy.empty()) {
    return ParseVariable("http_proxy", environment_.http_proxy, scheme);
  }
  if (environment_.all_proxy.empty()) return {};
  return ParseVariable("all_proxy", environment_.all_proxy, scheme);
}

ProxySettings ProxyRule::ForModule(const std::string& url) const {
  return fixed_.type.empty() ? For(url) : fixed_;
}

}  // namespace host
