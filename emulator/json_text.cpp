#include "emulator/json_text.h"

#include <memory>

#include <json/reader.h>
#include <json/writer.h>

namespace emulator {

std::string ToText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

std::optional<Json::Value> ParseJson(std::string_view text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
      return std::nullopt;
    }
  } catch (const Json::Exception&) {
    return std::nullopt;
  }
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

}  // namespace emulator
