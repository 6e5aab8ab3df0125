// A whole host: signs in, lists the drive's root and prints its first file.
// Usage: minimal_host MODULE SERVICE-ENDPOINT SERVICE-RESOURCE TOKENS-FILE
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <dlfcn.h>

#include "onedrive4b/entry_points.h"

struct Host final : IProtocolManager, IProtocolAuth, IFileList, IFetchCallback {
  explicit Host(const char* file) : tokens(file) {}
  AERROR GetPID(const char*, char*, int*) override { return SUCCESS; }  // stores nothing
  AERROR SetValue(const char*, const char*, const char*) override { return SUCCESS; }
  AERROR GetValue(const char*, const char*, char*, int*) override { return SUCCESS; }
  char* Authorize(IProtocol_V2*, const char*) override {  // tokens that somebody else has got
    std::string reply;
    std::getline(std::ifstream(tokens), reply);
    return strdup(("{\"results\":" + reply + "}").c_str());
  }
  void FreeResult(char* text) override { std::free(text); }
  AERROR AddFile(_FS_FILE_V2* file) override {
    std::printf("%lld\t%s\n", static_cast<long long>(file->size), file->filename.c_str());
    if (file->attr == 1 && first.id.empty()) first = *file;
    return SUCCESS;
  }
  AERROR OnFetch(std::int64_t, const char* data, std::int64_t length, int) override {
    std::fwrite(data, 1, static_cast<std::size_t>(length), stdout);
    return SUCCESS;
  }
  const char* tokens;
  _FS_FILE_V2 first;
};

AERROR Use(void* module, char** arguments) {
  Host host(arguments[4]);
  IProtocol_V2* drive = nullptr;
  const auto make = reinterpret_cast<decltype(&GetProtocol)>(dlsym(module, "GetProtocol"));
  if (!make("minimal", &host, &drive)) return FAILED;
  drive->SetOpt("service_endpoint", arguments[2]);  // what sign-in would discover otherwise
  drive->SetOpt("service_resource", arguments[3]);
  AERROR result = drive->Connect(&host, "{}");
  if (result == SUCCESS) result = drive->GetFileList("root", &host, nullptr);
  if (result == SUCCESS)
    result = drive->Read(host.first.id.c_str(), 0, host.first.size, std::make_shared<_FS_HANDLE>(),
                         &host, nullptr);
  drive->Release();
  return result;
}

int main(int count, char** arguments) {
  void* module = count == 5 ? dlopen(arguments[1], RTLD_LAZY | RTLD_LOCAL) : nullptr;
  if (module == nullptr) return 2;
  const AERROR result = Use(module, arguments);  // all records are gone when it returns
  std::puts(reinterpret_cast<decltype(&GetAERRORA)>(dlsym(module, "GetAERRORA"))(result));
  return dlclose(module);
}
