// The sending side of an upload.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include <curl/curl.h>

#include "onedrive4b/interfaces.h"

namespace onedrive4b {

/// What one request body is read from. Lives in the frame of one attempt, on one thread.
struct _UPLOAD_SOURCE {
  std::uint64_t offset;  ///< file offset of the next byte
  std::shared_ptr<_FS_HANDLE> handle;
  ICacheIO* cache;
  std::uint64_t remaining;  ///< bytes of the body not yet produced

  std::uint64_t begin;  ///< file offset of the body's first byte, for rewinding
};

/// libcurl read function over an _UPLOAD_SOURCE. Ends the transfer when the host stops it, when its
/// cache fails, and when it gives nothing or more than was asked for.
std::size_t read_callback_cache_func(void* buffer, std::size_t size, std::size_t count,
                                     void* source);

/// libcurl seek function over an _UPLOAD_SOURCE: a body can be sent again from any of its bytes.
int seek_callback_cache_func(void* source, curl_off_t offset, int origin);

}  // namespace onedrive4b
