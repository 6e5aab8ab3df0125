// Hunts secrets where people read: in the module's log lines, and in what the host program writes.
// The service and the authority here answer with every secret that they were sent, in headers,
// documents, broken documents and redirects.
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "tests/fake_time.h"
#include "tests/log_recorder.h"
#include "tests/reliability/operations.h"
#include "tests/web_server.h"
#include "transport/onedrivebiz_curl.h"

namespace {

namespace fs = std::filesystem;

// Every secret holds this word, and nothing else does. Real tokens are longer than a message; the
// value store reads 1024 bytes.
constexpr const char* kMarker = "MARKER";
const std::string kLong(900, 'k');
const std::string kAccess = "MARKER-access" + kLong;
const std::string kRefresh = "MARKER-refresh" + kLong;
const std::string kQuery = "?tempauth=MARKER-link" + kLong;
const std::string kProxyPassword = "MARKER-proxy";
const std::string kCredential =
    R"({"args":{"client_secret":"MARKER-client"},"results":{"refresh_token":")" + kRefresh + "\"}}";

/// What a request told the server, as a text.
std::string Echo(const Received& request) {
  std::string text = request.target + " " + request.body.substr(0, 5000);
  for (const auto& [name, value] : request.headers) {
    text.append(" ").append(name).append(": ").append(value);
  }
  return text + " " + kAccess + " " + kRefresh + " http://h/p" + kQuery;
}

emulator::Response Answer(int status, const std::string& body, emulator::HeaderList headers = {}) {
  emulator::Response response = emulator::JsonResponse(status, body);
  for (auto& [name, value] : headers) response.SetHeader(name, value);
  return response;
}

struct Fault {
  const char* name;
  std::function<emulator::Response(const Received&)> answer;
};

emulator::Response Cut(emulator::Response response, emulator::Place place) {
  response.delivery.cut = emulator::Cut::kReset;
  response.delivery.place = place;
  response.delivery.after_bytes = 20;
  return response;
}

const std::vector<Fault>& Faults() {
  static const auto status = [](int code) {
    return [code](const Received& r) {
      return Answer(code, R"({"error":{"code":"c","message":")" + Echo(r) + "\"}}",
                    {{"WWW-Authenticate", "Bearer error=\"" + kAccess + "\""}});
    };
  };
  static const auto body = [](const std::string& before, const std::string& after) {
    return [=](const Received& r) { return Answer(200, before + Echo(r) + after); };
  };
  static const std::vector<Fault> all = {
      {"401", status(401)},
      {"403", status(403)},
      {"404", status(404)},
      {"416", status(416)},
      {"429", status(429)},
      {"500", status(500)},
      {"a page", body("<html>", "</html>")},
      {"half a document", body("{\"value\":[{\"id\":\"", "")},
      {"another document", body("{\"value\":\"", "\",\"uploadUrl\":[],\"id\":{}}")},
      {"a link to nowhere",
       [](const Received&) {
         return Answer(200, R"({"value":[],"@odata.nextLink":"http://127.0.0.1:1/)" + kQuery +
                                R"(","uploadUrl":"gopher://127.0.0.1:1/)" + kQuery +
                                R"(","expirationDateTime":"x"})");
       }},
      {"a redirect to nowhere",
       [](const Received&) {
         return Answer(302, "", {{"Location", "http://127.0.0.1:1/" + kQuery}});
       }},
      {"a redirect to a file",
       [](const Received&) {
         return Answer(302, "", {{"Location", "file:///" + kQuery}});
       }},
      {"a strange encoding",
       [](const Received& r) {
         return Answer(200, Echo(r), {{"Content-Encoding", kAccess}});
       }},
      {"a cut header",
       [](const Received& r) { return Cut(Answer(200, Echo(r)), emulator::Place::kInHeaders); }},
      {"a cut body",
       [](const Received& r) { return Cut(Answer(200, Echo(r)), emulator::Place::kInBody); }},
  };
  return all;
}

