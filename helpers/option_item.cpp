#include "helpers/option_item.h"

using onedrive4b::JsonObject;

namespace {

const char* TextOrEmpty(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

JsonObject ProtocolUtil::createItem(char* name, char* value, char* label, char* defaultValue,
                                    bool readOnly, bool optional) {
  JsonObject document = JsonObject::GetEmptyObject();
  JsonObject item = document[TextOrEmpty(name)];
  item["value"] = std::string(TextOrEmpty(value));
  item["label"] = std::string(TextOrEmpty(label));
  if (defaultValue != nullptr) item["default"] = std::string(defaultValue);
  item.Insert("read_only", JsonObject(readOnly ? "true" : "false"));
  item.Insert("optional", JsonObject(optional ? "true" : "false"));
  return document;
}
