// Faults the service commits on purpose: named data, scripted per request, and accounted for.
//
//   service.AddFault(Fault::Status(429, 1s).On("GET", "/children").Nth(2));
//   service.AddFault(Fault::Reset(Place::kInBody, 1000).On("GET", "/download.aspx").Times(3));
//
// Each request takes the first fault of the script that matches it and has firings left; one
// request takes one fault. Faults meet the requests of both listeners (the service's and the
// content's). Threads: Fault is a plain value; FaultPlan may be used from any thread. Lifetime:
// values own all.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "emulator/http/message.h"

struct re_pattern_buffer;  // regex_t of <regex.h>

namespace emulator {

struct Fault {
  enum class Kind {
    kNone,      // the honest answer, but for the extras below
    kStatus,    // `status` with `headers` and `body`; the service does nothing else
    kCut,       // the connection suffers `cut` at `place`
    kBody,      // the honest answer's status and headers with `body` in place of its own
    kOldToken,  // 401, as if the access token had just expired
    kRedirect,  // `status` to `location`
  };

  static Fault None() { return {}; }
  static Fault Status(int status, std::optional<std::chrono::seconds> retry_after = std::nullopt);
  /// `after_bytes`: of the request's body, the answer's headers or its body, as `place` says.
  static Fault Reset(Place place, std::uint64_t after_bytes = 0);
  /// Zero `duration`: until the client goes away or the service stops; otherwise the rest follows.
  static Fault Stall(Place place, std::uint64_t after_bytes = 0,
                     std::chrono::milliseconds duration = {});
  /// Ends the connection in order (FIN) after `after_bytes` of the promised body.
  static Fault Truncate(std::uint64_t after_bytes);
  /// Content-Length is wrong by `error`; the connection ends after the true body.
  static Fault WrongLength(std::int64_t error);
  static Fault Body(std::string text, std::string content_type = "application/json");
  static Fault ExpiredToken();
  static Fault Redirect(int status, std::string location);

  /// An empty `method` or `target` matches all; `target` is a part of path and query as received.
  Fault On(std::string method, std::string target) const;
  /// As On, but `pattern` is a POSIX extended regular expression to be found in the target.
  Fault OnRegex(std::string method, std::string pattern) const;
  /// Lets the first n-1 matching requests pass.
  Fault Nth(int n) const;
  /// Fires for this many matching requests; kAlways: for all (and counts as fired after one).
  Fault Times(int count) const;

  static constexpr int kAlways = -1;

  std::string method;
  std::string target;
  bool target_is_regex = false;
  int nth = 1;
  int times = 1;

  Kind kind = Kind::kNone;
  int status = 503;
  std::string body;
  std::string content_type = "application/json";
  std::string location;
  Cut cut = Cut::kNone;
  Place place = Place::kBeforeAnswer;
  std::uint64_t after_bytes = 0;
  std::chrono::milliseconds stall{0};
  /// Whether the request takes effect before a cut at kBeforeAnswer (elsewhere it must or cannot).
  bool takes_effect = false;

  // Extras, for any kind.
  HeaderList headers;  // replace the answer's of the same name
  std::chrono::milliseconds delay{0};
  std::vector<InterimResponse> interim;
  std::int64_t length_error = 0;
  bool chunked = false;
  HeaderList trailers;
  bool gzip = false;
  bool close_after = false;                  // closes the connection afterwards without a word
  std::vector<std::string> ignored_headers;  // of the request: the service does not see them
};

class FaultPlan {
 public:
  /// Throws std::invalid_argument when a regular expression is none.
  void Add(Fault fault);
  void Clear();

  /// The fault this request has to suffer; counts it.
  std::optional<Fault> Take(const Request& request);

  /// Those that have not fired as often as scripted; `times` says how often they still would.
  std::vector<Fault> Unfired() const;

 private:
  struct Entry {
    bool Matches(const Request& request) const;

    Fault fault;
    std::shared_ptr<const re_pattern_buffer> pattern;  // compiled, where the target is one
    int seen = 0;
    int fired = 0;
  };

  mutable std::mutex mutex_;
  std::vector<Entry> entries_;  // guarded by mutex_
};

/// Whether the service gets to see the request at all.
bool ReachesService(const Fault& fault);

/// What a request that does not reach the service is answered.
Response AnswerInPlace(const Fault& fault);

/// Turns the honest answer into the faulty one.
void Spoil(const Fault& fault, Response& response);

}  // namespace emulator
