// Signing in: a login that ends for no good reason, takes somebody else's answer, or sends a token
// to a host that the user's cloud does not own is what these tests hunt.
#include <future>
#include <thread>

#include <curl/curl.h>

#include "base/json_text.h"
#include "emulator/service.h"
#include "host/authority.h"
#include "host/authority_error.h"
#include "host/browser_login.h"
#include "host/device_login.h"
#include "host/drive_finder.h"
#include "host/profile.h"
#include "tests/host/emulated_authority.h"
#include "tests/web_server.h"

namespace host {
namespace {

using emulator::Fault;

/// A browser that follows no redirect by itself.
class Browser {
 public:
  struct Page {
    long status = 0;
    std::string body;
    std::string redirect;
  };

  static Page Open(const std::string& url, const char* form = nullptr) {
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(),
                                                                   &curl_easy_cleanup);
    Page page;
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 10L);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &Collect);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &page.body);
    if (form != nullptr) curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, form);
    curl_easy_perform(curl.get());
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &page.status);
    char* redirect = nullptr;
    curl_easy_getinfo(curl.get(), CURLINFO_REDIRECT_URL, &redirect);
    if (redirect != nullptr) page.redirect = redirect;
    return page;
  }

  /// Answers the authority's question; the address that the browser is sent to.
  static std::string Answer(const std::string& question, const char* answer = "") {
    EXPECT_EQ(Open(question).status, 200);
    const std::size_t query = question.find('?');
    return Open(question.substr(0, query), (question.substr(query + 1) + answer).c_str()).redirect;
  }

 private:
  static std::size_t Collect(char* data, std::size_t size, std::size_t count, void* body) {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
  }
};

class LoginTest : public EmulatedAuthority {
 protected:
  LoginTest() {
    settings_.token_url = TokenUrl(service_.AuthorityUrl(), {});
    settings_.unified_api = resource_ = service_.UnifiedApiUrl();
    settings_.client_id = service_.ClientId();
  }

  std::string LogInByCode(const std::function<bool(const std::string& code)>& answer) {
    return LogInByDevice(context_, [&](const std::string& address, const std::string& code) {
      EXPECT_EQ(Browser::Open(address).status, 200);
      EXPECT_TRUE(answer(code));
    });
  }
  std::string LogInWithApproval() {
    return LogInByCode([&](const std::string& code) { return service_.ApproveDevice(code); });
  }

  /// What a failure says and advises.
  template <class Action>
  static std::string Refusal(const Action& action) {
    try {
      action();
    } catch (const Failure& failure) {
      return std::string(failure.what()) + " | " + failure.advice();
    }
    return "nothing was refused";
  }

  AuthorizerContext Parts() { return {settings_, http_, profile_, log_, redactor_, cancellation_}; }

  std::string resource_;
  LoginContext context_{settings_, resource_, http_, cancellation_, log_, redactor_};
  ValueStore store_;
  Profile profile_{store_, "p"};
};

TEST_F(LoginTest, ByDeviceInBothForms) {
  for (const bool old : {false, true}) {
    if (old) {
      settings_.token_url = service_.TokenUrl();
      resource_ = service_.ServiceResource();
    }
    profile_.KeepRefreshToken(LogInWithApproval());
    EXPECT_NE(Authorizer(Parts()).AccessToken(service_.ServiceResource()), "");
    const std::string declined = Refusal([&] {
      LogInByCode([&](const std::string& code) { return service_.DeclineDevice(code); });
    });
    EXPECT_NE(declined.find("declined in the browser"), std::string::npos) << declined;
  }
}

TEST_F(LoginTest, PollingEndsOnlyWhenTheAuthorityRefuses) {
  for (const Fault& fault : {Fault::Status(503), Fault::Reset(emulator::Place::kBeforeAnswer)}) {
    service_.AddFault(Fault(fault).On("POST", "/token").Nth(1));
    EXPECT_NE(LogInWithApproval(), "");
    service_.ClearFaults();
  }
  Fault denied = Fault::Status(400);
  denied.body = R"({"error":"access_denied","error_description":"AADSTS53003: no"})";
  service_.AddFault(denied.On("POST", "/token"));
  const std::string refusal = Refusal([&] { LogInWithApproval(); });
  EXPECT_NE(refusal.find("a rule of the organisation forbids"), std::string::npos) << refusal;
  EXPECT_EQ(refusal.find("declined"), std::string::npos) << "nobody did";
}

