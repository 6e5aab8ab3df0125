#include "emulator/http/connection.h"

#include <array>
#include <exception>
#include <limits>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>

#include "emulator/http/response_writer.h"
#include "emulator/text/encoding.h"

namespace emulator {
namespace {

namespace beast = boost::beast;
namespace http = boost::beast::http;
using ErrorCode = boost::system::error_code;
using Parser = http::request_parser<http::buffer_body>;

/// A wire in the shape the HTTP parser reads from.
class WireStream {
 public:
  explicit WireStream(Wire& wire) : wire_(wire) {}

  template <typename Buffers>
  std::size_t read_some(const Buffers& buffers, ErrorCode& error) {
    const boost::asio::mutable_buffer first = *boost::asio::buffer_sequence_begin(buffers);
    const std::size_t count = wire_.Read({static_cast<char*>(first.data()), first.size()});
    error = count == 0 ? ErrorCode(boost::asio::error::eof) : ErrorCode();
    return count;
  }

  template <typename Buffers>
  std::size_t read_some(const Buffers& buffers) {
    ErrorCode error;
    const std::size_t count = read_some(buffers, error);
    if (error) throw ConnectionLost(error.message());
    return count;
  }

 private:
  Wire& wire_;
};

class ParserBody : public BodyReader {
 public:
  ParserBody(Wire& wire, beast::flat_buffer& buffer, Parser& parser)
      : wire_(wire), stream_(wire), buffer_(buffer), parser_(parser) {
    awaits_continue_ =
        EqualsIgnoringCase(std::string(parser.get()[http::field::expect]), "100-continue") &&
        !parser.is_done();
  }

  std::size_t Read(std::span<char> into) override {
    if (awaits_continue_) wire_.Write("HTTP/1.1 100 Continue\r\n\r\n");
    awaits_continue_ = false;
    if (parser_.is_done() || into.empty()) return 0;
    auto& body = parser_.get().body();
    body.data = into.data();
    body.size = into.size();
    body.more = true;
    ErrorCode error;
    http::read(stream_, buffer_, parser_, error);
    if (error && error != http::error::need_buffer) throw ConnectionLost(error.message());
    return into.size() - body.size;
  }

  bool AwaitsContinue() const override { return awaits_continue_; }

 private:
  Wire& wire_;
  WireStream stream_;
  beast::flat_buffer& buffer_;
  Parser& parser_;
  bool awaits_continue_ = false;
};

Request MakeRequest(const Parser& parser, const std::string& origin, BodyReader& body) {
  const auto& message = parser.get();
  Request request{
      std::string(message.method_string()), std::string(message.target()), {}, origin, body};
  for (const auto& field : message) {
    request.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
  }
  return request;
}

Response PlainError(int status, const std::string& text) {
  Response response;
  response.status = status;
  response.headers = {{"Content-Type", "text/plain; charset=utf-8"}};
  response.text = text;
  return response;
}

Response Answer(const Handler& handler, Request& request) {
  try {
    return handler(request);
  } catch (const ConnectionLost&) {
    throw;
  } catch (const std::exception& error) {
    return PlainError(500, std::string("the emulator failed: ") + error.what());
  }
}

/// A body no one read must not be taken for the next request.
void Discard(BodyReader& body) {
  std::array<char, 16384> buffer;
  while (body.Read(buffer) > 0) {
  }
}

bool ServeOne(Wire& wire, beast::flat_buffer& buffer, const std::string& origin,
              const Handler& handler) {
  constexpr std::uint32_t kHeaderLimit = 256U * 1024U;
  Parser parser;
  parser.header_limit(kHeaderLimit);
  parser.body_limit(std::numeric_limits<std::uint64_t>::max());
  WireStream stream(wire);
  ErrorCode error;
  http::read_header(stream, buffer, parser, error);
  if (error == http::error::end_of_stream || error == http::error::partial_message) return false;
  if (error) {
    const int status = error == http::error::header_limit ? 431 : 400;
    SendResponse(wire, PlainError(status, error.message()), {});
    return false;
  }
  ParserBody body(wire, buffer, parser);
  Request request = MakeRequest(parser, origin, body);
  const Response response = Answer(handler, request);

  const bool refused_unread = body.AwaitsContinue();
  const bool cut_in_request =
      response.delivery.cut != Cut::kNone && response.delivery.place == Place::kInRequestBody;
  if (!refused_unread && !cut_in_request) Discard(body);
  return SendResponse(
      wire, response,
      {.head = request.method == "HEAD",
       .keep_alive = parser.get().keep_alive() && !refused_unread && !cut_in_request});
}

}  // namespace

void ServeConnection(Wire& wire, const std::string& origin, const Handler& handler) {
  try {
    wire.Open();
    beast::flat_buffer buffer;
    while (ServeOne(wire, buffer, origin, handler)) {
    }
    wire.Close();
  } catch (const std::exception&) {
    // The peer is gone or talks nonsense; there is no one left to tell.
    wire.Reset();
  }
}

}  // namespace emulator
