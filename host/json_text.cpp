#include "host/json_text.h"

#include <memory>

#include <json/reader.h>
#include <json/writer.h>

namespace host {
namespace {

std::string Write(const Json::Value& value, const char* indentation) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = indentation;
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

}  // namespace

std::optional<Json::Value> ParseJsonObject(std::string_view text) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
      return std::nullopt;
    }
  } catch (const Json::Exception&) {  // nested deeper than the reader's limit
    return std::nullopt;
  }
  if (!value.isObject()) return std::nullopt;
  return value;
}

std::string TextMember(const Json::Value& object, const char* name) {
  if (!object.isObject() || !object[name].isString()) return {};
  return object[name].asString();
}

Json::Value ObjectMember(const Json::Value& object, const char* name) {
  if (!object.isObject() || !object[name].isObject()) return Json::Value(Json::objectValue);
  return object[name];
}

std::string CompactJson(const Json::Value& value) { return Write(value, ""); }

std::string PrettyJson(const Json::Value& value) { return Write(value, "  ") + "\n"; }

}  // namespace host
