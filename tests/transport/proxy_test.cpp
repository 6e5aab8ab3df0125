// Hunts traffic that goes round the user's proxy, proxies that are spoken to wrongly, and refusals
// of a proxy that look like those of the service. The proxies are real programs.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "emulator/service.h"
#include "tests/emulator_tokens.h"
#include "tests/log_recorder.h"
#include "tests/test_host.h"
#include "tests/web_server.h"
#include "transport/onedrivebiz_curl.h"

namespace {

/// A TCP socket on loopback: connected to `port`, or bound to a port of the kernel's choice for 0.
class LoopbackSocket {
 public:
  explicit LoopbackSocket(std::uint16_t port)
      : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address_.sin_port = htons(port);
    const auto* address = reinterpret_cast<const sockaddr*>(&address_);
    ok_ = (port != 0 ? connect : bind)(fd_, address, sizeof address_) == 0;
  }
  LoopbackSocket(const LoopbackSocket&) = delete;
  LoopbackSocket& operator=(const LoopbackSocket&) = delete;
  ~LoopbackSocket() { close(fd_); }

  bool ok() const { return ok_; }
  std::uint16_t Port() {
    socklen_t size = sizeof address_;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address_), &size);
    return ntohs(address_.sin_port);
  }

 private:
  int fd_;
  sockaddr_in address_{};
  bool ok_;
};

/// A proxy program on loopback, with its files in a folder of its own. Ends with the object, and
/// with the test program, however that ends.
class ProxyProgram {
 public:
  /// "@" stands for the port, "%" for the configuration file.
  struct Setup {
    std::vector<std::string> command;
    std::string configuration;
  };

  explicit ProxyProgram(const Setup& setup) {
    std::string name = std::filesystem::temp_directory_path() / "proxy_test.XXXXXX";
    folder_ = mkdtemp(name.data());
    // Not all of them can let the kernel choose the port, so somebody else may take it first.
    for (int attempt = 0; attempt < 5 && !Start(setup); ++attempt) Stop();
  }
  ProxyProgram(const ProxyProgram&) = delete;
  ProxyProgram& operator=(const ProxyProgram&) = delete;
  ~ProxyProgram() {
    Stop();
    std::filesystem::remove_all(folder_);
  }

  std::uint16_t port() const { return port_; }
  bool running() const { return pid_ > 0; }
  std::string Log() const {
    std::ostringstream text;
    text << std::ifstream(folder_ / "log").rdbuf();
    return text.str();
  }
  void Stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    for (int i = 0; i < 100 && waitpid(pid_, nullptr, WNOHANG) == 0; ++i) usleep(20000);
    kill(-pid_, SIGKILL);  // its group: what would not end, and what it left behind
    waitpid(pid_, nullptr, WNOHANG);
    pid_ = 0;
  }

 private:
  bool Start(const Setup& setup) {
    port_ = LoopbackSocket(0).Port();
    const std::string configuration = folder_ / "configuration";
    const auto filled = [&](std::string text) {
      for (std::size_t at; (at = text.find('@')) != std::string::npos;) {
        text.replace(at, 1, std::to_string(port_));
      }
      return text == "%" ? configuration : text;
    };
    std::ofstream(configuration) << filled(setup.configuration);
    std::vector<std::string> command;
    std::transform(setup.command.begin(), setup.command.end(), std::back_inserter(command), filled);
    Spawn(command);
    for (int i = 0; i < 500; ++i) {
      if (waitpid(pid_, nullptr, WNOHANG) != 0) {
        pid_ = 0;
        return false;
      }
      if (LoopbackSocket(port_).ok()) return true;
      usleep(20000);
    }
    return false;
  }

  void Spawn(std::vector<std::string>& command) {
    std::vector<char*> words;
    words.reserve(command.size() + 1);
    for (std::string& word : command) words.push_back(word.data());
    words.push_back(nullptr);
    const int log =
        open((folder_ / "log").c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
    pid_ = fork();
    if (pid_ == 0) {
      setpgid(0, 0);
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      dup2(log, STDOUT_FILENO);
      dup2(log, STDERR_FILENO);
      execv(words[0], words.data());
      dprintf(STDERR_FILENO, "%s is missing: scripts/setup installs it\n", words[0]);
      _exit(127);
    }
    close(log);
  }

  std::filesystem::path folder_;
  std::uint16_t port_ = 0;
  pid_t pid_ = 0;
};

