// Text as the module itself needs it. Callable from any thread.
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

/// The pieces between slashes. A slash at the start and consecutive slashes give empty pieces, one
/// at the very end gives no empty last piece, and a text without a slash, the empty one included,
/// is one piece. They point into `text`.
std::vector<std::string_view> SplitAtSlash(std::string_view text);

}  // namespace onedrive4b
