#include "bench/cases.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace bench {
namespace {

constexpr double kSpeed = 0.95;
constexpr double kTransferCpu = 1.10;
constexpr double kListingCpu = 1.25;
constexpr double kAddedPerLookup = 15;
constexpr int kMoreRepeats = 3;
constexpr int kMostRepeats = 5;

std::string Set(const char* name, std::int64_t value) {
  return std::string(name).append("=") += std::to_string(value);
}

Case Transfer(const char* name, const char* title, const char* kind,
              std::vector<std::string> parameters, std::int64_t bytes,
              std::vector<const char*> others) {
  return {.name = name,
          .title = title,
          .kind = kind,
          .parameters = std::move(parameters),
          .amount = bytes,
          .others = std::move(others),
          .least_speed = kSpeed,
          .most_cpu = kTransferCpu,
          .repeats = kMostRepeats};
}

Case Listing(const char* name, const char* title, std::int64_t entries, std::int64_t page) {
  return {.name = name,
          .title = title,
          .kind = "list",
          .parameters = {Set("entries", entries), Set("page", page)},
          .amount = entries,
          .others = {},
          .most_cpu = kListingCpu};
}

std::vector<Case> ThreadCases(std::int64_t threads, bool quick) {
  const std::string number = std::to_string(threads);
  const std::string suffix = number + (threads == 1 ? " thread" : " threads");
  const std::int64_t calls = quick ? 1600 : 16000;
  const std::int64_t delayed = (quick ? 20 : 1000) * threads;
  const std::int64_t bytes = (std::int64_t{1} << 30) / (quick ? 16 : 1);
  constexpr std::int64_t kRange = 4 << 20;
  return {{.name = "lookup-threads-" + number,
           .title = "Lookups, " + suffix,
           .kind = "lookup",
           .parameters = {Set("calls", calls), Set("threads", threads)},
           .amount = calls,
           .others = {"shared"},
           .repeats = kMoreRepeats},
          {.name = "delayed-threads-" + number,
           .title = "Lookups of 1 ms, " + suffix,
           .kind = "lookup",
           .parameters = {Set("calls", delayed), Set("threads", threads), Set("delay", 1000)},
           .amount = delayed,
           .others = {}},
          {.name = "read-threads-" + number,
           .title = "4 MiB reads, " + suffix,
           .kind = "download",
           .parameters = {Set("bytes", bytes), Set("range", kRange), Set("threads", threads)},
           .amount = bytes,
           .others = {},
           .repeats = kMoreRepeats}};
}

}  // namespace

const std::vector<Side>& Sides() {
  static const std::vector<std::string> kBuffers = {"receive_buffer=262144",
                                                    "upload_buffer=262144"};
  static const std::vector<Side> sides = {
      {"module", "module", "bench_module", {}},
      {"bare", "libcurl, best buffers", "bench_bare", kBuffers},
      {"defaults", "libcurl, its defaults", "bench_bare", {}},
      {"direct", "libcurl, no staging", "bench_bare", {kBuffers[0], "staged=0"}},
      {"curl", "curl command", "curl", {}},
      {"shared", "libcurl, shared handles", "bench_bare", {kBuffers[0], kBuffers[1], "shared=1"}},
      {"raw", "plain socket", "bench_bare", {"raw=1"}}};
  return sides;
}

const Side& SideOf(const std::string& name) {
  for (const Side& side : Sides()) {
    if (side.name == name) return side;
  }
  throw std::invalid_argument("no such side: " + name);
}

std::vector<Case> Cases(bool quick) {
  const std::int64_t less = quick ? 16 : 1;
  const std::int64_t gib = (std::int64_t{1} << 30) / less;
  const std::int64_t simple = 99 << 20;
  const std::int64_t uploads = quick ? 1 : 5;
  const std::int64_t entries = quick ? 800 : 10000;
  const std::int64_t lookups = quick ? 1600 : 10000;
  std::vector<Case> cases = {
      Transfer("download", "Download 1 GiB", "download", {Set("bytes", gib)}, gib,
               {"defaults", "direct", "curl", "raw"}),
      Transfer("ranges", "Download 256 x 4 MiB", "download", {Set("bytes", gib), "range=4194304"},
               gib, {"defaults", "curl"}),
      Transfer("put", "Upload 5 x 99 MiB by PUT", "upload",
               {Set("bytes", simple), Set("calls", uploads)}, simple * uploads,
               {"defaults", "curl"}),
      Transfer("session", "Upload 1 GiB by session", "upload", {Set("bytes", gib)}, gib,
               {"defaults"}),
      {.name = "lookup",
       .title = "10,000 lookups",
       .kind = "lookup",
       .parameters = {Set("calls", lookups)},
       .amount = lookups,
       .others = {"defaults"},
       .most_added_us = kAddedPerLookup},
      Listing("list-short", "List 10,000 by 200", entries, 200),
      Listing("list-long", "List 100,000 by 200", entries * 10, 200),
      Listing("list-page", "List 10,000 at once", entries, entries)};
  for (const std::int64_t threads : {1, 4, 16}) {
    const std::vector<Case> more = ThreadCases(threads, quick);
    cases.insert(cases.end(), more.begin(), more.end());
  }
  cases.push_back({.name = "start",
                   .title = "Load and first Connect",
                   .kind = "start",
                   .parameters = {},
                   .amount = 1,
                   .others = {},
                   .repeats = kMostRepeats});
  return cases;
}

std::vector<Side> SweepSides(bool upload) {
  std::vector<Side> sides;
  for (std::int64_t size = 16 << 10; size <= (upload ? 2 << 20 : 512 << 10); size *= 2) {
    sides.push_back(
        {"bare", "", "bench_bare", {Set(upload ? "upload_buffer" : "receive_buffer", size)}});
  }
  return sides;
}

}  // namespace bench
