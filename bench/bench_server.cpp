// The server of the benchmark: as little work as a server can do, so that the clients are what is
// measured. Plain sockets, one thread a connection, answers made beforehand, file content from a
// cached piece of memory (sendfile costs both ends twice as much here), uploads dropped in the
// kernel.
//
// Prints its origin and serves until its input ends. Loopback only; HTTP/1.1 as libcurl speaks it.
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/canned_answers.h"
#include "bench/guarded.h"

namespace bench {
namespace {

constexpr std::int64_t kContentSize = 4 << 20;  // sent over and over
constexpr const char* kJson = "application/json; charset=utf-8";

template <typename Number>
Number Checked(Number result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

std::string MakeContent() {
  std::string content(kContentSize, '\0');
  std::uint32_t state = 1;
  for (char& byte : content) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<char>(state >> 24);
  }
  return content;
}

struct Request {
  std::string_view target;
  std::string_view head;  // all of it

  std::string_view Header(std::string_view name) const {
    for (std::size_t at = head.find("\r\n"); at != std::string_view::npos;
         at = head.find("\r\n", at + 2)) {
      const std::string_view line = head.substr(at + 2);
      if (line.size() <= name.size() || line[name.size()] != ':') continue;
      if (strncasecmp(line.data(), name.data(), name.size()) != 0) continue;
      const std::string_view value =
          line.substr(name.size() + 1, line.find("\r\n") - name.size() - 1);
      return value.substr(std::min(value.find_first_not_of(' '), value.size()));
    }
    return {};
  }
};

std::int64_t Number(std::string_view text) {
  return std::strtoll(std::string(text).c_str(), nullptr, 10);
}

class Service {
 public:
  explicit Service(std::string origin)
      : origin_(std::move(origin)),
        item_(ItemText(origin_, 1)),
        account_(AccountText()),
        discovery_(DiscoveryText(origin_)),
        session_(SessionText(origin_)),
        content_(MakeContent()) {}

  const std::string& origin() const { return origin_; }
  const std::string& item() const { return item_; }
  const std::string& account() const { return account_; }
  const std::string& discovery() const { return discovery_; }
  const std::string& session() const { return session_; }
  std::string_view content() const { return content_; }

  /// The items of every page of so many.
  const std::string& Items(std::int64_t count) {
    const std::lock_guard guard(mutex_);
    std::string& items = items_[count];
    if (items.empty()) items = PageItems(origin_, count);
    return items;
  }

 private:
  const std::string origin_;
  const std::string item_;
  const std::string account_;
  const std::string discovery_;
  const std::string session_;
  const std::string content_;
  std::mutex mutex_;
  std::map<std::int64_t, std::string> items_;
};

class Connection {
 public:
  Connection(int socket, Service& service) : socket_(socket), service_(service) {
    const int on = 1;
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { close(socket_); }

  /// Until the client closes.
  void Serve() {
    while (ReadHead()) {
      const std::string head = input_.substr(0, head_length_);
      input_.erase(0, head_length_);
      const std::size_t method = head.find(' ');
      const std::size_t target = head.find(' ', method + 1);
      if (target == std::string::npos) throw std::runtime_error("no request line");
      const std::string_view view = head;
      const Request request{view.substr(method + 1, target - method - 1), view};
      DropBody(request);
      Answer(request);
    }
  }

 private:
  bool ReadHead() {
    std::array<char, 16384> piece;
    for (;;) {
      const std::size_t end = input_.find("\r\n\r\n");
      if (end != std::string::npos) {
        head_length_ = end + 4;
        return true;
      }
      const ssize_t length = recv(socket_, piece.data(), piece.size(), 0);
      if (length <= 0) return false;
      input_.append(piece.data(), static_cast<std::size_t>(length));
    }
  }

  void DropBody(const Request& request) {
    auto left = static_cast<std::size_t>(Number(request.Header("Content-Length")));
    if (!request.Header("Expect").empty()) Send("HTTP/1.1 100 Continue\r\n\r\n");
    const std::size_t here = std::min(left, input_.size());
    input_.erase(0, here);
    left -= here;
    while (left > 0) left -= Drop(left);
  }

  // Some of the body. Does not sleep until it comes: the client's processor would pay for every
  // waking, twice as much as for the sending in one process and hardly anything in another.
  std::size_t Drop(std::size_t left) const {
    constexpr std::size_t kMost = 1 << 20;
    for (;;) {
      const ssize_t length =
          recv(socket_, nullptr, std::min(left, kMost), MSG_TRUNC | MSG_DONTWAIT);
      if (length == 0) throw std::runtime_error("body cut short");
      if (length > 0) return static_cast<std::size_t>(length);
      if (errno != EAGAIN) Checked(length, "recv");
    }
  }

  void Answer(const Request& request) {
    const std::string_view target = request.target;
    if (target.ends_with("/services")) return SendJson(200, {service_.discovery()});
    if (target.ends_with("/drive")) return SendJson(200, {service_.account()});
    if (target.ends_with(":/upload.createSession")) return SendJson(200, {service_.session()});
    if (target.ends_with(":/content")) return SendJson(201, {service_.item()});
    if (target.find("/upload?") != std::string_view::npos) return AnswerChunk(request);
    if (target.ends_with("/content")) return AnswerContent(request);
    if (target.find("/children") != std::string_view::npos) return AnswerPage(request);
    if (const std::size_t at = target.find("/after-"); at != std::string_view::npos) {
      std::this_thread::sleep_for(std::chrono::microseconds(Number(target.substr(at + 7))));
    }
    SendJson(200, {service_.item()});
  }

  // "bytes 0-10485759/104857600"
  void AnswerChunk(const Request& request) {
    const std::string_view range = request.Header("Content-Range");
    const std::size_t slash = range.find('/');
    const std::int64_t last = Number(range.substr(range.find('-') + 1));
    const bool whole = last + 1 == Number(range.substr(slash + 1));
    if (whole) return SendJson(201, {service_.item()});
    SendJson(202, {R"({"expirationDateTime":"2026-12-01T00:00:00Z","nextExpectedRanges":[")",
                   std::to_string(last + 1), "-\"]}"});
  }

