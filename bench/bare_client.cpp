// The baseline: the requests that the module sends, sent by a short program over libcurl alone.
#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <arpa/inet.h>
#include <curl/curl.h>
#include <json/reader.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/curl_option.h"
#include "bench/guarded.h"
#include "bench/workload.h"

namespace bench {
namespace {

constexpr std::int64_t kPiece = 65536;  // what the host's receiver is given at a time

struct FreeList {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, FreeList>;

HeaderList Headers(std::initializer_list<std::string> lines) {
  HeaderList list;
  for (const std::string& line : lines) list.reset(curl_slist_append(list.release(), line.c_str()));
  return list;
}

const std::string kToken = "Authorization: Bearer bench-token";

// One easy handle, whose connection is kept.
class Handle {
 public:
  explicit Handle(const Workload& workload) : curl_(curl_easy_init(), curl_easy_cleanup) {
    Set<CURLOPT_HTTP_VERSION>(long{CURL_HTTP_VERSION_1_1});
    Set<CURLOPT_NOSIGNAL>(1L);
    Set<CURLOPT_FOLLOWLOCATION>(1L);
    Set<CURLOPT_ACCEPT_ENCODING>("");
    Set<CURLOPT_USERAGENT>("Tamborel(gzip)");
    if (workload.receive_buffer > 0) {
      Set<CURLOPT_BUFFERSIZE>(static_cast<long>(workload.receive_buffer));
    }
    if (workload.upload_buffer > 0) {
      Set<CURLOPT_UPLOAD_BUFFERSIZE>(static_cast<long>(workload.upload_buffer));
    }
  }

  template <CURLoption option, typename Value>
  void Set(Value value) {
    if (base::SetCurlOption<option>(curl_.get(), value) != CURLE_OK) {
      throw std::runtime_error("option " + std::to_string(option) + " is not taken");
    }
  }

  using Receiver = std::size_t (*)(char*, std::size_t, std::size_t, void*);

  long Perform(const std::string& url, const HeaderList& headers, Receiver receiver, void* to) {
    Set<CURLOPT_URL>(url.c_str());
    Set<CURLOPT_HTTPHEADER>(headers.get());
    Set<CURLOPT_WRITEFUNCTION>(receiver);
    Set<CURLOPT_WRITEDATA>(to);
    const CURLcode code = curl_easy_perform(curl_.get());
    if (code != CURLE_OK) throw std::runtime_error(curl_easy_strerror(code));
    long status = 0;
    curl_easy_getinfo(curl_.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status / 100 != 2) throw std::runtime_error("status " + std::to_string(status));
    return status;
  }

  /// The answer, for which `document` is emptied first.
  void Get(const std::string& url, const HeaderList& headers, std::string& document) {
    document.clear();
    Perform(url, headers, Collect, &document);
  }

  static std::size_t Collect(char* data, std::size_t size, std::size_t count, void* to) {
    static_cast<std::string*>(to)->append(data, size * count);
    return size * count;
  }

 private:
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl_;
};

Json::Value Parse(const std::string& text) {
  Json::Value document;
  Json::Reader reader;
  if (!reader.parse(text.data(), text.data() + text.size(), document, false)) {
    throw std::runtime_error("not JSON");
  }
  return document;
}

// Gathers pieces of 64 KiB for the cache, as the module does.
struct Stage {
  static std::size_t Receive(char* data, std::size_t size, std::size_t count, void* to) {
    auto* stage = static_cast<Stage*>(to);
    const auto length = static_cast<std::int64_t>(size * count);
    for (std::int64_t taken = 0; taken < length;) {
      const std::int64_t part = std::min(length - taken, kPiece - stage->fill);
      std::memcpy(stage->buffer.data() + stage->fill, data + taken, static_cast<std::size_t>(part));
      stage->fill += part;
      taken += part;
      if (stage->fill == kPiece) stage->Flush();
    }
    return size * count;
  }

  static std::size_t ReceiveDirectly(char* data, std::size_t size, std::size_t count, void* to) {
    auto* stage = static_cast<Stage*>(to);
    const auto length = static_cast<std::int64_t>(size * count);
    stage->cache.Store(stage->offset, data, length);
    stage->offset += length;
    return size * count;
  }

  void Flush() {
    cache.Store(offset, buffer.data(), fill);
    offset += fill;
    fill = 0;
  }

  HostCache cache;
  std::int64_t offset = 0;
  std::int64_t fill = 0;
  std::array<char, kPiece> buffer;
};

std::string RangeOf(std::int64_t offset, std::int64_t length) {
  return "bytes=" + std::to_string(offset) + "-" + std::to_string(offset + length - 1);
}

class Reader {
 public:
  explicit Reader(const Workload& workload)
      : handle_(workload),
        url_(Endpoint(workload) + "/drive/items/item/content"),
        receiver_(workload.staged != 0 ? Stage::Receive : Stage::ReceiveDirectly) {}

