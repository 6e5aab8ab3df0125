// Hunts crashes, hangs, leaks and locks left held that a host causes which throws from its
// callbacks, calls the module from inside them, or passes nonsense.
#include "tests/reliability/hostile_host.h"

#include <climits>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "helpers/option_item.h"
#include "helpers/settings_file.h"
#include "helpers/system.h"
#include "helpers/text.h"
#include "helpers/time_conversion.h"
#include "helpers/wildcard.h"
#include "support/proxy_kind.h"
#include "support/text.h"
#include "tests/fake_time.h"
#include "transport/onedrivebiz_curl.h"

namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kMin = INT64_MIN;
constexpr std::int64_t kMax = INT64_MAX;
constexpr std::int64_t kLarge = 104857600;  // goes through an upload session
constexpr const char* kEmptyCredential = R"({"results":{}})";

using Operation = std::function<AERROR(IProtocol_V2&)>;

class HostileHostTest : public ::testing::Test {
 protected:
  HostileHostTest() {
    file = service.UserDrive().WriteFile("/F/file.bin", std::string(70000, 'f'));
    folder = service.UserDrive().MakeFolder("/F");
    service.UserDrive().MakeFolder("/G");
    BindLogger(&host);
  }
  ~HostileHostTest() override {
    host.Set("", {});
    UnbindLogger();
  }
  static emulator::ServiceOptions Options() {
    emulator::ServiceOptions options;
    options.tls = options.seed = false;
    return options;
  }
  ProtocolPtr Made() {
    ProtocolPtr protocol = MakeProtocol(&host);
    protocol->SetOpt("service_endpoint", service.ServiceEndpoint().c_str());
    protocol->SetOpt("service_resource", service.ServiceResource().c_str());
    return protocol;
  }
  ProtocolPtr Connected() {
    ProtocolPtr protocol = Made();
    EXPECT_EQ(protocol->Connect(&host, kEmptyCredential), SUCCESS);
    return protocol;
  }
  /// The next request meets a 401, and the tokens are old enough to be renewed.
  void ExpireTokens() {
    time.Advance(2h);
    service.ExpireAccessTokens();
  }

  // Operations as any host would call them.
  Operation List(const char* id) {
    return [this, id](IProtocol_V2& p) { return p.GetFileList(id, &host, nullptr); };
  }
  Operation Read(std::int64_t length, std::int64_t offset = 0) {
    return [=, this](IProtocol_V2& p) {
      host.fetched.clear();
      return p.Read(file.c_str(), offset, length, host.Handle(), &host, nullptr);
    };
  }
  Operation Upload(std::int64_t size) {
    return [this, size](IProtocol_V2& p) {
      _FS_FILE_V2 record;
      record.filename = "uploaded" + std::to_string(++made);
      record.size = size;
      return p.Upload(folder.c_str(), host.Handle(), &host, &record, {}, nullptr);
    };
  }
  Operation Arrange() {
    return [this](IProtocol_V2& p) {
      _FS_FILE_V2 record;
      record.filename = "made" + std::to_string(++made);
      AERROR result = p.CreateDirectory(folder.c_str(), &record, nullptr);
      record.filename += "renamed";
      if (result == SUCCESS) result = p.Rename(record.id.c_str(), "", &record, nullptr);
      if (result == SUCCESS) result = p.MoveDir(record.id.c_str(), "", &record, nullptr);
      return result == SUCCESS ? p.DeleteDirectory(&record, nullptr) : result;
    };
  }
  static AERROR Look(IProtocol_V2& p) {
    _FS_FILE_V2 record;
    return p.GetFileInfo("root", &record, nullptr);
  }
  static AERROR Credential(IProtocol_V2& p) {
    char buffer[64];
    int length = 63;
    return p.GetCredential(buffer, &length);
  }
  AERROR Connect(IProtocol_V2& p) { return p.Connect(&host, kEmptyCredential); }
  /// Everything that needs the service, and what needs only the signed-in object.
  std::vector<Operation> All() {
    return {List(""),    List("root"),
            Read(70000), Upload(1000),
            Arrange(),   Look,
            Credential,  [](IProtocol_V2& p) { return p.GetQuota(nullptr, nullptr); }};
  }

