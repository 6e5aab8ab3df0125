// The emulator against the service's public rules. It is what every other test measures the module
// with: a rule it does not keep is a fault that no test would see.
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include "emulator/service.h"

namespace emulator {
namespace {

using namespace std::chrono_literals;

struct Reply {
  CURLcode code = CURLE_OK;
  long status = 0;
  std::string body;
  HeaderList headers;
  Json::Value json;

  std::string Header(const std::string& name) const {
    return FindHeader(headers, name).value_or("");
  }
  std::string Error() const { return json["error"]["code"].asString(); }
};

std::size_t Collect(char* data, std::size_t size, std::size_t count, void* body) {
  static_cast<std::string*>(body)->append(data, size * count);
  return size * count;
}

std::size_t CollectHeader(char* data, std::size_t size, std::size_t count, void* headers) {
  const std::string line(data, size * count);
  if (const auto colon = line.find(": "); colon != std::string::npos) {
    const auto value = line.substr(colon + 2);
    static_cast<HeaderList*>(headers)->emplace_back(line.substr(0, colon),
                                                    value.substr(0, value.find('\r')));
  }
  return size * count;
}

/// A client of one service, signed in as the demo user.
class Client {
 public:
  explicit Client(Service& service) : service_(service), curl_(curl_easy_init()) {
    token = Form(service.TokenUrl(), TokenForm(service.IssueRefreshToken()))
                .json["access_token"]
                .asString();
  }
  ~Client() { curl_easy_cleanup(curl_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// `target`: below the endpoint, or a whole URL. The token goes to the service's origin only.
  Reply Send(const std::string& method, const std::string& target, const std::string& body = {},
             std::vector<std::string> headers = {}) {
    const std::string url = target.front() == '/' ? service_.ServiceEndpoint() + target : target;
    if (url.starts_with(service_.Origin())) headers.push_back("Authorization: Bearer " + token);
    return Perform(method, url, body, headers);
  }
  Reply Get(const std::string& target, std::vector<std::string> headers = {}) {
    return Send("GET", target, {}, std::move(headers));
  }
  Reply Form(const std::string& url, const std::string& form) {
    return Perform("POST", url, form, {"Content-Type: application/x-www-form-urlencoded"});
  }
  std::string TokenForm(const std::string& refresh_token) {
    return "grant_type=refresh_token&client_id=" + service_.ClientId() +
           "&refresh_token=" + refresh_token + "&resource=" + service_.ServiceResource();
  }
  Reply Perform(const std::string& method, const std::string& url, const std::string& body,
                const std::vector<std::string>& headers) {
    Reply reply;
    curl_slist* list = curl_slist_append(nullptr, "Expect:");
    for (const auto& header : headers) list = curl_slist_append(list, header.c_str());
    curl_easy_reset(curl_);
    curl_blob ca{};
    ca.data = const_cast<char*>(service_.CertificateAuthorityPem().data());
    ca.len = service_.CertificateAuthorityPem().size();
    curl_easy_setopt(curl_, CURLOPT_CAINFO_BLOB, &ca);
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    // On a kept connection libcurl would hide a reset by sending the request once more.
    curl_easy_setopt(curl_, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(curl_, CURLOPT_CUSTOMREQUEST, method.c_str());
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, list);
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT_MS, 20000L);
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, Collect);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &reply.body);
    curl_easy_setopt(curl_, CURLOPT_HEADERFUNCTION, CollectHeader);
    curl_easy_setopt(curl_, CURLOPT_HEADERDATA, &reply.headers);
    if (method == "HEAD") curl_easy_setopt(curl_, CURLOPT_NOBODY, 1L);
    if (method == "POST" || method == "PUT" || method == "PATCH") {
      curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
      curl_easy_setopt(curl_, CURLOPT_COPYPOSTFIELDS, body.c_str());
      curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    }
    reply.code = curl_easy_perform(curl_);
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &reply.status);
    curl_slist_free_all(list);
    Json::Reader().parse(reply.body, reply.json);
    return reply;
  }

  std::string token;

 private:
  Service& service_;
  CURL* curl_;
};

class EmulatorTest : public testing::Test {
 protected:
  void TearDown() override { EXPECT_TRUE(service.UnfiredFaults().empty()); }
  Service service;
  Client client{service};
};

