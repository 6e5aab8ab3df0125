// Hunts answers that reach the wrong handler, waits that are too long or too many, handles that do
// not come back to their pool, and log lines that a host would no longer find.
#include "retry/query_with_backoff.h"

#include <deque>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "retry/backoff.h"
#include "tests/fake_time.h"
#include "tests/log_recorder.h"
#include "transport/request.h"

namespace onedrive4b {
namespace {

// A request object that never sends anything.
class FakeHandle : public CURLImpl {
 public:
  std::string GetScheme() const { return "HTTPS"; }
  std::string GetLastRequest() const { return "GET"; }
};

using Pool = CURLQueue<FakeHandle>;
using Lines = std::vector<std::string>;

_CURLRTN Answer(int status, int curlcode = 0) {
  _CURLRTN result;
  result.httpcode = status;
  result.curlcode = curlcode;
  result.bodylen = 7;
  return result;
}

StatusHandler Returns(AERROR result) {
  return {[result](_CURLRTN&) { return result; }, ""};
}

class QueryTest : public ::testing::Test {
 protected:
  // Runs a query whose attempts get the given answers, in order.
  AERROR Query(std::deque<_CURLRTN> answers, StatusHandlers by_class = {},
               StatusHandlers by_status = {}, TransferErrors errors = {}, const char* name = "Op") {
    auto step = [answers = std::move(answers), this](std::shared_ptr<FakeHandle> handle) mutable {
      ++attempts;
      EXPECT_TRUE(handle->GetURL().empty()) << "a handle comes cleared";
      handle->SetURL("https://x/y");
      handle->AddQuery("select", std::string("a"));
      _CURLRTN answer = answers.at(0);
      answers.pop_front();
      return answer;
    };
    return QueryWithBackoff<ExponentialBackoff>(pool, Step<FakeHandle>(step, name), by_class,
                                                by_status, errors);
  }

