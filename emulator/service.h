// The service on your desk: OneDrive for Business's REST service, its token endpoint and its
// discovery service, in this process, on loopback. Written from the service's public documentation.
//
// It listens on two origins: one for the service, one that contents come from and uploads go to.
// Threads: every function may be called from any thread while the service runs. Lifetime: serves
// from the constructor to the destructor, which ends all connections and joins all threads; what
// UserDrive and OtherDrive return lives as long.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "emulator/api/request_counts.h"
#include "emulator/drive/drive.h"
#include "emulator/http/faults.h"
#include "emulator/http/request_log.h"

namespace emulator {

struct ServiceOptions {
  bool tls = true;
  std::string host_name = "localhost";     // in the addresses; the sockets are always loopback's
  std::uint16_t port = 0;                  // of the service; 0: kernel-chosen
  bool seed = true;                        // the demo drive; false: an empty drive
  std::filesystem::path data_directory{};  // empty: in memory only
  std::chrono::seconds access_token_lifetime{3600};
  bool discovery = true;                    // false: as retired, it does not answer
  std::size_t page_size = 200;              // most entries on one page
  bool revoke_used_refresh_tokens = false;  // the real platform lets used ones work on
  std::chrono::seconds device_code_lifetime{900};
  std::chrono::seconds device_poll_interval{5};
  std::chrono::seconds download_link_lifetime{3600};
  std::chrono::seconds upload_session_lifetime{86400};
  std::uint64_t simple_upload_limit = 250'000'000;  // bytes of one PUT to /content
  std::size_t recorded_requests = 100000;           // the oldest are forgotten
  std::chrono::milliseconds latency{0};             // as SetLatency
  std::uint64_t bandwidth = 0;                      // as SetBandwidth
  std::size_t request_rate = 0;                     // as SetRequestRate
  /// Called for every request once its answer is known; from the connection's thread.
  std::function<void(const RecordedRequest&)> observer{};
};

class Service {
 public:
  /// Throws std::runtime_error with a text for people when it cannot serve.
  explicit Service(ServiceOptions options = {});
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  std::string Origin() const;         // "https://localhost:40001"
  std::string ContentOrigin() const;  // where contents come from: another port
  std::string UnifiedApiUrl() const;  // what is asked where a user's drive is: a third port
  std::string AuthorityUrl() const;   // of the form v2.0: with a tenant as its path
  std::string TokenUrl() const;       // of the form v1.0, as the two addresses below
  std::string DeviceCodeUrl() const;
  std::string DiscoveryUrl() const;
  std::string DiscoveryResource() const;
  std::string ServiceEndpoint() const;  // without a slash at the end
  std::string ServiceResource() const;
  std::string ClientId() const;
  /// What a client has to trust; empty without TLS.
  const std::string& CertificateAuthorityPem() const;

  /// For the demo user.
  std::string IssueRefreshToken();
  /// All access tokens issued so far are answered 401 from now on.
  void ExpireAccessTokens();
  /// All refresh tokens issued so far are answered "invalid_grant" from now on.
  void RevokeRefreshTokens();
  /// Pre-authenticated URLs given so far are refused from now on (401).
  void ExpireDownloadLinks();
  /// Uploads under way are lost: their URLs answer 404 from now on.
  void ExpireUploadSessions();
  /// The demo user answers the request of a device; false: that code is not waiting.
  bool ApproveDevice(const std::string& user_code);
  bool DeclineDevice(const std::string& user_code);

  void AddFault(Fault fault);
  void ClearFaults();
  /// Those that did not fire as often as scripted: at a test's end there should be none.
  std::vector<Fault> UnfiredFaults() const;

  /// Each answer is held back for so long.
  void SetLatency(std::chrono::milliseconds latency);
  /// Each connection carries no more in each direction; 0: no limit.
  void SetBandwidth(std::uint64_t bytes_per_second);
  /// More requests within a second are answered 429 with Retry-After; 0: no limit. Those to sign in
  /// do not count.
  void SetRequestRate(std::size_t per_second);
  /// As if the network had gone: all connections are reset and new ones refused, until ComeBack,
  /// which brings the service back at the same addresses. What was under way is done, but its
  /// answer is lost. ComeBack throws std::runtime_error with a text for people.
  void Vanish();
  void ComeBack();

  /// In order of arrival.
  std::vector<RecordedRequest> Requests() const;
  /// All that have arrived, also those that a fault or the request rate kept from the service.
  CountsByKind RequestCounts() const;
  /// Forgets both.
  void ClearRequests();

  Drive& UserDrive();
  Drive& OtherDrive();

  /// Answers discovery with this text instead; nullopt: the real document again.
  void SetServicesDocument(std::optional<std::string> json);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace emulator
