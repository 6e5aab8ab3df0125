// What both clients of a benchmark are told to do, and how they measure themselves.
//
// Each measurement is one process: it warms up, measures once and prints one line of JSON.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace bench {

/// One measurement, as its command line gives it: KIND ORIGIN NAME=VALUE...
struct Workload {
  std::string kind;          ///< "download", "upload", "lookup", "list", "start"
  std::string origin;        ///< "http://127.0.0.1:40001"
  std::int64_t bytes = 0;    ///< transfers: bytes of one file
  std::int64_t range = 0;    ///< download: bytes of one request; 0 for the whole file
  std::int64_t calls = 1;    ///< lookups, or uploads of the file
  std::int64_t entries = 0;  ///< list: of the whole folder
  std::int64_t page = 0;     ///< list: entries of one page
  std::int64_t delay = 0;    ///< lookups: microseconds that the service takes for each
  std::int64_t threads = 1;  ///< the work is shared out among them
  // Of the bare client alone; 0 leaves libcurl's default.
  std::int64_t receive_buffer = 0;
  std::int64_t upload_buffer = 0;
  std::int64_t staged = 1;  ///< download: 0 hands libcurl's pieces on as they come
  std::int64_t raw = 0;     ///< download: a plain socket instead of libcurl
  std::int64_t shared = 0;  ///< lookup: threads take any handle, the one returned last first
};

/// Throws std::invalid_argument for what is no workload.
Workload ParseWorkload(int count, char** arguments);

using Measurements = std::map<std::string, std::function<void(const Workload&)>>;
/// Calls the measurement of the workload's kind. Throws std::invalid_argument when there is none.
void RunWorkload(const Workload& workload, const Measurements& by_kind);

/// URL of the service that the workload's server plays.
std::string Endpoint(const Workload& workload);
/// Id of the item that is looked up: one that takes the workload's delay.
std::string ItemId(const Workload& workload);
/// Id of a folder with so many entries, which come on pages of so many.
std::string FolderId(std::int64_t entries, std::int64_t page);

/// Files up to here are uploaded in one request, larger ones in chunks.
inline constexpr std::int64_t kLargestSimpleUpload = 104857599;
inline constexpr std::int64_t kChunk = 10485760;

/// Calls `warm_up(thread)` and then `work(thread)` on each of the workload's threads (one: on the
/// calling thread), measures all calls of `work` together and prints the measurement. `work` gives
/// the bytes or entries that it got. Rethrows what a thread has thrown.
void Measure(const Workload& workload, const std::function<void(int)>& warm_up,
             const std::function<std::int64_t(int)>& work);

/// What stands for the host's local cache on both sides: 4 MiB of memory, over and over.
class HostCache {
 public:
  HostCache();
  void Store(std::int64_t offset, const char* data, std::int64_t length);
  /// Fills at most `length` bytes and returns how many.
  std::int64_t Load(std::int64_t offset, char* buffer, std::int64_t length) const;
  std::int64_t stored() const { return stored_; }

 private:
  std::string memory_;
  std::int64_t stored_ = 0;
};

}  // namespace bench
