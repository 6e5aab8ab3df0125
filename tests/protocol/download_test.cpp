// Hunts file content that is lost, doubled or handed over under an offset to which it does not
// belong, error pages taken for content, and downloads that cannot be stopped.
#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "emulator/text/gzip.h"
#include "tests/protocol/signed_in_test.h"

namespace {

using emulator::Cut;
using emulator::Place;
using emulator::Response;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr std::int64_t kPiece = 65536;

const std::string& Whole() {
  static const std::string bytes = ReadAll(*emulator::PatternContent(400000));
  return bytes;
}

/// Keeps what is delivered, and checks that pieces follow each other and belong where they are put.
struct Fetcher final : IFetchCallback {
  AERROR OnFetch(std::int64_t offset, const char* data, std::int64_t length,
                 int reserved) override {
    EXPECT_EQ(reserved, 0);
    EXPECT_EQ(std::string_view(data, static_cast<std::size_t>(length)),
              std::string_view(Whole()).substr(static_cast<std::size_t>(offset),
                                               static_cast<std::size_t>(length)));
    if (!pieces.empty()) {
      EXPECT_EQ(offset, pieces.back().first + pieces.back().second);
    }
    pieces.emplace_back(offset, length);
    last = Clock::now();
    on_piece();
    return FAILED;  // ignored
  }
  std::int64_t Bytes() const {
    return pieces.empty() ? 0 : pieces.back().first + pieces.back().second - pieces.front().first;
  }

  std::vector<std::pair<std::int64_t, std::int64_t>> pieces;
  std::function<void()> on_piece = [] {};
  Clock::time_point last;
};

/// 206 with `length` bytes from `offset` on, which it says are those of `range`; by default,
/// rightly.
Response Partial(std::int64_t offset, std::int64_t length, std::optional<std::string> range = {}) {
  Response response;
  response.status = 206;
  response.text =
      Whole().substr(static_cast<std::size_t>(offset), static_cast<std::size_t>(length));
  if (!range) range = std::to_string(offset) + "-" + std::to_string(offset + length - 1);
  if (!range->empty()) response.SetHeader("Content-Range", "bytes " + *range + "/400000");
  return response;
}

Response Text(int status, std::string text) {
  Response response;
  response.status = status;
  response.text = std::move(text);
  return response;
}

class DownloadTest : public SignedInTest {
 protected:
  /// Reads from an item of its own that answers this.
  AERROR Read(Response answer, std::int64_t offset, std::int64_t length) {
    id = "f" + std::to_string(++items_);
    service.Answer("/api/drive/items/" + id + "/content", std::move(answer));
    return ReadAgain(offset, length);
  }
  AERROR ReadAgain(std::int64_t offset, std::int64_t length) {
    fetcher.pieces.clear();
    return protocol->Read(id.c_str(), offset, length, handle, &fetcher, nullptr);
  }

  std::string id;
  Fetcher fetcher;
  std::shared_ptr<_FS_HANDLE> handle = std::make_shared<_FS_HANDLE>();

