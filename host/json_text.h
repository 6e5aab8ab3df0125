// Reading and writing JSON documents that came from outside: nothing here throws for bad content.
//
// Pure functions, callable from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <json/value.h>

namespace host {

/// The object that `text` holds; nothing when it is not JSON, not an object or nested too deep.
std::optional<Json::Value> ParseJsonObject(std::string_view text);

/// Member `name` as text; empty when `object` is no object or the member is missing or no text.
std::string TextMember(const Json::Value& object, const char* name);

/// Member `name` as an object; an empty one when it is missing or something else.
Json::Value ObjectMember(const Json::Value& object, const char* name);

/// Compact UTF-8 text without a final line feed.
std::string CompactJson(const Json::Value& value);

/// Indented UTF-8 text with a final line feed.
std::string PrettyJson(const Json::Value& value);

}  // namespace host
