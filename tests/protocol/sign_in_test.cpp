// Hunts lost or leaked tokens, a host asked in the wrong order, renewals that loop, and threads
// that outlive their object.
#include <chrono>
#include <future>
#include <thread>

#include "tests/protocol/signed_in_test.h"

namespace {

using Strings = std::vector<std::string>;

// The log without the lines of requests, whose form is tested elsewhere.
Strings WithoutExchanges(const LogRecorder& log) {
  Strings lines;
  for (const std::string& line : log.Lines()) {
    if (line.find(" >> ") == std::string::npos)
      lines.push_back(line.substr(0, 2) + line.substr(15));
  }
  return lines;
}

TEST_F(ProtocolTest, FirstSignInAsksInOrder) {
  EXPECT_EQ(host.Calls(), Strings{"GetPID onedrivebiz.dll_1.0.0.0 256"});
  host.ClearCalls();
  host.values["refresh_token"] = "stored";
  EXPECT_EQ(Connect(), SUCCESS);
  const std::string service_credential =
      R"({"args":{"client":"c","resource":"https://res/"},"results":{}})";
  EXPECT_EQ(host.Calls(),
            (Strings{"GetValue pid-1 refresh_token 1024", "SetValue pid-1 refresh_token ",
                     R"(Authorize {"args":{"client":"c"},"results":{"refresh_token":"stored"}})",
                     "FreeResult", "SetValue pid-1 refresh_token R",
                     "Authorize " + service_credential, "FreeResult"}));
  EXPECT_EQ(service.Targets(), (Strings{"POST /discovery", "GET /api/drive", "GET /api/drive"}));
  for (const Received& request : service.requests()) {
    EXPECT_EQ(request.Header("Authorization"), "Bearer A");
    EXPECT_EQ(request.body, "");
  }
  EXPECT_EQ(
      WithoutExchanges(log),
      (Strings{
          "1 Connect called", "1 Connect Remove stored refresh token",
          "1 Connect Use updated credential", "1 GetServiceEndpoint Discover service..",
          "1 operator() Resource id [https://res/], Service endpoint [" + service.Endpoint() + "]",
          "1 Process started", "1 Process finished", "1 Process started", "1 Process finished",
          "1 StartRepeatRefreshToken started", "1 StartRepeatRefreshToken finished"}));
  log.Clear();
  protocol.reset();
  EXPECT_EQ(WithoutExchanges(log),
            (Strings{"1 Release started", "1 StopRepeatRefreshToken started",
                     "1 StopRepeatRefreshToken kill wait_or_kill_",
                     "1 operator() Token-refreshing stopped", "1 StopRepeatRefreshToken finished",
                     "1 Release finished"}));
}

TEST_F(ProtocolTest, CredentialTextsThatHoldNoToken) {
  struct Case {
    const char *credential, *stored, *line;
    AERROR result;
    const char* asked;  // null: the credential itself
    const char* stored_after;
  };
  for (const Case& c : {
           Case{kCredential, "", "1 [PROTOCOL  ] Connect No stored refresh token found", SUCCESS,
                nullptr, "R"},
           {R"({"args":{}})", "T", "8 [PROTOCOL  ] Connect Failed to update refresh token", SUCCESS,
            nullptr, "R"},
           {"no JSON", "T", "8 [PROTOCOL  ] Connect Failed to update refresh token", AUTH_FAILED,
            nullptr, "R"},
           {R"({"results":{}})", "T", "1 [PROTOCOL  ] Connect Remove stored refresh token", SUCCESS,
            R"({"results":{"refresh_token":"T"}})", "R"},
       }) {
    SCOPED_TRACE(c.credential);
    SetUp();
    host.ClearCalls();
    log.Clear();
    host.values["refresh_token"] = c.stored;
    EXPECT_EQ(Connect(c.credential), c.result);
    EXPECT_TRUE(log.Has(c.line));
    EXPECT_EQ(host.CountOf(std::string("Authorize ") + (c.asked ? c.asked : c.credential)), 1);
    EXPECT_EQ(host.values["refresh_token"], c.stored_after);
  }
}

TEST_F(ProtocolTest, SignInSaysWhatItMisses) {
  // Without tokens for the service its requests go unsigned; this service takes them.
  host.authorize = [](const std::string& credential) -> std::optional<std::string> {
    if (credential.find("resource") != std::string::npos) return std::nullopt;
    return R"({"results":{"access_token":"A"}})";
  };
  EXPECT_EQ(Connect(), SUCCESS);
  EXPECT_TRUE(log.Has("8 [PROTOCOL  ] Connect No refresh token found after refresh auth"));
  service.AnswerOnly("/discovery", R"({"value":[]})");
  SetUp();
  EXPECT_EQ(Connect(), AUTH_FAILED);
  EXPECT_TRUE(log.Has("8 [PROTOCOL  ] GetAuthForService Failed to find service end point"));
  EXPECT_TRUE(
      log.Has("8 [PROTOCOL  ] operator() Failed find serviceResourceId and serviceEndpointUri"));
}

TEST_F(ProtocolTest, DiscoveryTakesTheLastServiceThatFits) {
  const auto entry = [&](const char* capability, const char* version, const char* name) {
    return std::string(R"({"capability":")") + capability + R"(","serviceApiVersion":")" + version +
           R"(","serviceResourceId":")" + name + R"(","serviceEndpointUri":")" + service.Url("/") +
           name + "\"}";
  };
  const std::string a = entry("MyFiles", "v2.0", "a");
  const std::string b = entry("MyFiles", "v2.0", "b");
  const std::string v5 = entry("MyFiles", "v5.0", "c");
  const std::string others = entry("myfiles", "v2.0", "d") + "," + entry("MyFiles", "v1.0", "e");
  struct Case {
    std::string entries, resource, endpoint;
  };
  for (const Case& c : {Case{a + "," + b, "b", "/b"},
                        {b + "," + a + "," + others, "a", "/a"},
                        {v5, "", "/c"},
                        {a + "," + v5, "", "/c"},
                        {v5 + "," + a, "a", "/a"}}) {
    SCOPED_TRACE(c.entries);
    service.AnswerOnly("/discovery", "{\"value\":[" + c.entries + "]}");
    service.AnswerOnly(c.endpoint + "/drive", ScriptedService::Account());
    const ProtocolPtr object = MakeProtocol(&host);
    object->SetOpt("discovery_url", service.Url("/discovery").c_str());
    host.ClearCalls();
    EXPECT_EQ(object->Connect(&host, "{}"), SUCCESS);
    EXPECT_EQ(host.CountOf(R"(Authorize {"args":{"resource":")" + c.resource + "\"}}"), 1);
    EXPECT_EQ(service.Targets().back(), "GET " + c.endpoint + "/drive");
  }
}

