// Requests and answers between the sockets and the service, and how an answer is to leave the
// socket when it is not to leave it honestly.
// Threads: plain values; a Request belongs to the connection's thread. Lifetime: a Request refers
// to its connection and is gone when its handler returns.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "emulator/store/content.h"

namespace emulator {

/// In order, names as they stood on the wire, repeated ones included.
using HeaderList = std::vector<std::pair<std::string, std::string>>;

/// The first of that name, whatever its case.
std::optional<std::string> FindHeader(const HeaderList& headers, std::string_view name);

/// The peer went away, or sent what is no HTTP, while its request was read or answered.
class ConnectionLost : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class BodyReader {
 public:
  virtual ~BodyReader() = default;

  /// Fills `into` unless the body ends first; 0 is the end. The first call asks a client that
  /// expects "100 Continue" to send. Throws ConnectionLost.
  virtual std::size_t Read(std::span<char> into) = 0;

  /// Whether the client still waits for "100 Continue" and would not send without it.
  virtual bool AwaitsContinue() const = 0;
};

struct Request {
  std::string method;
  std::string target;  // path and query, byte for byte as received
  HeaderList headers;
  std::string origin;  // of the listener that took it: "https://localhost:40001"
  BodyReader& body;

  std::optional<std::string> Header(std::string_view name) const {
    return FindHeader(headers, name);
  }
  std::string_view Path() const;
  std::string_view Query() const;
};

struct InterimResponse {
  int status = 100;
  HeaderList headers;
};

/// What happens to the connection at one place of the exchange.
enum class Cut {
  kNone,
  kReset,  // RST, after the bytes before it have reached the peer
  kClose,  // FIN, with TLS closed in order
  kStall,  // silence; then the rest, if a duration is given
};

enum class Place { kInRequestBody, kBeforeAnswer, kInHeaders, kInBody };

struct Delivery {
  std::chrono::milliseconds delay{0};  // before anything is sent
  std::vector<InterimResponse> interim;
  Cut cut = Cut::kNone;
  Place place = Place::kBeforeAnswer;
  std::uint64_t after_bytes = 0;       // bytes of the part named by `place` that go before the cut
  std::chrono::milliseconds stall{0};  // 0: until the peer goes or the service stops
  std::int64_t length_error = 0;       // added to Content-Length
  bool chunked = false;
  HeaderList trailers;       // sent when chunked
  bool close_after = false;  // closes without having said so
};

struct Response {
  int status = 200;
  HeaderList headers;
  std::string text;    // the body, unless `content` is set
  ContentPtr content;  // bytes [content_offset, content_offset + content_length) are the body
  std::uint64_t content_offset = 0;
  std::uint64_t content_length = 0;
  Delivery delivery;

  std::uint64_t BodySize() const { return content ? content_length : text.size(); }
  /// Replaces every header of that name.
  void SetHeader(std::string_view name, std::string value);
};

using Handler = std::function<Response(Request&)>;

Response JsonResponse(int status, std::string text);
Response EmptyResponse(int status);

std::string_view ReasonPhrase(int status);

}  // namespace emulator
