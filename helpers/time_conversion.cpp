#include "helpers/time_conversion.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>

#include <sys/time.h>

#include "support/time_text.h"

namespace {

constexpr int kFirstYear = 1900;  // struct tm counts years from here, and months from 0

// UTC fields of a moment; all zero for one whose year does not fit.
std::tm ToUtc(std::time_t time) {
  std::tm fields{};
  gmtime_r(&time, &fields);
  return fields;
}

std::time_t LocalOffsetAt(std::time_t time) {
  std::tm utc = ToUtc(time);
  return static_cast<std::time_t>(std::difftime(time, std::mktime(&utc)));
}

std::string UtcTextOfLocal(std::tm local) {
  std::tm utc = ToUtc(std::mktime(&local));
  return TMToRFC3339(&utc);
}

// Year and month as struct tm counts them, without leaving the range of int.
int Rebased(int field, int base) {
  return static_cast<int>(
      std::max<long long>(field - static_cast<long long>(base), std::numeric_limits<int>::min()));
}

// Daylight saving is off in the result; mktime does not get to decide.
std::tm Parse(const std::string& text) {
  std::tm fields{};
  // NOLINTNEXTLINE(cert-err34-c): fields that do not convert stay 0, as they should
  std::sscanf(text.c_str(), "%d-%d-%dT%d:%d:%d", &fields.tm_year, &fields.tm_mon, &fields.tm_mday,
              &fields.tm_hour, &fields.tm_min, &fields.tm_sec);
  fields.tm_year = Rebased(fields.tm_year, kFirstYear);
  fields.tm_mon = Rebased(fields.tm_mon, 1);
  return fields;
}

}  // namespace

std::string TMToUTCRFC3339(std::tm* time) {
  if (time == nullptr) return {};
  std::mktime(time);
  return UtcTextOfLocal(*time);
}

std::string TimeToRFC3339(std::time_t time) {
  std::tm local{};
  tzset();  // unlike mktime, localtime_r does not look whether the zone has changed
  localtime_r(&time, &local);
  return UtcTextOfLocal(local);
}

std::string TimeToUTCRFC3339(std::time_t time) { return TimeToRFC3339(time); }

std::string NoAdjustOffsetForServerTime(std::time_t time) { return TimeToRFC3339(time); }

std::string AdjustOffsetForServerTime(std::time_t time) {
  std::tm reference{};
  reference.tm_year = 2015 - kFirstYear;
  reference.tm_mon = 9;
  reference.tm_mday = 3;
  reference.tm_isdst = -1;
  return TimeToRFC3339(time + LocalOffsetAt(std::mktime(&reference)));
}

std::string NoAdjustServerTimeOffset(std::string time) { return time; }

std::string AdjustServerTimeOffset(std::string time) {
  std::tm fields = Parse(time);
  const std::time_t standard = std::mktime(&fields);
  fields.tm_isdst = -1;
  return TimeToRFC3339(standard - LocalOffsetAt(std::mktime(&fields)));
}

std::time_t RFC3339ToTM(std::string time) {
  std::tm fields = Parse(time);
  return std::mktime(&fields);
}

std::time_t RFC3339ToLocalTM(std::string time) {
  std::tm fields = Parse(time);
  const std::time_t standard = std::mktime(&fields);
  return standard + LocalOffsetAt(std::mktime(&fields));
}

std::string GetSystemTimeRfc3339() {
  timeval now{};
  gettimeofday(&now, nullptr);
  const std::tm utc = ToUtc(now.tv_sec);
  std::array<char, 128> buffer{};
  std::snprintf(buffer.data(), buffer.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%03d",
                utc.tm_year + kFirstYear, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min,
                utc.tm_sec, static_cast<int>(now.tv_usec / 1000));
  return buffer.data();
}