TEST_F(ProtocolTest, PresetEndpointSkipsDiscovery) {
  protocol->SetOpt("service_endpoint", service.Endpoint().c_str());
  protocol->SetOpt("service_resource", "preset");
  EXPECT_EQ(Connect("{}"), SUCCESS);
  EXPECT_EQ(service.Targets(), (Strings{"GET /api/drive", "GET /api/drive"}));
  EXPECT_EQ(host.CountOf(R"(Authorize {"args":{"resource":"preset"}})"), 1);
}

TEST_F(ProtocolTest, NeedsAManager) {
  const ProtocolPtr unmanaged = MakeProtocol(nullptr);
  int length = 0;
  EXPECT_EQ(unmanaged->Connect(&host, kCredential), INVALID_PARAMETER);
  EXPECT_EQ(unmanaged->GetCredential(nullptr, &length), FS_NEED_AUTHORIZE);
}

TEST_F(ProtocolTest, SecondSignInEndsTheFirstLoop) {
  ASSERT_EQ(Connect(), SUCCESS);
  log.Clear();
  ASSERT_EQ(Connect(), SUCCESS);
  EXPECT_TRUE(log.Has("operator() Token-refreshing stopped"));
  EXPECT_EQ(host.CountOf("Authorize"), 4);
}

TEST_F(SignedInTest, RenewsOnceAndRepeatsTheRequest) {
  int renewals = 0;
  host.authorize = [&](const std::string&) {
    ++renewals;
    return R"({"results":{"access_token":"B","refresh_token":"R2"}})";
  };
  service.Answer("/api/drive/items/1", "{}", 401);
  service.Answer("/api/drive/items/1", R"({"id":"1","name":"n","size":3})");
  _FS_FILE_V2 file;
  EXPECT_EQ(protocol->GetFileInfo("1", &file, nullptr), SUCCESS);
  EXPECT_EQ(host.Calls(),
            (Strings{R"(Authorize {"args":{"client":"c"},"results":{"refresh_token":"R"}})",
                     R"(Authorize {"args":{"client":"c","resource":"https://res/"},"results":{}})",
                     "FreeResult", "FreeResult", "SetValue pid-1 refresh_token R2"}));
  const std::vector<Received> requests = Requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].Header("Authorization"), "Bearer A");
  EXPECT_EQ(requests[1].Header("Authorization"), "Bearer B");

  // Sooner than 3660 s after it there is no other renewal, then there is.
  service.AnswerOnly("/api/drive/items/2", "{}", 401);
  time.Advance(std::chrono::seconds(3659));
  EXPECT_EQ(protocol->GetFileInfo("2", &file, nullptr), FAILED);
  EXPECT_EQ(renewals, 2);
  time.Advance(std::chrono::seconds(1));
  EXPECT_EQ(protocol->GetFileInfo("2", &file, nullptr), FAILED) << "renewed, and refused again";
  EXPECT_EQ(renewals, 4);
  EXPECT_EQ(host.CountOf(R"(Authorize {"args":{"client":"c"},"results":{"refresh_token":"R2"}})"),
            1);
}

TEST_F(SignedInTest, FailedRenewalsCountToo) {
  service.AnswerOnly("/api/drive/items/1", "{}", 401);
  host.authorize = [](const std::string&) { return "{"; };
  _FS_FILE_V2 file;
  EXPECT_EQ(protocol->GetFileInfo("1", &file, nullptr), FAILED);
  EXPECT_EQ(protocol->GetFileInfo("1", &file, nullptr), FAILED);
  EXPECT_EQ(host.CountOf("Authorize"), 1);
}

TEST_F(ProtocolTest, TheLoopRenewsOnAThreadOfItsOwn) {
  std::promise<std::thread::id> renewed;
  // Connect asks twice; the third call is the loop's.
  host.authorize = [&, calls = 0](const std::string&) mutable {
    if (++calls == 3) renewed.set_value(std::this_thread::get_id());
    return calls < 3 ? R"({"results":{"access_token":"A","refresh_token":"R"}})"
                     : R"({"results":{"access_token":"B","refresh_token":"R2"}})";
  };
  g_interval_refresh_token = 1;
  ASSERT_EQ(Connect(), SUCCESS);
  std::future<std::thread::id> renewer = renewed.get_future();
  ASSERT_EQ(renewer.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_NE(renewer.get(), std::this_thread::get_id());
  protocol.reset();
  g_interval_refresh_token = 3600;  // nobody reads it any more
  EXPECT_EQ(host.values["refresh_token"], "R2");
}

}  // namespace