TEST_F(EmulatorTest, TokenEndpointRefusesWithTheDocumentedCodes) {
  const std::string id = "client_id=" + service.ClientId();
  const std::string good = "&resource=" + service.ServiceResource();
  const struct {
    std::string form;
    const char* error;
    int code;
  } cases[] = {
      {id, "invalid_request", 900144},
      {"grant_type=refresh_token", "invalid_request", 900144},
      {"grant_type=refresh_token&client_id=other", "unauthorized_client", 700016},
      {"grant_type=password&" + id, "unsupported_grant_type", 70003},
      {"grant_type=refresh_token&" + id + "&refresh_token=x", "invalid_request", 900144},
      {"grant_type=refresh_token&" + id + "&refresh_token=x&resource=y", "invalid_resource",
       500011},
      {"grant_type=refresh_token&" + id + "&refresh_token=x" + good, "invalid_grant", 70000},
  };
  for (const auto& [form, error, code] : cases) {
    const Reply reply = client.Form(service.TokenUrl(), form);
    EXPECT_EQ(reply.status, 400) << form;
    EXPECT_EQ(reply.json["error"], error) << form;
    EXPECT_EQ(reply.json["error_codes"][0], code) << form;
  }
}

TEST_F(EmulatorTest, TokensAreForOneResourceAndEnd) {
  EXPECT_EQ(client.Get("/drive").json["owner"]["user"]["email"], "demo@contoso.example");
  const Reply foreign = client.Get(service.DiscoveryUrl());
  EXPECT_EQ(foreign.status, 401);
  EXPECT_NE(foreign.Header("WWW-Authenticate").find("Bearer"), std::string::npos);
  service.ExpireAccessTokens();
  EXPECT_EQ(client.Get("/drive").Error(), "unauthenticated");
  const std::string used = service.IssueRefreshToken();
  EXPECT_EQ(client.Form(service.TokenUrl(), client.TokenForm(used)).status, 200);
  EXPECT_EQ(client.Form(service.TokenUrl(), client.TokenForm(used)).status, 200);
  service.RevokeRefreshTokens();
  EXPECT_EQ(client.Form(service.TokenUrl(), client.TokenForm(used)).json["error"], "invalid_grant");
}

TEST_F(EmulatorTest, DeviceSignInWaitsForThePerson) {
  const std::string client_id = "client_id=" + service.ClientId();
  const auto start = [&] {
    return client
        .Form(service.DeviceCodeUrl(), client_id + "&resource=" + service.ServiceResource())
        .json;
  };
  const auto poll = [&](const Json::Value& device) {
    return client
        .Form(service.TokenUrl(),
              "grant_type=device_code&" + client_id + "&code=" + device["device_code"].asString())
        .json;
  };
  const Json::Value device = start();
  EXPECT_EQ(poll(device)["error"], "authorization_pending");
  EXPECT_EQ(poll(device)["error"], "slow_down");
  const std::string page = device["verification_url"].asString();
  EXPECT_NE(client.Form(page, "code=<none>").body.find("&lt;none&gt;"), std::string::npos);
  client.Form(page, "code=" + device["user_code"].asString());
  client.token = poll(device)["access_token"].asString();
  EXPECT_EQ(client.Get("/drive").status, 200);
  EXPECT_EQ(poll(device)["error"], "bad_verification_code") << "a code is good for one token";

  const Json::Value declined = start();
  EXPECT_TRUE(service.DeclineDevice(declined["user_code"].asString()));
  EXPECT_EQ(poll(declined)["error"], "authorization_declined");
}

TEST_F(EmulatorTest, PagesHoldEveryItemOnceAndTheirLinksAreOpaque) {
  std::set<std::string> names;
  std::vector<Json::ArrayIndex> sizes;
  std::string link = service.ServiceEndpoint() + "/drive/root:/Photos%202026:/children";
  std::string last_link;
  while (!link.empty()) {
    const Reply page = client.Get(link);
    ASSERT_EQ(page.status, 200) << page.body;
    sizes.push_back(page.json["value"].size());
    for (const auto& item : page.json["value"]) names.insert(item["name"].asString());
    if (!link.empty()) last_link = link;
    link = page.json["@odata.nextLink"].asString();
  }
  EXPECT_EQ(sizes, (std::vector<Json::ArrayIndex>{200, 200, 50}));
  EXPECT_EQ(names.size(), 450U);
  char& altered = last_link[last_link.size() - 6];
  altered = altered == 'A' ? 'B' : 'A';  // still a character that may stand in a URL
  EXPECT_EQ(client.Get(last_link).Error(), "invalidRequest");
}

