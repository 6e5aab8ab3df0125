// One item of an options page.
#pragma once

#include "onedrive4b/export.h"
#include "support/json_object.h"

namespace ProtocolUtil {

/// {name: {"value", "label", "default", "read_only", "optional"}}, without "default" if
/// `defaultValue` is null. Any other null text counts as "".
ONEDRIVE4B_EXPORT onedrive4b::JsonObject createItem(char* name, char* value, char* label,
                                                    char* defaultValue, bool readOnly,
                                                    bool optional);

}  // namespace ProtocolUtil
