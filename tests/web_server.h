// A server whose every answer the test gives, and what it was asked.
#pragma once

#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "emulator/http/server.h"

/// One request with its whole body.
struct Received {
  std::string method;
  std::string target;
  emulator::HeaderList headers;
  std::string body;

  std::string Header(std::string_view name) const {
    return emulator::FindHeader(headers, name).value_or("(none)");
  }
};

/// Answers with `answer`, on a connection's thread. Stops in the destructor.
class WebServer {
 public:
  using Answer = std::function<emulator::Response(const Received& request)>;

  explicit WebServer(Answer answer, emulator::HttpServerOptions options = {})
      : server_(options), answer_(std::move(answer)) {
    server_.Start([this](emulator::Request& request) { return Serve(request); });
  }

  std::string Url(const std::string& target) const { return server_.Origin() + target; }

  std::vector<Received> requests() const {
    const std::lock_guard guard(mutex_);
    return requests_;
  }

 private:
  emulator::Response Serve(emulator::Request& request) {
    Received received{request.method, request.target, request.headers, {}};
    char piece[16384];
    while (const std::size_t length = request.body.Read(piece)) received.body.append(piece, length);
    {
      const std::lock_guard guard(mutex_);
      requests_.push_back(received);
    }
    return answer_(received);
  }

  emulator::HttpServer server_;
  Answer answer_;
  mutable std::mutex mutex_;
  std::vector<Received> requests_;
};

/// Makes `authority_pem` the bundle of the running test program, for its lifetime.
class TrustedAuthority {
 public:
  explicit TrustedAuthority(const std::string& authority_pem) {
    std::filesystem::create_directories(Folder());
    std::ofstream(Folder() / "cacert.pem") << authority_pem;
  }
  TrustedAuthority(const TrustedAuthority&) = delete;
  TrustedAuthority& operator=(const TrustedAuthority&) = delete;
  ~TrustedAuthority() { std::filesystem::remove_all(Folder()); }

 private:
  static std::filesystem::path Folder() {
    return std::filesystem::canonical("/proc/self/exe").parent_path().parent_path() / "Frameworks";
  }
};