 private:
  int items_ = 0;
};

TEST_F(DownloadTest, HandsOverPiecesOf64KiBAtTheirOffsets) {
  struct Case {
    std::int64_t offset, length;
    const char* range;
    std::vector<std::int64_t> sizes;
  };
  for (const Case& c : {
           Case{0, 1, "bytes=0-0", {1}},
           {0, 65535, "bytes=0-65534", {65535}},
           {0, 65536, "bytes=0-65535", {65536}},
           {0, 65537, "bytes=0-65536", {65536, 1}},
           {0, 200000, "bytes=0-199999", {65536, 65536, 65536, 3392}},
           {65536, 1, "bytes=65536-65536", {1}},
           {65536, 65535, "bytes=65536-131070", {65535}},
           {65536, 65536, "bytes=65536-131071", {65536}},
           {65536, 65537, "bytes=65536-131072", {65536, 1}},
           {65536, 200000, "bytes=65536-265535", {65536, 65536, 65536, 3392}},
       }) {
    SCOPED_TRACE(c.range);
    EXPECT_EQ(Read(Partial(c.offset, c.length), c.offset, c.length), SUCCESS);
    std::vector<std::pair<std::int64_t, std::int64_t>> expected;
    for (std::int64_t at = c.offset; const std::int64_t size : c.sizes) {
      expected.emplace_back(at, size);
      at += size;
    }
    EXPECT_EQ(fetcher.pieces, expected);
    const Received request = Requests().back();
    EXPECT_EQ(request.method + " " + request.target, "GET /api/drive/items/" + id + "/content");
    EXPECT_EQ(request.Header("Range"), c.range);
    EXPECT_EQ(request.Header("Authorization"), "Bearer A");
  }
  EXPECT_TRUE(log.Has("1 [PROTOCOL  ] Read >> HTTP GET >> 206 : " + service.Endpoint() +
                      "/drive/items/f1/content(0)"));
  EXPECT_TRUE(log.Has("1 [PROTOCOL  ] Read >> ON HTTP(for any code) 206 : SUCCESS(0x00000000)"));
}

TEST_F(DownloadTest, TheLastPieceDoesNotWaitForTheEndOfTheAnswer) {
  for (const std::int64_t length : {std::int64_t{100}, kPiece + 100}) {
    Response response = Partial(0, length);
    response.delivery.chunked = true;
    response.delivery.cut = Cut::kStall;  // before the chunk that ends the body
    response.delivery.place = Place::kInBody;
    response.delivery.after_bytes = static_cast<std::uint64_t>(length);
    response.delivery.stall = milliseconds(500);
    EXPECT_EQ(Read(response, 0, length), SUCCESS);
    EXPECT_EQ(fetcher.Bytes(), length);
    EXPECT_GT(Clock::now() - fetcher.last, milliseconds(150));
  }
}

TEST_F(DownloadTest, TheHostCanStopIt) {
  struct Case {
    std::int32_t state;
    std::size_t after_pieces, pieces;
    AERROR result;
  };
  for (const Case& c : {Case{3, 0, 0, READ_CANCELED},
                        {2, 0, 7, SUCCESS},
                        {3, 2, 2, READ_CANCELED},
                        {99, 6, 6, READ_CANCELED}}) {
    handle->state = c.after_pieces == 0 ? c.state : 0;
    fetcher.on_piece = [&] {
      if (fetcher.pieces.size() == c.after_pieces) handle->state = c.state;
    };
    EXPECT_EQ(Read(Partial(0, 400000), 0, 400000), c.result);
    EXPECT_EQ(fetcher.pieces.size(), c.pieces);
  }
}

TEST_F(DownloadTest, TheHostCanStopTheWaitOfABackoff) {
  service.Answer("/api/drive/items/f1/content", "", 429);
  EXPECT_EQ(Read(Partial(0, 100), 0, 100), SUCCESS);
  handle->progress = [](long long, long long, void* state, double) {
    *static_cast<std::int32_t*>(state) = 3;  // while 429 is being answered
  };
  handle->progressctx = &handle->state;
  service.AnswerOnly("/api/drive/items/f1/content", "page", 429);
  EXPECT_EQ(protocol->Read("f1", 0, 100, handle, &fetcher, nullptr), READ_CANCELED);
  EXPECT_EQ(time.waits(), std::vector<long>{1}) << "of the first call";
}

TEST_F(DownloadTest, RepeatedRequestsStartAgainAtTheFirstByte) {
  host.authorize = [](const std::string&) { return R"({"results":{"access_token":"B"}})"; };
  const std::string page(70000, 'e');
  const std::string target = "/api/drive/items/f1/content";
  service.Answer(target, page, 429);
  service.Answer(target, page, 401);
  EXPECT_EQ(Read(Partial(65536, 100000), 65536, 100000), SUCCESS);
  EXPECT_EQ(fetcher.pieces.front().first, 65536);
  EXPECT_EQ(fetcher.Bytes(), 100000) << "and nothing of the pages before";
  EXPECT_EQ(time.waits(), std::vector<long>{1});
  std::string tokens;
  for (const Received& request : Requests()) {
    if (request.target != target) continue;
    EXPECT_EQ(request.Header("Range"), "bytes=65536-165535");
    tokens += request.Header("Authorization") + ";";
  }
  EXPECT_EQ(tokens, "Bearer A;Bearer A;Bearer B;");
  EXPECT_EQ(Read(Text(401, page), 0, 100000), FAILED) << "no second renewal";
  EXPECT_EQ(fetcher.Bytes(), 0);
}

TEST_F(DownloadTest, AnswersThatAreNotTheRange) {
  const std::string page(70000, 'e');
  Response zipped = Text(200, emulator::Gzip(Whole()));
  zipped.SetHeader("Content-Encoding", "gzip");
  Response zipped_part = Partial(65536, 1000);
  zipped_part.text = emulator::Gzip(zipped_part.text);
  zipped_part.SetHeader("Content-Encoding", "gzip");
  Response parts = Partial(65536, 1000, "");
  parts.SetHeader("Content-Type", "multipart/byteranges; boundary=x");
  const std::string right = "65536-165535";
  struct Case {
    const char* what;
    Response answer;
    AERROR result;
    std::int64_t bytes;  // delivered
  };
  // Each is asked for 100000 bytes from 65536 on.
  for (const Case& c : {
           Case{"403, long", Text(403, page), ACCESS_DENIED, 0},
           {"404, endless", Text(404, std::string(3 << 20, 'e')), FILE_NOT_FOUND, 0},
           {"whole file", Text(200, Whole()), SUCCESS, 100000},
           {"whole file, compressed", zipped, SUCCESS, 100000},
           {"whole file, ends inside", Text(200, Whole().substr(0, 150000)), SUCCESS, 84464},
           {"whole file, ends before", Text(200, Whole().substr(0, 65536)), SUCCESS, 0},
           {"empty file", Text(200, ""), SUCCESS, 0},
           {"from elsewhere", Partial(0, 100000, "0-99999"), FAILED, 0},
           {"digits that begin alike", Partial(0, 1000, "655360-656359"), FAILED, 0},
           {"without Content-Range", Partial(65536, 100000, ""), SUCCESS, 100000},
           {"compressed part", zipped_part, FAILED, 0},
           {"several parts", parts, FAILED, 0},
           {"too long", Partial(65536, 200000, right), SUCCESS, 100000},
           {"one byte too long", Partial(65536, 100001, right), SUCCESS, 100000},
           {"short", Partial(65536, 70000, right), SUCCESS, 70000},
           {"short by a piece", Partial(65536, kPiece, right), SUCCESS, kPiece},
           {"nothing", Partial(65536, 0, right), SUCCESS, 0},
       }) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Read(c.answer, kPiece, 100000), c.result);
    EXPECT_EQ(fetcher.Bytes(), c.bytes);
    if (!fetcher.pieces.empty()) {
      EXPECT_EQ(fetcher.pieces.front().first, kPiece);
    }
  }
}