const ProxyProgram::Setup kHttp = {{"/usr/bin/tinyproxy", "-d", "-c", "%"},
                                   "Port @\nListen 127.0.0.1\nLogLevel Connect\n"};
const ProxyProgram::Setup kHttpWithPassword = {kHttp.command,
                                               kHttp.configuration + "BasicAuth user pass\n"};
const ProxyProgram::Setup kSocks5 = {{"/usr/bin/microsocks", "-i", "127.0.0.1", "-p", "@"}, ""};
const ProxyProgram::Setup kSocks5WithPassword = {
    {"/usr/bin/microsocks", "-i", "127.0.0.1", "-p", "@", "-u", "user", "-P", "pass"}, ""};
const ProxyProgram::Setup kSocks4 = {
    {"/usr/sbin/danted", "-f", "%"},
    "logoutput: stderr\ninternal: 127.0.0.1 port = @\nexternal: 127.0.0.1\n"
    "clientmethod: none\nsocksmethod: none\n"
    "client pass { from: 0.0.0.0/0 to: 0.0.0.0/0 }\n"
    "socks pass { from: 0.0.0.0/0 to: 0.0.0.0/0\n  proxyprotocol: socks_v4\n  log: connect }\n"};

class ProxyTest : public ::testing::TestWithParam<bool> {
 protected:
  ProxyTest() {
    // The host has a way of its own to the token endpoint.
    host.authorize = [this](const std::string& credential) {
      return TokenReply(service, credential);
    };
    Forget();
  }
  ~ProxyTest() override {
    protocol.reset();
    cq.proxy = {};
    Forget();
  }

  /// Connections that exist already would go on through the proxy they were made through.
  static void Forget() {
    const std::lock_guard guard(cq.mutex);
    cq.free.clear();
  }
  void Use(const std::string& kind, std::uint16_t port, const std::string& user,
           const std::string& password) {
    Forget();
    log.Clear();
    host.ClearCalls();
    const std::string fields = R"({"values":{"proxy":{"value":{"type":")" + kind +
                               R"(","host":"127.0.0.1","port":)" + std::to_string(port) +
                               R"(,"user":")" + user + R"(","password":")" + password + "\"}}}}";
    EXPECT_EQ(protocol->SetOpt("option_fields", fields.c_str()), SUCCESS);
  }
  AERROR Connect(IProtocol_V2& object) {
    object.SetOpt("discovery_url", service.DiscoveryUrl().c_str());
    return object.Connect(&host, R"({"results":{}})");
  }
  AERROR Look() {
    _FS_FILE_V2 file;
    return protocol->GetFileInfo("root", &file, nullptr);
  }
  std::string ServicePort() const {
    return service.Origin().substr(service.Origin().rfind(':') + 1);
  }
  static emulator::ServiceOptions Options() {
    emulator::ServiceOptions options;
    options.tls = GetParam();
    return options;
  }

  emulator::Service service{Options()};
  TrustedAuthority trusted{service.CertificateAuthorityPem()};
  LogRecorder log;
  TestHost host;
  ProtocolPtr protocol = MakeProtocol(&host);
};

INSTANTIATE_TEST_SUITE_P(Over, ProxyTest, ::testing::Bool(),
                         [](const auto& tls) { return tls.param ? "Tls" : "PlainHttp"; });

