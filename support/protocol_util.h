// Helpers around the host's descriptors and options. Exported: hosts may call them.
#pragma once

#include <string>

#include "onedrive4b/export.h"
#include "support/json_object.h"

namespace ProtocolUtil {

/// Kind of proxy that the request object understands: "SOCKS4" 1, "SOCKS5" 2, "HTTP with TUNNEL" 3,
/// "HTTP without TUNNEL" 4, any other text 0 for none.
ONEDRIVE4B_EXPORT int curlProxyType(std::string name);

/// {name: {"value", "label", "default", "read_only", "optional"}}, without "default" when
/// `defaultValue` is null. Any other null text counts as "".
ONEDRIVE4B_EXPORT onedrive4b::JsonObject createItem(char* name, char* value, char* label,
                                                    char* defaultValue, bool readOnly,
                                                    bool optional);

}  // namespace ProtocolUtil
