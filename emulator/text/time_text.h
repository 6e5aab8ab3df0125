// Times as the service writes them.
// Threads: all functions are pure. Lifetime: results own their text.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace emulator {

using Seconds = std::chrono::sys_seconds;

Seconds Now();

/// RFC 3339 with Z: "2026-02-03T04:05:06Z".
std::string Rfc3339(Seconds time);

/// Accepts a fraction of a second and drops it; nullopt when it is no UTC time of that form.
std::optional<Seconds> ParseRfc3339(const std::string& text);

/// RFC 9110 section 5.6.7: "Tue, 03 Feb 2026 04:05:06 GMT".
std::string HttpDate(Seconds time);

}  // namespace emulator
