// Headers that requests of the protocol carry.
#pragma once

#include <memory>

#include "transport/request.h"

namespace onedrive4b {

/// Values of "Content-Type".
inline constexpr const char* kJsonContent = "application/json; charset=UTF-8";
inline constexpr const char* kBinaryContent = "application/octet-stream";

/// Lets the service refuse the request when the item no longer has this entity tag (RFC 9110,
/// section 13.1.1). No condition without a tag.
inline void RequireMatch(CURLImpl& request, const std::shared_ptr<char[]>& etag) {
  if (etag) request.AddHeader<const char*>("if-match", etag.get());
}

}  // namespace onedrive4b
