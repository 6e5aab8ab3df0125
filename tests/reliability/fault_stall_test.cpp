// Every operation meets silence. Hunts calls that never return, and transfers that the host cannot
// end. All wait at once, each with a service and an object of its own.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/reliability/fault_cell.h"

namespace {

using emulator::Cut;
using emulator::Place;
using emulator::Response;
using faults::FaultService;
using faults::Operation;
using faults::Rig;
using Clock = std::chrono::steady_clock;

// libcurl's time-outs pass twenty times as fast.
constexpr long kSpeed = 20;
std::atomic<bool> hurry = false;
std::atomic<long> longest_timeout = 0;  // seconds

bool IsTimeout(CURLoption option) {
  return option == CURLOPT_LOW_SPEED_TIME || option == CURLOPT_CONNECTTIMEOUT;
}

}  // namespace

// The linker gives the module's calls of curl_easy_setopt to this function.
extern "C" CURLcode __real_curl_easy_setopt(CURL* handle, CURLoption option, ...);
extern "C" CURLcode __wrap_curl_easy_setopt(CURL* handle, CURLoption option, ...);
CURLcode __wrap_curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  std::va_list arguments;
  va_start(arguments, option);
  CURLcode result = CURLE_OK;
  if (option < CURLOPTTYPE_OBJECTPOINT) {
    long value = va_arg(arguments, long);
    if (hurry && IsTimeout(option)) {
      longest_timeout = std::max<long>(longest_timeout, value);
      value = std::max(value / kSpeed, 1L);
    }
    result = __real_curl_easy_setopt(handle, option, value);
  } else if (option >= CURLOPTTYPE_OFF_T && option < CURLOPTTYPE_BLOB) {
    result = __real_curl_easy_setopt(handle, option, va_arg(arguments, curl_off_t));
  } else {
    result = __real_curl_easy_setopt(handle, option, va_arg(arguments, void*));
  }
  va_end(arguments);
  return result;
}

namespace {

struct Silence {
  const char* name;
  Place place;
  bool from_the_start = false;  // not even TLS is spoken
  bool connecting = false;      // there is not even a connection
};

// One cell: waits until the call returns.
struct Stalled {
  Stalled(const Operation& met, const Silence& how)
      : operation(met), silence(how), rig(!met.connects) {}

  void Break() {
    if (silence.connecting) {
      rig.service.LeaveWaiting();
      return;
    }
    if (silence.from_the_start) {
      rig.service.ListenSilently();
      return;
    }
    rig.service.Break(operation.key, [place = silence.place](Response& response) {
      if (response.status == 204) response = emulator::JsonResponse(200, "{}");
      response.delivery.cut = Cut::kStall;
      response.delivery.place = place;
      response.delivery.after_bytes = 1;
    });
  }

  void Run() {
    const auto before = Clock::now();
    result = rig.Run(operation);
    took = Clock::now() - before;
  }

  const Operation& operation;
  Silence silence;
  Rig rig;
  AERROR result = SUCCESS;
  Clock::duration took{};
};

class FaultStall : public faults::FaultTest {};

TEST_F(FaultStall, EveryCallReturns) {
  std::vector<std::unique_ptr<Stalled>> cells;
  for (const Operation& operation : faults::Operations()) {
    for (const Silence& silence : {Silence{"once connected", {}, true},
                                   {"in the request", Place::kInRequestBody},
                                   {"before the answer", Place::kBeforeAnswer},
                                   {"in the headers", Place::kInHeaders},
                                   {"in the body", Place::kInBody}}) {
      if (silence.from_the_start && operation.before != 0) continue;
      cells.push_back(std::make_unique<Stalled>(operation, silence));
    }
  }
  cq.free.clear();  // so that all are made anew, with shorter time-outs
  hurry = true;
  time.Advance(std::chrono::hours(2));
  std::vector<std::future<void>> calls;
  for (const auto& cell : cells) {
    cell->Break();
    calls.push_back(std::async(std::launch::async, [&cell] { cell->Run(); }));
  }
  for (std::future<void>& call : calls) call.get();
  hurry = false;
  EXPECT_EQ(longest_timeout, 60) << "seconds, but for the hurry";
  for (const auto& cell : cells) {
    SCOPED_TRACE(cell->operation.name + ", silence " + cell->silence.name);
    EXPECT_STREQ(GetAERRORA(cell->result), GetAERRORA(cell->operation.failure));
    EXPECT_LT(cell->took, std::chrono::seconds(15));
    // The only byte that came is no piece of a file.
    EXPECT_EQ(cell->rig.reached, cell->operation.untouched);
    cell->rig.service.Heal();
    EXPECT_EQ(cell->rig.Run(cell->operation), SUCCESS) << "the next one works";
  }
  EXPECT_LE(cq.free.size(), cells.size());
  cq.free.clear();
}

TEST_F(FaultStall, TheHostEndsASilentTransferWithinASecond) {
  std::vector<std::unique_ptr<Stalled>> cells;
  for (const char* name :
       {"Read", "Upload", "Upload: session", "Upload: first part", "Upload: next part"}) {
    const Operation& operation = faults::Find(name);
    for (const Silence& silence : {Silence{"while connecting", {}, false, true},
                                   {"once connected", {}, true},
                                   {"in the request", Place::kInRequestBody},
                                   {"before the answer", Place::kBeforeAnswer},
                                   {"in the headers", Place::kInHeaders},
                                   {"in the body", Place::kInBody}}) {
      if ((silence.connecting || silence.from_the_start) && operation.before != 0) continue;
      cells.push_back(std::make_unique<Stalled>(operation, silence));
    }
  }
  cq.free.clear();
  std::vector<std::future<void>> calls;
  for (const auto& cell : cells) {
    cell->Break();
    calls.push_back(std::async(std::launch::async, [&cell] { cell->Run(); }));
  }
  // Long enough for the parts before the one that meets silence.
  std::this_thread::sleep_for(std::chrono::seconds(3));
  for (std::size_t i = 0; i < cells.size(); ++i) {
    EXPECT_EQ(calls[i].wait_for(std::chrono::seconds(0)), std::future_status::timeout)
        << cells[i]->operation.name << ", silence " << cells[i]->silence.name;
  }
  const auto told = Clock::now();
  for (const auto& cell : cells) std::atomic_ref(cell->rig.handle->state).store(3);
  for (std::future<void>& call : calls) call.get();
  EXPECT_LT(Clock::now() - told, std::chrono::milliseconds(1500));
  for (const auto& cell : cells) {
    SCOPED_TRACE(cell->operation.name + ", silence " + cell->silence.name);
    const AERROR expected =
        cell->operation.name == "Read" ? READ_CANCELED : cell->operation.failure;
    EXPECT_STREQ(GetAERRORA(cell->result), GetAERRORA(expected));
    EXPECT_EQ(cell->rig.reached, cell->operation.untouched);
    cell->rig.handle->state = 0;
    cell->rig.service.Heal();
    EXPECT_EQ(cell->rig.Run(cell->operation), SUCCESS) << "the next one works";
  }
  cq.free.clear();
}

}  // namespace
