#include "host/redirect_listener.h"

#include <array>
#include <cstring>
#include <optional>
#include <string_view>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "host/failure.h"
#include "host/url.h"

namespace host {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kLongestRequest = 16384;
/// How long a connection may take to send its request: browsers open some that they never use.
constexpr std::chrono::milliseconds kConnectionTime{2000};
constexpr std::chrono::milliseconds kStep{100};

base::UniqueFd Listen(const sockaddr* address, socklen_t length) {
  base::UniqueFd fd(::socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd || ::bind(fd.get(), address, length) != 0 || ::listen(fd.get(), 8) != 0) return {};
  return fd;
}

bool Readable(int fd, std::chrono::milliseconds time) {
  pollfd poll_fd{.fd = fd, .events = POLLIN, .revents = 0};
  return ::poll(&poll_fd, 1, static_cast<int>(time.count())) == 1;
}

/// The request up to the end of its header; what came so far when it takes too long.
std::string ReadRequest(int fd) {
  std::string request;
  const Clock::time_point end = Clock::now() + kConnectionTime;
  while (Clock::now() < end && request.size() < kLongestRequest &&
         request.find("\r\n\r\n") == std::string::npos) {
    if (!Readable(fd, kStep)) continue;
    std::array<char, 4096> piece;
    const ssize_t got = ::recv(fd, piece.data(), piece.size(), 0);
    if (got <= 0) break;
    request.append(piece.data(), static_cast<std::size_t>(got));
  }
  return request;
}

void Answer(int fd, const char* status, std::string_view text) {
  const std::string body =
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>onedrive4b</title>"
      "</head><body><p>" +
      std::string(text) + "</p></body></html>\n";
  const std::string answer = "HTTP/1.1 " + std::string(status) +
                             "\r\nContent-Type: text/html; charset=utf-8\r\n"
                             "Cache-Control: no-store\r\nReferrer-Policy: no-referrer\r\n"
                             "Connection: close\r\nContent-Length: " +
                             std::to_string(body.size()) + "\r\n\r\n" + body;
  ::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
  ::shutdown(fd, SHUT_WR);
  // A socket that is closed with unread bytes resets the connection, and the page is lost.
  std::array<char, 1024> rest;
  while (Readable(fd, kStep) && ::recv(fd, rest.data(), rest.size(), 0) > 0) {
  }
}

std::string Decoded(std::string_view text) {
  std::string plain(text);
  for (char& c : plain) {
    if (c == '+') c = ' ';
  }
  int length = 0;
  const std::unique_ptr<char, decltype(&curl_free)> decoded(
      curl_easy_unescape(nullptr, plain.data(), static_cast<int>(plain.size()), &length),
      &curl_free);
  return decoded ? std::string(decoded.get(), static_cast<std::size_t>(length)) : std::string();
}

/// The query of "GET /?... HTTP/1.1"; nothing when it is another request.
std::optional<RedirectListener::Parameters> ParametersOf(std::string_view request) {
  constexpr std::string_view kBegin = "GET /?";
  if (!request.starts_with(kBegin)) return std::nullopt;
  request.remove_prefix(kBegin.size());
  std::string_view query = request.substr(0, request.find_first_of(" \r\n"));
  RedirectListener::Parameters parameters;
  while (!query.empty()) {
    const std::string_view pair = query.substr(0, query.find('&'));
    query.remove_prefix(std::min(pair.size() + 1, query.size()));
    const std::size_t equals = pair.find('=');
    if (equals == std::string_view::npos) continue;
    parameters.emplace(Decoded(pair.substr(0, equals)), Decoded(pair.substr(equals + 1)));
  }
  return parameters;
}

}  // namespace

RedirectListener::RedirectListener() {
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  v4_ = Listen(reinterpret_cast<const sockaddr*>(&v4), sizeof(v4));
  socklen_t length = sizeof(v4);
  if (!v4_ || ::getsockname(v4_.get(), reinterpret_cast<sockaddr*>(&v4), &length) != 0) {
    throw Failure(FailureKind::kLocal, "no port on this machine can be had for the login");
  }
  port_ = ntohs(v4.sin_port);
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_addr = in6addr_loopback;
  v6.sin6_port = v4.sin_port;
  v6_ = Listen(reinterpret_cast<const sockaddr*>(&v6), sizeof(v6));
}

std::string RedirectListener::Address() const {
  return "http://localhost:" + std::to_string(port_);
}

RedirectListener::Parameters RedirectListener::Await(const std::string& state,
                                                     std::chrono::seconds time,
                                                     Cancellation& cancellation) const {
  const Clock::time_point end = Clock::now() + time;
  while (Clock::now() < end) {
    cancellation.Check();
    std::array<pollfd, 2> ready = {{{.fd = v4_.get(), .events = POLLIN, .revents = 0},
                                    {.fd = v6_.get(), .events = POLLIN, .revents = 0}}};
    if (::poll(ready.data(), ready.size(), static_cast<int>(kStep.count())) <= 0) continue;
    for (const pollfd& listener : ready) {
      if ((listener.revents & POLLIN) == 0) continue;
      const base::UniqueFd fd(::accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC));
      if (!fd) continue;
      auto parameters = ParametersOf(ReadRequest(fd.get()));
      if (!parameters || !parameters->contains("state")) {
        Answer(fd.get(), "404 Not Found", "There is nothing here.");
      } else if ((*parameters)["state"] != state) {
        Answer(fd.get(), "400 Bad Request", "This answer belongs to another login.");
      } else {
        Answer(fd.get(), "200 OK",
               parameters->contains("code")
                   ? "The sign-in goes on in the program. You can close this window."
                   : "The sign-in failed; the program says why. You can close this window.");
        return *std::move(parameters);
      }
    }
  }
  throw Failure(FailureKind::kSignIn, "the login failed: nobody signed in within the time",
                "run it again, or sign in on another device with 'onedrive4b login --device'");
}

}  // namespace host