  void Read(std::int64_t offset, std::int64_t length) {
    stage_->offset = offset;
    const HeaderList headers = Headers({kToken, "Range: " + RangeOf(offset, length)});
    handle_.Perform(url_, headers, receiver_, stage_.get());
    stage_->Flush();
  }
  std::int64_t stored() const { return stage_->cache.stored(); }

 private:
  Handle handle_;
  const std::string url_;
  const Handle::Receiver receiver_;
  std::unique_ptr<Stage> stage_ = std::make_unique<Stage>();
};

void MeasureDownload(const Workload& workload) {
  const std::int64_t share = workload.bytes / workload.threads;
  std::vector<std::unique_ptr<Reader>> readers;
  for (std::int64_t thread = 0; thread < workload.threads; ++thread) {
    readers.push_back(std::make_unique<Reader>(workload));
  }
  const auto reader_of = [&](int thread) -> Reader& {
    return *readers[static_cast<std::size_t>(thread)];
  };
  Measure(
      workload, [&](int thread) { reader_of(thread).Read(0, kPiece); },
      [&](int thread) {
        Reader& reader = reader_of(thread);
        const std::int64_t before = reader.stored();
        const std::int64_t begin = thread * share;
        for (std::int64_t at = begin; at < begin + share; at += workload.range) {
          reader.Read(at, std::min(workload.range, begin + share - at));
        }
        return reader.stored() - before;
      });
}

// What the server can give: a socket, and a buffer that is written over and over.
class RawReader {
 public:
  explicit RawReader(const Workload& workload) : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::string port = workload.origin.substr(workload.origin.rfind(':') + 1);
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(port)));
    if (connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot connect");
    }
  }
  RawReader(const RawReader&) = delete;
  RawReader& operator=(const RawReader&) = delete;
  ~RawReader() { close(socket_); }

  std::int64_t Read(std::int64_t length) {
    const std::string request =
        "GET /item/content HTTP/1.1\r\nRange: " + RangeOf(0, length) + "\r\n\r\n";
    if (send(socket_, request.data(), request.size(), 0) < 0) throw std::runtime_error("send");
    std::int64_t left = length;
    for (std::string head; left == length;) {
      head.append(buffer_.data(), Receive());
      const std::size_t end = head.find("\r\n\r\n");
      if (end != std::string::npos) left -= static_cast<std::int64_t>(head.size() - end - 4);
      if (end != std::string::npos && left == length) left -= static_cast<std::int64_t>(Receive());
    }
    while (left > 0) left -= static_cast<std::int64_t>(Receive());
    return length;
  }

 private:
  std::size_t Receive() {
    const ssize_t length = recv(socket_, buffer_.data(), buffer_.size(), 0);
    if (length <= 0) throw std::runtime_error("recv");
    return static_cast<std::size_t>(length);
  }

  const int socket_;
  std::vector<char> buffer_ = std::vector<char>(1 << 19);
};

void MeasureRaw(const Workload& workload) {
  RawReader reader(workload);
  Measure(
      workload, [&](int) { reader.Read(kPiece); },
      [&](int) { return reader.Read(workload.bytes); });
}

// One file going out, in one request or in chunks.
class Sender {
 public:
  explicit Sender(const Workload& workload) : handle_(workload), endpoint_(Endpoint(workload)) {
    handle_.Set<CURLOPT_POST>(1L);
  }

  std::int64_t Upload(std::int64_t bytes) {
    const std::string file = endpoint_ + "/drive/items/folder:/bench.bin:";
    if (bytes <= kLargestSimpleUpload) {
      Put(file + "/content", Headers({kToken}), 0, bytes);
      return bytes;
    }
    const std::string url = CreateSession(file + "/upload.createSession");
    for (std::int64_t start = 0; start < bytes; start += kChunk) {
      const std::int64_t length = std::min(kChunk, bytes - start);
      const std::string range = "Content-Range: bytes " + std::to_string(start) + "-" +
                                std::to_string(start + length - 1) + "/" + std::to_string(bytes);
      Put(url, Headers({range, "Content-Type: application/octet-stream"}), start, length);
    }
    return bytes;
  }

 private:
  std::string CreateSession(const std::string& url) {
    static const std::string kBody = R"({"item":{"name":"bench.bin"}})";
    handle_.Set<CURLOPT_CUSTOMREQUEST>(nullptr);
    handle_.Set<CURLOPT_POSTFIELDS>(kBody.c_str());
    handle_.Set<CURLOPT_POSTFIELDSIZE_LARGE>(static_cast<curl_off_t>(kBody.size()));
    handle_.Get(url, Headers({kToken, "Content-Type: application/json; charset=UTF-8"}), answer_);
    handle_.Set<CURLOPT_POSTFIELDS>(nullptr);
    return Parse(answer_)["uploadUrl"].asString();
  }

