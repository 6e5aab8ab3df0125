#include "transport/message_body.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <event2/buffer.h>

namespace onedrive4b {

namespace {

// An honest answer is never larger; a compressed bomb is.
constexpr std::size_t kLargestCollectedResponse = std::size_t{256} << 20;

}  // namespace

std::size_t write_callback_ev_func(char* data, std::size_t size, std::size_t count, void* buffer) {
  auto* collected = static_cast<evbuffer*>(buffer);
  const std::size_t length = size * count;
  if (evbuffer_get_length(collected) + length > kLargestCollectedResponse) return 0;
  return evbuffer_add(collected, data, length) == 0 ? length : 0;
}

std::size_t read_callback_buf_func(char* buffer, std::size_t size, std::size_t count,
                                   void* cursor) {
  auto* body = static_cast<BodyCursor*>(cursor);
  if (body->offset < 0 || body->offset >= body->length) return 0;
  const std::size_t length =
      std::min(size * count, static_cast<std::size_t>(body->length - body->offset));
  std::memcpy(buffer, body->data + body->offset, length);
  body->offset += static_cast<std::int64_t>(length);
  return length;
}

int read_callback_buf_seek_func(void* cursor, curl_off_t distance, int origin) {
  auto* body = static_cast<BodyCursor*>(cursor);
  if (body == nullptr) return CURL_SEEKFUNC_FAIL;
  switch (origin) {
    case SEEK_SET:
      body->offset = distance;
      break;
    case SEEK_CUR:
      body->offset += distance;
      break;
    case SEEK_END:
      body->offset = body->length + distance;
      break;
    default:
      break;
  }
  return CURL_SEEKFUNC_OK;
}

}  // namespace onedrive4b
