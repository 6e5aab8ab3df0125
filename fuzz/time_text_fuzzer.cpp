// Times and their texts. Input: a zone, the seconds of a moment, then a text.
#include <array>
#include <chrono>
#include <cstdlib>

#include "fuzz/input.h"
#include "helpers/time_conversion.h"

namespace {

// Without daylight saving, where times of day are neither skipped nor repeated.
constexpr std::array<const char*, 4> kPlainZones = {"UTC0", "JST-9", "NPT-5:45", "HST10"};
constexpr std::array<const char*, 2> kOtherZones = {"CET-1CEST,M3.5.0,M10.5.0/3",
                                                    "EST5EDT,M3.2.0,M11.1.0"};

// The years 0 to 9999.
constexpr long long kFirst = -62167219200;
constexpr long long kLast = 253402300799;

void SetZone(const char* zone) {
  setenv("TZ", zone, 1);  // NOLINT(concurrency-mt-unsafe): there is one thread
  tzset();
}

std::string TextByCalendar(long long time) {
  using std::chrono::floor;
  const std::chrono::sys_seconds moment{std::chrono::seconds(time)};
  const auto day = floor<std::chrono::days>(moment);
  const std::chrono::year_month_day date{day};
  const std::chrono::hh_mm_ss clock{moment - day};
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.000Z",
                static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
                static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()));
  return text.data();
}

void CheckMoment(std::time_t time, bool plain_zone) {
  const std::string text = TimeToRFC3339(time);
  Require(text == TextByCalendar(time), "a moment shows its date and time in UTC");
  if (plain_zone) Require(RFC3339ToLocalTM(text) == time, "its text reads as the moment");
  AdjustOffsetForServerTime(time);
}

void CheckText(const std::string& text, bool plain_zone) {
  const std::time_t local = RFC3339ToTM(text);
  const std::time_t moment = RFC3339ToLocalTM(text);
  AdjustServerTimeOffset(text);
  Require(NoAdjustServerTimeOffset(text) == text, "left as it is");
  const bool far = local < kFirst || local > kLast || moment < kFirst || moment > kLast;
  if (far || !plain_zone) return;
  Require(RFC3339ToTM(TimeToRFC3339(moment)) == local, "local time and moment belong together");
  CheckMoment(moment, plain_zone);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const auto zone = static_cast<std::size_t>(NumberIn(input.Line()) & 7);
  const bool plain_zone = zone < kPlainZones.size();
  SetZone(plain_zone ? kPlainZones[zone] : kOtherZones[zone % kOtherZones.size()]);
  const long long time = NumberIn(input.Line());
  if (time >= kFirst && time <= kLast) {
    CheckMoment(time, plain_zone);
  } else {
    TimeToRFC3339(time);
  }
  CheckText(std::string(input.Rest()), plain_zone);
  return 0;
}
