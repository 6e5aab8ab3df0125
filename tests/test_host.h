// A host in memory: value store, authorisation and receivers, all of which record what the module
// asks of them.
#pragma once

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "onedrive4b/entry_points.h"

/// Value store and authorisation. Any thread.
class TestHost final : public IProtocolManager, public IProtocolAuth {
 public:
  using Authorization = std::function<std::optional<std::string>(const std::string& credential)>;

  AERROR GetPID(const char* module_key, char* buffer, int* length) override {
    Record(std::string("GetPID ") + module_key + " " + std::to_string(*length));
    std::strcpy(buffer, "pid-1");
    return SUCCESS;
  }

  AERROR SetValue(const char* pid, const char* key, const char* value) override {
    Record(std::string("SetValue ") + pid + " " + key + " " + value);
    const std::lock_guard guard(mutex_);
    values[key] = value;
    return SUCCESS;
  }

  AERROR GetValue(const char* pid, const char* key, char* buffer, int* length) override {
    Record(std::string("GetValue ") + pid + " " + key + " " + std::to_string(*length));
    const std::lock_guard guard(mutex_);
    std::strcpy(buffer, values[key].c_str());
    return SUCCESS;
  }

  char* Authorize(IProtocol_V2*, const char* credential) override {
    Record(std::string("Authorize ") + credential);
    const std::optional<std::string> reply = authorize(credential);
    if (!reply) return nullptr;
    const std::lock_guard guard(mutex_);
    ++replies_out;
    return strdup(reply->c_str());
  }

  void FreeResult(char* text) override {
    Record(text != nullptr ? "FreeResult" : "FreeResult null");
    const std::lock_guard guard(mutex_);
    if (text != nullptr) --replies_out;
    std::free(text);
  }

  std::vector<std::string> Calls() const {
    const std::lock_guard guard(mutex_);
    return calls_;
  }
  int CountOf(const std::string& beginning) const {
    int count = 0;
    for (const std::string& call : Calls()) count += call.starts_with(beginning) ? 1 : 0;
    return count;
  }
  void ClearCalls() {
    const std::lock_guard guard(mutex_);
    calls_.clear();
  }

  Authorization authorize = [](const std::string&) {
    return R"({"results":{"access_token":"A","refresh_token":"R"}})";
  };
  std::map<std::string, std::string> values;
  int replies_out = 0;  // given and not released yet

 private:
  void Record(std::string call) {
    const std::lock_guard guard(mutex_);
    calls_.push_back(std::move(call));
  }

  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
};

/// Keeps a copy of every entry.
class FileCollector final : public IFileList {
 public:
  AERROR AddFile(_FS_FILE_V2* file) override {
    files.push_back(*file);
    return FAILED;  // ignored
  }

  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const _FS_FILE_V2& file : files) names.push_back(file.filename);
    return names;
  }
  const _FS_FILE_V2* Find(const std::string& name) const {
    for (const _FS_FILE_V2& file : files) {
      if (file.filename == name) return &file;
    }
    return nullptr;
  }

  std::vector<_FS_FILE_V2> files;
};

/// A file that is one byte over and over, as the host's copy; keeps what is fetched.
struct FilledContent final : ICacheIO, IFetchCallback {
  explicit FilledContent(char filling = 'c') : byte(filling) {}

  int ReadCache(_CACHEIO_REQUEST* request) override {
    std::memset(request->buffer, byte, request->length);
    request->done = request->length;
    return 0;
  }
  AERROR OnFetch(std::int64_t, const char* data, std::int64_t length, int) override {
    fetched.append(data, static_cast<std::size_t>(length));
    return SUCCESS;
  }

  const char byte;
  std::string fetched;
};

/// Ends a protocol object as hosts do.
struct ReleaseProtocol {
  void operator()(IProtocol_V2* protocol) const { protocol->Release(); }
};
using ProtocolPtr = std::unique_ptr<IProtocol_V2, ReleaseProtocol>;

inline ProtocolPtr MakeProtocol(IProtocolManager* manager) {
  IProtocol_V2* protocol = nullptr;
  GetProtocol("test", manager, &protocol);
  return ProtocolPtr(protocol);
}
