#include "emulator/text/time_text.h"

#include <array>
#include <ctime>

namespace emulator {
namespace {

std::string Format(Seconds time, const char* format) {
  const std::time_t seconds = time.time_since_epoch().count();
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  std::array<char, 64> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), format, &parts);
  return {text.data(), length};
}

}  // namespace

Seconds Now() {
  return std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
}

std::string Rfc3339(Seconds time) { return Format(time, "%Y-%m-%dT%H:%M:%SZ"); }

std::optional<Seconds> ParseRfc3339(const std::string& text) {
  std::tm parts{};
  const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
  if (rest == nullptr) return std::nullopt;
  if (*rest == '.') {
    do ++rest;
    while (*rest >= '0' && *rest <= '9');
  }
  if (std::string(rest) != "Z") return std::nullopt;
  return Seconds(std::chrono::seconds(timegm(&parts)));
}

// strftime's names of days and months are English: the program never calls setlocale.
std::string HttpDate(Seconds time) { return Format(time, "%a, %d %b %Y %H:%M:%S GMT"); }

}  // namespace emulator