/// Authority, discovery, drive, contents and HTTP proxy in one. `fault` meets the targets that have
/// `part`.
class EchoService {
 public:
  std::string Url(const std::string& target) const { return server_.Url(target); }
  std::uint16_t Port() const {
    const std::string origin = Url("");
    return static_cast<std::uint16_t>(std::stoi(origin.substr(origin.rfind(':') + 1)));
  }
  void Set(const Fault* fault, const std::string& part) {
    const std::lock_guard guard(mutex_);
    fault_ = fault;
    part_ = part;
    met_ = 0;
  }
  int met() {
    const std::lock_guard guard(mutex_);
    return met_;
  }
  std::string ServiceFile() const {
    return R"({"token_url":")" + Url("/oauth2/token") + R"(","client_id":"c","discovery_url":")" +
           Url("/discovery") + R"(","refresh_token":")" + kRefresh + "\"}";
  }

 private:
  emulator::Response Serve(const Received& request) {
    {
      const std::lock_guard guard(mutex_);
      if (fault_ != nullptr && request.target.find(part_) != std::string::npos) {
        ++met_;
        return fault_->answer(request);
      }
    }
    return Honest(request);
  }
  emulator::Response Honest(const Received& request) const {
    const auto has = [&](const char* part) {
      return request.target.find(part) != std::string::npos;
    };
    if (has("/devicecode")) {
      return Answer(200, R"({"device_code":"MARKER-device","user_code":"U","interval":1,)"
                         R"("verification_url":"http://h/"})");
    }
    if (has("/token")) {
      return Answer(200,
                    R"({"access_token":")" + kAccess + R"(","refresh_token":")" + kRefresh + "\"}");
    }
    if (has("/discovery")) {
      return Answer(200, R"({"value":[{"capability":"MyFiles","serviceApiVersion":"v2.0",)"
                         R"("serviceResourceId":"r","serviceEndpointUri":")" +
                             Url("/api") + "\"}]}");
    }
    if (has("/download")) return Answer(200, "content");
    if (request.method == "GET" && has("/content")) {
      return Answer(302, "", {{"Location", Url("/download" + kQuery)}});
    }
    if (request.method == "DELETE") return emulator::EmptyResponse(204);
    if (has(".createSession")) {
      return Answer(
          200, R"({"expirationDateTime":"x","uploadUrl":")" + Url("/session" + kQuery) + "\"}");
    }
    if (request.target.ends_with("/drive")) {
      return Answer(200, R"({"owner":{"user":{"displayName":"R"}},)"
                         R"("quota":{"total":9,"remaining":2}})");
    }
    const std::string item = R"({"id":"item","name":"n","eTag":"e","size":)" +
                             std::to_string(has("/session") ? faults::kSessionSize : 7) + "}";
    const bool page = request.method == "GET" && (has("/children") || has("sharedWithMe"));
    return Answer(200, page ? "{\"value\":[" + item + "]}" : item);
  }

  std::mutex mutex_;
  const Fault* fault_ = nullptr;
  std::string part_;
  int met_ = 0;
  WebServer server_{[this](const Received& request) { return Serve(request); }};
};

class ModuleSecretsTest : public ::testing::Test {
 protected:
  ModuleSecretsTest() {
    log.detailed = true;
    host.authorize = [](const std::string&) {
      return R"({"results":{"access_token":")" + kAccess + R"(","refresh_token":")" + kRefresh +
             "\"}}";
    };
  }
  ~ModuleSecretsTest() override {
    const std::lock_guard guard(cq.mutex);
    cq.proxy = {};
    cq.free.clear();
  }
  ProtocolPtr Made() {
    ProtocolPtr p = MakeProtocol(&host);
    p->SetOpt("discovery_url", service.Url("/discovery").c_str());
    return p;
  }
  void RunAll(IProtocol_V2& p) {
    time.Advance(std::chrono::hours(2));  // renewals and quota are due
    for (const faults::Operation& operation : faults::OperationsOfConnected()) {
      faults::Call call{p, host};
      operation.run(call);
    }
    std::array<char, 4096> text;
    int length = 4095;
    p.GetCredential(text.data(), &length);
    Made()->Connect(&host, kCredential.c_str());
  }
  void ExpectCleanLog() {
    EXPECT_TRUE(log.Has("GetFileList"));
    for (const std::string& line : log.Lines()) {
      EXPECT_EQ(line.find(kMarker), std::string::npos) << line.substr(0, 300);
      EXPECT_EQ(line.find("[NETWORK"), std::string::npos) << "headers are traced: " << line;
    }
    log.Clear();
  }

  EchoService service;
  LogRecorder log;
  FakeTime time;
  TestHost host;
};