TEST_P(ProxyTest, EveryKindCarriesTheTraffic) {
  // Sent at once: a proxy that asks for the password closes the connection without reading the
  // body, and a second piece could meet that before libcurl has seen the answer.
  constexpr std::size_t kSize = 200000;
  struct Content final : ICacheIO, IFetchCallback {
    int ReadCache(_CACHEIO_REQUEST* request) override {
      request->done =
          bytes.copy(request->buffer, request->length, static_cast<std::size_t>(request->offset));
      return 0;
    }
    AERROR OnFetch(std::int64_t, const char* data, std::int64_t length, int) override {
      fetched.append(data, static_cast<std::size_t>(length));
      return SUCCESS;
    }
    std::string bytes = ReadAll(*emulator::PatternContent(kSize));
    std::string fetched;
  };
  struct Case {
    const char* kind;
    const ProxyProgram::Setup& program;
    const char *user, *password;
  };
  for (const Case& c : {
           Case{"SOCKS4", kSocks4, "", ""},
           {"SOCKS4", kSocks4, "user", "pass"},
           {"SOCKS5", kSocks5, "", ""},
           {"SOCKS5", kSocks5WithPassword, "user", "pass"},
           {"HTTP with TUNNEL", kHttp, "", ""},
           {"HTTP with TUNNEL", kHttpWithPassword, "user", "pass"},
           {"HTTP without TUNNEL", kHttp, "", ""},
           {"HTTP without TUNNEL", kHttpWithPassword, "user", "pass"},
       }) {
    SCOPED_TRACE(std::string(c.kind) + " " + c.user);
    ProxyProgram proxy(c.program);
    ASSERT_TRUE(proxy.running()) << proxy.Log();
    Use(c.kind, proxy.port(), c.user, c.password);
    ASSERT_EQ(Connect(*protocol), SUCCESS) << proxy.Log();
    const auto handle = std::make_shared<_FS_HANDLE>();
    Content content;
    _FS_FILE_V2 file;
    file.filename = "through.bin";
    file.size = static_cast<std::int64_t>(content.bytes.size());
    // The HTTP proxy closes connections after an answer, unannounced, and libcurl does not repeat a
    // body that it has begun to send.
    Forget();
    EXPECT_EQ(protocol->Upload("root", handle, &content, &file, {}, nullptr), SUCCESS);
    EXPECT_EQ(protocol->Read(file.id.c_str(), 0, file.size, handle, &content, nullptr), SUCCESS);
    EXPECT_TRUE(content.fetched == content.bytes);
    EXPECT_NE(proxy.Log().find(ServicePort()), std::string::npos) << proxy.Log();

    // Without its proxy nothing gets through, and nothing goes round it.
    proxy.Stop();
    EXPECT_EQ(Look(), FAILED);
    EXPECT_TRUE(log.Has("8 [PROTOCOL  ] GetFileInfo >> Couldn't connect to server"));
    Use("", 0, "", "");
    EXPECT_EQ(Look(), SUCCESS);
  }
}

TEST_P(ProxyTest, ARefusalByTheProxyIsNoFailedSignIn) {
  ASSERT_EQ(Connect(*protocol), SUCCESS);
  // libcurl has a code of its own for SOCKS only.
  const std::string refused_tunnel = ">> Failure when receiving data from the peer";
  struct Case {
    const char* kind;
    const ProxyProgram::Setup& program;
    std::string line;
    bool tells_wrong_from_none;
  };
  for (const Case& c : {
           Case{"SOCKS5", kSocks5WithPassword, ">> proxy handshake error", true},
           {"HTTP with TUNNEL", kHttpWithPassword, refused_tunnel, true},
           // To what is wrong this proxy answers 401 without a tunnel, as the service would.
           {"HTTP without TUNNEL", kHttpWithPassword, GetParam() ? refused_tunnel : ">> HTTP 407",
            GetParam()},
       }) {
    ProxyProgram proxy(c.program);
    ASSERT_TRUE(proxy.running()) << proxy.Log();
    for (const auto& [user, password] :
         {std::pair("", ""), {"user", "wrong-MARKER"}, {"someone", "pass"}, {"user", ""}}) {
      SCOPED_TRACE(std::string(c.kind) + " " + user + " " + password);
      if (*user != '\0' && !c.tells_wrong_from_none) continue;
      Use(c.kind, proxy.port(), user, password);
      EXPECT_EQ(Look(), FAILED);
      EXPECT_TRUE(log.Has("8 [PROTOCOL  ] GetFileInfo " + c.line));
      EXPECT_EQ(host.CountOf("Authorize"), 0) << "tokens are not renewed for it";
      const ProtocolPtr fresh = MakeProtocol(&host);
      EXPECT_EQ(Connect(*fresh), AUTH_FAILED);
      EXPECT_TRUE(log.Has("8 [PROTOCOL  ] GetServiceEndpoint " + c.line));
      EXPECT_FALSE(host.values["refresh_token"].empty()) << "the user need not sign in again";
      EXPECT_FALSE(log.Has("MARKER"));
    }
  }
}

}  // namespace
