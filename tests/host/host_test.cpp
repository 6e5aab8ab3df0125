// The host program's own decisions: losing a sign-in, half-written files, wrong items, leaked
// secrets and terminals taken over by names are what these tests hunt.
#include <thread>

#include "base/json_text.h"
#include "base/utf8.h"
#include "emulator/service.h"
#include "host/authorizer.h"
#include "host/device_login.h"
#include "host/profile.h"
#include "host/service_error.h"
#include "host/text.h"
#include "tests/host/emulated_authority.h"

namespace host {
namespace {

namespace fs = std::filesystem;

class HostTest : public FolderTest {
 protected:
  const fs::path profile_file_ = folder_ / "state" / "p.json";
};

TEST_F(HostTest, StoreReplacesItsFileWholeAndPrivate) {
  const mode_t before = umask(0);
  ValueStore store(profile_file_);
  store.Set("s", "k", "old");
  umask(before);
  EXPECT_EQ(Mode(profile_file_), 0600U);
  EXPECT_EQ(Mode(profile_file_.parent_path()), 0700U);
  std::ifstream reader(profile_file_);
  store.Set("s", "k", "new");
  const std::string seen{std::istreambuf_iterator<char>(reader), {}};
  EXPECT_NE(seen.find("old"), std::string::npos) << "written in place, not replaced";
  EXPECT_EQ(ValueStore(profile_file_).Get("s", "k"), "new");
}

TEST_F(HostTest, StoreKeepsValueThatCannotBeWrittenAndWritesItLater) {
  ValueStore store(profile_file_);
  store.Set("s", "a", "1");
  const fs::path obstacle = profile_file_.string() + ".new/x";
  fs::create_directories(obstacle);
  EXPECT_EQ(KindOf([&] { store.Set("s", "b", "2"); }), FailureKind::kLocal);
  EXPECT_EQ(ValueStore(profile_file_).Get("s", "a"), "1") << "the old file must stand";
  EXPECT_EQ(store.Get("s", "b"), "2");
  fs::remove_all(obstacle.parent_path());
  store.Set("s", "c", "3");
  EXPECT_EQ(ValueStore(profile_file_).Get("s", "b"), "2");
}

TEST_F(HostTest, DamagedProfileIsReportedAndKept) {
  fs::create_directory(folder_ / "state");
  for (const std::string content :
       {"{\"values\": {\"s\"", "[]", "{\"values\":{\"s\":{\"k\":1}}}"}) {
    Write("state/p.json", content);
    ValueStore store(profile_file_);
    EXPECT_NE(store.warning(), "") << content;
    EXPECT_EQ(store.Get("s", "k"), "");
    store.Set("s", "k", "v");
    EXPECT_EQ(ValueStore(profile_file_).Get("s", "k"), "v");
  }
  EXPECT_EQ(Read(folder_ / "state/p.json.damaged"), "{\"values\": {\"s\"");
  EXPECT_EQ(Read(folder_ / "state/p.json.damaged2"), "[]");
}

TEST_F(HostTest, ChangesOfSeveralStoresOnOneFileAllSurvive) {
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this, i] {
      ValueStore store(profile_file_);
      for (int j = 0; j < 5; ++j) {
        store.Set("s", std::to_string(i) + "-" + std::to_string(j), "v");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  ValueStore store(profile_file_);
  for (int n = 0; n < 20; ++n) {
    EXPECT_EQ(store.Get("s", std::to_string(n / 5) + "-" + std::to_string(n % 5)), "v");
  }
}

TEST_F(HostTest, ProfileNamesCannotLeaveTheirFolder) {
  for (const char* good : {"default", "a.b", "A_1-x"}) EXPECT_TRUE(IsProfileName(good)) << good;
  for (const char* bad : {"", "..", ".x", "-x", "a/b", "a b", "ä"}) {
    EXPECT_FALSE(IsProfileName(bad)) << bad;
  }
  EXPECT_FALSE(IsProfileName(std::string(65, 'a')));
}

std::string StoredToken(Profile& profile) {
  char buffer[1024] = {};
  int length = sizeof buffer;
  profile.GetValue("p", "refresh_token", buffer, &length);
  return buffer;
}

TEST_F(HostTest, WithdrawnTokenIsHiddenFromTheModuleAndSurvivesACrash) {
  ValueStore store(profile_file_);
  store.Set("p", "refresh_token", "good");
  Profile profile(store, "p");
  EXPECT_EQ(StoredToken(profile), "good");
  profile.SetValue("p", "refresh_token", "");
  EXPECT_EQ(StoredToken(profile), "");
  ValueStore after_crash(profile_file_);
  Profile next(after_crash, "p");
  EXPECT_EQ(StoredToken(next), "good");
  profile.KeepRefreshToken(std::string(1024, 't'));
  EXPECT_EQ(StoredToken(profile), "") << "longer than the module's buffer: nothing, not a part";
  EXPECT_EQ(next.RefreshToken().size(), 1024U);
  next.SignOut();
  EXPECT_EQ(profile.RefreshToken(), "");
}

class AuthorizerTest : public EmulatedAuthority {
 protected:
  AuthorizerTest() {
    settings_.token_url = service_.TokenUrl();
    settings_.client_id = service_.ClientId();
    settings_.discovery_resource = service_.DiscoveryResource();
  }

  static std::string LastError(const Authorizer& authorizer) {
    const auto failure = authorizer.last_failure();
    return failure ? failure->what() : "";
  }

  std::string Ask(Authorizer& authorizer, const std::string& resource) const {
    char* text = authorizer.Authorize(
        nullptr, ("{\"args\":{\"resource\":\"" + resource + "\"},\"results\":{}}").c_str());
    const auto reply = base::ParseJsonObject(text == nullptr ? "" : text);
    authorizer.FreeResult(text);
    return reply ? base::TextMember((*reply)["results"], "refresh_token").value_or("") : "";
  }

  const fs::path profile_file_ = folder_ / "state" / "p.json";
};

TEST_F(AuthorizerTest, NewestTokenWinsOverTheOneTheModuleGivesBack) {
  ValueStore store(profile_file_);
  Profile profile(store, "p");
  profile.KeepRefreshToken(service_.IssueRefreshToken());
  Authorizer authorizer({settings_, http_, profile, log_, redactor_, cancellation_});
  // A renewal of the module: two requests, then the token of the first one is handed to the store.
  const std::string first = Ask(authorizer, "");
  ASSERT_NE(first, "") << LastError(authorizer);
  const std::string second = Ask(authorizer, service_.ServiceResource());
  profile.SetValue("p", "refresh_token", first.c_str());
  ValueStore next_run(profile_file_);
  Profile next(next_run, "p");
  EXPECT_EQ(next.RefreshToken(), second);
  Authorizer next_authorizer({settings_, http_, next, log_, redactor_, cancellation_});
  EXPECT_NE(Ask(next_authorizer, ""), "") << LastError(next_authorizer);
}

TEST_F(AuthorizerTest, FailuresAreClearHoldNoSecretAndCostNoSignIn) {
  ValueStore store;
  Profile profile(store, "p");
  Authorizer authorizer({settings_, http_, profile, log_, redactor_, cancellation_});
  using emulator::Fault;
  const auto html = [](int status) {
    Fault fault = Fault::Status(status);
    fault.body = "<html>";
    fault.content_type = "text/html";
    return fault;
  };
  const std::pair<Fault, const char*> cases[] = {
      {html(502), "HTTP 502 (text/html)"},
      {Fault::Reset(emulator::Place::kBeforeAnswer), "cannot be reached"},
      {Fault::Body("{\"token_type\":\"Bearer\"}"), "instead of tokens"},
      {Fault::Body("{\"error\":\"invalid_grant\",\"error_description\":\"no\\u001b[2J good\"}"),
       "invalid_grant: no\\u{1B}[2J good"},
      {Fault::Redirect(307, service_.TokenUrl() + "?elsewhere"), "HTTP 307"},
  };
  for (const auto& [fault, expected] : cases) {
    const std::string token = service_.IssueRefreshToken();
    profile.KeepRefreshToken(token);
    service_.AddFault(fault.On("POST", "/token"));
    EXPECT_EQ(Ask(authorizer, ""), "");
    EXPECT_NE(LastError(authorizer).find(expected), std::string::npos) << LastError(authorizer);
    EXPECT_EQ(LastError(authorizer).find(token), std::string::npos);
    EXPECT_EQ(profile.RefreshToken(), token);
  }
  EXPECT_TRUE(service_.UnfiredFaults().empty());
}

TEST_F(AuthorizerTest, NobodyWaitsForAnythingOnceItIsCancelled) {
  const std::string resource = service_.ServiceResource();
  const LoginContext context{settings_, resource, http_, cancellation_, log_, redactor_};
  std::thread other;
  const auto begin = std::chrono::steady_clock::now();
  const auto kind = KindOf([&] {
    LogInByDevice(context, [&](const std::string&, const std::string&) {
      other = std::thread([&] { cancellation_.Raise(); });
    });
  });
  other.join();
  EXPECT_EQ(kind, FailureKind::kInterrupted);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(900));
  const auto handle = std::make_shared<_FS_HANDLE>();
  const Cancellation::Transfers late(cancellation_, {handle});
  EXPECT_GT(handle->state, 2) << "a transfer that begins afterwards stops, too";
  ValueStore store;
  Profile profile(store, "p");
  profile.KeepRefreshToken(service_.IssueRefreshToken());
  service_.ClearRequests();
  Authorizer authorizer({settings_, http_, profile, log_, redactor_, cancellation_});
  EXPECT_EQ(Ask(authorizer, ""), "");
  EXPECT_TRUE(service_.Requests().empty()) << "no token is spent";
}

TEST(Redaction, HidesSecretsAndLeavesTheRest) {
  Redactor redactor;
  redactor.AddSecret("s3cret");
  const std::pair<const char*, const char*> cases[] = {
      {"pw s3cret s3cret.", "pw [hidden] [hidden]."},
      {"GET https://u:p@h/a?tempauth=x&y=z HTTP", "GET https://[hidden]@h/a?[hidden] HTTP"},
      {"[https://h/a?q](12) http://h/b?r", "[https://h/a?[hidden]](12) http://h/b?[hidden]"},
      {"authorization: bearer abc.d-e", "authorization: bearer [hidden]"},
      {"code=1&refresh_token=AB&x=1", "code=1&refresh_token=[hidden]&x=1"},
      {"{\"access_token\":\"AB\"}", "{\"access_token\":\"[hidden]\"}"},
      {"ls >> HTTP 404 : a@b?c", "ls >> HTTP 404 : a@b?c"},
  };
  for (const auto& [line, expected] : cases) EXPECT_EQ(redactor.Redact(line), expected);
}

TEST(Text, NamesCannotControlTheTerminal) {
  const std::pair<const char*, const char*> cases[] = {
      {"plain ü 日本", "plain ü 日本"},
      {"a\nb\tc\x7f", "a\\nb\\tc\\u{7F}"},
      {"\x1b]0;x\x07", "\\u{1B}]0;x\\u{7}"},
      {"\xC2\x9B"
       "2J",
       "\\u{9B}2J"},
      {"txt.\xE2\x80\xAE"
       "exe",
       "txt.\\u{202E}exe"},
      {"\xFF\xC0\x80", "\\xFF\\xC0\\x80"},
      {"\xED\xA0\x80", "\\xED\\xA0\\x80"},
      {"cut \xE6\x97", "cut \\xE6\\x97"},
  };
  for (const auto& [name, expected] : cases) EXPECT_EQ(EscapeForTerminal(name), expected);
  EXPECT_EQ(DisplayWidth("日本e\xCC\x81"), 5U);
  EXPECT_EQ(Padded("日本", 6, true), "  日本");
  EXPECT_EQ(Shortened("日本語テキスト", 8), "日本...");
  EXPECT_EQ(base::ValidUtf8("a\xFF"), "a\xEF\xBF\xBD");
}

TEST(ServiceError, IsReadFromTheLinesOfTheOperation) {
  using Lines = std::vector<std::string>;
  struct Case {
    Lines lines;
    AERROR result;
    int status;
    FailureKind kind;
  };
  const std::string end = "[PROTOCOL  ] Connect Failed to find service end point";
  for (const Case& c : {
           Case{{"[PROTOCOL  ] Read >> ON HTTP(for any code) 503 : FAILED(0x00000001)"},
                FAILED,
                503,
                FailureKind::kThrottled},
           {{"[PROTOCOL  ] X >> ON HTTP RANGE 200(206) : FAILED(0x00000001)"},
            FAILED,
            206,
            FailureKind::kFailed},
           {{"[PROTOCOL  ] X >> ON HTTP 401 : FAILED(0x00000001)"},
            FAILED,
            401,
            FailureKind::kSignIn},
           {{"[PROTOCOL  ] Rename >> HTTP 409"}, FAILED, 409, FailureKind::kConflict},
           {{"[PROTOCOL  ] Upload >> HTTP 412"}, FAILED, 412, FailureKind::kChanged},
           {{"[PROTOCOL  ] Upload >> HTTP 423"}, FAILED, 423, FailureKind::kLocked},
           {{"[PROTOCOL  ] Upload >> HTTP 413"}, FAILED, 413, FailureKind::kTooLarge},
           {{"[PROTOCOL  ] Upload >> HTTP 507"}, FAILED, 507, FailureKind::kQuota},
           {{"[PROTOCOL  ] Upload >> HTTP 502"}, FAILED, 502, FailureKind::kTrouble},
           {{"[PROTOCOL  ] X >> Couldn't connect to server"}, FAILED, 0, FailureKind::kUnreachable},
           {{"[PROTOCOL  ] X >> Couldn't resolve proxy name"}, FAILED, 0, FailureKind::kProxy},
           {{"[PROTOCOL  ] X >> No more backoff"}, FAILED, 0, FailureKind::kThrottled},
           {{"[PROTOCOL  ] Read >> Failed writing received data to disk/application"},
            READ_CANCELED,
            0,
            FailureKind::kInterrupted},
           {{"[PROTOCOL  ] X >> HTTP 500", end}, AUTH_FAILED, 500, FailureKind::kTrouble},
           {{end}, AUTH_FAILED, 0, FailureKind::kSignIn},
           {{"[PROTOCOL  ] 'HTTP 404 >> ' id is null"}, FAILED, 0, FailureKind::kFailed},
           {{}, FILE_NOT_FOUND, 0, FailureKind::kNotFound},
           {{}, ACCESS_DENIED, 0, FailureKind::kDenied},
       }) {
    const ServiceError error = ReadServiceError(c.lines);
    EXPECT_EQ(error.status, c.status) << error.line;
    EXPECT_EQ(KindOf(c.result, error), c.kind) << error.line << c.result;
  }
}

}  // namespace
}  // namespace host
