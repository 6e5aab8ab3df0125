// Sockets: a listener on loopback, and one accepted connection, plain or TLS, with the means to
// end it badly on purpose.
// Threads: a Wire is used by the one thread that serves it, Listener::Accept by one thread; Abort,
// Break, Pause, Resume and Stop may come from any thread. Lifetime: a Listener outlives the wires
// it gave.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "emulator/http/certificate_authority.h"

namespace emulator {

class Wire {
 public:
  virtual ~Wire() = default;

  /// The TLS handshake, where there is one. Throws ConnectionLost.
  virtual void Open() = 0;
  /// At least one byte; 0 when the peer has closed. Throws ConnectionLost.
  virtual std::size_t Read(std::span<char> into) = 0;
  /// All of it. Throws ConnectionLost.
  virtual void Write(std::string_view bytes) = 0;

  /// Ends in order: close_notify under TLS, then FIN.
  virtual void Close() = 0;
  /// RST, once the peer's system has taken what was written.
  virtual void Reset() = 0;
  /// Returns false when the peer went or Abort was called before `duration` was over.
  virtual bool Wait(std::chrono::milliseconds duration) = 0;
  /// Returns when the peer went or Abort was called.
  virtual void WaitForPeerToGo() = 0;

  /// Makes every call that blocks in the serving thread return or throw soon.
  virtual void Abort() noexcept = 0;
  /// As Abort, and as if the network had gone: nothing more is sent but a reset.
  virtual void Break() noexcept = 0;
};

class Listener {
 public:
  /// 127.0.0.1, and ::1 where there is one. Port 0: the kernel chooses. Throws std::runtime_error
  /// with a text for people.
  Listener(std::uint16_t port, const std::optional<ServerIdentity>& tls);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  std::uint16_t Port() const;

  /// nullptr after Stop.
  std::unique_ptr<Wire> Accept();
  void Stop() noexcept;

  /// Connections are refused until Resume; the port stays this listener's.
  void Pause() noexcept;
  /// Throws std::runtime_error with a text for people.
  void Resume();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace emulator