  void Put(const std::string& url, const HeaderList& headers, std::int64_t offset,
           std::int64_t length) {
    offset_ = offset;
    end_ = offset + length;
    handle_.Set<CURLOPT_POST>(1L);
    handle_.Set<CURLOPT_CUSTOMREQUEST>("PUT");
    handle_.Set<CURLOPT_POSTFIELDSIZE_LARGE>(static_cast<curl_off_t>(length));
    handle_.Set<CURLOPT_READFUNCTION>(&Sender::Produce);
    handle_.Set<CURLOPT_READDATA>(this);
    handle_.Get(url, headers, answer_);
    Parse(answer_);
  }

  static std::size_t Produce(char* buffer, std::size_t size, std::size_t count, void* from) {
    auto* sender = static_cast<Sender*>(from);
    const auto room = static_cast<std::int64_t>(size * count);
    const std::int64_t length = std::min(room, sender->end_ - sender->offset_);
    if (length == 0) return 0;
    const std::int64_t loaded = sender->cache_.Load(sender->offset_, buffer, length);
    sender->offset_ += loaded;
    return static_cast<std::size_t>(loaded);
  }

  Handle handle_;
  HostCache cache_;
  const std::string endpoint_;
  std::string answer_;
  std::int64_t offset_ = 0;
  std::int64_t end_ = 0;
};

void MeasureUpload(const Workload& workload) {
  Sender sender(workload);
  Measure(
      workload, [&](int) { sender.Upload(65536); },
      [&](int) {
        std::int64_t sent = 0;
        for (std::int64_t call = 0; call < workload.calls; ++call) {
          sent += sender.Upload(workload.bytes);
        }
        return sent;
      });
}

// A handle for each thread. Each keeps its own, or all take the one that was returned last.
class Handles {
 public:
  explicit Handles(const Workload& workload) : shared_(workload.shared != 0) {
    for (std::int64_t thread = 0; thread < workload.threads; ++thread) all_.emplace_back(workload);
    for (Handle& handle : all_) idle_.push_back(&handle);
  }

  Handle& Take(int thread) {
    if (!shared_) return all_[static_cast<std::size_t>(thread)];
    const std::lock_guard guard(mutex_);
    Handle* handle = idle_.back();
    idle_.pop_back();
    return *handle;
  }

  void Return(Handle& handle) {
    if (!shared_) return;
    const std::lock_guard guard(mutex_);
    idle_.push_back(&handle);
  }

 private:
  const bool shared_;
  std::vector<Handle> all_;
  std::mutex mutex_;
  std::vector<Handle*> idle_;
};

void MeasureLookup(const Workload& workload) {
  Handles handles(workload);
  const std::string url = Endpoint(workload) + "/drive/items/" + ItemId(workload);
  const auto look_up = [&](int thread, std::int64_t calls) {
    std::string answer;
    for (std::int64_t call = 0; call < calls; ++call) {
      Handle& handle = handles.Take(thread);
      handle.Get(url, Headers({kToken}), answer);
      handles.Return(handle);
      if (!Parse(answer).isMember("id")) throw std::runtime_error("no item");
    }
    return calls;
  };
  Measure(
      workload, [&](int thread) { look_up(thread, 100); },
      [&](int thread) { return look_up(thread, workload.calls / workload.threads); });
}

void MeasureListing(const Workload& workload) {
  Handle handle(workload);
  const auto list = [&](const std::string& id) {
    std::int64_t entries = 0;
    std::string url = Endpoint(workload) + "/drive/items/" + id + "/children";
    while (!url.empty()) {
      std::string answer;
      handle.Get(url, Headers({kToken}), answer);
      const Json::Value page = Parse(answer);
      entries += page["value"].size();
      url = page["@odata.nextLink"].asString();
    }
    return entries;
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

// The requests of a sign-in.
void MeasureStart(const Workload& workload) {
  Measure(
      workload, [](int) {},
      [&](int) {
        std::string answer;
        Handle discovery(workload);
        discovery.Set<CURLOPT_POSTFIELDS>("");
        discovery.Get(workload.origin + "/discovery/v2.0/me/services", Headers({kToken}), answer);
        const std::string url =
            Parse(answer)["value"][0]["serviceEndpointUri"].asString() + "/drive";
        discovery.Set<CURLOPT_HTTPGET>(1L);
        for (int time = 0; time < 2; ++time) {
          discovery.Get(url, Headers({kToken}), answer);
          if (!Parse(answer).isMember("quota")) throw std::runtime_error("no account");
        }
        return 1;
      });
}

int Main(int count, char** arguments) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  RunWorkload(ParseWorkload(count, arguments),
              {{"download", [](auto& w) { w.raw != 0 ? MeasureRaw(w) : MeasureDownload(w); }},
               {"upload", MeasureUpload},
               {"lookup", MeasureLookup},
               {"list", MeasureListing},
               {"start", MeasureStart}});
  return 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::Guarded("bench_bare", [&] { return bench::Main(argc, argv); });
}
