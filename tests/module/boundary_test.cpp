// Hunts what only a real host of the real library sees: a slot out of order, a field at another
// offset, a name too many, a symbol bound to somebody else's, a library that stays mapped.
//
// Nothing here is declared by the module's headers: a host has its own declarations.
#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <gtest/gtest.h>

// Symbols of this program under the names of the module's data, exported as a careless host would.
extern "C" {
__attribute__((visibility("default"))) void* logger = nullptr;
__attribute__((visibility("default"))) void* aq = nullptr;
__attribute__((visibility("default"))) char cq[4096] = {};
}

namespace {

namespace fs = std::filesystem;

class Library {
 public:
  explicit Library(const fs::path& path = MODULE_PATH, int mode = RTLD_LOCAL)
      : handle_(dlopen(path.c_str(), RTLD_NOW | mode)) {
    EXPECT_NE(handle_, nullptr) << dlerror();
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() { dlclose(handle_); }

  template <typename Type>
  Type* Get(const char* name) const {
    void* symbol = dlsym(handle_, name);
    EXPECT_NE(symbol, nullptr) << name;
    return reinterpret_cast<Type*>(symbol);
  }

 private:
  void* handle_;
};

struct HostLog final {
  virtual void First() { ADD_FAILURE() << "the host's own operation was called"; }
  virtual bool Second() { return false; }
  virtual void Third(int level, const char* format, va_list arguments) {
    char line[512];
    std::vsnprintf(line, sizeof line, format, arguments);
    text += std::to_string(level) + " " + line + "\n";
  }
  std::string text;
};

struct HostManager final {
  virtual int GetPid(const char* key, char* buffer, int* length) {
    asked = std::string(key) + " " + std::to_string(*length);
    std::strcpy(buffer, "pid");
    return 0;
  }
  virtual int SetValue(const char*, const char*, const char*) { return 0; }
  virtual int GetValue(const char*, const char*, char*, int*) { return 0; }
  std::string asked;
};

struct File {
  std::string id;
  std::uint32_t attr;
  std::int64_t size;
  std::string created, modified, accessed, name;
  std::shared_ptr<char> etag;
  std::deque<std::string> list;
  std::string info;
};

struct Handle {
  std::int32_t host1, state;
  std::int64_t position, host2;
  void (*progress)(long long, long long, void*, double);
  void* context;
};

struct HostList final {
  virtual int AddFile(File* file) {
    names += file->name + "|" + file->id + "|" + std::to_string(file->attr) + "\n";
    return 0;
  }
  std::string names;
};

// Calls operation `slot` of the object's table.
template <typename Result, typename... Arguments>
Result Call(void* object, std::size_t slot, Arguments... arguments) {
  void** table = *static_cast<void***>(object);
  return reinterpret_cast<Result (*)(void*, Arguments...)>(table[slot])(object, arguments...);
}

constexpr int kInvalidParameter = 6;
constexpr int kNeedAuthorize = 2014;

bool IsMapped(const std::string& name) {
  std::ifstream maps("/proc/self/maps");
  const std::string text{std::istreambuf_iterator<char>(maps), {}};
  return text.find(name) != std::string::npos;
}

std::vector<std::string> LinesOf(const char* command) {
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command, "r"), pclose);
  std::vector<std::string> lines;
  char line[4096];
  while (std::fgets(line, sizeof line, pipe.get()) != nullptr) lines.emplace_back(line);
  return lines;
}

bool AnyHas(const std::vector<std::string>& lines, const char* text) {
  return std::any_of(lines.begin(), lines.end(), [text](const std::string& line) {
    return line.find(text) != std::string::npos;
  });
}

// The dynamic symbols that the library defines, demangled, up to their parameters.
std::set<std::string> ExportedNames() {
  std::set<std::string> names;
  for (const std::string& line :
       LinesOf("nm -D --defined-only '" MODULE_PATH "' | cut -d' ' -f3 | c++filt")) {
    names.insert(line.substr(0, line.find_first_of("([\n")));
  }
  return names;
}

