#include "emulator/http/server.h"

#include <memory>
#include <utility>

#include "emulator/http/connection.h"
#include "emulator/http/paced_wire.h"

namespace emulator {

HttpServer::HttpServer(const HttpServerOptions& options)
    : bandwidth_(options.bandwidth),
      listener_(options.port, options.tls),
      origin_((options.tls ? "https://" : "http://") + options.host_name + ":" +
              std::to_string(listener_.Port())) {}

HttpServer::~HttpServer() { Stop(); }

void HttpServer::Start(Handler handler) {
  handler_ = std::move(handler);
  acceptor_ = std::thread([this] { AcceptConnections(); });
}

void HttpServer::Stop() {
  listener_.Stop();
  if (acceptor_.joinable()) acceptor_.join();
  // No one adds a connection any more; those that are left only flag themselves finished.
  {
    const std::lock_guard lock(mutex_);
    for (const auto& connection : connections_) connection.wire->Abort();
  }
  for (auto& connection : connections_) connection.thread.join();
  connections_.clear();
}

void HttpServer::Vanish() {
  {
    const std::lock_guard lock(mutex_);
    vanished_ = true;
    for (const auto& connection : connections_) connection.wire->Break();
  }
  listener_.Pause();
}

void HttpServer::ComeBack() {
  {
    const std::lock_guard lock(mutex_);
    vanished_ = false;
  }
  listener_.Resume();
}

void HttpServer::AcceptConnections() {
  while (auto wire = listener_.Accept()) {
    JoinFinished();
    const std::lock_guard lock(mutex_);
    // Accepted just before the listener paused.
    if (vanished_) wire->Break();
    if (bandwidth_) wire = std::make_unique<PacedWire>(std::move(wire), *bandwidth_);
    auto& connection = connections_.emplace_back();
    connection.wire = std::move(wire);
    connection.thread = std::thread([this, &connection] {
      ServeConnection(*connection.wire, origin_, handler_);
      const std::lock_guard finish_lock(mutex_);
      connection.finished = true;
    });
  }
}

void HttpServer::JoinFinished() {
  std::list<Connection> finished;
  {
    const std::lock_guard lock(mutex_);
    for (auto it = connections_.begin(); it != connections_.end();) {
      const auto next = std::next(it);
      if (it->finished) finished.splice(finished.end(), connections_, it);
      it = next;
    }
  }
  for (auto& connection : finished) connection.thread.join();
}

}  // namespace emulator
