// A network within the process, for targets that take libcurl's own way.
#pragma once

#include <algorithm>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "fuzz/input.h"
#include "transport/easy_option.h"
#include "transport/onedrivebiz_curl.h"

// A server without a thread: a socket of this process under a name that the system chooses, and
// the far ends of its connections. libcurl says when a connection is made and about to be used; all
// that it will ever receive is then sent, so that nothing waits.
class Wire {
 public:
  explicit Wire(std::string_view responses) {
    constexpr std::string_view kBetween = "\n====\n";
    for (std::size_t end = 0; (end = responses.find(kBetween)) != std::string_view::npos;) {
      responses_.push_back(responses.substr(0, end));
      responses.remove_prefix(end + kBetween.size());
    }
    responses_.push_back(responses);
  }
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;
  ~Wire() {
    AcceptAll();
    for (const int end : far_ends_) close(end);
  }

  // The part of the name behind its NUL.
  static std::string Name() {
    sockaddr_un address{};
    socklen_t size = sizeof address;
    getsockname(Listener(), reinterpret_cast<sockaddr*>(&address), &size);
    const char* name = address.sun_path + 1;
    return {name, size - offsetof(sockaddr_un, sun_path) - 1};
  }

  // A CURLOPT_PREREQFUNCTION.
  static int Answer(void* wire, char*, char*, int, int) {
    static_cast<Wire*>(wire)->AcceptAll();
    return CURL_PREREQFUNC_OK;
  }

 private:
  static int Listener() {
    static const int listener = [] {
      const int made = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
      const sockaddr_un unnamed{.sun_family = AF_UNIX, .sun_path = {}};
      constexpr int kBacklog = 8;
      Require(
          bind(made, reinterpret_cast<const sockaddr*>(&unnamed), sizeof unnamed.sun_family) == 0 &&
              listen(made, kBacklog) == 0,
          "there is a socket to connect to");
      return made;
    }();
    return listener;
  }

  void AcceptAll() {
    for (int end = 0; (end = accept(Listener(), nullptr, nullptr)) >= 0;) {
      far_ends_.push_back(end);
      if (!responses_.empty()) {
        const std::string_view response = responses_.front();
        responses_.pop_front();
        Require(send(end, response.data(), response.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
                    static_cast<ssize_t>(response.size()),
                "a response fits the socket");
      }
      shutdown(end, SHUT_WR);
    }
  }

  std::deque<std::string_view> responses_;
  std::vector<int> far_ends_;
};

class WiredRequest final : public onedrive4b::OneDriveBizCURL {
 public:
  explicit WiredRequest(Wire& wire) {
    onedrive4b::SetOption(GetCURL(), CURLOPT_ABSTRACT_UNIX_SOCKET, Wire::Name().c_str());
    onedrive4b::SetOption(GetCURL(), CURLOPT_PREREQFUNCTION, &Wire::Answer);
    onedrive4b::SetOption(GetCURL(), CURLOPT_PREREQDATA, &wire);
    // Bodies come in several pieces.
    onedrive4b::SetOption(GetCURL(), CURLOPT_BUFFERSIZE, 1024L);
    // Reading a bundle of certificates would cost more than all the rest.
    onedrive4b::SetOption(GetCURL(), CURLOPT_REDIR_PROTOCOLS_STR, "http");
  }
};

// For its lifetime the pool hands out one request object that speaks on the wire.
class WiredPool {
 public:
  explicit WiredPool(Wire& wire) {
    others_.swap(cq.free);
    cq.free.push_back(std::make_shared<WiredRequest>(wire));
  }
  WiredPool(const WiredPool&) = delete;
  WiredPool& operator=(const WiredPool&) = delete;
  ~WiredPool() { cq.free.swap(others_); }

 private:
  std::vector<std::shared_ptr<onedrive4b::OneDriveBizCURL>> others_;
};
