// Broken-down times as text.
#pragma once

#include <ctime>
#include <string>

#include "onedrive4b/export.h"

/// "YYYY-MM-DDThh:mm:ss.000Z" with the unchanged fields: local fields result in local wall time
/// with a "Z". "" for null. Callable from any thread. Exported under its C++ name.
ONEDRIVE4B_EXPORT std::string TMToRFC3339(std::tm* time);