  emulator::Service service{Options()};
  FakeTime time;
  HostileHost host{service};
  std::string file;
  std::string folder;
  int made = 0;
};

TEST_F(HostileHostTest, WhateverACallbackThrowsEndsAtTheModule) {
  const auto connect = [this](IProtocol_V2& p) { return Connect(p); };
  struct Case {
    const char* callback;
    const char* during;
    Operation operation;
    AERROR result;             // of anything thrown but an AERROR
    AERROR result_for_cancel;  // of a thrown CANCEL
    bool expired = false;
    int times = 0;  // that it is called; 0: at least once
  };
  const Case cases[] = {
      {"AddFile", "the top folder", List(""), FAILED, CANCEL},
      {"AddFile", "a page", List("root"), SUCCESS, SUCCESS, false, 2},
      {"OnFetch", "a whole piece", Read(70000), FAILED, FAILED, false, 1},
      {"OnFetch", "the end of the file", Read(65536, 66000), SUCCESS, SUCCESS},
      {"ReadCache", "an upload", Upload(1000), FAILED, FAILED},
      {"ReadCache", "a chunk", Upload(kLarge), FAILED, FAILED},
      {"progress", "a download", Read(70000), SUCCESS, SUCCESS},
      {"progress", "an upload", Upload(1000), SUCCESS, SUCCESS},
      {"Write", "changes", Arrange(), SUCCESS, SUCCESS},
      {"Write", "a renewal", Look, SUCCESS, SUCCESS, true},
      {"SetValue", "GetCredential", Credential, FAILED, CANCEL},
      {"GetValue", "sign-in", connect, SUCCESS, SUCCESS},
      {"SetValue", "sign-in", connect, AUTH_FAILED, AUTH_FAILED},
      {"Authorize", "sign-in", connect, AUTH_FAILED, AUTH_FAILED},
      {"FreeResult", "sign-in", connect, AUTH_FAILED, AUTH_FAILED},
      {"Authorize", "a renewal", Look, FAILED, FAILED, true},
      {"FreeResult", "a renewal", Look, FAILED, FAILED, true},
      {"SetValue", "a renewal", Look, FAILED, FAILED, true},
  };
  const ProtocolPtr protocol = Connected();
  const std::vector<std::function<void()>> throwers = {[] { throw std::runtime_error("hostile"); },
                                                       [] { throw 42; }, [] { throw CANCEL; }};
  for (const Case& c : cases) {
    for (std::size_t kind = 0; kind < throwers.size(); ++kind) {
      SCOPED_TRACE(std::string(c.callback) + " during " + c.during + ", " + std::to_string(kind));
      host.values.clear();
      if (c.expired) ExpireTokens();
      const std::size_t pooled = std::max<std::size_t>(cq.free.size(), 1);
      host.Set(c.callback, throwers[kind]);
      EXPECT_EQ(c.operation(*protocol), kind == 2 ? c.result_for_cancel : c.result);
      EXPECT_GE(host.sprung, 1);
      if (c.times != 0) {
        EXPECT_EQ(host.sprung, c.times);
      }
      EXPECT_GE(cq.free.size(), pooled) << "request objects come back";
      host.Set("", {});
      time.Advance(2h);
      EXPECT_EQ(Look(*protocol), SUCCESS) << "the object works on";
      EXPECT_EQ(host.replies_out, 0) << "every reply is released once";
    }
  }
  host.Set("GetPID", throwers[0]);
  IProtocol_V2* none = protocol.get();
  EXPECT_FALSE(GetProtocol("x", &host, &none));
  EXPECT_EQ(none, protocol.get()) << "stays as it was";
}

