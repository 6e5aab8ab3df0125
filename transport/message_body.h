// libcurl callbacks that read request bodies from memory and write responses to memory.
//
// The callbacks run on the transferring thread and never throw.
#pragma once

#include <cstddef>
#include <cstdint>

#include <curl/curl.h>

namespace onedrive4b {

/// A request body in memory, as the buffer callbacks read it.
struct BodyCursor {
  const char* data = nullptr;
  std::int64_t offset = 0;  ///< bytes already handed to libcurl
  std::int64_t length = 0;
};

/// libcurl read function over a BodyCursor.
std::size_t read_callback_buf_func(char* buffer, std::size_t size, std::size_t count, void* cursor);
/// libcurl seek function over a BodyCursor.
int read_callback_buf_seek_func(void* cursor, curl_off_t distance, int origin);

/// libcurl write function that appends to an evbuffer; refuses bytes that would make a collected
/// response larger than 256 MiB.
std::size_t write_callback_ev_func(char* data, std::size_t size, std::size_t count, void* buffer);

}  // namespace onedrive4b
