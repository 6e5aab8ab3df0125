// A user of the service, and the user's form in documents.
// Threads: plain values. Lifetime: values own their text.
#pragma once

#include <string>

#include <json/value.h>

namespace emulator {

struct Identity {
  std::string id;
  std::string display_name;
  std::string email;
};

/// {"id": ..., "displayName": ..., "email": ...}
Json::Value ToJson(const Identity& identity);
/// Members that are missing are empty texts.
Identity ToIdentity(const Json::Value& value);

}  // namespace emulator
