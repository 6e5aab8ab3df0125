// Hunts files that arrive with bytes missing, doubled or swapped, records that claim what was not
// stored, and upload URLs in a log. What is uploaded is read back; every byte is compared.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include "emulator/service.h"
#include "tests/emulator_tokens.h"
#include "tests/protocol/signed_in_test.h"

namespace {

using emulator::Fault;
using emulator::Response;
using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;

constexpr std::int64_t kChunk = 10485760;
constexpr std::int64_t kSession = 104857600;  // the smallest size that takes a session

/// The host's copy of a file of any size, and the place where it comes back: the same bytes for the
/// same offset.
class TestFile final : public ICacheIO, public IFetchCallback {
 public:
  int ReadCache(_CACHEIO_REQUEST* request) override {
    EXPECT_LE(request->length, request->remaining);
    bytes_->Read(static_cast<std::uint64_t>(request->offset), {request->buffer, request->length});
    request->done = request->length;
    return on_piece(*request);
  }
  AERROR OnFetch(std::int64_t offset, const char* data, std::int64_t length, int) override {
    EXPECT_EQ(offset, fetched);
    EXPECT_TRUE(Bytes(offset, length) == std::string_view(data, static_cast<std::size_t>(length)))
        << "at " << offset;
    fetched += length;
    return SUCCESS;
  }
  std::string Bytes(std::int64_t offset, std::int64_t size) const {
    std::string text(static_cast<std::size_t>(size), '\0');
    bytes_->Read(static_cast<std::uint64_t>(offset), text);
    return text;
  }

  std::int64_t fetched = 0;
  std::function<int(_CACHEIO_REQUEST&)> on_piece = [](_CACHEIO_REQUEST&) { return 0; };

 private:
  emulator::ContentPtr bytes_ = emulator::PatternContent(std::uint64_t{1} << 40);
};

std::string Item(std::int64_t size) {
  return R"({"id":"new","name":"stored","eTag":"E2","size":)" + std::to_string(size) + "}";
}

class UploadTest : public SignedInTest {
 protected:
  AERROR Upload(std::int64_t size, const char* parent = "p", const std::string& name = "n") {
    record = {};
    record.filename = name;
    record.size = size;
    if (etag != nullptr) record.eTag.reset(strcpy(new char[std::strlen(etag) + 1], etag));
    return protocol->Upload(parent, handle, &file, &record, {}, nullptr);
  }
  void ExpectUntouched() const {
    EXPECT_TRUE(record.id.empty() && record.eTag == nullptr && record.filename == "n");
  }
  /// An upload session for "n" in "p", whose chunks are answered by these.
  void OfferSession(const std::vector<std::pair<int, std::string>>& chunks) {
    const std::string target = kUploadUrl + std::to_string(++sessions_);
    service.AnswerOnly(
        kCreate, R"({"uploadUrl":")" + service.Url(target) + R"(","expirationDateTime":"t"})");
    for (const auto& [status, body] : chunks) service.Answer(target, body, status);
  }
  /// "session range" of all chunks that arrived.
  Strings Chunks() const {
    Strings ranges;
    for (const Received& request : Requests()) {
      if (!request.target.starts_with("/up?")) continue;
      EXPECT_EQ(request.method, "PUT");
      EXPECT_EQ(request.Header("Authorization"), "(none)");
      EXPECT_EQ(request.Header("Content-Type"), "application/octet-stream");
      const std::string range = request.Header("Content-Range");
      EXPECT_TRUE(request.body == file.Bytes(std::stoll(range.substr(range.find(' '))), kChunk));
      ranges.push_back(request.target.substr(kUploadUrl.size()) + " " + range);
    }
    return ranges;
  }

  static inline const std::string kUploadUrl = "/up?MARKER=1'%20&session=";
  static constexpr const char* kCreate = "/api/drive/items/p:/n:/upload.createSession";
  static constexpr const char* kContent = "/api/drive/items/p:/n:/content";
  TestFile file;
  _FS_FILE_V2 record;
  const char* etag = nullptr;  // of the records to upload
  std::shared_ptr<_FS_HANDLE> handle = std::make_shared<_FS_HANDLE>();