TEST_F(EmulatorTest, OthersDrivesAreOpenWhereShared) {
  const Json::Value shared = client.Get("/drive/oneDrive.sharedWithMe").json["value"];
  ASSERT_EQ(shared.size(), 2U);
  const std::string drive = "/drives/" + service.OtherDrive().Id();
  const std::string folder = shared[1]["remoteItem"]["id"].asString();
  const std::string file = shared[0]["remoteItem"]["id"].asString();
  const struct {
    const char* method;
    std::string target;
    long status;
  } cases[] = {
      {"GET", drive + "/items/" + folder + "/children", 200},
      {"GET", drive + "/items/" + folder + ":/Minutes/kick-off.TXT", 200},
      {"PUT", drive + "/items/" + folder + ":/Minutes/New.txt:/content", 201},
      {"GET", drive + "/root:/Private/Diary.txt", 403},
      {"GET", drive + "/root", 403},
      {"PUT", drive + "/items/" + file + "/content", 403},
      {"GET", "/drives/b!unknown/root", 404},
  };
  for (const auto& [method, target, status] : cases) {
    EXPECT_EQ(client.Send(method, target, "x").status, status) << method << target;
  }
}

TEST_F(EmulatorTest, ContentComesFromAnotherOriginInRanges) {
  service.UserDrive().WriteFile("/ten.txt", "0123456789");
  const Reply redirect = client.Get("/drive/root:/ten.txt:/content");
  ASSERT_EQ(redirect.status, 302);
  const std::string link = redirect.Header("Location");
  ASSERT_TRUE(link.starts_with(service.ContentOrigin()));
  const struct {
    const char* range;
    long status;
    const char* body;
    const char* content_range;
  } cases[] = {
      {"Range:", 200, "0123456789", ""},
      {"Range: bytes=2-4", 206, "234", "bytes 2-4/10"},
      {"Range: bytes=7-99", 206, "789", "bytes 7-9/10"},
      {"Range: bytes=-3", 206, "789", "bytes 7-9/10"},
      {"Range: bytes=4-2", 200, "0123456789", ""},
      {"Range: bytes=0-1,4-5", 200, "0123456789", ""},
      {"Range: bytes=10-", 416, nullptr, "bytes */10"},
  };
  for (const auto& [range, status, body, content_range] : cases) {
    const Reply reply = client.Get(link, {range});
    EXPECT_EQ(reply.status, status) << range;
    EXPECT_EQ(reply.Header("Content-Range"), content_range) << range;
    if (body != nullptr) {
      EXPECT_EQ(reply.body, body) << range;
    }
  }
  EXPECT_EQ(client.Send("HEAD", link).Header("Content-Length"), "10");
  EXPECT_EQ(client.Get(link, {"Authorization: Bearer " + client.token}).status, 401);
  std::string tidied = link;
  tidied.replace(tidied.find("%2b"), 3, "%2B");
  EXPECT_EQ(client.Get(tidied).status, 401);
  service.ExpireDownloadLinks();
  EXPECT_EQ(client.Get(link).status, 401);
}

TEST_F(EmulatorTest, SessionsTakePiecesInOrder) {
  constexpr std::size_t kGranule = std::size_t{320} * 1024;
  std::string bytes(2 * kGranule + 5, '\0');
  PatternContent(bytes.size())->Read(0, bytes);
  const Reply created = client.Send("POST", "/drive/root:/big.bin:/upload.createSession");
  ASSERT_EQ(created.status, 200) << created.body;
  const std::string url = created.json["uploadUrl"].asString();
  ASSERT_TRUE(url.starts_with(service.ContentOrigin()));
  EXPECT_EQ(client.Send("PUT", url, "x", {"Authorization: Bearer " + client.token}).status, 401);
  const auto put = [&](std::size_t first, std::size_t size) {
    return client.Send("PUT", url, bytes.substr(first, size),
                       {"Content-Range: bytes " + std::to_string(first) + "-" +
                        std::to_string(first + size - 1) + "/" + std::to_string(bytes.size())});
  };
  const struct {
    std::size_t first, size;
    long status;
    const char* next;  // what the service waits for afterwards
  } steps[] = {
      {kGranule, kGranule, 416, "0-"},      {0, kGranule - 1, 400, "0-"},
      {0, kGranule, 202, "327680-"},        {0, kGranule, 416, "327680-"},
      {kGranule, kGranule, 202, "655360-"}, {2 * kGranule, 5, 201, nullptr},
  };
  for (const auto& step : steps) {
    EXPECT_EQ(put(step.first, step.size).status, step.status) << step.first << "+" << step.size;
    if (step.next != nullptr) {
      EXPECT_EQ(client.Get(url).json["nextExpectedRanges"][0], step.next);
    }
  }
  EXPECT_TRUE(service.UserDrive().ReadFile("/big.bin") == bytes);
  EXPECT_EQ(client.Get(url).status, 404);

  // A piece that breaks off counts for nothing.
  const std::string again =
      client.Send("POST", "/drive/root:/big.bin:/createUploadSession").json["uploadUrl"].asString();
  EXPECT_EQ(client
                .Send("PUT", again, bytes.substr(0, kGranule),
                      {"Content-Range: bytes 0-655364/655365", "Transfer-Encoding: chunked"})
                .status,
            400);
  EXPECT_EQ(client.Get(again).json["nextExpectedRanges"][0], "0-");
  EXPECT_EQ(client.Send("DELETE", again).status, 204);
  EXPECT_EQ(client.Get(again).status, 404);
}

