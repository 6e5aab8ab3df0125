// A blocking HTTP/1.1 server on loopback with a thread for each connection, so that a handler can
// have any answer cut off, stalled or reset at any byte.
// Threads: the handler is called from many threads at once; functions without a word of threads
// from the owner's. Lifetime: binds in the constructor, serves from Start on; Stop (or the
// destructor) ends every connection, idle, stalled or busy, and returns when all threads are
// joined.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "emulator/http/certificate_authority.h"
#include "emulator/http/message.h"
#include "emulator/http/wire.h"

namespace emulator {

struct HttpServerOptions {
  std::string host_name = "localhost";  // in Origin(); the sockets are always loopback's
  std::uint16_t port = 0;               // 0: kernel-chosen
  std::optional<ServerIdentity> tls;
  /// Bytes per second that each connection carries in each direction, 0 for no limit; may change
  /// while the server runs. nullptr: no limit.
  std::shared_ptr<const std::atomic<std::uint64_t>> bandwidth{};
};

class HttpServer {
 public:
  /// Throws std::runtime_error with a text for people when the port cannot be had.
  explicit HttpServer(const HttpServerOptions& options);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  const std::string& Origin() const { return origin_; }

  void Start(Handler handler);
  void Stop();

  /// As if the network had gone: all connections are reset and new ones refused, until ComeBack.
  /// The port stays taken. Both from any thread while the server runs.
  void Vanish();
  /// Throws std::runtime_error with a text for people.
  void ComeBack();

 private:
  struct Connection {
    std::unique_ptr<Wire> wire;
    std::thread thread;
    bool finished = false;
  };

  void AcceptConnections();
  void JoinFinished();

  const std::shared_ptr<const std::atomic<std::uint64_t>> bandwidth_;
  Listener listener_;
  std::string origin_;
  Handler handler_;
  std::thread acceptor_;
  std::mutex mutex_;
  // Guarded by mutex_.
  std::list<Connection> connections_;  // elements stay where they are
  bool vanished_ = false;
};

}  // namespace emulator