TEST_F(LoginTest, ByBrowserWithItsOwnAnswerOnly) {
  std::jthread browser;
  profile_.KeepRefreshToken(LogInByBrowser(context_, [&](const std::string& question) {
    browser = std::jthread([question] {
      const std::string back = Browser::Answer(question);
      const std::string place = back.substr(0, back.find('?'));
      EXPECT_TRUE(place.starts_with("http://localhost:")) << place;
      EXPECT_EQ(Browser::Open(place + "favicon.ico").status, 404);
      EXPECT_EQ(Browser::Open(place + "?code=stolen&state=guessed").status, 400);
      EXPECT_EQ(Browser::Open(place + "?code=stolen").status, 404);
      const Browser::Page page = Browser::Open(back);
      EXPECT_EQ(page.status, 200);
      EXPECT_NE(page.body.find("close this window"), std::string::npos);
    });
  }));
  browser.join();
  EXPECT_NE(Authorizer(Parts()).AccessToken(service_.ServiceResource()), "");

  std::promise<std::string> asked;
  auto declined = std::async(std::launch::async, [&] {
    return Refusal([&] {
      LogInByBrowser(context_, [&](const std::string& address) { asked.set_value(address); });
    });
  });
  const std::string question = asked.get_future().get();
  EXPECT_EQ(Browser::Open(Browser::Answer(question, "&decline=1")).status, 200);
  const std::string refusal = declined.get();
  EXPECT_NE(refusal.find("declined in the browser"), std::string::npos) << refusal;
  // An answer that comes too late meets nobody.
  EXPECT_EQ(Browser::Open(Browser::Answer(question)).status, 0);
}

TEST_F(LoginTest, ACodeIsGoodForWhoeverAskedForItOnly) {
  const auto exchange = [&](const std::string& verifier) {
    const std::string question =
        AuthorizeUrl(settings_.token_url) + '?' +
        EncodeForm({{"client_id", settings_.client_id},
                    {"response_type", "code"},
                    {"redirect_uri", "http://localhost:1"},
                    WantedField(settings_.token_url, resource_),
                    {"state", "s"},
                    // RFC 7636, appendix B.
                    {"code_challenge", "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM"},
                    {"code_challenge_method", "S256"}});
    std::string code = Browser::Answer(question);
    code = code.substr(code.find("code=") + 5);
    code = code.substr(0, code.find('&'));
    const auto redeem = [&] {
      return http_.PostForm(settings_.token_url, {{"grant_type", "authorization_code"},
                                                  {"client_id", settings_.client_id},
                                                  {"code", code},
                                                  {"redirect_uri", "http://localhost:1"},
                                                  {"code_verifier", verifier}});
    };
    const long first = redeem().status;
    EXPECT_EQ(redeem().status, 400) << "a code is good once";
    return first;
  };
  EXPECT_EQ(exchange("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"), 200);
  EXPECT_EQ(exchange("somebody-else"), 400);
  const std::string elsewhere =
      Browser::Open(AuthorizeUrl(settings_.token_url) +
                    "?response_type=code&redirect_uri=https%3A%2F%2Fevil.example%2F&client_id=" +
                    settings_.client_id)
          .redirect;
  EXPECT_EQ(elsewhere, "") << "the emulator sends codes to loopback only";
}