 private:
  int sessions_ = 0;
};

TEST_F(UploadTest, SmallFilesGoInOnePut) {
  struct Case {
    const char *parent, *name;
    std::int64_t size;
    const char *target, *id;
  };
  for (const Case& c : {
           Case{"p", "a b#1.txt", 0, "/api/drive/items/p:/a%20b%231.txt:/content", "new"},
           {"p", "\xC3\xA9%/?'+", 1, "/api/drive/items/p:/%C3%A9%25%2F%3F%27%2B:/content", "new"},
           {"b!d/r", "n", 65537, "/api/drives/b!d/items/r:/n:/content", "b!d/new"},
           {nullptr, "n", 200000, "/api/drive/root:/n:/content", "new"},
       }) {
    SCOPED_TRACE(c.target);
    log.Clear();
    service.Answer(c.target, Item(c.size), 201);
    EXPECT_EQ(Upload(c.size, c.parent, c.name), SUCCESS);
    const Received got = Requests().back();
    EXPECT_EQ(got.method + " " + got.target, std::string("PUT ") + c.target);
    EXPECT_EQ(got.Header("Content-Length"), std::to_string(c.size));
    EXPECT_EQ(got.Header("Authorization"), "Bearer A");
    EXPECT_TRUE(got.body == file.Bytes(0, c.size));
    EXPECT_EQ(handle->position, c.size);
    EXPECT_EQ(record.id + "|" + record.filename + "|" + record.eTag.get(),
              c.id + std::string("|stored|E2"));
    EXPECT_EQ(log.Lines().front(), std::string("1 [PROTOCOL  ] operator() file [") + c.name +
                                       "] length [" + std::to_string(c.size) + "]");
  }
}

TEST_F(UploadTest, RepeatedRequestsSendTheirBodyAgain) {
  for (const int status : {429, 401, 200}) service.Answer(kContent, Item(70000), status);
  EXPECT_EQ(Upload(70000), SUCCESS);
  // The same with a redirect, which a method word of its own survives.
  for (const int status : {302, 307, 308}) {
    Response redirect = emulator::EmptyResponse(status);
    redirect.SetHeader("Location", service.Url("/moved" + std::to_string(status)));
    service.Answer("/api/drive/items/r:/" + std::to_string(status) + ":/content", redirect);
    service.Answer("/moved" + std::to_string(status), Item(70000));
    EXPECT_EQ(Upload(70000, "r", std::to_string(status)), SUCCESS);
    EXPECT_EQ(Requests().back().target, "/moved" + std::to_string(status));
  }
  for (const Received& request : Requests()) {
    if (request.method == "PUT") {
      EXPECT_TRUE(request.body == file.Bytes(0, 70000)) << request.target;
    }
  }
  EXPECT_EQ(time.waits(), std::vector<long>{1});
}

TEST_F(UploadTest, ALaterChunkIsSentAgainFromItsOwnFirstByte) {
  OfferSession({{202, R"({"nextExpectedRanges":[]})"}});
  Response redirect = emulator::EmptyResponse(307);
  redirect.SetHeader("Location", service.Url("/moved"));
  service.Answer(kUploadUrl + "1", redirect);
  EXPECT_EQ(Upload(kSession), FAILED) << "nothing answers at the new place";
  const Received moved = Requests().back();
  EXPECT_EQ(moved.target, "/moved");
  EXPECT_EQ(moved.Header("Content-Range"), "bytes 10485760-20971519/104857600");
  EXPECT_TRUE(moved.body == file.Bytes(kChunk, kChunk));
}

TEST_F(UploadTest, AConditionGoesAlongWhereTheHostWantsIt) {
  struct Case {
    const char *option, *etag, *sent;
  };
  for (const Case& c : {Case{nullptr, "E1", "(none)"},
                        {"true", "E1", "E1"},
                        {"true", nullptr, "(none)"},
                        {"yes", "E1", "(none)"},
                        {"true", "E1", "E1"},
                        {"", "E1", "(none)"}}) {
    SCOPED_TRACE(c.sent);
    if (c.option != nullptr) protocol->SetOpt("Upload_If_Match", c.option);
    for (const std::int64_t size : {std::int64_t{10}, kSession}) {
      service.AnswerOnly(size == 10 ? kContent : kCreate, "{}", 412);
      etag = c.etag;
      EXPECT_EQ(Upload(size), size == 10 ? FAILED : FILE_WRITE_FAILED);
      EXPECT_EQ(Requests().back().Header("if-match"), c.sent);
    }
  }
}

TEST_F(UploadTest, NothingIsReplacedWhereTheHostWantsANewFile) {
  const std::string new_only = "?@name.conflictBehavior=fail";
  for (const bool on : {false, true}) {
    for (const char* tag : {"E1", static_cast<const char*>(nullptr)}) {
      SCOPED_TRACE(std::string(on ? "on" : "off") + (tag != nullptr ? ", a version known" : ""));
      if (on) protocol->SetOpt("upload_if_new", "true");
      etag = tag;
      const bool asked = on && tag == nullptr;
      service.AnswerOnly(kContent + (asked ? new_only : ""), Item(10));
      EXPECT_EQ(Upload(10), SUCCESS);
      service.AnswerOnly(kCreate, "{}", 409);
      EXPECT_EQ(Upload(kSession), FILE_WRITE_FAILED);
      EXPECT_EQ(Requests().back().body,
                asked ? R"({"item":{"@name.conflictBehavior":"fail","name":"n"}})"
                      : R"({"item":{"name":"n"}})");
    }
  }
}

// A limited upload that moves in bursts would stand still in between until it counts as stalled.
TEST_F(UploadTest, ASpeedLimitKeepsPiecesShorterThanASecond) {
  std::size_t longest = 0;
  file.on_piece = [&](_CACHEIO_REQUEST& piece) {
    longest = std::max(longest, piece.length);
    return 0;
  };
  const auto longest_piece = [&](const char* limit) {
    protocol->SetOpt("speedlimit", limit);
    service.AnswerOnly(kContent, Item(150000));
    longest = 0;
    EXPECT_EQ(Upload(150000), SUCCESS);
    return longest;
  };
  EXPECT_EQ(longest_piece("0"), 150000);
  EXPECT_LE(longest_piece("100000"), 100000);
  EXPECT_EQ(longest_piece("0"), 150000) << "the limit of one request reached the next";
}

TEST_F(UploadTest, AHostThatFailsOrStopsEndsItsUploadOnly) {
  const std::vector<std::function<int(_CACHEIO_REQUEST&)>> hosts = {
      [](_CACHEIO_REQUEST&) { return 1; },
      [](_CACHEIO_REQUEST& piece) { return static_cast<int>(piece.done = 0); },
      [](_CACHEIO_REQUEST& piece) { return ++piece.done == 0; },
      [](_CACHEIO_REQUEST& piece) { return (piece.done = UINT64_MAX) == 0; },
      [this](_CACHEIO_REQUEST&) { return (handle->state = 3) == 0; },
  };
  for (std::size_t i = 0; i < hosts.size(); ++i) {
    SCOPED_TRACE(i);
    for (const std::int64_t size : {std::int64_t{5'000'000}, kSession}) {
      service.AnswerOnly(kContent, Item(size));
      OfferSession({{202, R"({"nextExpectedRanges":[]})"}});
      std::int64_t given = 0;
      file.on_piece = [&](_CACHEIO_REQUEST& piece) {
        const int result = piece.offset == 0 ? 0 : hosts[i](piece);
        if (result == 0 && piece.done == piece.length)
          given += static_cast<std::int64_t>(piece.done);
        return result;
      };
      const auto before = Clock::now();
      EXPECT_EQ(Upload(size), FAILED);
      EXPECT_LT(Clock::now() - before, std::chrono::seconds(10)) << "does not wait for more";
      EXPECT_EQ(handle->position, given);
      EXPECT_GT(given, 0);
      ExpectUntouched();
      handle->state = 3;
      file.on_piece = [](_CACHEIO_REQUEST&) { return 0; };
      EXPECT_EQ(Upload(1), FAILED) << "stopped before it began";
      handle->state = 2;
      EXPECT_EQ(Upload(1), SUCCESS);
      handle->state = 0;
    }
  }
  EXPECT_TRUE(Chunks().empty()) << "no chunk arrived whole";
}

TEST_F(UploadTest, SessionsAreAskedForByName) {
  service.AnswerOnly(kCreate, "", 429);
  service.Answer(kCreate, "", 401);
  service.Answer(kCreate, "{}");
  EXPECT_EQ(Upload(kSession), FILE_WRITE_FAILED);
  EXPECT_TRUE(log.Has("UploadLargeItem >> HTTP POST >> 429 : "));
  EXPECT_TRUE(log.Has("UploadLargeItem >> ON HTTP 401 : RETRY"));
  EXPECT_EQ(Requests().back().body, R"({"item":{"name":"n"}})");
  EXPECT_EQ(Requests().back().Header("Content-Type"), "application/json; charset=UTF-8");
}

TEST_F(UploadTest, AnswersToChunksDecideWhatIsSentNext) {
  const std::string first = " bytes 0-10485759/104857600";
  const std::string second = " bytes 10485760-20971519/104857600";
  const std::string third = " bytes 20971520-31457279/104857600";
  Strings expected;
  int number = 1;
  struct Case {
    const char* what;
    std::vector<std::pair<int, std::string>> answers;
    Strings ranges;
  };
  for (const Case& c : {
           Case{"odd ranges",
                {{202, R"({"nextExpectedRanges":[]})"},
                 {202, R"({"nextExpectedRanges":["5-9","77-"]})"},
                 {416, "{}"}},
                {first, second, third}},
           {"to be repeated",
            {{429, ""}, {202, R"({"nextExpectedRanges":["0-"]})"}, {429, ""}, {401, ""}, {500, ""}},
            {first, first, second, second, second}},
           {"stored too early", {{201, Item(kChunk)}}, {first}},
       }) {
    SCOPED_TRACE(c.what);
    OfferSession(c.answers);
    EXPECT_EQ(Upload(kSession), FAILED);
    ExpectUntouched();
    for (const std::string& range : c.ranges) expected.push_back(std::to_string(number) + range);
    ++number;
  }
  EXPECT_EQ(Chunks(), expected);
  EXPECT_EQ(time.waits(), (std::vector<long>{1, 2}));
  EXPECT_TRUE(log.Has("PUT >> 202 : " + service.Url("/up(")));
  EXPECT_FALSE(log.Has("MARKER"));
}

/// Signed in at an emulated service whose contents lie in files.
class TransferTest : public ::testing::Test {
 protected:
  TransferTest() {
    host.authorize = [this](const std::string& credential) {
      return TokenReply(*service, credential);
    };
    protocol->SetOpt("service_endpoint", service->ServiceEndpoint().c_str());
    protocol->SetOpt("service_resource", service->ServiceResource().c_str());
    EXPECT_EQ(protocol->Connect(&host, kCredential), SUCCESS);
  }
  ~TransferTest() override {
    EXPECT_TRUE(service->UnfiredFaults().empty());
    service.reset();
    std::filesystem::remove_all(folder_);
  }

