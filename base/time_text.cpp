#include "base/time_text.h"

#include <cstdint>
#include <ctime>

namespace base {

std::optional<std::chrono::sys_time<std::chrono::nanoseconds>> ParseRfc3339(
    const std::string& text) {
  using std::chrono::nanoseconds;
  std::tm parts{};
  const char* rest = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
  if (rest == nullptr) return std::nullopt;
  std::int64_t fraction = 0;
  if (*rest == '.') {
    std::int64_t unit = 100'000'000;
    for (++rest; *rest >= '0' && *rest <= '9'; ++rest, unit /= 10) fraction += (*rest - '0') * unit;
  }
  if (std::string(rest) != "Z") return std::nullopt;
  const std::chrono::sys_seconds seconds(std::chrono::seconds(::timegm(&parts)));
  return std::chrono::sys_time<nanoseconds>(seconds) + nanoseconds(fraction);
}

}  // namespace base