TEST(Exports, AreTheListAndNothingElse) {
  std::set<std::string> names = ExportedNames();
  for (const char* of_instrumentation : {"__asan", "__odr_asan", "__gcov", "mangled_path"}) {
    std::erase_if(names,
                  [&](const std::string& name) { return name.starts_with(of_instrumentation); });
  }
  EXPECT_EQ(names, (std::set<std::string>{"GetSupports",
                                          "BindAsyncQ",
                                          "BindLogger",
                                          "UnbindAsyncQ",
                                          "UnbindLogger",
                                          "GetSupportProtocol",
                                          "FreeP",
                                          "GetProtocolVersion",
                                          "GetProtocol",
                                          "GetAuthType",
                                          "GetAuthFields",
                                          "GetOptFields",
                                          "GetAERRORA",
                                          "ConvertAERROR",
                                          "logger",
                                          "aq",
                                          "cq",
                                          "protocol_version",
                                          "g_interval_refresh_token",
                                          "TMToRFC3339",
                                          "TMToUTCRFC3339",
                                          "TimeToRFC3339",
                                          "TimeToUTCRFC3339",
                                          "NoAdjustOffsetForServerTime",
                                          "AdjustOffsetForServerTime",
                                          "NoAdjustServerTimeOffset",
                                          "AdjustServerTimeOffset",
                                          "RFC3339ToTM",
                                          "RFC3339ToLocalTM",
                                          "GetSystemTimeRfc3339",
                                          "split",
                                          "string_format",
                                          "replace_all",
                                          "ends_with",
                                          "s2ws",
                                          "ws2s",
                                          "strip",
                                          "IsNameInExpression",
                                          "IsNameInExpressionA",
                                          "GetPrivateProfileString",
                                          "CreateDirectoryRecursively",
                                          "pexec",
                                          "ProtocolUtil::curlProxyType",
                                          "ProtocolUtil::createItem"}));
}

TEST(EntryPoints, AnswerWithoutAnObject) {
  const Library module;
  EXPECT_EQ(module.Get<int()>("GetSupports")(), 3);
  EXPECT_EQ(module.Get<int()>("GetAuthType")(), 2);
  auto* version = module.Get<const char*()>("GetProtocolVersion");
  EXPECT_STREQ(version(), "1.0.0");
  EXPECT_EQ(version(), *module.Get<const char*>("protocol_version"));
  EXPECT_EQ(*module.Get<std::int64_t>("g_interval_refresh_token"), 3600);

  auto* name = module.Get<char*(char**)>("GetSupportProtocol");
  auto* free_text = module.Get<void(void*)>("FreeP");
  char* first = nullptr;
  EXPECT_EQ(name(&first), first);
  char* second = name(nullptr);
  EXPECT_NE(first, second);
  EXPECT_STREQ(second, "onedrive4b");
  free_text(first);
  free_text(second);
  free_text(nullptr);

  auto* error_name = module.Get<const char*(int)>("GetAERRORA");
  struct Case {
    int code;
    const char* name;
  };
  for (const Case& c : {Case{0, "SUCCESS"},
                        {2, "RETRY"},
                        {24, "ACCESS_DENIED"},
                        {35, "HANDLE_EOF"},
                        {41, "BAD_ARGUMENTS"},
                        {1000, "ASYNCQ_STOPPED"},
                        {1002, "ASYNCQ_THREADCREATIONFAILED"},
                        {2001, "FS_UNKNOWN_ERROR"},
                        {2014, "FS_NEED_AUTHORIZE"},
                        {3001, "CACHE_TOO_SMALL"},
                        {3014, "CACHE_NO_RESERVED_BLOCKS"},
                        {4004, "CERT_ISSUER_NOT_FOUND"},
                        {6001, "JSON_PARSE_FAILED"},
                        {7003, "AUTH_FAILED"},
                        {7005, "AUTH_INVALID_APP"},
                        {7006, "AUTH_KEY_NOT_FOUND"},
                        {8001, "SOCK_CONNECTION_REFUSED"},
                        {8010, "SOCK_ADDRESS_NOT_AVALIABLE"},
                        {8024, "SOCK_UNKNOWN_SOCKET_ERROR"}}) {
    EXPECT_STREQ(error_name(c.code), c.name);
  }
  for (const int code : {-1, 42, 999, 1003, 2000, 2015, 3000, 3015, 3999, 4005, 5999, 6002, 6999,
                         7004, 7007, 8000, 8025}) {
    EXPECT_STREQ(error_name(code), "Unknown") << code;
  }
  auto* status = module.Get<int(int)>("ConvertAERROR");
  EXPECT_EQ(status(0), 0);
  EXPECT_EQ(status(19), -2);
  EXPECT_EQ(status(20), -5);
  EXPECT_EQ(status(7003), -5);
}

