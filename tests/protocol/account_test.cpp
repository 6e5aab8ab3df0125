// Hunts getters that write past a buffer or change a length they should keep, options that do not
// take, and account values that are stale, lost or asked for too often.
#include "tests/protocol/signed_in_test.h"
#include "transport/onedrivebiz_curl.h"

namespace {

TEST_F(SignedInTest, GettersKeepTheirBufferRules) {
  using Getter = std::function<AERROR(char*, int*)>;
  struct Case {
    const char* name;
    Getter get;
    std::string text;
    bool zeroes;        // the whole of *length, before the text
    bool tells_length;  // when the buffer is too small
  };
  const std::string options =
      R"({"options":{"controls":{"show_shared":{"default":true,"text":"Show shared file/folders",)"
      R"("type":"checkbox"}},"order":["show_shared"],"text":"Options","type":"group"},"order":["options"]})";
  for (const Case& c : {
           Case{"GetUserInfo", [&](char*b, int*l) { return protocol->GetUserInfo(b, l); }, "Robin",
                false, false},
           {"GetCredential", [&](char*b, int*l) { return protocol->GetCredential(b, l); },
            kCredential, false, false},
           {"GetAuthFields", GetAuthFields,
            R"({"params":{"height":"600","title":"OneDrive for Business Login","width":"500"},)"
            R"("protocol":"onedrive4b"})",
            true, false},
           {"GetOptFields", GetOptFields, options, true, true},
       }) {
    SCOPED_TRACE(c.name);
    const auto n = static_cast<int>(c.text.size());
    std::string buffer(c.text.size() + 20, '#');
    int length = n - 1;
    EXPECT_EQ(c.get(buffer.data(), &length), INSUFFICIENT_BUFFER);
    EXPECT_EQ(length, c.tells_length ? n : n - 1);
    EXPECT_EQ(buffer, std::string(buffer.size(), '#'));
    length = -1;
    EXPECT_EQ(c.get(buffer.data(), &length), INSUFFICIENT_BUFFER);
    length = n;
    EXPECT_EQ(c.get(buffer.data(), &length), SUCCESS);
    EXPECT_STREQ(buffer.c_str(), c.text.c_str());
    buffer.assign(buffer.size(), '#');
    length = n + 10;
    EXPECT_EQ(c.get(buffer.data(), &length), SUCCESS);
    EXPECT_EQ(length, n);
    EXPECT_STREQ(buffer.c_str(), c.text.c_str());
    EXPECT_EQ(buffer[c.text.size() + 5], c.zeroes ? '\0' : '#');
    EXPECT_EQ(buffer[c.text.size() + 15], '#');
    EXPECT_EQ(c.get(nullptr, &length), INVALID_PARAMETER);
    EXPECT_EQ(c.get(buffer.data(), nullptr), INVALID_PARAMETER);
  }
  EXPECT_EQ(host.CountOf("SetValue pid-1 pid pid-1"), 2);
}

TEST_F(ProtocolTest, RootIdFollowsTheOption) {
  char buffer[8] = "#######";
  int length = 0;
  EXPECT_EQ(protocol->GetRootID(buffer, &length), SUCCESS);
  EXPECT_STREQ(buffer, "");
  HideShared();
  for (const auto& [given, result] : {std::pair{3, INSUFFICIENT_BUFFER}, {4, SUCCESS}}) {
    length = given;
    EXPECT_EQ(protocol->GetRootID(buffer, &length), result);
    EXPECT_EQ(length, given);
  }
  EXPECT_STREQ(buffer, "root");
  EXPECT_EQ(protocol->GetRootID(buffer, nullptr), ACCESS_DENIED);
}

TEST_F(SignedInTest, AsksForTheAccountAtMostOnceAMinute) {
  std::uint64_t total = 0;
  std::uint64_t used = 0;
  EXPECT_EQ(protocol->GetQuota(&total, &used), SUCCESS);
  EXPECT_EQ(total, 1000U);
  EXPECT_EQ(used, 750U);
  time.Advance(std::chrono::seconds(59));
  EXPECT_EQ(protocol->GetQuota(nullptr, &used), SUCCESS);
  EXPECT_TRUE(Requests().empty());

  // A broken answer is an error, is asked again, and keeps the name.
  time.Advance(std::chrono::seconds(1));
  service.AnswerOnly("/api/drive", R"({"quota":{"total":5,"remaining":1}})");
  EXPECT_EQ(protocol->GetQuota(&total, &used), ACCESS_VIOLATION);
  EXPECT_EQ(protocol->GetQuota(&total, &used), ACCESS_VIOLATION);
  EXPECT_EQ(Requests().size(), 2U);
  service.AnswerOnly(
      "/api/drive",
      R"({"owner":{"user":{"displayName":"Kim"}},"quota":{"total":5,"remaining":9}})");
  EXPECT_EQ(protocol->GetQuota(&total, &used), SUCCESS);
  EXPECT_EQ(used, 0U) << "more left than there is must not wrap around";
  time.Advance(std::chrono::seconds(60));
  service.AnswerOnly(
      "/api/drive",
      R"({"owner":{"user":{"displayName":"Kim"}},"quota":{"total":5,"remaining":-2}})");
  EXPECT_EQ(protocol->GetQuota(&total, &used), SUCCESS);
  EXPECT_EQ(used, 7U) << "over the quota";
  char name[16];
  int length = 15;
  EXPECT_EQ(protocol->GetUserInfo(name, &length), SUCCESS);
  EXPECT_STREQ(name, "Kim");
}

TEST_F(ProtocolTest, OptionsTakeOrLeaveEverythingAsItWas) {
  struct Case {
    const char *key, *value;
    AERROR result;
    const char* root_id;  // shows show_shared
    const char* port;
  };
  const auto fields = [](const std::string& values) { return "{\"values\":{" + values + "}}"; };
  const std::string off = fields(R"("show_shared":{"value":false})");
  const std::string unknown = fields(R"("other":{"x":1},"bare":7)");
  const std::string proxy = fields(
      R"("proxy":{"value":{"type":"SOCKS5","host":"h","port":1080,"user":"u","password":"p"}})");
  const std::string half = fields(R"("proxy":{"value":{"type":"SOCKS4","host":"g"}})");
  for (const Case& c : {
           Case{"Option_Fields", unknown.c_str(), SUCCESS, "", ""},
           {"option_fields", off.c_str(), SUCCESS, "root", ""},
           {"OPTION_FIELDS", proxy.c_str(), SUCCESS, "root", "1080"},
           {"option_fields", "{", JSON_PARSE_FAILED, "root", "1080"},
           {"option_fields", "{}", ACCESS_VIOLATION, "root", "1080"},
           {"option_fields", nullptr, ACCESS_VIOLATION, "root", "1080"},
           {"option_fields", "[]", FAILED, "root", "1080"},
           {"option_fields", half.c_str(), ACCESS_VIOLATION, "root", "1080"},
           {"no such option", nullptr, SUCCESS, "root", "1080"},
           {nullptr, "x", INVALID_PARAMETER, "root", "1080"},
       }) {
    SCOPED_TRACE(c.value != nullptr ? c.value : "(null)");
    EXPECT_EQ(protocol->SetOpt(c.key, c.value), c.result);
    char id[8];
    int length = 7;
    protocol->GetRootID(id, &length);
    EXPECT_STREQ(id, c.root_id);
    EXPECT_EQ(cq.proxy.port, c.port);
  }
  EXPECT_EQ(cq.proxy.type, "SOCKS4") << "what was read before the failure has been stored";
  EXPECT_EQ(cq.proxy.user, "u");
  cq.proxy = {};
}

}  // namespace
