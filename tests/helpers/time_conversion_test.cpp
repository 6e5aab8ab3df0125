// Hunts times that shift: by the zone, by daylight saving, or by what the text says after the
// seconds.
#include "helpers/time_conversion.h"

#include <chrono>
#include <cstdlib>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "support/time_text.h"

namespace {

// Sets the process's zone for one scope.
class Zone {
 public:
  explicit Zone(const char* name) {
    setenv("TZ", name, 1);
    tzset();
  }
  Zone(const Zone&) = delete;
  Zone& operator=(const Zone&) = delete;
  ~Zone() {
    unsetenv("TZ");
    tzset();
  }
};

constexpr const char* kTokyo = "JST-9";
constexpr const char* kNepal = "NPT-5:45";
constexpr const char* kBerlin = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr const char* kNewYork = "EST5EDT,M3.2.0,M11.1.0";

TEST(TimeText, WritesAMomentInUtcWhateverTheZone) {
  struct Case {
    std::time_t time;
    const char* text;
  };
  for (const char* name : {"UTC0", kTokyo, kNepal, kBerlin, kNewYork}) {
    const Zone zone(name);
    for (const Case& c : {Case{0, "1970-01-01T00:00:00.000Z"},
                          {-1, "1969-12-31T23:59:59.000Z"},
                          {1443875696, "2015-10-03T12:34:56.000Z"},
                          {1752580800, "2025-07-15T12:00:00.000Z"},
                          {1445742000, "2015-10-25T03:00:00.000Z"}}) {
      SCOPED_TRACE(std::string(name) + " " + c.text);
      EXPECT_EQ(TimeToRFC3339(c.time), c.text);
      EXPECT_EQ(TimeToUTCRFC3339(c.time), c.text);
      EXPECT_EQ(NoAdjustOffsetForServerTime(c.time), c.text);
      std::tm local{};
      localtime_r(&c.time, &local);
      EXPECT_EQ(TMToUTCRFC3339(&local), c.text);
    }
  }
}

TEST(TimeText, WritesFieldsAsTheyStand) {
  const Zone zone(kTokyo);
  std::tm fields{};
  fields.tm_year = 115;
  fields.tm_mon = 9;
  fields.tm_mday = 3;
  fields.tm_hour = 4;
  fields.tm_min = 5;
  fields.tm_sec = 6;
  EXPECT_EQ(TMToRFC3339(&fields), "2015-10-03T04:05:06.000Z");
  fields.tm_year = 2147483647;
  fields.tm_mon = 2147483647;
  EXPECT_TRUE(TMToRFC3339(&fields).ends_with("T04:05:06.000Z"));
}

TEST(TimeText, ReadsFieldsAsLocalStandardTime) {
  struct Case {
    const char* zone;
    const char* text;
    std::time_t as_local;    // RFC3339ToTM
    std::time_t as_instant;  // RFC3339ToLocalTM
  };
  for (const Case& c : {
           Case{"UTC0", "1970-01-01T00:00:00Z", 0, 0},
           {kTokyo, "1970-01-01T00:00:00Z", -32400, 0},
           {kNepal, "1970-01-01T00:00:00Z", -20700, 0},
           {kNewYork, "1970-01-01T00:00:00Z", 18000, 0},
           // The fields are read as standard time also in summer.
           {kBerlin, "2025-07-15T12:00:00Z", 1752577200, 1752580800},
           {kTokyo, "2015-10-03T12:34:56.789+09:00", 1443843296, 1443875696},
       }) {
    SCOPED_TRACE(std::string(c.zone) + " " + c.text);
    const Zone zone(c.zone);
    EXPECT_EQ(RFC3339ToTM(c.text), c.as_local);
    EXPECT_EQ(RFC3339ToLocalTM(c.text), c.as_instant);
  }
}

TEST(TimeText, ShiftsByTheLocalOffset) {
  struct Case {
    const char* zone;
    const char* epoch_plus_offset;  // AdjustOffsetForServerTime(0)
    const char* winter;             // AdjustServerTimeOffset of 2025-01-15T12:00:00Z
  };
  for (const Case& c : {
           Case{"UTC0", "1970-01-01T00:00:00.000Z", "2025-01-15T12:00:00.000Z"},
           {kTokyo, "1970-01-01T09:00:00.000Z", "2025-01-14T18:00:00.000Z"},
           {kNepal, "1970-01-01T05:45:00.000Z", "2025-01-15T00:30:00.000Z"},
           {kBerlin, "1970-01-01T01:00:00.000Z", "2025-01-15T10:00:00.000Z"},
           {kNewYork, "1969-12-31T19:00:00.000Z", "2025-01-15T22:00:00.000Z"},
       }) {
    SCOPED_TRACE(c.zone);
    const Zone zone(c.zone);
    EXPECT_EQ(AdjustOffsetForServerTime(0), c.epoch_plus_offset);
    EXPECT_EQ(AdjustServerTimeOffset("2025-01-15T12:00:00Z"), c.winter);
  }
  EXPECT_EQ(NoAdjustServerTimeOffset("any text"), "any text");
  EXPECT_EQ(NoAdjustServerTimeOffset(""), "");
}

TEST(TimeText, SurvivesTextThatIsNoTime) {
  const Zone zone("UTC0");
  for (const char* text : {"", "x", "2015", "2015-10-03", "99999999999-99999999999-1T1:1:1",
                           "-2147483648--2147483648-1T0:0:0"}) {
    RFC3339ToLocalTM(text);
    AdjustServerTimeOffset(text);
  }
  EXPECT_EQ(RFC3339ToTM("2015-10"), RFC3339ToTM("2015-10-00T00:00:00"));
}

TEST(TimeText, NowHasMillisecondsAndNoZone) {
  const Zone zone(kTokyo);
  // Not std::time(): the kernel's coarse clock may lag a tick behind and still show the old second.
  const auto second = [] {
    using std::chrono::system_clock;
    return TimeToRFC3339(system_clock::to_time_t(system_clock::now())).substr(0, 19);
  };
  const std::string before = second();
  const std::string now = GetSystemTimeRfc3339();
  const std::string after = second();
  EXPECT_TRUE(std::regex_match(now, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3})"))) << now;
  EXPECT_LE(before, now.substr(0, 19));
  EXPECT_LE(now.substr(0, 19), after);
}

}  // namespace
