// Hunts requests that go round the proxy that the person or the system named, requests to this
// machine or to exempt hosts that go through it, and tokens that leave the machine unencrypted.
#include "host/proxy.h"

#include <gtest/gtest.h>

#include "host/settings.h"
#include "host/url.h"
#include "tests/host/folder_test.h"

namespace host {
namespace {

std::string Text(const ProxySettings& proxy) {
  if (proxy.type.empty()) return "none";
  return proxy.type + " " + proxy.user + ":" + proxy.password + "@" + proxy.host + ":" +
         std::to_string(proxy.port);
}

TEST(Proxy, AddressesAreUnderstoodOrRefused) {
  EXPECT_EQ(Text(ParseProxy("http://us%40er:p%3Aw@[::1]:8080", false)),
            "HTTP without TUNNEL us@er:p:w@[::1]:8080");
  EXPECT_EQ(Text(ParseProxy("socks5://h", true)), "SOCKS5 :@h:1080");
  for (const char* bad : {"", "ftp://h", "http://h/path", "socks5h://h", "http://", "none"}) {
    EXPECT_EQ(KindOf([&] { ParseProxy(bad, true); }), FailureKind::kUsage) << bad;
  }
}

TEST(Proxy, TheEnvironmentNamesOneForEachAddress) {
  const ProxyEnvironment both{.https_proxy = "http://s:1", .http_proxy = "p:2", .all_proxy = "a:3"};
  const ProxyEnvironment all{.all_proxy = "socks5://u:pw@a:3"};
  const ProxyEnvironment some{.https_proxy = "http://s:1", .no_proxy = ".corp.example, other"};
  struct Case {
    const ProxyEnvironment& environment;
    const char* url;
    const char* proxy;
  };
  for (const Case& c : {
           Case{both, "https://x.example/token", "HTTP with TUNNEL :@s:1"},
           {both, "http://x.example", "HTTP without TUNNEL :@p:2"},
           {all, "https://x.example", "SOCKS5 u:pw@a:3"},
           {all, "http://x.example", "SOCKS5 u:pw@a:3"},
           {some, "http://x.example", "none"},
           {some, "https://login.corp.example", "none"},
           {some, "https://corp.example.evil", "HTTP with TUNNEL :@s:1"},
           {both, "https://localhost:8443/x", "none"},
           {both, "https://LOCALHOST", "none"},
           {both, "https://127.8.9.1", "none"},
           {both, "https://[::1]:1", "none"},
           {both, "https://127.evil.example", "HTTP with TUNNEL :@s:1"},
       }) {
    EXPECT_EQ(Text(ProxyRule::FromEnvironment(c.environment).For(c.url)), c.proxy) << c.url;
  }
  for (const char* bad : {"https://s:1", "socks5h://s", "http://"}) {
    const ProxyRule rule = ProxyRule::FromEnvironment({.https_proxy = bad});
    EXPECT_EQ(KindOf([&] { rule.For("https://x.example"); }), FailureKind::kUsage) << bad;
    EXPECT_NO_THROW(rule.For("https://localhost")) << "not needed there";
  }
}

TEST(Proxy, AFixedOneHoldsForAllButExemptHosts) {
  const ProxyRule rule = ProxyRule::Fixed(ParseProxy("http://f:1", true),
                                          {.https_proxy = "http://s:1", .no_proxy = "exempt"});
  EXPECT_EQ(Text(rule.For("https://localhost")), "HTTP with TUNNEL :@f:1");
  EXPECT_EQ(Text(rule.For("https://exempt")), "none");
  EXPECT_EQ(Text(rule.ForModule("https://exempt")), "HTTP with TUNNEL :@f:1")
      << "other addresses of the service may not be exempt";
}

TEST(Proxy, ExemptHosts) {
  struct Case {
    const char* host;
    const char* no_proxy;
    bool exempt;
  };
  for (const Case& c : {
           Case{"h", "*", true},
           {"a.b.c", "b.c", true},
           {"a.b.c", "x,.B.C", true},
           {"b.c", ".b.c", true},
           {"a.b.c.", "b.c.", true},
           {"ab.c", "b.c", false},
           {"b.c", "a.b.c", false},
           {"h", "", false},
           {"h", ",. ,", false},
           {"10.1.2.3", "10.0.0.0/8", true},
           {"11.1.2.3", "10.0.0.0/8", false},
           {"10.1.2.3", "10.1.2.0/23 ", true},
           {"10.1.4.3", "10.1.2.0/23", false},
           {"10.1.2.3", "10.1.2.3", true},
           {"10.1.2.3", "2.3", false},
           {"10.1.2.3", "0.0.0.0/0", true},
           {"10.1.2.3", "10.0.0.0/33", false},
           {"[fd00::1]", "fd00::/8", true},
           {"[fd00::1]", "[fd00::1]", true},
           {"[fe00::1]", "fd00::/8", false},
       }) {
    EXPECT_EQ(IsExempt(c.host, c.no_proxy), c.exempt) << c.host << " in " << c.no_proxy;
  }
}

TEST(Settings, TokensLeaveTheMachineEncryptedOnly) {
  ServiceSettings good;
  good.client_id = "id";
  good.token_url = "https://authority.example/token";
  EXPECT_NO_THROW(CheckSettings(good));
  for (const char* local : {"http://localhost:1/t", "http://127.0.0.1/t", "http://[::1]:2/t"}) {
    ServiceSettings settings = good;
    settings.token_url = local;
    EXPECT_NO_THROW(CheckSettings(settings)) << local;
  }
  for (const char* bad : {"http://authority.example/t", "http://127.evil.example/t",
                          "http://localhost.evil.example/t", "http://localhost@evil.example/t",
                          "http://128.0.0.1/t", "ftp://localhost/t", "localhost/t", ""}) {
    for (const auto member : {&ServiceSettings::token_url, &ServiceSettings::discovery_url,
                              &ServiceSettings::service_endpoint}) {
      ServiceSettings settings = good;
      settings.service_resource = member == &ServiceSettings::service_endpoint ? "r" : "";
      settings.*member = bad;
      if (*bad == '\0' && member == &ServiceSettings::discovery_url) continue;  // not set
      EXPECT_EQ(KindOf([&] { CheckSettings(settings); }), FailureKind::kUsage) << bad;
    }
  }
}

}  // namespace
}  // namespace host
