#include "support/json_object.h"

#include <cstring>
#include <string_view>
#include <utility>

#include <json/reader.h>
#include <json/writer.h>

#include "support/text.h"

namespace onedrive4b {

namespace {

Json::Value Parse(const char* begin, const char* end) {
  // Comments are accepted, but keeping them costs more than the rest of the parse.
  constexpr bool kCollectComments = false;
  Json::Value document;
  try {
    Json::Reader reader;
    if (reader.parse(begin, end, document, kCollectComments)) return document;
  } catch (const Json::Exception&) {
    // Nested deeper than the reader allows.
  }
  throw JSON_PARSE_FAILED;
}

bool IsAsciiSpace(char character) {
  return character == ' ' || (character >= '\t' && character <= '\r');
}

}  // namespace

JsonObject::JsonObject(const char* text, unsigned int length)
    : target(&root), root(Parse(text, text + length)) {}

JsonObject::JsonObject(const char* text) : target(&root) {
  if (text != nullptr) root = Parse(text, text + std::strlen(text));
}

JsonObject::JsonObject(Json::Value& value) : target(&value) {}

JsonObject::JsonObject(const JsonObject& source)
    : target(source.root.isNull() ? source.target : &root), root(source.root) {}

JsonObject& JsonObject::operator=(const JsonObject& source) {
  if (this == &source) return *this;
  if (source.root.isNull()) {
    *target = *source.target;
  } else {
    root = source.root;
    target = &root;
  }
  return *this;
}

JsonObject& JsonObject::operator=(std::string text) {
  *target = text;
  return *this;
}

JsonObject JsonObject::GetEmptyObject() { return JsonObject("{}"); }

JsonObject JsonObject::Copy() { return JsonObject(*target); }

// Null when a member along the path is missing.
Json::Value* JsonObject::Find(const char* path) const {
  Json::Value* value = target;
  std::string_view rest = path;
  while (value != nullptr && !rest.empty()) {
    const std::string_view piece = rest.substr(0, rest.find('/'));
    rest.remove_prefix(std::min(piece.size() + 1, rest.size()));
    if (piece.empty()) continue;
    // jsoncpp looks up without creating through a pointer to const only.
    value = const_cast<Json::Value*>(value->find(piece.data(), piece.data() + piece.size()));
  }
  return value;
}

JsonObject JsonObject::GetObject(const char* path) const {
  Json::Value* value = Find(path);
  if (value == nullptr) throw ACCESS_VIOLATION;
  return JsonObject(*value);
}

std::optional<JsonObject> JsonObject::FindObject(const char* path) const {
  Json::Value* value = Find(path);
  if (value == nullptr) return std::nullopt;
  return std::optional<JsonObject>(std::in_place, *value);
}

bool JsonObject::HasObject(const char* path) const { return Find(path) != nullptr; }

JsonObject JsonObject::operator[](const char* key) { return JsonObject((*target)[key]); }

JsonObject JsonObject::operator[](int index) { return JsonObject((*target)[index]); }

unsigned int JsonObject::GetArraySize() const { return target->size(); }

std::vector<std::string> JsonObject::GetKeys() const { return target->getMemberNames(); }

bool JsonObject::IsValid() const { return !target->isNull(); }

bool JsonObject::IsArray() const { return target->isArray(); }

bool JsonObject::Insert(const char* key, const JsonObject& value) {
  // Copied first: `value` may refer to the value that is about to change.
  Json::Value copy = *value.target;
  (*target)[key] = std::move(copy);
  return true;
}

bool JsonObject::Insert(const char* key, const std::wstring& text) {
  (*target)[key] = ws2s(text);
  return true;
}

bool JsonObject::InsertArrayItem(std::string text) {
  target->append(Json::Value(text));
  return true;
}

bool JsonObject::InsertArrayItem(JsonObject& item) {
  target->append(Json::Value(*item.target));
  return true;
}

bool JsonObject::RemoveArrayItem(unsigned long index) {
  Json::Value removed;
  return target->removeIndex(static_cast<Json::ArrayIndex>(index), &removed);
}

bool JsonObject::Remove(const char* key) {
  Json::Value removed;  // jsoncpp before 1.9 writes to it
  return target->removeMember(key, &removed);
}

JsonObject::operator std::string() const {
  std::string text = target->asString();
  text.resize(std::strlen(text.c_str()));
  return text;
}

JsonObject::operator std::wstring() const { return s2ws(static_cast<std::string>(*this)); }

JsonObject::operator unsigned long long() const { return target->asUInt64(); }

JsonObject::operator long long() const { return target->asInt64(); }

JsonObject::operator long() const { return target->asInt64(); }

JsonObject::operator int() const { return static_cast<int>(target->asInt64()); }

JsonObject::operator AERROR() const { return static_cast<AERROR>(static_cast<int>(*this)); }

JsonObject::operator double() const { return target->asDouble(); }

JsonObject::operator bool() const { return target->asBool(); }

std::string JsonObject::ToText() const {
  const std::string text = Json::FastWriter().write(*target);
  std::string_view trimmed = text;
  while (!trimmed.empty() && IsAsciiSpace(trimmed.back())) trimmed.remove_suffix(1);
  while (!trimmed.empty() && IsAsciiSpace(trimmed.front())) trimmed.remove_prefix(1);
  return std::string(trimmed);
}

}  // namespace onedrive4b
