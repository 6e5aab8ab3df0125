// JSON documents to text and back.
// Threads: all functions are pure. Lifetime: results own their memory.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <json/value.h>

namespace emulator {

/// Without indentation, characters beyond ASCII as UTF-8.
std::string ToText(const Json::Value& value);

/// nullopt: not a JSON document, or one nested too deeply.
std::optional<Json::Value> ParseJson(std::string_view text);

/// The member of an object when it is a text; nullopt otherwise.
std::optional<std::string> TextMember(const Json::Value& object, const std::string& name);

/// The member of an object when it is an object; an empty object otherwise.
Json::Value ObjectMember(const Json::Value& object, const std::string& name);

}  // namespace emulator
