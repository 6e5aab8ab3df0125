// Sign-in, discovery, account and renewal. Input: credential, stored token, the host's replies for
// discovery, for the service and for the renewal (an empty line is none), then one answer a line.
#include <deque>

#include "fuzz/scripted_transfers.h"
#include "tests/fake_time.h"
#include "tests/log_recorder.h"
#include "tests/test_host.h"

namespace {

// What the corpus has in its tokens, and what must never be seen.
constexpr const char* kSecret = "SECRET";
constexpr std::size_t kLongestStoredToken = 1023;

struct Account {
  explicit Account(FuzzInput& input) : credential(input.Line()) {
    host.values["refresh_token"] = input.Line().substr(0, kLongestStoredToken);
    for (int count = 0; count < 3; ++count) replies.push_back(input.Line());
    host.authorize = [this](const std::string&) -> std::optional<std::string> {
      if (replies.empty()) return std::nullopt;
      const std::string reply = replies.front();
      replies.pop_front();
      if (reply.empty()) return std::nullopt;
      return reply;
    };
    network.QueueRest(input);
    // Addresses that the service gives may stand in the log, spelled in JSON's escapes or not.
    answers_show_secret = input.Rest().find(kSecret) != std::string_view::npos ||
                          input.Rest().find('\\') != std::string_view::npos;
  }

  std::string credential;
  std::deque<std::string> replies;
  LogRecorder log;
  FakeTime time;
  TestHost host;
  ScriptedTransfers network;
  bool answers_show_secret = false;
};

void CheckSignedIn(IProtocol_V2& drive, Account& account) {
  std::vector<char> buffer(account.credential.size() + 1);
  int length = static_cast<int>(account.credential.size());
  Require(drive.GetCredential(buffer.data(), &length) == SUCCESS, "the credential is there");
  Require(buffer.data() == account.credential, "the credential is the one given");

  std::vector<char> name(1 << 16);
  length = static_cast<int>(name.size()) - 1;
  const AERROR result = drive.GetUserInfo(name.data(), &length);
  Require(result == SUCCESS && std::strlen(name.data()) == static_cast<std::size_t>(length),
          "the account has a name");

  account.time.Advance(std::chrono::hours(2));
  std::uint64_t total = 0;
  std::uint64_t used = 0;
  const AERROR quota = drive.GetQuota(&total, &used);
  Require(quota == SUCCESS || quota == ACCESS_VIOLATION, "the quota is known or cannot be had");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  Account account(input);
  {
    const ProtocolPtr drive = MakeProtocol(&account.host);
    drive->SetOpt("discovery_url", "https://discovery.example/services");
    const AERROR result = drive->Connect(&account.host, account.credential.c_str());
    Require(result == SUCCESS || result == AUTH_FAILED, "sign-in succeeds or fails");
    if (result == SUCCESS) CheckSignedIn(*drive, account);
  }
  Require(account.host.replies_out == 0, "every reply is released once");
  if (!account.answers_show_secret) {
    Require(!account.log.Has(kSecret), "neither tokens nor credentials are logged");
  }
  return 0;
}