TEST_F(HostileHostTest, CallbacksMayCallTheModule) {
  const ProtocolPtr protocol = Connected();
  const ProtocolPtr other = Connected();
  struct Case {
    const char* callback;
    Operation operation;
    bool expired = false;
    AERROR result = SUCCESS;
  };
  const Case cases[] = {
      {"AddFile", List("")},
      {"AddFile", List("root")},
      {"OnFetch", Read(70000)},
      {"ReadCache", Upload(150000)},
      {"progress", Read(70000)},
      {"progress", Upload(150000)},
      {"Write", Arrange()},
      {"SetValue", Credential},
      {"Authorize", Look, true},
      {"FreeResult", Look, true},
      {"SetValue", Look, true},
      // Logged before the answer is looked at: the renewal inside leaves none to this request.
      {"Write", Look, true, FAILED},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.callback);
    if (c.expired) ExpireTokens();
    bool first = true;
    host.Set(c.callback, [&] {
      if (!std::exchange(first, false)) return;
      for (const Operation& operation : All()) {
        // While this thread renews the tokens, its other requests cannot wait for them.
        const AERROR result = operation(*protocol);
        EXPECT_TRUE(result == SUCCESS || c.expired);
        EXPECT_EQ(operation(*other), SUCCESS);
      }
      Connected().reset();
    });
    EXPECT_EQ(c.operation(*protocol), c.result);
    EXPECT_GE(host.sprung, 1);
    host.Set("", {});
  }
  EXPECT_EQ(host.replies_out, 0);
}

