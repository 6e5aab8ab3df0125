// Values of the "Content-Type" header.
#pragma once

namespace onedrive4b {

inline constexpr const char* kJsonContent = "application/json; charset=UTF-8";
inline constexpr const char* kBinaryContent = "application/octet-stream";

}  // namespace onedrive4b
