#include "support/time_text.h"

#include <array>
#include <cstdio>

namespace {

constexpr long long kFirstYear = 1900;  // struct tm counts years from here, and months from 0

}  // namespace

std::string TMToRFC3339(std::tm* time) {
  if (time == nullptr) return {};
  std::array<char, 128> buffer{};  // room for fields far outside their ranges
  std::snprintf(buffer.data(), buffer.size(), "%04lld-%02lld-%02dT%02d:%02d:%02d.000Z",
                time->tm_year + kFirstYear, time->tm_mon + 1LL, time->tm_mday, time->tm_hour,
                time->tm_min, time->tm_sec);
  return buffer.data();
}
