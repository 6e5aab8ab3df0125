// A small service that answers honestly until it is told not to, at a port that it keeps while
// nobody listens there, and a second origin that must never see a token.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "emulator/http/server.h"

namespace faults {

/// Certificates of the server. The bundle of the running program trusts all but `unknown`.
struct Identities {
  emulator::ServerIdentity good, wrong_name, expired, self_signed, unknown;

  /// Made once for the program, together with the bundle, which goes when the program ends.
  static const Identities& Get();
};

/// One request as the service met it.
struct Seen {
  std::string key;  ///< see FaultService
  std::string authorization;
  bool foreign = false;  ///< arrived at the second origin
};

/// Knows requests by keys: "METHOD /path", with " later" behind it for a part of a file that does
/// not begin at its first byte. Takes no request without the bearer token "A" or "B" but those to
/// "/up". Any thread.
class FaultService {
 public:
  using Spoil = std::function<void(emulator::Response&)>;
  static constexpr int kAlways = -1;

  FaultService();
  ~FaultService();
  FaultService(const FaultService&) = delete;
  FaultService& operator=(const FaultService&) = delete;

  const std::string& Origin() const { return origin_; }
  std::string ForeignOrigin() const { return foreign_.Origin(); }

  void Put(const std::string& key, int status, const std::string& body,
           emulator::HeaderList headers = {});
  /// The honest answer of a key.
  emulator::Response Honest(const std::string& key) const;

  /// Spoils this many answers at this key; at the first origin only. `spoil` may wait: other
  /// answers go out meanwhile.
  void Break(const std::string& key, Spoil spoil, int times = kAlways);
  /// Nobody listens any more.
  void Refuse() { StopListening(); }
  /// Connections are taken, and not a byte comes.
  void ListenSilently();
  /// Connections are neither taken nor refused.
  void LeaveWaiting();
  /// Listens anew: with this certificate, or without TLS.
  void Listen(const std::optional<emulator::ServerIdentity>& identity);
  /// Ends all of it.
  void Heal();

  /// What has come since the last call.
  std::vector<Seen> Take();

 private:
  emulator::Response Serve(emulator::Request& request, bool foreign);
  void StopListening();

  std::uint16_t port_ = 0;
  const int holder_;  // a socket that has the port and does not listen
  std::string origin_;
  bool honest_listener_ = false;
  mutable std::mutex mutex_;
  std::map<std::string, emulator::Response> answers_;
  std::string broken_key_;
  Spoil spoil_;
  int left_ = 0;
  std::vector<Seen> seen_;
  std::optional<emulator::Listener> silent_;
  std::vector<int> full_;  // a listener whose queue is full, and the connections that fill it
  std::optional<emulator::HttpServer> server_;
  emulator::HttpServer foreign_;
};

}  // namespace faults