TEST_F(LoginTest, TheDriveIsFoundByTheAccount) {
  profile_.KeepRefreshToken(service_.IssueRefreshToken());
  FindDrive(settings_, Parts());
  EXPECT_EQ(settings_.service_endpoint, service_.ServiceEndpoint());
  EXPECT_EQ(settings_.service_resource, service_.ServiceResource());
  SetSite(settings_, service_.Origin() + "/personal/demo_contoso_example/Documents/Forms/All.aspx");
  EXPECT_EQ(settings_.service_endpoint, service_.ServiceEndpoint());
  SetSite(settings_, "https://contoso.sharepoint.com");
  EXPECT_EQ(settings_.service_endpoint, "https://contoso.sharepoint.com/_api/v2.0");
  EXPECT_EQ(KindOf([&] { SetSite(settings_, "http://contoso.sharepoint.com"); }),
            FailureKind::kUsage);
}

TEST_F(LoginTest, NoTokenLeavesForAHostOutsideOfTheCloud) {
  std::string web_url;
  int status = 200;
  WebServer api([&](const Received&) {
    return emulator::JsonResponse(status, R"({"driveType":")" +
                                              std::string(status == 299 ? "personal" : "business") +
                                              R"(","webUrl":")" + web_url + "\"}");
  });
  Fault token = Fault::Status(200);
  token.body = R"({"access_token":"t","refresh_token":"r","token_type":"Bearer"})";
  const auto find = [&](const std::string& url) {
    web_url = url;
    service_.AddFault(token.On("POST", "/token"));
    profile_.KeepRefreshToken(service_.IssueRefreshToken());
    settings_.service_endpoint.clear();
    const std::string refusal = Refusal([&] { FindDrive(settings_, Parts()); });
    return settings_.service_endpoint.empty() ? refusal : "";
  };
  settings_.unified_api = api.Url("");
  for (const char* url :
       {"https://evil.example/personal/x/Documents", "https://user:pw@localhost/personal/x",
        "ftp://localhost/personal/x", "javascript:alert(1)", "https://", "",
        "https://localhost.evil.example/personal/x"}) {
    EXPECT_NE(find(url), "") << url;
  }
  EXPECT_EQ(find("https://localhost:1/personal/x/Documents"), "");
  EXPECT_EQ(settings_.service_endpoint, "https://localhost:1/personal/x/_api/v2.0");
  status = 404;
  EXPECT_NE(find("").find("licence"), std::string::npos);
  status = 403;
  EXPECT_NE(find("").find("permission"), std::string::npos);
  status = 503;
  EXPECT_NE(find("").find("try again"), std::string::npos);
}

TEST(Authority, AddressesOfCloudsAndTenants) {
  ServiceSettings settings;
  SetAuthority(settings, {});
  EXPECT_EQ(settings.token_url,
            "https://login.microsoftonline.com/organizations/oauth2/v2.0/token");
  EXPECT_EQ(settings.unified_api, "https://graph.microsoft.com");
  settings = {};
  SetAuthority(settings, {.cloud = "china", .authority = "", .tenant = "contoso.cn"});
  EXPECT_EQ(TenantOf(settings.token_url), "contoso.cn");
  EXPECT_EQ(settings.unified_api, "https://microsoftgraph.chinacloudapi.cn");
  settings = {};
  SetAuthority(settings,
               {.cloud = "", .authority = "https://sts.example:8443/tenant/", .tenant = ""});
  EXPECT_EQ(settings.token_url, "https://sts.example:8443/tenant/oauth2/v2.0/token");
  EXPECT_EQ(settings.unified_api, "https://sts.example:8443") << "no other host is asked";
  EXPECT_EQ(DeviceUrl(settings.token_url),
            "https://sts.example:8443/tenant/oauth2/v2.0/devicecode");
  EXPECT_FALSE(IsOldForm(settings.token_url));
  ServiceSettings other;
  SetAuthority(other, {.cloud = "", .authority = "", .tenant = "fabrikam"}, settings);
  EXPECT_EQ(other.token_url, "https://sts.example:8443/fabrikam/oauth2/v2.0/token")
      << "tokens of one authority are sent to no other";
  EXPECT_TRUE(IsOldForm("https://login.microsoftonline.com/common/oauth2/token"));
}

}  // namespace
}  // namespace host
