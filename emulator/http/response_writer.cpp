#include "emulator/http/response_writer.h"

#include <algorithm>
#include <charconv>
#include <string>
#include <vector>

#include "emulator/text/time_text.h"

namespace emulator {
namespace {

std::string StatusLine(int status) {
  std::string line = "HTTP/1.1 " + std::to_string(status) + " ";
  line += ReasonPhrase(status);
  return line + "\r\n";
}

std::string HeaderLines(const HeaderList& headers) {
  std::string lines;
  for (const auto& [name, value] : headers)
    lines.append(name).append(": ").append(value).append("\r\n");
  return lines;
}

bool HasNoBody(int status) { return status == 204 || status == 304 || status / 100 == 1; }

class Sender {
 public:
  Sender(Wire& wire, const Response& response, const SendOptions& options)
      : wire_(wire), response_(response), delivery_(response.delivery), options_(options) {}

  bool Send() {
    if (delivery_.delay.count() > 0 && !wire_.Wait(delivery_.delay)) return false;
    if (CutsAt(Place::kInRequestBody) || CutsAt(Place::kBeforeAnswer)) {
      if (!CutHere()) return false;
    }
    for (const auto& interim : delivery_.interim) {
      wire_.Write(StatusLine(interim.status) + HeaderLines(interim.headers) + "\r\n");
    }
    if (!SendHeaders()) return false;
    if (!options_.head && !HasNoBody(response_.status) && !SendBody()) return false;
    return KeepsAlive();
  }

 private:
  bool CutsAt(Place place) const { return delivery_.cut != Cut::kNone && delivery_.place == place; }

  /// Whether the exchange goes on afterwards.
  bool CutHere() {
    switch (delivery_.cut) {
      case Cut::kNone:
        return true;
      case Cut::kReset:
        wire_.Reset();
        return false;
      case Cut::kClose:
        return false;
      case Cut::kStall:
        if (delivery_.stall.count() > 0) return wire_.Wait(delivery_.stall);
        wire_.WaitForPeerToGo();
        return false;
    }
    return true;
  }

  bool KeepsAlive() const {
    return options_.keep_alive && !delivery_.close_after && delivery_.length_error == 0;
  }

  std::string HeaderBlock() const {
    std::string block = StatusLine(response_.status) + "Date: " + HttpDate(Now()) + "\r\n" +
                        HeaderLines(response_.headers);
    if (!FindHeader(response_.headers, "Connection") && !options_.keep_alive) {
      block += "Connection: close\r\n";
    }
    if (delivery_.chunked && !HasNoBody(response_.status)) {
      block += "Transfer-Encoding: chunked\r\n";
      for (const auto& [name, value] : delivery_.trailers) block += "Trailer: " + name + "\r\n";
    } else if (!HasNoBody(response_.status)) {
      const auto length = static_cast<std::int64_t>(response_.BodySize()) + delivery_.length_error;
      block += "Content-Length: " + std::to_string(std::max<std::int64_t>(length, 0)) + "\r\n";
    }
    return block + "\r\n";
  }

  bool SendHeaders() {
    const std::string block = HeaderBlock();
    std::size_t sent = 0;
    if (CutsAt(Place::kInHeaders)) {
      // The end of the block would make the headers complete: always keep some of it back.
      const std::uint64_t wanted =
          delivery_.after_bytes == 0 ? block.size() / 2 : delivery_.after_bytes;
      sent = static_cast<std::size_t>(std::min<std::uint64_t>(wanted, block.size() - 3));
      wire_.Write(std::string_view(block).substr(0, sent));
      if (!CutHere()) return false;
    }
    wire_.Write(std::string_view(block).substr(sent));
    return true;
  }

  bool SendBody() {
    const std::uint64_t size = response_.BodySize();
    std::uint64_t sent = 0;
    if (CutsAt(Place::kInBody)) {
      sent = std::min(delivery_.after_bytes, size);
      SendPiece(0, sent);
      if (!CutHere()) return false;
    }
    SendPiece(sent, size);
    if (delivery_.chunked) wire_.Write("0\r\n" + HeaderLines(delivery_.trailers) + "\r\n");
    return true;
  }

  void SendPiece(std::uint64_t from, std::uint64_t to) {
    if (!response_.content) {
      SendBlock(std::string_view(response_.text).substr(from, to - from));
      return;
    }
    constexpr std::uint64_t kBlock = std::uint64_t{256} * 1024;
    std::vector<char> buffer(static_cast<std::size_t>(std::min(kBlock, to - from)));
    while (from < to) {
      const auto block = std::span<char>(buffer).first(
          static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), to - from)));
      response_.content->Read(response_.content_offset + from, block);
      SendBlock({block.data(), block.size()});
      from += block.size();
    }
  }

  void SendBlock(std::string_view bytes) {
    if (bytes.empty()) return;
    if (!delivery_.chunked) {
      wire_.Write(bytes);
      return;
    }
    std::array<char, 20> size{};
    const auto end = std::to_chars(size.data(), size.data() + size.size(), bytes.size(), 16).ptr;
    wire_.Write(std::string(size.data(), end) + "\r\n");
    wire_.Write(bytes);
    wire_.Write("\r\n");
  }

  Wire& wire_;
  const Response& response_;
  const Delivery& delivery_;
  SendOptions options_;
};

}  // namespace

bool SendResponse(Wire& wire, const Response& response, const SendOptions& options) {
  return Sender(wire, response, options).Send();
}

}  // namespace emulator