// What a null, a negative or a huge argument gives, before and after sign-in.
TEST_F(HostileHostTest, NonsenseIsRefused) {
  char* const untouched = file.data();
  char* message = untouched;
  char buffer[1024];
  int size = 0;
  const auto sized = [&size](int value) { return &(size = value); };
  _FS_FILE_V2 record;
  const auto sized_file = [&record](std::int64_t value) {
    record = {};
    record.filename = "nonsense";
    record.size = value;
    return &record;
  };
  const auto read = [&](std::int64_t offset, std::int64_t length) {
    return [&, offset, length](IProtocol_V2& p) {
      return p.Read(file.c_str(), offset, length, host.Handle(), &host, &message);
    };
  };
  const auto upload = [&](std::int64_t value) {
    return [&, value](IProtocol_V2& p) {
      return p.Upload("root", host.Handle(), &host, sized_file(value), {}, &message);
    };
  };
  constexpr AERROR kNeed = FS_NEED_AUTHORIZE;
  constexpr AERROR kBad = INVALID_PARAMETER;
  struct Case {
    const char* what;
    Operation call;
    AERROR before;
    AERROR after;
  };
  const std::vector<Case> cases = {
      {"name nowhere", [&](auto& p) { return p.GetUserInfo(nullptr, sized(9)); }, kBad, kBad},
      {"name unsized", [&](auto& p) { return p.GetUserInfo(buffer, nullptr); }, kBad, kBad},
      {"name", [&](auto& p) { return p.GetUserInfo(buffer, sized(INT_MIN)); }, kBad,
       INSUFFICIENT_BUFFER},
      {"quota", [](auto& p) { return p.GetQuota(nullptr, nullptr); }, kBad, SUCCESS},
      {"set quota", [](auto& p) { return p.SetQuota(UINT64_MAX, UINT64_MAX); }, SUCCESS, SUCCESS},
      {"type", [](auto& p) { return p.GetType(nullptr); }, kBad, kBad},
      {"list to nobody", [&](auto& p) { return p.GetFileList("", nullptr, &message); }, kBad, kBad},
      {"list null", [&](auto& p) { return p.GetFileList(nullptr, &host, &message); }, kNeed,
       SUCCESS},
      {"list shared", List("shared"), kNeed, SUCCESS},
      {"changes", [](auto& p) { return p.GetChanges(nullptr, nullptr); }, SUCCESS, SUCCESS},
      {"info to nowhere", [&](auto& p) { return p.GetFileInfo("", nullptr, &message); }, kBad,
       kBad},
      {"info null", [&](auto& p) { return p.GetFileInfo(nullptr, &record, nullptr); }, kNeed,
       SUCCESS},
      {"rename", [&](auto& p) { return p.Rename(nullptr, nullptr, nullptr, nullptr); }, kBad, kBad},
      {"rename the root",
       [&](auto& p) { return p.Rename(nullptr, nullptr, sized_file(0), &message); }, kNeed, FAILED},
      {"move", [&](auto& p) { return p.Move("root", "root", nullptr, nullptr); }, kBad, kBad},
      {"move null", [&](auto& p) { return p.Move(nullptr, nullptr, sized_file(0), &message); },
       kNeed, FAILED},
      {"movedir", [&](auto& p) { return p.MoveDir(nullptr, nullptr, nullptr, nullptr); }, kBad,
       kBad},
      {"mkdir", [&](auto& p) { return p.CreateDirectory(nullptr, nullptr, nullptr); }, kBad, kBad},
      {"delete", [](auto& p) { return p.Delete(nullptr, nullptr); }, kBad, kBad},
      {"rmdir", [](auto& p) { return p.DeleteDirectory(nullptr, nullptr); }, kBad, kBad},
      {"delete an empty record", [&](auto& p) { return p.Delete(sized_file(0), &message); }, kNeed,
       FAILED},
      {"read without handle",
       [&](auto& p) { return p.Read(file.c_str(), 0, 1, nullptr, &host, &message); }, kBad, kBad},
      {"read to nobody",
       [&](auto& p) { return p.Read(file.c_str(), 0, 1, host.Handle(), nullptr, nullptr); }, kBad,
       kBad},
      {"read a folder",
       [&](auto& p) { return p.Read(nullptr, 0, 1, host.Handle(), &host, nullptr); }, kNeed,
       FAILED},
      {"read before the start", read(-1, 1), kBad, kBad},
      {"read before everything", read(kMin, kMax), kBad, kBad},
      {"read nothing", read(0, 0), SUCCESS, SUCCESS},
      {"read less than nothing", read(0, kMin), SUCCESS, SUCCESS},
      {"read past all numbers", read(1, kMax), kBad, kBad},
      {"read all numbers", read(0, kMax), kNeed, SUCCESS},
      {"read the last number", read(kMax - 1, 1), kNeed, HANDLE_EOF},
      {"upload without handle",
       [&](auto& p) { return p.Upload("root", nullptr, &host, sized_file(1), {}, nullptr); }, kBad,
       kBad},
      {"upload from nowhere",
       [&](auto& p) {
         return p.Upload("root", host.Handle(), nullptr, sized_file(1), {}, nullptr);
       },
       kBad, kBad},
      {"upload no record",
       [&](auto& p) { return p.Upload("root", host.Handle(), &host, nullptr, {}, nullptr); }, kBad,
       kBad},
      {"upload less than nothing", upload(-1), kBad, kBad},
      {"upload far less", upload(kMin), kBad, kBad},
      {"upload too much", upload(kMax), kNeed, FAILED},
      {"times", [&](auto& p) { return p.SetFileTime(nullptr, "", "", "", nullptr, nullptr); },
       NOT_SUPPORTED, NOT_SUPPORTED},
      {"no values", [](auto& p) { return p.SetOpt("option_fields", R"({"values":[1]})"); }, FAILED,
       FAILED},
      {"no limit", [](auto& p) { return p.SetOpt("speedlimit", nullptr); }, SUCCESS, SUCCESS},
      {"credential", [](auto& p) { return p.GetCredential(nullptr, nullptr); }, kNeed, kBad},
      {"credential", [&](auto& p) { return p.GetCredential(buffer, sized(-1)); }, kNeed,
       INSUFFICIENT_BUFFER},
      {"identifier", [](auto& p) { return p.GetIdentifier(nullptr, nullptr); }, SUCCESS, SUCCESS},
      {"root id", [](auto& p) { return p.GetRootID(nullptr, nullptr); }, ACCESS_DENIED,
       ACCESS_DENIED},
      {"root id nowhere", [&](auto& p) { return p.GetRootID(nullptr, sized(9)); }, kBad, kBad},
      {"root id", [&](auto& p) { return p.GetRootID(buffer, sized(-1)); }, INSUFFICIENT_BUFFER,
       INSUFFICIENT_BUFFER},
      {"nobody", [](auto& p) { return p.Connect(nullptr, kEmptyCredential); }, kBad, kBad},
      {"no credential", [&](auto& p) { return p.Connect(&host, nullptr); }, kBad, kBad},
  };
  const ProtocolPtr before = Made();
  const ProtocolPtr after = Connected();
  for (const Case& c : cases) {
    EXPECT_EQ(c.call(*before), c.before) << c.what << ", before sign-in";
    EXPECT_EQ(c.call(*after), c.after) << c.what << ", after sign-in";
  }
  EXPECT_EQ(message, untouched);
  after->SetQuotaCallback(nullptr, nullptr);
  after->FreeMsg(nullptr);
  EXPECT_EQ(Look(*after), SUCCESS);
}

