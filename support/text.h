// Text functions that the module itself uses. Callable from any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "onedrive4b/export.h"

/// UTF-8 to wide characters and back, up to U+10FFFF. Malformed text throws std::range_error.
/// Exported under their C++ names.
ONEDRIVE4B_EXPORT std::wstring s2ws(const std::string& text);
ONEDRIVE4B_EXPORT std::string ws2s(const std::wstring& text);

namespace onedrive4b {

/// The pieces between slashes, which point into `text`. A slash at the start and consecutive
/// slashes produce empty pieces; a slash at the end does not. A text without a slash, even an empty
/// text, is one piece.
std::vector<std::string_view> SplitAtSlash(std::string_view text);

}  // namespace onedrive4b
