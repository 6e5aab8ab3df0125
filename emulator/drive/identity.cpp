#include "emulator/drive/identity.h"

namespace emulator {

Json::Value ToJson(const Identity& identity) {
  Json::Value value;
  value["id"] = identity.id;
  value["displayName"] = identity.display_name;
  value["email"] = identity.email;
  return value;
}

Identity ToIdentity(const Json::Value& value) {
  return {value["id"].asString(), value["displayName"].asString(), value["email"].asString()};
}

}  // namespace emulator
