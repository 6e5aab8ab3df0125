// The module's side of a measurement: a host that loads the library and calls it. Links nothing
// that the library needs, so that loading it costs here what it costs a host.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <dlfcn.h>

#include "bench/guarded.h"
#include "bench/workload.h"
#include "onedrive4b/entry_points.h"

namespace bench {
namespace {

// A host that grants every token and drops every line that is logged.
class Host final : public IProtocolManager, public IProtocolAuth, public ILog {
 public:
  AERROR GetPID(const char*, char* buffer, int* length) override {
    std::snprintf(buffer, static_cast<std::size_t>(*length), "bench");
    return SUCCESS;
  }
  AERROR SetValue(const char*, const char*, const char*) override { return SUCCESS; }
  AERROR GetValue(const char*, const char*, char*, int*) override { return SUCCESS; }

  char* Authorize(IProtocol_V2*, const char*) override {
    return strdup(R"({"results":{"access_token":"bench-token","refresh_token":"R"}})");
  }
  void FreeResult(char* text) override { std::free(text); }

  void HostReserved() override {}
  bool IsDetailed() override { return false; }
  void Write(LOGLEVEL, const char*, std::va_list) override {}
};

class CacheWriter final : public IFetchCallback {
 public:
  AERROR OnFetch(std::int64_t offset, const char* data, std::int64_t length, int) override {
    cache_.Store(offset, data, length);
    return SUCCESS;
  }
  std::int64_t stored() const { return cache_.stored(); }

 private:
  HostCache cache_;
};

class CacheReader final : public ICacheIO {
 public:
  int ReadCache(_CACHEIO_REQUEST* request) override {
    request->done = static_cast<std::uint64_t>(
        cache_.Load(request->offset, request->buffer, static_cast<std::int64_t>(request->length)));
    return 0;
  }

 private:
  HostCache cache_;
};

class EntryCounter final : public IFileList {
 public:
  AERROR AddFile(_FS_FILE_V2* file) override {
    if (!file->filename.empty()) ++count;
    return SUCCESS;
  }
  std::int64_t count = 0;
};

void Check(AERROR result, const char* what) {
  if (result != SUCCESS) {
    throw std::runtime_error(std::string(what) + " gave " +
                             std::to_string(static_cast<int>(result)));
  }
}

std::string LoaderError() {
  // glibc keeps the text per thread.
  const char* text = dlerror();  // NOLINT(concurrency-mt-unsafe)
  return text == nullptr ? "the module cannot be loaded" : text;
}

// The loaded module with a protocol object that is signed in.
class Drive {
 public:
  explicit Drive(const Workload& workload) {
    library_ = dlopen(MODULE_PATH, RTLD_LAZY | RTLD_LOCAL);
    if (library_ == nullptr) throw std::runtime_error(LoaderError());
    Resolve<decltype(&BindLogger)>("BindLogger")(&host_);
    if (!Resolve<decltype(&GetProtocol)>("GetProtocol")("bench", &host_, &protocol_)) {
      throw std::runtime_error("no protocol object");
    }
    protocol_->SetOpt("discovery_url", (workload.origin + "/discovery/v2.0/me/services").c_str());
    Check(protocol_->Connect(&host_, R"({"args":{},"results":{}})"), "Connect");
  }
  Drive(const Drive&) = delete;
  Drive& operator=(const Drive&) = delete;
  // Until the end of the process, as most hosts have it.
  ~Drive() { protocol_->Release(); }

  IProtocol_V2* operator->() const { return protocol_; }

 private:
  template <typename Function>
  Function Resolve(const char* name) {
    auto function = reinterpret_cast<Function>(dlsym(library_, name));
    if (function == nullptr) throw std::runtime_error(LoaderError());
    return function;
  }

  Host host_;
  void* library_ = nullptr;
  IProtocol_V2* protocol_ = nullptr;
};

std::shared_ptr<_FS_HANDLE> NewHandle() { return std::make_shared<_FS_HANDLE>(); }

void MeasureDownload(const Workload& workload) {
  const Drive drive(workload);
  const std::int64_t share = workload.bytes / workload.threads;
  std::vector<CacheWriter> caches(static_cast<std::size_t>(workload.threads));
  const auto read = [&](CacheWriter& cache, std::int64_t offset, std::int64_t length) {
    Check(drive->Read("item", offset, length, NewHandle(), &cache, nullptr), "Read");
  };
  const auto cache_of = [&](int thread) -> CacheWriter& {
    return caches[static_cast<std::size_t>(thread)];
  };
  Measure(
      workload, [&](int thread) { read(cache_of(thread), 0, 65536); },
      [&](int thread) {
        const std::int64_t before = cache_of(thread).stored();
        const std::int64_t begin = thread * share;
        for (std::int64_t at = begin; at < begin + share; at += workload.range) {
          read(cache_of(thread), at, std::min(workload.range, begin + share - at));
        }
        return cache_of(thread).stored() - before;
      });
}

void MeasureUpload(const Workload& workload) {
  const Drive drive(workload);
  CacheReader cache;
  const auto upload = [&](std::int64_t bytes) {
    _FS_FILE_V2 file;
    file.filename = "bench.bin";
    file.size = bytes;
    Check(drive->Upload("folder", NewHandle(), &cache, &file, UPLOAD_FLAG{}, nullptr), "Upload");
    return bytes;
  };
  Measure(
      workload, [&](int) { upload(65536); },
      [&](int) {
        std::int64_t sent = 0;
        for (std::int64_t call = 0; call < workload.calls; ++call) sent += upload(workload.bytes);
        return sent;
      });
}

void MeasureLookup(const Workload& workload) {
  const Drive drive(workload);
  const std::string id = ItemId(workload);
  const auto look_up = [&](std::int64_t calls) {
    _FS_FILE_V2 file;  // the host's, whose making is not the module's work
    for (std::int64_t call = 0; call < calls; ++call) {
      Check(drive->GetFileInfo(id.c_str(), &file, nullptr), "GetFileInfo");
    }
    return calls;
  };
  Measure(
      workload, [&](int) { look_up(100); },
      [&](int) { return look_up(workload.calls / workload.threads); });
}

void MeasureListing(const Workload& workload) {
  const Drive drive(workload);
  const auto list = [&](const std::string& id) {
    EntryCounter counter;
    Check(drive->GetFileList(id.c_str(), &counter, nullptr), "GetFileList");
    return counter.count;
  };
  Measure(
      workload, [&](int) { list(FolderId(1, 1)); },
      [&](int) {
        const std::int64_t entries = list(FolderId(workload.entries, workload.page));
        // With the next request comes the clean-up that the allocator has put off.
        list(FolderId(1, 1));
        return entries;
      });
}

void MeasureStart(const Workload& workload) {
  Measure(
      workload, [](int) {},
      [&](int) {
        // Its end is not measured.
        static std::unique_ptr<Drive> drive;
        drive = std::make_unique<Drive>(workload);
        return 1;
      });
}

int Main(int count, char** arguments) {
  RunWorkload(ParseWorkload(count, arguments), {{"download", MeasureDownload},
                                                {"upload", MeasureUpload},
                                                {"lookup", MeasureLookup},
                                                {"list", MeasureListing},
                                                {"start", MeasureStart}});
  return 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::Guarded("bench_module", [&] { return bench::Main(argc, argv); });
}
