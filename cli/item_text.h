// The output of items, for people and as JSON.
//
// Pure functions, callable from any thread.
#pragma once

#include <cstdint>
#include <string>

#include <json/value.h>

#include "host/item.h"

namespace cli {

/// Escaped, with a slash after a folder's name.
std::string DisplayName(const host::Item& item);

std::string SizeText(std::int64_t size, bool bytes);

/// "2026-01-02T03:04:05Z" as "2026-01-02 03:04:05"; another form unchanged, escaped.
std::string TimeText(const std::string& time);

Json::Value ItemJson(const std::string& path, const host::Item& item);

}  // namespace cli