TEST_F(ModuleSecretsTest, StayOutOfTheLog) {
  const ProtocolPtr p = Made();
  ASSERT_EQ(p->Connect(&host, kCredential.c_str()), SUCCESS);
  RunAll(*p);
  ExpectCleanLog();
  for (const Fault& fault : Faults()) {
    for (const char* part : {"/discovery", "/api/drive", "/session", "/download"}) {
      SCOPED_TRACE(std::string(fault.name) + " at " + part);
      service.Set(&fault, part);
      RunAll(*p);
      EXPECT_GE(service.met(), 1);
      ExpectCleanLog();
    }
  }
  service.Set(nullptr, "");
  for (const std::string& reply :
       {"{\"results\":" + kAccess, "{\"results\":\"" + kAccess + "\"}",
        "{\"results\":{\"access_token\":[\"" + kAccess + "\"]}}",
        std::string("{\"results\":{\"access_token\":\"MARKER\\r\\nX: y\"}}")}) {
    SCOPED_TRACE(reply.substr(0, 40));
    host.authorize = [&](const std::string&) { return reply; };
    RunAll(*p);
    ExpectCleanLog();
  }
}

TEST_F(ModuleSecretsTest, OfTheProxyStayOutOfTheLog) {
  const Fault wants_password = {
      "407", [](const Received& r) {
        return Answer(407, Echo(r), {{"Proxy-Authenticate", "Basic realm=\"r\""}});
      }};
  const ProtocolPtr p = Made();
  ASSERT_EQ(p->Connect(&host, kCredential.c_str()), SUCCESS);
  for (const char* kind : {"SOCKS4", "SOCKS5", "HTTP with TUNNEL", "HTTP without TUNNEL"}) {
    for (const Fault* fault : {&wants_password, &Faults()[1], static_cast<const Fault*>(nullptr)}) {
      SCOPED_TRACE(kind);
      service.Set(fault, "");
      cq.free.clear();
      const std::string options = R"({"values":{"proxy":{"value":{"type":")" + std::string(kind) +
                                  R"(","host":"127.0.0.1","user":"u","port":)" +
                                  std::to_string(service.Port()) + R"(,"password":")" +
                                  kProxyPassword + "\"}}}}";
      EXPECT_EQ(p->SetOpt("option_fields", options.c_str()), SUCCESS);
      EXPECT_NE(p->SetOpt("option_fields", options.substr(0, options.size() - 5).c_str()), SUCCESS);
      RunAll(*p);
      ExpectCleanLog();
    }
  }
}

/// The host program in a folder of its own, with its state.
class ProgramSecretsTest : public ::testing::Test {
 protected:
  ProgramSecretsTest() {
    std::string pattern = (fs::temp_directory_path() / "onedrive4b-secrets-XXXXXX").string();
    folder = mkdtemp(pattern.data());
    for (const char* name : {"bin", "lib", "Frameworks", "state", "work"}) {
      fs::create_directory(folder / name);
    }
    fs::copy(HOST_PROGRAM, folder / "bin/onedrive4b");
    fs::copy(MODULE_PATH, folder / "lib/libonedrive4b.so");
    std::ofstream(folder / "Frameworks/service.json") << service.ServiceFile();
    std::ofstream(folder / "work/small") << "content";
    std::ofstream(folder / "work/large") << "";
    fs::resize_file(folder / "work/large", faults::kSessionSize);
  }
  ~ProgramSecretsTest() override { fs::remove_all(folder); }