TEST_F(EmulatorTest, ChangesKeepTheRules) {
  Drive& drive = service.UserDrive();
  const std::string a = "/drive/items/" + drive.WriteFile("/a.txt", "a");
  const std::string dir = "/drive/items/" + drive.MakeFolder("/dir/sub");
  const std::string locked_id = drive.WriteFile("/locked.docx", "x");
  drive.Lock(locked_id);
  drive.RewriteUploads(".xlsx", "<rewritten>");
  drive.SetQuotaTotal(drive.GetQuota().used + 50);
  const std::string tag = "If-Match: " + drive.FindPath("/a.txt")->ETag();
  const struct {
    const char* method;
    std::string target, body, header;
    long status;
    const char* expected;  // the error's code, or the item's name
  } steps[] = {
      {"PUT", a + "/content", "new", tag, 200, "a.txt"},
      {"PUT", a + "/content", "newer", tag, 412, "resourceModified"},
      {"DELETE", a, "", tag, 412, "resourceModified"},
      {"PUT", "/drive/root:/A.TXT:/content?@name.conflictBehavior=fail", "x", "", 409,
       "nameAlreadyExists"},
      {"PUT", "/drive/root:/A.TXT:/content?%40name.conflictBehavior=rename", "x", "", 201,
       "A 1.TXT"},
      {"PUT", "/drive/root/children/b%23.txt/content", "b", "", 201, "b#.txt"},
      {"PUT", "/drive/root:/none/b.txt:/content", "b", "", 404, "itemNotFound"},
      {"PUT", "/drive/root:/full.txt:/content", std::string(60, 'x'), "", 507, "quotaLimitReached"},
      {"PUT", "/drive/items/" + locked_id + "/content", "x", "", 423, "resourceLocked"},
      {"DELETE", "/drive/items/" + locked_id, "", "", 423, "resourceLocked"},
      {"POST", "/drive/root/children", R"({"name":"dir","folder":{}})", "", 409,
       "nameAlreadyExists"},
      {"POST", "/drive/root/children", R"({"name":"a:b","folder":{}})", "", 400, "invalidRequest"},
      {"POST", dir + "/children", R"({"name":"new","folder":{}})", "", 201, "new"},
      {"PATCH", a, R"({"name":"moved.txt","parentReference":{"path":"/drive/root:/dir"}})", "", 200,
       "moved.txt"},
      {"PATCH", "/drive/root:/dir", R"({"parentReference":{"path":"/drive/root:/dir/sub"}})", "",
       400, "invalidRequest"},
      {"PATCH", "/drive/root", R"({"name":"r"})", "", 403, "accessDenied"},
      {"DELETE", "/drive/root:/dir", "", "", 204, ""},
      {"GET", a, "", "", 404, "itemNotFound"},
      {"PUT", "/drive/root", "", "", 405, "invalidRequest"},
  };
  for (const auto& step : steps) {
    const Reply reply = client.Send(step.method, step.target, step.body, {step.header});
    EXPECT_EQ(reply.status, step.status) << step.method << step.target << reply.body;
    const std::string name = reply.status < 300 ? reply.json["name"].asString() : reply.Error();
    EXPECT_EQ(name, step.expected) << step.method << step.target;
  }
  const Json::Value rewritten = client.Send("PUT", "/drive/root:/t.xlsx:/content", "x").json;
  EXPECT_EQ(rewritten["size"], 12);
  EXPECT_TRUE(rewritten["eTag"].asString().ends_with(",2\""));
}