  LogRecorder log;
  FakeTime time;
  Pool pool;
  int attempts = 0;
};

TEST_F(QueryTest, PicksExactThenAnyThenClass) {
  struct Case {
    int status;
    bool exact, any, by_class;
    AERROR result;
    const char* line;
  };
  for (const Case& c : {
           Case{206, true, true, true, FAILED,
                "8 [PROTOCOL  ] Op >> ON HTTP 206 : FAILED(0x00000001)"},
           {206, false, true, true, CANCEL,
            "8 [PROTOCOL  ] Op >> ON HTTP(for any code) 206 : CANCEL(0x00000003)"},
           {206, false, false, true, SUCCESS,
            "1 [PROTOCOL  ] Op >> ON HTTP RANGE 200(206) : SUCCESS(0x00000000)"},
           {404, false, true, false, CANCEL,
            "8 [PROTOCOL  ] Op >> ON HTTP(for any code) 404 : CANCEL(0x00000003)"},
           {404, false, false, true, FAILED, "8 [PROTOCOL  ] Op >> HTTP 404"},
           {204, false, false, false, SUCCESS, "1 [PROTOCOL  ] Op >> HTTP 204 has no handler"},
           {304, false, false, true, SUCCESS, "1 [PROTOCOL  ] Op >> HTTP 304 has no handler"},
           {401, true, false, false, FAILED,
            "8 [PROTOCOL  ] Op >> ON HTTP 401 : FAILED(0x00000001)"},
       }) {
    SCOPED_TRACE(c.line);
    log.Clear();
    StatusHandlers by_status;
    if (c.exact) by_status.emplace(c.status, Returns(FAILED));
    if (c.any) by_status.emplace(kAnyStatus, Returns(CANCEL));
    StatusHandlers by_class;
    if (c.by_class) by_class.emplace(200, Returns(SUCCESS));
    EXPECT_EQ(Query({Answer(c.status)}, by_class, by_status), c.result);
    EXPECT_EQ(log.Lines(), (Lines{"1 [PROTOCOL  ] Op >> HTTPS GET >> " + std::to_string(c.status) +
                                      " : https://x/y(7)",
                                  c.line}));
  }
}

TEST_F(QueryTest, BacksOffFiveTimesAndNoHandlerSees429) {
  const std::deque<_CURLRTN> throttled(6, Answer(429));
  EXPECT_EQ(Query(throttled, {}, {{429, Returns(SUCCESS)}, {kAnyStatus, Returns(SUCCESS)}}),
            FAILED);
  EXPECT_EQ(time.waits(), (std::vector<long>{1, 2, 4, 8, 16}));
  EXPECT_EQ(attempts, 6);
  Lines expected;
  for (int left = 5; left >= 0; --left) {
    expected.push_back("1 [PROTOCOL  ] Op >> HTTPS GET >> 429 : https://x/y(7)");
    if (left == 0) break;
    expected.push_back("1 [PROTOCOL  ] Op >> " + std::to_string(left) + " time(s) backoff left");
    expected.push_back("1 [PROTOCOL  ] Op >> Backoff done. Retry");
  }
  expected.push_back("8 [PROTOCOL  ] Op >> No more backoff");
  EXPECT_EQ(log.Lines(), expected);
}

TEST_F(QueryTest, RetryRunsTheExchangeAgainWithoutWaiting) {
  int asked = 0;
  const StatusHandler twice([&](_CURLRTN&) { return ++asked < 3 ? RETRY : SUCCESS; }, "");
  EXPECT_EQ(Query({Answer(200), Answer(429), Answer(200), Answer(200)}, {{200, twice}}), SUCCESS);
  EXPECT_EQ(time.waits(), (std::vector<long>{1}));
  EXPECT_TRUE(log.Has("1 [PROTOCOL  ] Op >> ON HTTP RANGE 200(200) : RETRY(0x00000002)"));
  EXPECT_EQ(pool.free.size(), 1U) << "one handle served all attempts";
}

TEST_F(QueryTest, FailedTransfersAreMappedAndNotRepeated) {
  EXPECT_EQ(Query({Answer(0, CURLE_WRITE_ERROR)}, {}, {{kAnyStatus, Returns(SUCCESS)}},
                  {{CURLE_WRITE_ERROR, READ_CANCELED}}),
            READ_CANCELED);
  EXPECT_EQ(Query({Answer(0, CURLE_COULDNT_CONNECT)}), FAILED);
  EXPECT_EQ(attempts, 2);
  EXPECT_EQ(log.Lines().back(),
            std::string("8 [PROTOCOL  ] Op >> ") + curl_easy_strerror(CURLE_COULDNT_CONNECT));
}

TEST_F(QueryTest, HandlesComeBackAfterExceptions) {
  const StatusHandler throws([](_CURLRTN&) -> AERROR { throw ACCESS_VIOLATION; }, "");
  EXPECT_THROW(Query({Answer(200)}, {{200, throws}}), AERROR);
  EXPECT_THROW(Query({}), std::out_of_range);
  EXPECT_EQ(pool.free.size(), 1U);
}

TEST_F(QueryTest, NeedsACallableAndNamesTheNameless) {
  EXPECT_EQ(
      (QueryWithBackoff<ExponentialBackoff>(pool, Step<FakeHandle>(nullptr, "Op"), {}, {}, {})),
      INVALID_PARAMETER);
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_TRUE(pool.free.empty());
  Query({Answer(204)}, {}, {}, {}, "");
  EXPECT_TRUE(log.Has("[PROTOCOL  ] QueryWithBackoff >> HTTP 204 has no handler"));
}

TEST_F(QueryTest, HandlersSeeTheHandleOfTheAttempt) {
  const StatusHandler handler([](_CURLRTN& exchange) { return exchange.impl ? SUCCESS : FAILED; },
                              "");
  EXPECT_EQ(Query({Answer(200)}, {{200, handler}}), SUCCESS);
  EXPECT_EQ(pool.free.back().use_count(), 1)
      << "the record gave the handle up before the pool got it";
}

TEST(Backoff, AWaitEndsWhenItIsToldTo) {
  const auto begin = SteadyTime::Clock::now();
  ExponentialBackoff policy({429}, 5);
  policy.StopWith(
      [&] { return SteadyTime::Clock::now() - begin > std::chrono::milliseconds(300); });
  EXPECT_EQ(policy.Backoff(), FAILED);
  EXPECT_LT(SteadyTime::Clock::now() - begin, std::chrono::milliseconds(900)) << "of a second";
}

TEST(Backoff, GrantsAtMostSixteenSteps) {
  FakeTime time;
  for (const auto& [asked, granted] :
       {std::pair{-1, 5}, {0, 0}, {3, 3}, {16, 16}, {17, 16}, {100, 16}}) {
    EXPECT_EQ(ExponentialBackoff({429}, asked).GetLeft(), granted) << asked;
  }
  ExponentialBackoff none({429}, 0);
  EXPECT_FALSE(none.IsAvaliable());
  EXPECT_EQ(none.Backoff(), FAILED);
  ExponentialBackoff policy({429, 503}, 2);
  EXPECT_TRUE(policy.IsBackoffCode(503));
  EXPECT_FALSE(policy.IsBackoffCode(500));
  EXPECT_FALSE(ExponentialBackoff({}, 2).IsBackoffCode(429));
  EXPECT_EQ(policy.Backoff(), RETRY);
  EXPECT_EQ(policy.Backoff(), RETRY);
  EXPECT_FALSE(policy.IsAvaliable());
  EXPECT_EQ(time.waits(), (std::vector<long>{1, 2}));
  NoBackoff never;
  EXPECT_FALSE(never.IsBackoffCode(429) || never.IsAvaliable());
  EXPECT_EQ(never.GetLeft(), 0);
  EXPECT_EQ(never.Backoff(), FAILED);
}

}  // namespace
}  // namespace onedrive4b