  AERROR Upload(std::int64_t size, const std::string& name = "file.bin") {
    record = {};
    record.filename = name;
    record.size = size;
    handle->position = -1;
    return protocol->Upload("root", handle, &file, &record, {}, nullptr);
  }
  AERROR Read(std::int64_t length) {
    file.fetched = 0;
    return protocol->Read(record.id.c_str(), 0, length, handle, &file, nullptr);
  }
  /// "METHOD place size range" of what came and went as content.
  Strings Contents() const {
    Strings list;
    for (const emulator::RecordedRequest& request : service->Requests()) {
      if (request.target.find("ession") == std::string::npos && request.method != "PUT") continue;
      const bool elsewhere = request.origin == service->ContentOrigin();
      EXPECT_NE(request.Header("Authorization").has_value(), elsewhere);
      list.push_back(request.method + (elsewhere ? " elsewhere " : " home ") +
                     std::to_string(request.body_size) + " " +
                     request.Header("Content-Range").value_or("-"));
    }
    return list;
  }

 private:
  std::filesystem::path folder_ =
      std::filesystem::temp_directory_path() / ("upload_test." + std::to_string(getpid()));

  static emulator::ServiceOptions InFiles(const std::filesystem::path& folder) {
    emulator::ServiceOptions options;
    options.tls = false;
    options.data_directory = folder;
    return options;
  }