TEST(Bindings, AreTheModulesOwn) {
  const Library module;
  auto* bind = module.Get<bool(void*)>("BindLogger");
  auto* bind_queue = module.Get<bool(void*)>("BindAsyncQ");
  HostLog log;
  EXPECT_TRUE(bind(&log));
  EXPECT_FALSE(bind(nullptr));
  EXPECT_EQ(*module.Get<void*>("logger"), &log);
  EXPECT_EQ(logger, nullptr) << "this program's symbol of the same name";
  EXPECT_TRUE(bind_queue(&log));
  EXPECT_FALSE(bind_queue(nullptr));
  EXPECT_EQ(*module.Get<void*>("aq"), &log);
  EXPECT_EQ(aq, nullptr);
  EXPECT_NE(static_cast<void*>(module.Get<char>("cq")), static_cast<void*>(cq));

  void* object = nullptr;
  ASSERT_TRUE(module.Get<bool(const char*, void*, void**)>("GetProtocol")("n", nullptr, &object));
  Call<void>(object, 0);
  EXPECT_EQ(log.text, "1 [PROTOCOL  ] Release started\n1 [PROTOCOL  ] Release finished\n");
  module.Get<void()>("UnbindLogger")();
  module.Get<void()>("UnbindAsyncQ")();
  EXPECT_EQ(*module.Get<void*>("logger"), nullptr);
  EXPECT_EQ(*module.Get<void*>("aq"), nullptr);
  EXPECT_FALSE(module.Get<bool(const char*, void*, void**)>("GetProtocol")("n", nullptr, nullptr));
}

TEST(Slots, AreInOrder) {
  const Library module;
  HostManager manager;
  void* object = nullptr;
  ASSERT_TRUE(module.Get<bool(const char*, void*, void**)>("GetProtocol")("n", &manager, &object));
  EXPECT_EQ(manager.asked, "onedrivebiz.dll_1.0.0.0 256");
  char buffer[512] = "";
  int length = 511;
  char* message = buffer;
  File file{};
  HostList list;
  const auto handle = std::make_shared<Handle>();
  std::uint64_t bytes = 0;
  const std::string text = "t";
  const char* id = "1";
  EXPECT_EQ((Call<int>(object, 1, buffer, &length)), kInvalidParameter) << "GetUserInfo";
  EXPECT_EQ((Call<int>(object, 2, &bytes, &bytes)), kInvalidParameter) << "GetQuota";
  EXPECT_EQ((Call<int>(object, 3, bytes, bytes)), 0) << "SetQuota";
  char* type = nullptr;
  EXPECT_EQ((Call<int>(object, 4, &type)), 0) << "GetType";
  EXPECT_STREQ(type, "onedrive4b");
  EXPECT_EQ((Call<int>(object, 5, "", &list, &message)), 0) << "GetFileList";
  EXPECT_EQ(list.names, "Shared with me|shared|66\n||0\n");
  EXPECT_EQ((Call<int>(object, 6, static_cast<void*>(nullptr), &message)), 0) << "GetChanges";
  EXPECT_EQ((Call<int>(object, 7, "shared", &file, &message)), 0) << "GetFileInfo";
  EXPECT_EQ(file.name, "Shared with me");
  EXPECT_EQ(file.created.size(), 24U);
  for (const std::size_t slot : {8U, 9U, 10U}) {
    EXPECT_EQ((Call<int>(object, slot, id, id, &file, &message)), kNeedAuthorize) << slot;
  }
  EXPECT_EQ((Call<int>(object, 11, id, &file, &message)), kNeedAuthorize) << "CreateDirectory";
  EXPECT_EQ((Call<int>(object, 12, &file, &message)), kNeedAuthorize) << "Delete";
  EXPECT_EQ((Call<int>(object, 13, &file, &message)), kNeedAuthorize) << "DeleteDirectory";
  // Class types travel by invisible reference; any receiver that is not called will do.
  EXPECT_EQ((Call<int>(object, 14, id, std::int64_t{0}, std::int64_t{1}, &handle, &list, &message)),
            kNeedAuthorize)
      << "Read";
  EXPECT_EQ((Call<int>(object, 15, id, &handle, &list, &file, 0, &message)), kNeedAuthorize)
      << "Upload";
  EXPECT_EQ((Call<int>(object, 16, id, &text, &text, &text, &file, &message)), 8) << "SetFileTime";
  EXPECT_EQ((Call<int>(object, 17, "option_fields", "{")), 6001) << "SetOpt";
  EXPECT_EQ((Call<int>(object, 18, buffer, &length)), kNeedAuthorize) << "GetCredential";
  EXPECT_EQ((Call<int>(object, 19)), 320) << "GetFeature";
  Call<void>(object, 20, static_cast<void*>(nullptr), static_cast<void*>(nullptr));
  Call<void>(object, 21, strdup("message"));
  EXPECT_EQ((Call<int>(object, 22, static_cast<void*>(nullptr), "{}")), kInvalidParameter)
      << "Connect";
  EXPECT_EQ((Call<int>(object, 23, buffer, &length)), 0) << "GetIdentifier";
  EXPECT_EQ((Call<int>(object, 24, buffer, static_cast<int*>(nullptr))), 24) << "GetRootID";
  // Behind the operations: the destructor's two slots, then GetUrl, which returns a string.
  alignas(std::string) std::array<char, sizeof(std::string)> storage;
  void** table = *static_cast<void***>(object);
  reinterpret_cast<void (*)(void*, void*, const char*)>(table[27])(storage.data(), object, id);
  auto* url = reinterpret_cast<std::string*>(storage.data());
  EXPECT_EQ(*url, "/drive/items/1");
  std::destroy_at(url);
  EXPECT_EQ(message, buffer) << "message pointers stay as they were";
  Call<void>(object, 0);
}