  // "bytes=0-99"; files have no end
  void AnswerContent(const Request& request) {
    const std::string_view range = request.Header("Range");
    const std::size_t equals = range.find('=');
    if (equals == std::string_view::npos) throw std::runtime_error("no range");
    std::int64_t at = Number(range.substr(equals + 1));
    const std::int64_t last = Number(range.substr(range.find('-') + 1));
    std::int64_t left = last - at + 1;
    Send(
        "HTTP/1.1 206 Partial Content\r\nContent-Type: application/octet-stream\r\n"
        "Content-Length: " +
            std::to_string(left) + "\r\nContent-Range: bytes " + std::to_string(at) + "-" +
            std::to_string(last) + "/*\r\n\r\n",
        MSG_MORE);
    while (left > 0) {
      const std::string_view part = service_.content().substr(
          static_cast<std::size_t>(at % kContentSize), static_cast<std::size_t>(left));
      Send(part);
      at += std::ssize(part);
      left -= std::ssize(part);
    }
  }

  // A folder's id is "list-10000-200" for 10000 entries on pages of 200.
  void AnswerPage(const Request& request) {
    const std::string_view target = request.target;
    const std::size_t at = target.find("list-") + 5;
    const std::int64_t entries = Number(target.substr(at));
    const std::int64_t page = Number(target.substr(target.find('-', at) + 1));
    const std::size_t skip = target.find("skip=");
    const std::int64_t done =
        (skip == std::string_view::npos ? 0 : Number(target.substr(skip + 5))) + page;
    std::string link;
    if (done < entries) {
      link = service_.origin();
      link.append(target.substr(0, target.find('?'))).append("?skip=") += std::to_string(done);
    }
    SendJson(200, {PageHead(service_.origin(), link), service_.Items(page), kPageTail});
  }

  using Texts = std::initializer_list<std::string_view>;

  void SendJson(int status, Texts body) const {
    std::size_t length = 0;
    for (const std::string_view text : body) length += text.size();
    std::string head = "HTTP/1.1 " + std::to_string(status) + " OK\r\nContent-Type: " + kJson +
                       "\r\nContent-Length: " + std::to_string(length) +
                       "\r\nCache-Control: no-store\r\nServer: bench\r\n"
                       "request-id: 7c3e1b1e-52f0-4b0e-9d5c-0a9e6ad1f3b2\r\n\r\n";
    constexpr std::size_t kSmall = 65536;
    if (length < kSmall) {
      for (const std::string_view text : body) head += text;
      Send(head);
    } else {
      Send(head, MSG_MORE);
      for (const std::string_view text : body) Send(text, MSG_MORE);
      const int off = 0;
      setsockopt(socket_, IPPROTO_TCP, TCP_CORK, &off, sizeof off);  // what MSG_MORE held back
    }
  }

  void Send(std::string_view text, int flags = 0) const {
    for (std::size_t sent = 0; sent < text.size();) {
      sent += static_cast<std::size_t>(
          Checked(send(socket_, &text[sent], text.size() - sent, flags | MSG_NOSIGNAL), "send"));
    }
  }

  const int socket_;
  Service& service_;
  std::string input_;
  std::size_t head_length_ = 0;
};

int Listen(std::string& origin) {
  const int listener = Checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  Checked(bind(listener, generic, length), "bind");
  Checked(listen(listener, 64), "listen");
  Checked(getsockname(listener, generic, &length), "getsockname");
  origin = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  return listener;
}

void ServeConnection(int socket, Service& service) {
  try {
    Connection(socket, service).Serve();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_server: %s\n", error.what());
  }
}

void Accept(int listener, Service& service) {
  for (;;) {
    const int socket = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) continue;
    std::thread(ServeConnection, socket, std::ref(service)).detach();
  }
}

int Main() {
  std::string origin;
  const int listener = Listen(origin);
  static Service service(origin);
  std::thread(Accept, listener, std::ref(service)).detach();
  std::printf("%s\n", origin.c_str());
  std::fflush(stdout);
  char ignored = 0;
  while (read(STDIN_FILENO, &ignored, 1) > 0) {
  }
  _exit(0);  // with the connections that are open
}

}  // namespace
}  // namespace bench

int main() { return bench::Guarded("bench_server", bench::Main); }
