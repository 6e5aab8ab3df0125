// Reading and writing JSON documents that came from outside: nothing here throws for bad content.
//
// Pure functions, callable from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <json/value.h>

namespace base {

/// The document that `text` holds; nothing when it breaks a rule of JSON (RFC 8259), names a member
/// twice or is nested too deep.
std::optional<Json::Value> ParseJson(std::string_view text);

/// The object that `text` holds. Allows what is harmless in documents of others: comments, members
/// named twice, text behind the document.
std::optional<Json::Value> ParseJsonObject(std::string_view text);

/// Member `name` as text; nothing when `object` is not an object or the member is missing or not a
/// text.
std::optional<std::string> TextMember(const Json::Value& object, const std::string& name);

/// Member `name` as an object; an empty one when it is missing or something else.
Json::Value ObjectMember(const Json::Value& object, const std::string& name);

/// Compact UTF-8 text without a final line feed.
std::string CompactJson(const Json::Value& value);

/// Indented UTF-8 text with a final line feed.
std::string PrettyJson(const Json::Value& value);

}  // namespace base