  static int Shell(const std::string& command) {
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe): one command at a time is what it is for
    return std::system(command.c_str());
  }
  /// Runs `arguments` with all that can be logged, and looks at everything that it leaves.
  void Run(const std::string& arguments) {
    const std::string command = "cd '" + folder.string() + "/work' && XDG_STATE_HOME='" +
                                folder.string() +
                                "/state' ../bin/onedrive4b --profile p --service-file "
                                "../Frameworks/service.json -vv --trace trace " +
                                arguments + " > output 2>&1 < /dev/null";
    EXPECT_TRUE(WIFEXITED(Shell(command))) << arguments;
    EXPECT_NE(Text("output"), "");
    EXPECT_NE(Text("trace"), "");
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder / "work")) {
      const std::string name = entry.path().filename();
      if (name == "large") continue;
      const std::string text = Text(name);
      const std::size_t at = text.find(kMarker);
      EXPECT_EQ(at, std::string::npos)
          << arguments << ": " << name << ": " << text.substr(text.rfind('\n', at) + 1, 100)
          << "..." << text.substr(at, 60);
    }
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder / "state")) {
      const auto others = fs::perms::group_all | fs::perms::others_all;
      EXPECT_EQ(entry.status().permissions() & others, fs::perms::none) << entry.path();
    }
  }
  std::string Text(const std::string& name) const {
    std::ifstream file(folder / "work" / name);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  EchoService service;
  fs::path folder;
};

TEST_F(ProgramSecretsTest, StayOutOfWhatItWritesOfItsWork) {
  const std::vector<std::string> commands = {"ls '/My Drive'", "get '/My Drive/n' got",
                                             "put small '/My Drive/n'", "put large '/My Drive/n'"};
  for (const char* other :
       {"whoami", "df", "tree", "stat '/My Drive/n'", "cat '/My Drive/n'", "mkdir '/My Drive/m'",
        "mv '/My Drive/n' '/My Drive/o'", "rm '/My Drive/n'"}) {
    Run(other);
  }
  for (const std::string& command : commands) Run(command);
  for (const Fault& fault : Faults()) {
    // What the module says of the others, the module's test has seen.
    if (!std::set<std::string>{"500", "a page", "a link to nowhere", "a cut body"}.contains(
            fault.name)) {
      continue;
    }
    SCOPED_TRACE(fault.name);
    const std::array<const char*, 4> parts = {"/children", "/download", "/content", "/session"};
    for (std::size_t i = 0; i < parts.size(); ++i) {
      service.Set(&fault, parts[i]);
      Run(commands[i]);
      EXPECT_GE(service.met(), 1);
    }
  }
}

TEST_F(ProgramSecretsTest, StayOutOfWhatItWritesOfItsSignIn) {
  std::vector<Fault> faults = Faults();
  const auto error = [](const std::string& code, const std::string& text) {
    return [=](const Received& r) {
      return Answer(400, R"({"error":")" + code + R"(","error_description":")" + text +
                             r.body.substr(r.body.find("token=") + 6, 1000) + "\"}");
    };
  };
  faults.push_back({"a refusal that quotes the token", error("invalid_grant", "bad token ")});
  faults.push_back({"a refusal that is the token", error(kRefresh, kRefresh)});
  faults.push_back({"a strange type", [](const Received&) {
                      return Answer(400, "x", {{"Content-Type", "text/" + kRefresh}});
                    }});
  for (const Fault& fault : faults) {
    if (fault.name == std::string("429")) continue;
    SCOPED_TRACE(fault.name);
    service.Set(&fault, "/token");
    Run("whoami");
    EXPECT_GE(service.met(), 1);
  }
  const Fault* const at_proxy[] = {&faults[1], &faults.back(), nullptr};
  for (const char* kind : {"socks5", "http"}) {
    for (const Fault* fault : at_proxy) {
      service.Set(fault, "");
      Run("--proxy " + std::string(kind) + "://u:" + kProxyPassword +
          "@127.0.0.1:" + std::to_string(service.Port()) + " whoami");
    }
  }
  service.Set(&faults[faults.size() - 3], "/token");
  Run("login");
  service.Set(nullptr, "");
  std::ofstream(folder / "Frameworks/service.json") << "{\"refresh_token\":\"" << kRefresh;
  for (const char* arguments : {"whoami", "--refresh-token-file ../Frameworks/service.json whoami",
                                "--proxy 'http://u:MARKER@[::/x' whoami"}) {
    const std::string run = "cd '" + folder.string() + "/work' && ../bin/onedrive4b -vv ";
    const std::string file =
        arguments == std::string("whoami") ? "--service-file ../Frameworks/service.json " : "";
    EXPECT_NE(Shell(run + file + arguments + " > output 2>&1"), 0);
    EXPECT_EQ(Text("output").find(kMarker), std::string::npos) << Text("output");
  }
}

}  // namespace