TEST_F(EmulatorTest, ItemsMoveInsideOneDriveOnly) {
  Drive& other = service.OtherDrive();
  const std::string shared = other.MakeFolder("/Open/to");
  other.Share(other.FindPath("/Open")->id, SharedRole::kWrite);
  other.MakeFolder("/Closed");
  other.MakeFolder("/Open/from");
  service.UserDrive().MakeFolder("/Open/to");
  const std::string drive = "/drives/" + other.Id();
  const auto id = [](const std::string& text) { return R"("id":")" + text + '"'; };
  const auto path = [](const std::string& text) { return R"("path":")" + text + '"'; };
  const auto in = [](const Drive& one) { return R"(,"driveId":")" + one.Id() + '"'; };
  const struct {
    std::string reference;
    long status;
  } cases[] = {
      {id(shared) + in(other), 200},
      {id(shared), 200},
      {path(drive + "/root:/Open/to"), 200},
      {path("/drive/root:/Open/to") + in(other), 200},
      // There is such a folder in both drives; this is that of the caller.
      {path("/drive/root:/Open/to"), 400},
      {path("/drives/" + service.UserDrive().Id() + "/root:/Open/to"), 400},
      {id(service.UserDrive().RootId()) + in(service.UserDrive()), 400},
      {id(service.UserDrive().RootId()), 404},
      {id(shared) + R"(,"driveId":"b!unknown")", 404},
      {id(other.FindPath("/Closed")->id), 403},
  };
  Client second(service);
  for (const auto& [reference, status] : cases) {
    const std::string item = drive + "/items/" + other.WriteFile("/Open/from/a.txt", "a");
    const std::string body = R"({"parentReference":{)" + reference + "}}";
    EXPECT_EQ(client.Send("PATCH", item, body).status, status) << reference;
    // Another client sees what became of it at once.
    EXPECT_EQ(second.Get(item).json["parentReference"]["id"],
              other.FindPath(status == 200 ? "/Open/to" : "/Open/from")->id)
        << reference;
    other.Remove("/Open/to/a.txt");
  }
}

TEST_F(EmulatorTest, UploadsKeepTheirConditions) {
  Drive& drive = service.UserDrive();
  const auto tag = [&] { return drive.FindPath("/there.txt")->ETag(); };
  drive.WriteFile("/there.txt", "1");
  const std::string old_tag = tag();
  drive.WriteFile("/there.txt", "2");
  const std::string fail = R"({"item":{"@name.conflictBehavior":"fail"}})";
  const std::string there = "/drive/root:/there.txt:/";
  const std::string none = "/drive/root:/none.txt:/";
  const struct {
    std::string put_or_post, target, body, if_match;
    long status;
  } cases[] = {
      {"PUT", there + "content", "3", old_tag, 412},
      {"PUT", there + "content", "3", tag(), 200},
      {"PUT", none + "content", "3", old_tag, 412},
      {"PUT", there + "content?@name.conflictBehavior=fail", "4", "", 409},
      {"PUT", none + "content?@name.conflictBehavior=fail", "4", "", 201},
      {"POST", there + "createUploadSession", "", old_tag, 412},
      {"POST", there + "createUploadSession", fail, "", 409},
      {"POST", "/drive/root:/new.txt:/createUploadSession", fail, "", 200},
  };
  for (const auto& [method, target, body, if_match, status] : cases) {
    std::vector<std::string> headers;
    if (!if_match.empty()) headers.push_back("If-Match: " + if_match);
    const Reply reply = client.Send(method, target, body, headers);
    EXPECT_EQ(reply.status, status) << method << target << reply.body;
    EXPECT_EQ(reply.Error(), status == 412   ? "resourceModified"
                             : status == 409 ? "nameAlreadyExists"
                                             : "");
  }
  EXPECT_EQ(drive.ReadFile("/there.txt"), "3");
  // What changes while the fragments come counts as well.
  const Json::Value changed =
      client.Send("POST", there + "createUploadSession", "", {"If-Match: " + tag()}).json;
  const Json::Value taken =
      client.Send("POST", "/drive/root:/late.txt:/createUploadSession", fail).json;
  drive.WriteFile("/there.txt", "meanwhile");
  drive.WriteFile("/late.txt", "meanwhile");
  for (const auto& [session, status] : {std::pair(changed, 412L), {taken, 409L}}) {
    const Reply last =
        client.Send("PUT", session["uploadUrl"].asString(), "x", {"Content-Range: bytes 0-0/1"});
    EXPECT_EQ(last.status, status) << last.body;
  }
  EXPECT_EQ(drive.ReadFile("/there.txt"), "meanwhile");
  EXPECT_EQ(drive.ReadFile("/late.txt"), "meanwhile");
}

