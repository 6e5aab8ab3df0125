// What arrives from the network, through libcurl itself: as a collected response, as the answer to
// a lookup, and as a download. Input: offset and length of the range, then raw responses between
// lines "====", one a connection.
#include <algorithm>
#include <cctype>
#include <optional>

#include "fuzz/signed_in_object.h"
#include "fuzz/wire.h"

namespace {

constexpr const char* kHttpEndpoint = "http://drive.example/api";

// How often the text says the word, which is in lower case, in whatever case.
std::ptrdiff_t CountOf(std::string_view text, std::string_view word) {
  std::string lower(text);
  for (char& character : lower) character = static_cast<char>(std::tolower(character & 0x7f));
  std::ptrdiff_t count = 0;
  for (std::size_t at = 0; (at = lower.find(word, at)) != std::string::npos; ++at) ++count;
  return count;
}

// Whether bodies arrive as they were sent: no header speaks of an encoding.
bool IsPlain(std::string_view sent) { return CountOf(sent, "encoding") == 0; }

// Where the body of an answer lies in the file, for answers that leave no doubt.
struct SimpleAnswer {
  explicit SimpleAnswer(std::string_view sent) {
    const std::size_t end = sent.find("\r\n\r\n");
    // One connection, one header block, and no line that could end it earlier.
    if (end == std::string_view::npos || sent.find("\n\r") != end + 1 || sent.find("\n\n") < end ||
        sent.find("\n====\n") != std::string_view::npos || !IsPlain(sent)) {
      return;
    }
    const std::string header(sent.substr(0, end));
    const std::size_t range = header.find("\r\nContent-Range: bytes ");
    body = sent.substr(end + 4);
    if (header.starts_with("HTTP/1.1 200 ")) {
      start = 0;
    } else if (header.starts_with("HTTP/1.1 206 ") && range != std::string::npos &&
               CountOf(header, "range:") == 1) {
      partial = true;
      start = NumberIn(header.substr(range + 23));
    }
  }

  std::optional<std::int64_t> start;
  bool partial = false;
  std::string_view body;
};

// Receives a range, whose bytes come in order, and from its start again when the request is
// repeated.
class RangeChecker final : public IFetchCallback {
 public:
  RangeChecker(std::int64_t start, std::int64_t length, std::string_view sent)
      : start_(start), length_(length), next_(start), answer_(sent) {}

  AERROR OnFetch(std::int64_t offset, const char* data, std::int64_t length, int) override {
    Require(offset == next_ || offset == start_, "pieces come in order");
    Require(length > 0 && length <= length_ - (offset - start_), "no byte is outside the range");
    const std::string_view piece(data, static_cast<std::size_t>(length));
    if (answer_.start) {
      Require(!answer_.partial || answer_.start == start_, "the answer's range is the one asked");
      const auto at = static_cast<std::size_t>(offset - *answer_.start);
      Require(at < answer_.body.size() && answer_.body.substr(at, piece.size()) == piece,
              "a piece lies where it says");
    }
    next_ = offset + length;
    return SUCCESS;
  }

 private:
  std::int64_t start_;
  std::int64_t length_;
  std::int64_t next_;
  SimpleAnswer answer_;
};

// Blocks begin with a status line; lines that follow a body belong to none.
void CheckHeader(std::string_view header) {
  while (!header.empty()) {
    Require(header.starts_with("HTTP/"), "a header block begins with a status line");
    const std::size_t end = header.find("\r\n\r\n");
    header = end == std::string_view::npos ? std::string_view() : header.substr(end + 4);
  }
}

void CheckCollected(std::string_view sent) {
  Wire wire(sent);
  WiredRequest request(wire);
  request.SetURL(kHttpEndpoint);
  const onedrive4b::_CURLRTN result = request.PerformGet(nullptr, nullptr);
  if (result.curlcode != CURLE_OK) {
    Require(!result.body && !result.header && result.httpcode == 0, "a failure brings nothing");
    return;
  }
  if (result.header) {
    const std::string_view header(result.header.get(), result.headerlen);
    Require(result.header[result.headerlen] == '\0', "header blocks end with a NUL");
    CheckHeader(header);
  }
  Require((result.body != nullptr) == (result.bodylen != 0), "a body has bytes");
  const std::string_view body(result.body.get(), result.bodylen);
  Require(!IsPlain(sent) || sent.find(body) != std::string_view::npos, "a body is what was sent");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const long long offset = NumberIn(input.Line()) & 0xffff;
  const long long length = NumberIn(input.Line());
  const std::string_view sent = input.Rest();
  CheckCollected(sent);
  SignedInObject drive(kHttpEndpoint);
  {
    Wire wire(sent);
    const WiredPool pool(wire);
    _FS_FILE_V2 file;
    const AERROR result = drive->GetFileInfo("1", &file, nullptr);
    Require(result == SUCCESS || result == FAILED, "a lookup succeeds or fails");
  }
  Wire wire(sent);
  const WiredPool pool(wire);
  RangeChecker receiver(offset, std::max(length, 0LL), sent);
  const auto handle = std::make_shared<_FS_HANDLE>();
  switch (drive->Read("1", offset, length, handle, &receiver, nullptr)) {
    case SUCCESS:
    case FAILED:
    case ACCESS_DENIED:
    case FILE_NOT_FOUND:
    case HANDLE_EOF:
    case INVALID_PARAMETER:
      return 0;
    default:
      Require(false, "a download has one of its results");
  }
  return 0;
}
