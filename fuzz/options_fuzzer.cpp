// Options of a protocol object, and what they do to requests. Input: lines "KEY VALUE".
#include <array>

#include "fuzz/signed_in_object.h"

namespace {

class NoList final : public IFileList {
 public:
  AERROR AddFile(_FS_FILE_V2*) override { return SUCCESS; }
};

bool IsOneOf(AERROR result, std::initializer_list<AERROR> allowed) {
  return std::find(allowed.begin(), allowed.end(), result) != allowed.end();
}

// A key without value stands for a null text.
void SetOption(IProtocol_V2& protocol, const std::string& line) {
  const std::size_t space = line.find(' ');
  const std::string key = line.substr(0, space);
  const std::string value = space == std::string::npos ? "" : line.substr(space + 1);
  const char* text = space == std::string::npos ? nullptr : value.c_str();
  const AERROR result = protocol.SetOpt(key.c_str(), text);
  if (strcasecmp(key.c_str(), "option_fields") == 0) {
    Require(IsOneOf(result, {SUCCESS, JSON_PARSE_FAILED, ACCESS_VIOLATION, FAILED}),
            "option fields are taken or refused");
  } else {
    Require(result == SUCCESS, "every other option is taken or ignored");
  }
}

std::string RootOf(IProtocol_V2& protocol) {
  std::array<char, 8> id{};
  int length = static_cast<int>(id.size()) - 1;
  Require(protocol.GetRootID(id.data(), &length) == SUCCESS, "there is a root");
  return id.data();
}

// A request object takes the proxy of the options, whatever it says.
void CheckProxy() {
  const long long port = NumberIn(cq.proxy.port);
  Require(cq.proxy.port.empty() || std::to_string(port) == cq.proxy.port, "a port is a number");
  cq.PutCURL(cq.GetCURL());
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  cq.proxy = {};
  LogRecorder log;
  TestHost host;
  ScriptedTransfers network;
  const ProtocolPtr protocol = MakeProtocol(&host);
  while (!input.AtEnd()) SetOption(*protocol, input.Line());
  const std::string root = RootOf(*protocol);
  Require(root.empty() || root == "root", "the root is the synthesised folder or the drive's");
  CheckProxy();

  NoList list;
  Require(protocol->GetFileList("1", &list, nullptr) == FS_NEED_AUTHORIZE && network.seen.empty(),
          "nothing is asked before sign-in");
  // Discovery, or the account at the preset endpoint: either is refused, so nothing else follows.
  const AERROR result = protocol->Connect(&host, R"({"results":{}})");
  Require(result == AUTH_FAILED && network.seen.size() == 1, "one refused request ends sign-in");
  Require(protocol->GetQuota(nullptr, nullptr) == INVALID_PARAMETER, "there is no account");
  cq.proxy = {};
  return 0;
}
