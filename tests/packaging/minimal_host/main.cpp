// The smallest host: loads the module, makes a protocol object and lists its top folder, which
// needs no account.
#include <cstdio>

#include <dlfcn.h>

#include "onedrive4b/entry_points.h"

namespace {

class Manager final : public IProtocolManager {
 public:
  AERROR GetPID(const char*, char* buffer, int* length) override {
    std::snprintf(buffer, static_cast<std::size_t>(*length), "minimal");
    return SUCCESS;
  }
  AERROR SetValue(const char*, const char*, const char*) override { return SUCCESS; }
  AERROR GetValue(const char*, const char*, char*, int*) override { return FILE_NOT_FOUND; }
};

class Printer final : public IFileList {
 public:
  AERROR AddFile(_FS_FILE_V2* file) override {
    std::printf("[%s] %s\n", file->id.c_str(), file->filename.c_str());
    return SUCCESS;
  }
};

}  // namespace

int main() {
  void* module = dlopen(MODULE, RTLD_LAZY | RTLD_LOCAL);
  if (module == nullptr) {
    std::puts(MODULE " cannot be loaded");
    return 1;
  }
  const auto get_protocol = reinterpret_cast<decltype(&GetProtocol)>(dlsym(module, "GetProtocol"));
  const auto name_of = reinterpret_cast<decltype(&GetAERRORA)>(dlsym(module, "GetAERRORA"));
  Manager manager;
  Printer printer;
  IProtocol_V2* drive = nullptr;
  if (!get_protocol("drive", &manager, &drive)) return 1;
  std::puts(name_of(drive->GetFileList("", &printer, nullptr)));
  std::puts(name_of(drive->GetUserInfo(nullptr, nullptr)));
  drive->Release();
  return dlclose(module);
}
