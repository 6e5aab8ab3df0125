#include "base/json_text.h"

#include <memory>

#include <json/reader.h>
#include <json/writer.h>

namespace base {
namespace {

std::optional<Json::Value> Parse(std::string_view text, const Json::CharReaderBuilder& rules) {
  const std::unique_ptr<Json::CharReader> reader(rules.newCharReader());
  Json::Value value;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) return value;
  } catch (const Json::Exception&) {
    // Nested deeper than the reader's limit.
  }
  return std::nullopt;
}

std::string Write(const Json::Value& value, const char* indentation) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = indentation;
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

}  // namespace

std::optional<Json::Value> ParseJson(std::string_view text) {
  Json::CharReaderBuilder rules;
  Json::CharReaderBuilder::strictMode(&rules.settings_);
  return Parse(text, rules);
}

std::optional<Json::Value> ParseJsonObject(std::string_view text) {
  Json::CharReaderBuilder rules;
  rules["collectComments"] = false;
  std::optional<Json::Value> value = Parse(text, rules);
  if (value && !value->isObject()) value.reset();
  return value;
}

std::optional<std::string> TextMember(const Json::Value& object, const std::string& name) {
  if (!object.isObject() || !object[name].isString()) return std::nullopt;
  return object[name].asString();
}

Json::Value ObjectMember(const Json::Value& object, const std::string& name) {
  if (!object.isObject() || !object[name].isObject()) return Json::objectValue;
  return object[name];
}

std::string CompactJson(const Json::Value& value) { return Write(value, ""); }

std::string PrettyJson(const Json::Value& value) { return Write(value, "  ") + "\n"; }

}  // namespace base
