// How many requests of each kind came in.
// Threads: RequestCounter from any; CountsByKind is a plain value. Lifetime: values own all.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "emulator/http/message.h"

namespace emulator {

struct CountsByKind {
  std::uint64_t list = 0;           // pages: of a folder, or of what others share
  std::uint64_t item = 0;           // one item's metadata
  std::uint64_t drive = 0;          // the drive with its quota
  std::uint64_t download_link = 0;  // ".../content", which redirects to the content
  std::uint64_t download = 0;       // the content, whole or a range
  std::uint64_t upload = 0;         // a PUT of a content, a new session, each request of a session
  std::uint64_t change = 0;         // a new folder, a changed or deleted item
  std::uint64_t sign_in = 0;        // tokens, device codes, discovery
  std::uint64_t other = 0;

  bool operator==(const CountsByKind&) const = default;
};

/// The member that counts requests like this one.
std::uint64_t CountsByKind::*KindOf(const Request& request, std::string_view endpoint_path);

class RequestCounter {
 public:
  /// `endpoint_path`: as in DriveApiOptions.
  explicit RequestCounter(std::string endpoint_path) : endpoint_path_(std::move(endpoint_path)) {}

  /// Returns the member that was counted up.
  std::uint64_t CountsByKind::*Add(const Request& request);
  CountsByKind Get() const;
  void Clear();

 private:
  const std::string endpoint_path_;
  mutable std::mutex mutex_;
  CountsByKind counts_;  // guarded by mutex_
};

}  // namespace emulator
