#include "support/protocol_util.h"

#include <array>
#include <string_view>

using onedrive4b::JsonObject;

namespace {

constexpr std::array<std::string_view, 5> kProxyKinds = {"", "SOCKS4", "SOCKS5", "HTTP with TUNNEL",
                                                         "HTTP without TUNNEL"};

const char* TextOrEmpty(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

int ProtocolUtil::curlProxyType(std::string name) {
  for (std::size_t kind = 1; kind < kProxyKinds.size(); ++kind) {
    if (name == kProxyKinds[kind]) return static_cast<int>(kind);
  }
  return 0;
}

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