TEST_F(DownloadTest, BrokenTransfersDeliverWholePiecesOnly) {
  for (const Cut cut : {Cut::kClose, Cut::kReset}) {
    Response response = Partial(0, 100000);
    response.delivery.cut = cut;
    response.delivery.place = Place::kInBody;
    response.delivery.after_bytes = 70000;
    EXPECT_EQ(Read(response, 0, 100000), FAILED);
    // A reset may overtake what was sent before it.
    EXPECT_TRUE(fetcher.Bytes() == kPiece || (cut == Cut::kReset && fetcher.Bytes() == 0));
    EXPECT_EQ(Read(Partial(0, 100), 0, 100), SUCCESS) << "the next one works";
  }
}

TEST_F(DownloadTest, ReportsProgressAndKeepsTheSpeedLimit) {
  struct Sink final : IFetchCallback {
    AERROR OnFetch(std::int64_t, const char*, std::int64_t, int) override { return SUCCESS; }
  } sink;
  constexpr long long kSize = 8'000'000;
  service.Answer("/api/drive/items/f/content", Text(200, std::string(kSize, 'x')));
  std::pair<long long, long long> report;
  handle->progressctx = &report;
  handle->progress = [](long long total, long long done, void* context, double) {
    *static_cast<std::pair<long long, long long>*>(context) = {total, done};
  };
  const auto timed = [&](const char* limit) {
    protocol->SetOpt("SpeedLimit", limit);
    report = {};
    const auto before = Clock::now();
    EXPECT_EQ(protocol->Read("f", 0, kSize, handle, &sink, nullptr), SUCCESS);
    EXPECT_EQ(report, std::pair(kSize, kSize));
    return Clock::now() - before;
  };
  // A burst of more than a second's worth would be followed by a silence that counts as a stall.
  // One of a second's worth may come at the end, where nothing waits for its time.
  for (const char* limit : {"4000000", "2000000"}) {
    const std::chrono::duration<double> took = timed(limit);
    EXPECT_GT(took.count(), 0.9 * (static_cast<double>(kSize) / std::stod(limit) - 1)) << limit;
  }
  EXPECT_LT(timed("0"), milliseconds(1000));
}

}  // namespace
