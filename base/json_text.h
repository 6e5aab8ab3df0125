// Reading and writing untrusted JSON documents: invalid content causes no exception.
//
// Pure functions, callable from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <json/value.h>

namespace base {

/// The document in `text`; empty if it violates a rule of JSON (RFC 8259), contains a member twice
/// or is nested too deep.
std::optional<Json::Value> ParseJson(std::string_view text);

/// The object in `text`. Allows what is harmless in other programs' documents: comments, repeated
/// members, text after the document.
std::optional<Json::Value> ParseJsonObject(std::string_view text);

/// Member `name` as text; empty optional if `object` is not an object, or if the member is missing
/// or not a text.
std::optional<std::string> TextMember(const Json::Value& object, const std::string& name);

/// Member `name` as an object; an empty object if it is missing or not an object.
Json::Value ObjectMember(const Json::Value& object, const std::string& name);

/// Compact UTF-8 text without a final line feed.
std::string CompactJson(const Json::Value& value);

/// Indented UTF-8 text with a final line feed.
std::string PrettyJson(const Json::Value& value);

}  // namespace base