TEST_F(EmulatorTest, RefusesTheNamesThatTheServiceRefuses) {
  const std::string long_name(255, 'n');
  const std::string emoji = "%F0%9F%98%80";  // two UTF-16 units
  std::string emojis;
  for (int i = 0; i < 127; ++i) emojis += emoji;
  const struct {
    std::string name;
    long status;
  } cases[] = {
      {"CON", 400},         {"con.txt", 201},     {"prn", 400},          {"AUX", 400},
      {"Nul", 400},         {"com0", 400},        {"COM10", 201},        {"LPT9", 400},
      {".lock", 400},       {"a.lock", 201},      {"~$draft.docx", 400}, {"a~$", 201},
      {"Desktop.ini", 400}, {"a_VTI_b", 400},     {"%20a", 400},         {"a%20", 400},
      {"a.", 400},          {"a%22", 400},        {"a*", 400},           {"a%3C", 400},
      {"a%3E", 400},        {"a%3Fb", 400},       {"a%5Cb", 400},        {"a%7C", 400},
      {"a%07", 400},        {"a%FF", 400},        {long_name, 201},      {long_name + "n", 400},
      {emojis + "x", 201},  {emojis + "xy", 400},
  };
  for (const auto& [name, status] : cases) {
    EXPECT_EQ(client.Send("PUT", "/drive/root/children/" + name + "/content", "x").status, status)
        << name;
  }
  EXPECT_EQ(client.Send("POST", "/drive/root/children", R"({"name":"CON","folder":{}})").Error(),
            "invalidRequest");
  EXPECT_EQ(client.Send("PATCH", "/drive/root:/a.lock", R"({"name":".lock"})").status, 400);
}

TEST_F(EmulatorTest, PathsHaveFourHundredCharactersAtMost) {
  const std::string folder(200, 'f');
  service.UserDrive().MakeFolder("/" + folder);
  service.UserDrive().MakeFolder("/other/" + std::string(190, 'o'));
  const auto put = [&](std::size_t length) {
    return client.Send(
        "PUT", "/drive/root:/" + folder + "/" + std::string(length, 'n') + ":/content", "x");
  };
  EXPECT_EQ(put(199).status, 201);
  const Reply refused = put(200);
  EXPECT_EQ(refused.status, 400);
  EXPECT_EQ(refused.json["error"]["innererror"]["code"], "pathIsTooLong");
  // What is below a folder counts when the folder is renamed.
  const auto rename = [&](const std::string& name) {
    return client.Send("PATCH", "/drive/root:/other", R"({"name":")" + name + "\"}").status;
  };
  EXPECT_EQ(rename(std::string(210, 'r')), 400);
  EXPECT_EQ(rename(std::string(209, 'r')), 200);
}

TEST_F(EmulatorTest, FaultsHappenAsScripted) {
  service.UserDrive().WriteFile("/f.txt", std::string(100000, 'f'));
  const std::string link = client.Get("/drive/root:/f.txt:/content").Header("Location");
  Fault dressed = Fault::Body("{\"a\":1}");
  dressed.interim = {{103, {{"Link", "</x>"}}}};
  dressed.chunked = true;
  dressed.trailers = {{"X-Sum", "1"}};
  Fault blind = Fault::None();
  blind.ignored_headers = {"Range"};
  const struct {
    Fault fault;
    CURLcode code;
    long status;
    std::size_t size;
  } cases[] = {
      {Fault::Status(429, 7s), CURLE_OK, 429, 90},
      {Fault::Reset(Place::kBeforeAnswer), CURLE_RECV_ERROR, 0, 0},
      {Fault::Reset(Place::kInHeaders), CURLE_RECV_ERROR, 206, 0},
      {Fault::Reset(Place::kInBody, 70000), CURLE_RECV_ERROR, 206, 70000},
      {Fault::Truncate(500), CURLE_PARTIAL_FILE, 206, 500},
      {Fault::WrongLength(10), CURLE_PARTIAL_FILE, 206, 90001},
      {Fault::Stall(Place::kInBody, 10, 50ms), CURLE_OK, 206, 90001},
      {Fault::Redirect(307, "https://localhost:1/"), CURLE_OK, 307, 0},
      {Fault::ExpiredToken(), CURLE_OK, 401, 78},
      {dressed, CURLE_OK, 206, 7},
      {blind, CURLE_OK, 200, 100000},
  };
  int number = 0;
  for (const auto& [fault, code, status, size] : cases) {
    ++number;
    service.AddFault(fault.On("GET", "download.aspx"));
    const Reply reply = client.Get(link, {"Range: bytes=0-90000"});
    EXPECT_EQ(reply.code, code) << number << curl_easy_strerror(reply.code);
    EXPECT_EQ(reply.status, status) << number;
    EXPECT_EQ(reply.body.size(), size) << number << reply.body.substr(0, 100);
    EXPECT_EQ(service.Requests().back().status, status) << number;
  }
}