// Ids and names that no item can have reach the service as a refused request, or not at all.
TEST_F(HostileHostTest, ImpossibleIdsAndNamesFail) {
  const ProtocolPtr p = Connected();
  const std::string kept = *service.UserDrive().ReadFile("/F/file.bin");
  for (const std::string& text :
       {std::string(100000, 'x'), std::string("\xff\xfe\x80"), std::string("a/b/c"),
        std::string("../.."), std::string("?"), std::string("%00")}) {
    SCOPED_TRACE(text.substr(0, 20));
    const char* id = text.c_str();
    _FS_FILE_V2 record;
    record.id = text;
    record.filename = "name";
    record.size = 1;
    EXPECT_NE(p->GetFileList(id, &host, nullptr), SUCCESS);
    EXPECT_NE(p->Move(id, id, &record, nullptr), SUCCESS);
    EXPECT_NE(p->Delete(&record, nullptr), SUCCESS);
    EXPECT_NE(p->Upload(id, host.Handle(), &host, &record, {}, nullptr), SUCCESS);
  }
  for (const std::string& text : {std::string(100000, 'x'), std::string(), std::string("/"),
                                  std::string("a\0b", 3), std::string("a:b")}) {
    SCOPED_TRACE(text.substr(0, 20));
    _FS_FILE_V2 record;
    record.filename = text;
    EXPECT_NE(p->CreateDirectory("root", &record, nullptr), SUCCESS);
    EXPECT_NE(p->Rename(file.c_str(), nullptr, &record, nullptr), SUCCESS);
    EXPECT_NE(p->Upload("root", host.Handle(), &host, &record, {}, nullptr), SUCCESS);
  }
  EXPECT_EQ(service.UserDrive().ReadFile("/F/file.bin"), kept);
  EXPECT_EQ(Look(*p), SUCCESS);
}

TEST_F(HostileHostTest, StrangeCredentials) {
  struct Case {
    std::string credential;
    AERROR result;
  };
  // What is needed of the credential is that it can take the resource; a stored token that it
  // cannot take stays where it is.
  for (const Case& c : {Case{"", AUTH_FAILED},
                        {"[]", AUTH_FAILED},
                        {"{", AUTH_FAILED},
                        {std::string(100000, '['), AUTH_FAILED},
                        {R"({"args":"text"})", AUTH_FAILED},
                        {"null", SUCCESS},
                        {"{\"results\":\"\xff\"}", SUCCESS},
                        {"{\"results\":\"" + std::string(100000, 'x') + "\"}", SUCCESS}}) {
    SCOPED_TRACE(c.credential.substr(0, 20));
    host.values["refresh_token"] = "stored";
    const ProtocolPtr protocol = Made();
    EXPECT_EQ(protocol->Connect(&host, c.credential.c_str()), c.result);
    EXPECT_NE(host.values["refresh_token"], "");
    EXPECT_EQ(host.replies_out, 0);
  }
}

TEST(Exports, SurviveNullAndEmptyArguments) {
  EXPECT_FALSE(GetProtocol(nullptr, nullptr, nullptr));
  IProtocol_V2* object = nullptr;
  ASSERT_TRUE(GetProtocol(nullptr, nullptr, &object));
  object->Release();
  EXPECT_EQ(GetAuthFields(nullptr, nullptr), INVALID_PARAMETER);
  EXPECT_EQ(GetOptFields(nullptr, nullptr), INVALID_PARAMETER);
  EXPECT_STREQ(GetAERRORA(static_cast<AERROR>(INT_MIN)), "Unknown");
  EXPECT_FALSE(GetPrivateProfileString(nullptr, nullptr, nullptr, nullptr, INT_MIN, nullptr));
  EXPECT_FALSE(IsNameInExpressionA(nullptr, nullptr, true));
  EXPECT_FALSE(IsNameInExpression(nullptr, nullptr, true));
  EXPECT_EQ(pexec(""), "");
  EXPECT_EQ(string_format(""), "");
  EXPECT_EQ(ProtocolUtil::curlProxyType(std::string(100000, 'x')), 0);
  EXPECT_EQ(ProtocolUtil::createItem(nullptr, nullptr, nullptr, nullptr, false, false)
                .ToText()
                .find("default"),
            std::string::npos);
  EXPECT_EQ(RFC3339ToTM("\xff"), RFC3339ToTM(""));
}

}  // namespace
