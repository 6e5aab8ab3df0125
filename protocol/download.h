// The receiving side of a download.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include <curl/curl.h>

#include "onedrive4b/interfaces.h"

namespace onedrive4b {

/// State of one transfer to the host: what has arrived, and where it belongs. Lives in the frame of
/// one Read call, on one thread.
struct _FETCH_CONTEXT {
  std::int64_t offset;     ///< file offset of the first byte in `buffer`
  std::int64_t remaining;  ///< bytes of the range not yet handed to the host
  std::int64_t start;      ///< first offset of the range
  std::int64_t received;   ///< bytes accepted from the network
  std::shared_ptr<_FS_HANDLE> handle;
  std::array<char, 65536> buffer;
  std::int32_t fill;  ///< bytes in `buffer`
  IFetchCallback* callback;

  CURL* curl;                     ///< asked for status and headers when the body begins
  std::optional<bool> delivered;  ///< whether the body is file content; unknown before it begins
  std::int64_t skip;              ///< bytes of the body that lie before the range
  std::optional<CURLcode> ended;  ///< why the write function itself has ended the transfer
};

/// libcurl write function over a _FETCH_CONTEXT: hands the range to the host in pieces of 64 KiB,
/// the last one as soon as it is complete. Bytes outside the range and bodies of errors are
/// dropped.
std::size_t write_callback_cache_func(void* data, std::size_t size, std::size_t count,
                                      void* context);

}  // namespace onedrive4b