TEST_F(EmulatorTest, FaultsAreCounted) {
  service.AddFault(Fault::Status(503).On("GET", "/drive").Nth(2).Times(2));
  service.AddFault(Fault::Status(500).OnRegex("", "drive$").Nth(3));
  std::vector<long> statuses;
  statuses.reserve(5);
  for (int i = 0; i < 5; ++i) statuses.push_back(client.Get("/drive").status);
  EXPECT_EQ(statuses, (std::vector<long>{200, 503, 503, 500, 200}));
  service.AddFault(Fault::Status(503).On("GET", "/drive").Times(3));
  client.Get("/drive");
  ASSERT_EQ(service.UnfiredFaults().size(), 1U);
  EXPECT_EQ(service.UnfiredFaults()[0].times, 2);
  service.ClearFaults();
}

double SecondsOf(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST_F(EmulatorTest, IsAsSlowAsItIsToldToBe) {
  const std::string bytes(100'000, 'b');
  service.UserDrive().WriteFile("/f.bin", bytes);
  const std::string link = client.Get("/drive/root:/f.bin:/content").Header("Location");
  const auto download = [&] { EXPECT_TRUE(client.Get(link).body == bytes); };
  const auto upload = [&] {
    EXPECT_EQ(client.Send("PUT", "/drive/root:/up.bin:/content", bytes).status, 201);
    EXPECT_TRUE(service.UserDrive().Remove("/up.bin"));
  };
  service.SetLatency(300ms);
  EXPECT_GT(SecondsOf([&] { client.Get("/drive"); }), 0.3);
  service.SetLatency(0ms);
  service.SetBandwidth(200'000);
  // The least time is certain; the most leaves room for a busy machine.
  for (const auto& work : {std::function<void()>(download), std::function<void()>(upload)}) {
    const double seconds = SecondsOf(work);
    EXPECT_GT(seconds, 0.45);
    EXPECT_LT(seconds, 5);
  }
  service.SetBandwidth(0);
  EXPECT_LT(SecondsOf(download), 0.45);
}

TEST_F(EmulatorTest, ThrottlesWhatIsMoreThanTheRequestRate) {
  service.SetRequestRate(3);
  Reply reply;
  int passed = 0;
  for (int i = 0; i < 100 && reply.status != 429; ++i, ++passed) reply = client.Get("/drive");
  EXPECT_GE(passed, 3);
  EXPECT_EQ(reply.Error(), "activityLimitReached");
  EXPECT_EQ(reply.Header("Retry-After"), "1");
  // Those to sign in do not count.
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(client.Form(service.TokenUrl(), client.TokenForm(service.IssueRefreshToken())).status,
              200);
  }
  std::this_thread::sleep_for(1s);
  EXPECT_EQ(client.Get("/drive").status, 200);
  service.SetRequestRate(0);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(client.Get("/drive").status, 200);
}

TEST_F(EmulatorTest, TheNetworkGoesAndComesBack) {
  const std::string link = client.Get("/drive/root:/Welcome.txt:/content").Header("Location");
  const std::string origin = service.Origin();
  service.AddFault(Fault::Stall(Place::kBeforeAnswer).On("GET", "/drive/root"));
  Client waiting(service);
  auto broken = std::async(std::launch::async, [&] { return waiting.Get("/drive/root").code; });
  while (!service.UnfiredFaults().empty()) std::this_thread::yield();
  for (int round = 0; round < 2; ++round) {
    service.Vanish();
    service.Vanish();
    EXPECT_EQ(client.Get("/drive").code, CURLE_COULDNT_CONNECT);
    EXPECT_EQ(client.Get(link).code, CURLE_COULDNT_CONNECT);
    service.ComeBack();
    EXPECT_EQ(client.Get("/drive").status, 200);
    EXPECT_EQ(client.Get(link).code, CURLE_OK);
  }
  EXPECT_EQ(broken.get(), CURLE_RECV_ERROR) << "an orderly end would be no outage";
  EXPECT_EQ(service.Origin(), origin);
  service.Vanish();  // and is destroyed so
}

TEST_F(EmulatorTest, CountsRequestsByKind) {
  service.ClearRequests();
  const std::string link = client.Get("/drive/root:/Welcome.txt:/content").Header("Location");
  client.Get(link);
  client.Get(link, {"Range: bytes=0-1"});
  client.Get("/drive/root/children");
  client.Get("/drive/oneDrive.sharedWithMe");
  client.Get("/drive");
  client.Get("/drive/root");
  client.Get("/drive/items/unknown");
  client.Send("PUT", "/drive/root:/a.txt:/content", "a");
  const Json::Value session = client.Send("POST", "/drive/root:/b:/createUploadSession").json;
  client.Get(session["uploadUrl"].asString());
  client.Send("POST", "/drive/root/children", R"({"name":"new","folder":{}})");
  client.Send("PATCH", "/drive/root:/a.txt", R"({"name":"c.txt"})");
  client.Send("DELETE", "/drive/root:/c.txt");
  client.Form(service.TokenUrl(), "");
  client.Get(service.Origin() + "/favicon.ico");
  const CountsByKind expected{.list = 2,
                              .item = 2,
                              .drive = 1,
                              .download_link = 1,
                              .download = 2,
                              .upload = 3,
                              .change = 3,
                              .sign_in = 1,
                              .other = 1};
  EXPECT_TRUE(service.RequestCounts() == expected);
  service.ClearRequests();
  EXPECT_TRUE(service.RequestCounts() == CountsByKind());
}

TEST(EmulatorLifeTest, EndsPromptlyWithStalledAndIdleConnections) {
  auto service = std::make_unique<Service>(ServiceOptions{.seed = false});
  Client idle(*service);
  Client stalled(*service);
  service->AddFault(Fault::Stall(Place::kBeforeAnswer).On("GET", "/drive/root"));
  auto waiting = std::async(std::launch::async, [&] { return stalled.Get("/drive/root").code; });
  while (!service->UnfiredFaults().empty()) std::this_thread::yield();
  const auto start = std::chrono::steady_clock::now();
  service.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_NE(waiting.get(), CURLE_OK);
}

TEST(EmulatorLifeTest, KeepsTheDriveInItsDirectory) {
  const std::filesystem::path directory = testing::TempDir() + "emulator_keeps_the_drive";
  std::filesystem::remove_all(directory);
  const ServiceOptions options{.seed = false, .data_directory = directory};
  std::string id;
  std::string tag;
  {
    Service service(options);
    Client client(service);
    id = client.Send("PUT", "/drive/root:/kept.txt:/content", "first").json["id"].asString();
    tag = client.Send("PUT", "/drive/root:/kept.txt:/content", "second").json["eTag"].asString();
    client.Send("POST", "/drive/root:/lost.bin:/createUploadSession");
  }
  Service service(options);
  EXPECT_EQ(service.UserDrive().ReadFile("/kept.txt"), "second");
  EXPECT_EQ(service.UserDrive().FindItem(id)->ETag(), tag);
  const std::filesystem::directory_iterator contents(directory / "demo" / "content");
  EXPECT_EQ(std::distance(begin(contents), end(contents)), 1)
      << "what was replaced or lost is gone";
  std::filesystem::remove_all(directory);
}

TEST(EmulatorLifeTest, IsTrustedAndTrustsAfterARestart) {
  const std::filesystem::path directory = testing::TempDir() + "emulator_restart";
  std::filesystem::remove_all(directory);
  const ServiceOptions options{
      .seed = false, .data_directory = directory, .revoke_used_refresh_tokens = true};
  std::string authority;
  std::string unused;
  std::string used;
  std::string granted;
  {
    Service service(options);
    EXPECT_THROW(Service second(options), std::runtime_error) << "two would mix up the index";
    Client client(service);
    authority = service.CertificateAuthorityPem();
    unused = service.IssueRefreshToken();
    used = service.IssueRefreshToken();
    granted =
        client.Form(service.TokenUrl(), client.TokenForm(used)).json["refresh_token"].asString();
  }
  for (const auto& file : std::filesystem::directory_iterator(directory)) {
    if (!file.is_regular_file()) continue;
    EXPECT_EQ(file.status().permissions() & std::filesystem::perms(0077),
              std::filesystem::perms::none)
        << file;
  }
  {
    Service service(options);
    EXPECT_EQ(service.CertificateAuthorityPem(), authority);
    Client client(service);  // which checks the certificate by the authority
    EXPECT_EQ(client.Get("/drive").status, 200);
    for (const auto& [token, status] : {std::pair(unused, 200L), {granted, 200L}, {used, 400L}}) {
      EXPECT_EQ(client.Form(service.TokenUrl(), client.TokenForm(token)).status, status);
    }
    service.RevokeRefreshTokens();
  }
  {
    Service service(options);
    Client client(service);
    EXPECT_EQ(client.Form(service.TokenUrl(), client.TokenForm(unused)).status, 400);
  }
  std::filesystem::remove_all(directory);
}

}  // namespace
}  // namespace emulator
