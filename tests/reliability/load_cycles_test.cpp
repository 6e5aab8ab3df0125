// Hunts what a host loses that loads the module again and again: memory, descriptors, threads, and
// code that is still running when it is unmapped. The program itself has no libcurl, so that comes
// and goes with the module.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "emulator/service.h"
#include "tests/test_host.h"
#include "tests/web_server.h"

namespace {

namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__)
constexpr int kCycles = 100;  // memory is the leak checker's there
#else
constexpr int kCycles = 1000;
#endif
constexpr int kWarmUp = kCycles / 5;

struct Log final : ILog {
  void HostReserved() override {}
  bool IsDetailed() override { return true; }
  void Write(LOGLEVEL, const char*, std::va_list) override { ++lines; }
  int lines = 0;
};

struct Used {
  long resident = 0;  // KiB
  std::ptrdiff_t descriptors = 0;
  std::ptrdiff_t threads = 0;
};

Used Measure() {
  Used used;
  std::ifstream("/proc/self/statm") >> used.resident >> used.resident;
  used.resident *= sysconf(_SC_PAGESIZE) / 1024;
  const auto count = [](const char* folder) {
    return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
  };
  used.descriptors = count("/proc/self/fd");
  used.threads = count("/proc/self/task");
  return used;
}

/// Answers as a drive of one file would, and remembers nothing of it.
class Server {
 public:
  explicit Server(const emulator::HttpServerOptions& options = {}) : server_(options) {
    server_.Start([](const emulator::Request& request) {
      return emulator::JsonResponse(
          200, request.target.ends_with("/drive")
                   ? R"({"owner":{"user":{"displayName":"R"}},"quota":{"total":9,"remaining":2}})"
                   : R"({"id":"1","name":"n","size":7})");
    });
  }
  std::string Endpoint() const { return server_.Origin() + "/api"; }

 private:
  emulator::HttpServer server_;
};

template <typename Function>
Function* Symbol(void* module, const char* name) {
  return reinterpret_cast<Function*>(dlsym(module, name));
}

void Cycle(const std::string& endpoint, Log& log) {
  TestHost host;
  void* module = dlopen(MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(module, nullptr);
  Symbol<decltype(BindLogger)>(module, "BindLogger")(&log);
  IProtocol_V2* protocol = nullptr;
  ASSERT_TRUE(Symbol<decltype(GetProtocol)>(module, "GetProtocol")("n", &host, &protocol));
  protocol->SetOpt("service_endpoint", endpoint.c_str());
  protocol->SetOpt("service_resource", "r");
  ASSERT_EQ(protocol->Connect(&host, "{}"), SUCCESS);
  _FS_FILE_V2 file;
  ASSERT_EQ(protocol->GetFileInfo("1", &file, nullptr), SUCCESS);
  ASSERT_EQ(file.filename, "n");
  protocol->Release();
  Symbol<decltype(UnbindLogger)>(module, "UnbindLogger")();
  dlclose(module);
}

TEST(LoadCycles, LoseNothing) {
  emulator::HttpServerOptions options;
  options.tls = emulator::MakeServerIdentity("localhost");
  const TrustedAuthority trusted(options.tls->authority_pem);
  const Server server(options);
  Log log;
  for (int i = 0; i < kWarmUp; ++i) Cycle(server.Endpoint(), log);
  const Used before = Measure();
  for (int i = kWarmUp; i < kCycles; ++i) Cycle(server.Endpoint(), log);
  const Used after = Measure();
  std::printf("%d cycles: resident %ld to %ld KiB, descriptors %td to %td, threads %td to %td\n",
              kCycles - kWarmUp, before.resident, after.resident, before.descriptors,
              after.descriptors, before.threads, after.threads);
  // The server's own may come and go meanwhile.
  EXPECT_LE(after.descriptors, before.descriptors + 4);
  EXPECT_LE(after.threads, before.threads + 4);
#if !defined(__SANITIZE_ADDRESS__)
  EXPECT_LT(after.resident - before.resident, 640) << "KiB";
#endif
  EXPECT_GT(log.lines, kCycles);
}

}  // namespace