TEST(Hardening, IsInTheBuiltLibrary) {
  const std::vector<std::string> headers = LinesOf("readelf -lW '" MODULE_PATH "'");
  EXPECT_TRUE(AnyHas(headers, "GNU_RELRO")) << "what the loader has resolved stays writable";
  for (const std::string& line : headers) {
    EXPECT_FALSE(line.find("GNU_STACK") != std::string::npos && line.find("RWE") != line.npos);
  }
  EXPECT_TRUE(AnyHas(LinesOf("readelf -dW '" MODULE_PATH "'"), "BIND_NOW"));
#ifdef EXPECT_CHECKED_CALLS
  const std::vector<std::string> symbols = LinesOf("nm -D --undefined-only '" MODULE_PATH "'");
  EXPECT_TRUE(AnyHas(symbols, "__stack_chk_fail")) << "no stack protector";
  EXPECT_TRUE(AnyHas(symbols, "_chk@")) << "no checked libc calls";
#endif
}

TEST(Unloading, Unmaps) {
  for (int round = 0; round < 3; ++round) {
    {
      const Library module;
      void* object = nullptr;
      ASSERT_TRUE(
          module.Get<bool(const char*, void*, void**)>("GetProtocol")("n", nullptr, &object));
      char* type = nullptr;
      Call<int>(object, 4, &type);
      Call<void>(object, 0);
      EXPECT_TRUE(IsMapped("libonedrive4b.so"));
    }
    EXPECT_FALSE(IsMapped("libonedrive4b.so"));
  }
}

TEST(Copies, StayApart) {
  const fs::path copy =
      fs::path(testing::TempDir()) / ("other-" + std::to_string(getpid()) + ".so");
  fs::copy_file(MODULE_PATH, copy);
  {
    const Library first(MODULE_PATH, RTLD_GLOBAL);
    const Library second(copy, RTLD_GLOBAL);
    HostLog log;
    first.Get<bool(void*)>("BindLogger")(&log);
    EXPECT_EQ(*second.Get<void*>("logger"), nullptr);
    EXPECT_NE(first.Get<char>("cq"), second.Get<char>("cq"));
    void* object = nullptr;
    ASSERT_TRUE(second.Get<bool(const char*, void*, void**)>("GetProtocol")("n", nullptr, &object));
    Call<void>(object, 0);
    EXPECT_EQ(log.text, "") << "the other copy's object logs to the other copy's logger";
  }
  fs::remove(copy);
}

}  // namespace
