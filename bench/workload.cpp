#include "bench/workload.h"

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <latch>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <malloc.h>
#include <sys/resource.h>

namespace bench {
namespace {

constexpr std::int64_t kCacheSize = 4 << 20;

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

// KiB, from a line such as "VmHWM:	    5432 kB".
long StatusValue(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name + ":")) return std::stol(line.substr(name.size() + 1));
  }
  throw std::runtime_error("/proc/self/status has no " + name);
}

// Makes VmHWM start again from what is in use now.
void ResetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

class Meter {
 public:
  void Start() {
    heap_ = HeapInUse();
    ResetPeak();
    idle_ = StatusValue("VmRSS");
    begin_ = std::chrono::steady_clock::now();
    getrusage(RUSAGE_SELF, &before_);
  }

  void Stop() {
    getrusage(RUSAGE_SELF, &after_);
    wall_ = std::chrono::steady_clock::now() - begin_;
  }

  void Print(std::int64_t amount) const {
    const double user = Seconds(after_.ru_utime) - Seconds(before_.ru_utime);
    const double system = Seconds(after_.ru_stime) - Seconds(before_.ru_stime);
    const long peak = StatusValue("VmHWM");
    const long after = StatusValue("VmRSS");
    const std::int64_t kept = HeapInUse() - heap_;
    malloc_trim(0);
    std::printf(
        "{\"wall\":%.6f,\"user\":%.6f,\"sys\":%.6f,\"amount\":%lld,\"idle_kib\":%ld,"
        "\"peak_kib\":%ld,\"after_kib\":%ld,\"trimmed_kib\":%ld,\"heap_kept\":%lld}\n",
        wall_.count(), user, system, static_cast<long long>(amount), idle_, peak, after,
        StatusValue("VmRSS"), static_cast<long long>(kept));
  }

 private:
  static std::int64_t HeapInUse() {
    const auto info = mallinfo2();
    return static_cast<std::int64_t>(info.uordblks + info.hblkhd);
  }

  std::chrono::steady_clock::time_point begin_;
  std::chrono::duration<double> wall_{};
  rusage before_{};
  rusage after_{};
  long idle_ = 0;
  std::int64_t heap_ = 0;
};

// A host has more threads than the one that calls, and the C library's allocator is slower from the
// second thread on. The module brings one; so that both sides are alike, here is one for both.
class IdleThread {
 public:
  IdleThread(const IdleThread&) = delete;
  IdleThread& operator=(const IdleThread&) = delete;
  IdleThread() = default;
  ~IdleThread() {
    end_.count_down();
    thread_.join();
  }

 private:
  std::latch end_{1};
  std::thread thread_{[this] { end_.wait(); }};
};

// Threads that begin their work together. Keeps the first thing that one of them throws.
class Team {
 public:
  std::int64_t Run(int size, const std::function<void(int)>& warm_up,
                   const std::function<std::int64_t(int)>& work, Meter& meter) {
    std::barrier gate(size + 1);
    std::vector<std::thread> threads;
    threads.reserve(static_cast<std::size_t>(size));
    for (int index = 0; index < size; ++index) {
      threads.emplace_back([&, index] {
        Guard([&] { warm_up(index); });
        gate.arrive_and_wait();
        gate.arrive_and_wait();
        Guard([&] { amount_ += work(index); });
      });
    }
    gate.arrive_and_wait();
    meter.Start();
    gate.arrive_and_wait();
    for (std::thread& thread : threads) thread.join();
    meter.Stop();
    if (failure_) std::rethrow_exception(failure_);
    return amount_;
  }

 private:
  template <typename Task>
  void Guard(const Task& task) {
    try {
      task();
    } catch (...) {
      const std::lock_guard guard(mutex_);
      if (!failure_) failure_ = std::current_exception();
    }
  }

  std::mutex mutex_;
  std::exception_ptr failure_;
  std::atomic<std::int64_t> amount_ = 0;
};

}  // namespace

Workload ParseWorkload(int count, char** arguments) {
  if (count < 3) throw std::invalid_argument("usage: PROGRAM KIND ORIGIN [NAME=VALUE]...");
  Workload workload{.kind = arguments[1], .origin = arguments[2]};
  const std::map<std::string, std::int64_t*> numbers = {
      {"bytes", &workload.bytes},
      {"range", &workload.range},
      {"calls", &workload.calls},
      {"entries", &workload.entries},
      {"page", &workload.page},
      {"delay", &workload.delay},
      {"threads", &workload.threads},
      {"receive_buffer", &workload.receive_buffer},
      {"upload_buffer", &workload.upload_buffer},
      {"staged", &workload.staged},
      {"raw", &workload.raw},
      {"shared", &workload.shared}};
  for (int index = 3; index < count; ++index) {
    const std::string argument = arguments[index];
    const std::size_t equals = argument.find('=');
    const auto number = numbers.find(argument.substr(0, equals));
    if (equals == std::string::npos || number == numbers.end()) {
      throw std::invalid_argument("no such parameter: " + argument);
    }
    *number->second = std::stoll(argument.substr(equals + 1));
  }
  if (workload.range == 0) workload.range = workload.bytes;
  if (workload.threads < 1) throw std::invalid_argument("threads must be at least 1");
  return workload;
}

void RunWorkload(const Workload& workload, const Measurements& by_kind) {
  const auto measure = by_kind.find(workload.kind);
  if (measure == by_kind.end()) {
    throw std::invalid_argument("no such kind of workload: " + workload.kind);
  }
  measure->second(workload);
}

std::string Endpoint(const Workload& workload) {
  return workload.origin + "/personal/demo_contoso_example/_api/v2.0";
}

std::string ItemId(const Workload& workload) {
  return workload.delay == 0 ? "item" : "after-" + std::to_string(workload.delay);
}

std::string FolderId(std::int64_t entries, std::int64_t page) {
  return "list-" + std::to_string(entries) + "-" + std::to_string(page);
}

void Measure(const Workload& workload, const std::function<void(int)>& warm_up,
             const std::function<std::int64_t(int)>& work) {
  const IdleThread idle;
  Meter meter;
  if (workload.threads > 1) {
    Team team;
    meter.Print(team.Run(static_cast<int>(workload.threads), warm_up, work, meter));
    return;
  }
  warm_up(0);
  meter.Start();
  const std::int64_t amount = work(0);
  meter.Stop();
  meter.Print(amount);
}

HostCache::HostCache() : memory_(kCacheSize, 'c') {}

void HostCache::Store(std::int64_t offset, const char* data, std::int64_t length) {
  stored_ += length;
  while (length > 0) {
    const std::int64_t place = offset % kCacheSize;
    const std::int64_t part = std::min(length, kCacheSize - place);
    std::memcpy(memory_.data() + place, data, static_cast<std::size_t>(part));
    offset += part;
    data += part;
    length -= part;
  }
}

std::int64_t HostCache::Load(std::int64_t offset, char* buffer, std::int64_t length) const {
  const std::int64_t place = offset % kCacheSize;
  const std::int64_t part = std::min(length, kCacheSize - place);
  std::memcpy(buffer, memory_.data() + place, static_cast<std::size_t>(part));
  return part;
}

}  // namespace bench
