// A host whose every callback can be made to misbehave.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "emulator/service.h"
#include "tests/emulator_tokens.h"
#include "tests/test_host.h"

/// All that a host implements, on one thread. A trap is an action that runs at the start of the
/// callback that it names, but not in callbacks of calls that it makes itself. Records and requests
/// that are the host's for the call are torn apart before it ends.
class HostileHost final : public IProtocolManager,
                          public IProtocolAuth,
                          public ILog,
                          public IFileList,
                          public IFetchCallback,
                          public ICacheIO {
 public:
  explicit HostileHost(emulator::Service& service) : service_(service) {}

  void Set(const std::string& callback, std::function<void()> action) {
    callback_ = callback;
    action_ = std::move(action);
    sprung = 0;
  }

  AERROR GetPID(const char*, char* buffer, int* length) override {
    Pass("GetPID");
    std::memset(buffer, 'p', static_cast<std::size_t>(*length));  // a text without its NUL
    *length = -1;
    return FAILED;
  }
  AERROR SetValue(const char*, const char* key, const char* value) override {
    Pass("SetValue");
    values[key] = value;
    return FAILED;
  }
  AERROR GetValue(const char*, const char* key, char* buffer, int* length) override {
    Pass("GetValue");
    values[key].copy(buffer, static_cast<std::size_t>(*length));
    *length = -1;
    return FAILED;
  }
  char* Authorize(IProtocol_V2*, const char* credential) override {
    Pass("Authorize");
    std::optional<std::string> reply;
    try {
      reply = TokenReply(service_, credential);
    } catch (AERROR) {
      reply = TokenReply(service_, "{}");  // whatever the credential was
    }
    ++replies_out;
    return strdup(reply.value_or("").c_str());
  }
  void FreeResult(char* text) override {
    --replies_out;
    std::free(text);
    Pass("FreeResult");
  }
  void HostReserved() override {}
  bool IsDetailed() override { return true; }
  void Write(LOGLEVEL, const char*, std::va_list) override { Pass("Write"); }
  AERROR AddFile(_FS_FILE_V2* file) override {
    Pass("AddFile");
    const _FS_FILE_V2 taken = std::move(*file);
    names += taken.filename + "\n";
    return FAILED;
  }
  AERROR OnFetch(std::int64_t, const char* data, std::int64_t length, int) override {
    Pass("OnFetch");
    fetched.append(data, static_cast<std::size_t>(length));
    return FAILED;
  }
  int ReadCache(_CACHEIO_REQUEST* request) override {
    Pass("ReadCache");
    std::memset(request->buffer, 'c', request->length);
    const std::uint64_t done = request->length;
    *request = {};
    request->done = done;
    return 0;
  }
  static void Progress(long long, long long, void* host, double) {
    static_cast<HostileHost*>(host)->Pass("progress");
  }
  std::shared_ptr<_FS_HANDLE> Handle() {
    auto handle = std::make_shared<_FS_HANDLE>();
    handle->progress = &Progress;
    handle->progressctx = this;
    return handle;
  }

  std::map<std::string, std::string> values;
  std::string names;
  std::string fetched;
  int replies_out = 0;  // given and not released yet
  int sprung = 0;       // how often the trap was met

 private:
  void Pass(const char* callback) {
    if (inside_ || callback_ != callback) return;
    struct Mark {
      explicit Mark(bool& mark) : mark_(mark) { mark_ = true; }
      ~Mark() { mark_ = false; }
      bool& mark_;
    } const mark(inside_);
    ++sprung;
    action_();
  }

  emulator::Service& service_;
  std::string callback_;
  std::function<void()> action_;
  bool inside_ = false;
};
