// Times as the service writes them: RFC 3339 in UTC.
//
// Pure functions, callable from any thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace base {

/// "2026-02-03T04:05:06Z", with a fraction of up to nine digits. Nothing for any other text.
std::optional<std::chrono::sys_time<std::chrono::nanoseconds>> ParseRfc3339(
    const std::string& text);

}  // namespace base