 protected:
  std::unique_ptr<emulator::Service> service =
      std::make_unique<emulator::Service>(InFiles(folder_));
  LogRecorder log;
  FakeTime time;
  TestHost host;
  ProtocolPtr protocol = MakeProtocol(&host);
  TestFile file;
  _FS_FILE_V2 record;
  std::shared_ptr<_FS_HANDLE> handle = std::make_shared<_FS_HANDLE>();
};

TEST_F(TransferTest, WhatIsUploadedComesBack) {
  struct Progress {
    long long total = 0, done = 0;
    bool forward = true;
  } progress;
  handle->progressctx = &progress;
  handle->progress = [](long long total, long long done, void* context, double) {
    auto& seen = *static_cast<Progress*>(context);
    seen.forward = seen.forward && done >= seen.done;
    seen.total = total;
    seen.done = done;
  };
  for (const std::int64_t size :
       {std::int64_t{0}, std::int64_t{1}, std::int64_t{65535}, std::int64_t{65536},
        std::int64_t{65537}, kSession - 1, kSession, kSession + 1}) {
    SCOPED_TRACE(size);
    service->ClearRequests();
    progress = {};
    ASSERT_EQ(Upload(size), SUCCESS);
    const std::string text = std::to_string(size);
    Strings expected = {"PUT home " + text + " -"};
    if (size >= kSession) {
      expected = {"POST home 28 -"};
      for (std::int64_t at = 0; at < size; at += kChunk) {
        const std::int64_t length = std::min(kChunk, size - at);
        expected.push_back("PUT elsewhere " + std::to_string(length) + " bytes " +
                           std::to_string(at) + "-" + std::to_string(at + length - 1) + "/" + text);
      }
    }
    EXPECT_EQ(Contents(), expected);
    EXPECT_EQ(handle->position, size);
    EXPECT_TRUE(progress.forward);
    EXPECT_EQ(progress.total, size);
    EXPECT_EQ(progress.done, size);
    EXPECT_EQ(record.size, size);
    time.Advance(std::chrono::hours(2));
    service->AddFault(Fault::Status(401).On("GET", "download.aspx"));  // a link that has expired
    EXPECT_EQ(Read(size + 10), size == 0 ? HANDLE_EOF : SUCCESS);
    EXPECT_EQ(file.fetched, size);
    const emulator::RecordedRequest last = service->Requests().back();
    EXPECT_EQ(last.origin, service->ContentOrigin());
    EXPECT_FALSE(last.Header("Authorization").has_value());
  }
  EXPECT_TRUE(log.Has("1 [PROTOCOL  ] operator() nextExpectedRanges: 10485760-"));
  EXPECT_FALSE(log.Has("tempauth"));
}

TEST_F(TransferTest, TheServiceHasTheLastWordOnWhatWasStored) {
  service->UserDrive().RewriteUploads(".docx", "properties");
  for (const std::int64_t size : {std::int64_t{1000}, kSession}) {
    ASSERT_EQ(Upload(size, "report.docx"), SUCCESS);
    EXPECT_EQ(record.size, size + 10);
    const auto stored = service->UserDrive().FindItem(record.id);
    ASSERT_TRUE(stored.has_value());
    EXPECT_EQ(record.eTag.get(), stored->ETag());
  }
}

}  // namespace
