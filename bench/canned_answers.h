// What the benchmark's server answers: texts of the size and shape that the service sends.
#pragma once

#include <cstdint>
#include <string>

namespace bench {

/// A file, or every fifth time a folder; about 1 KiB.
std::string ItemText(const std::string& origin, std::int64_t number);
std::string AccountText();
std::string DiscoveryText(const std::string& origin);
std::string SessionText(const std::string& origin);

/// Items of a page, separated by commas.
std::string PageItems(const std::string& origin, std::int64_t count);
/// What stands before and after them. `link` is that of the next page, "" for none.
std::string PageHead(const std::string& origin, const std::string& link);
inline constexpr const char* kPageTail = "]}";

}  // namespace bench
