#include "protocol/download.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string_view>

#include "protocol/onedrivebiz.h"
#include "support/edge.h"
#include "transport/transfer_handle.h"

namespace onedrive4b {

namespace {

constexpr long kPartialContent = 206;

// An error document up to this size is read to its end, so that its connection can be reused.
constexpr std::int64_t kLongestErrorDocument = 1 << 20;

std::string_view ResponseHeader(CURL* curl, const char* name) {
  constexpr int kLastRequest = -1;
  curl_header* header = nullptr;
  if (curl_easy_header(curl, name, 0, CURLH_HEADER, kLastRequest, &header) != CURLHE_OK) return {};
  return header->value;
}

// Whether a partial answer can be the range from `start` on (RFC 9110, section 14.4). Content-Range
// says where it begins; without this header the status is trusted. The offsets in an encoded body
// or in one of several parts are not those of the file.
bool CanStartAt(CURL* curl, std::int64_t start) {
  const std::string_view encoding = ResponseHeader(curl, "Content-Encoding");
  if (!encoding.empty() && encoding != "identity") return false;
  if (ResponseHeader(curl, "Content-Type").starts_with("multipart/")) return false;
  const std::string_view range = ResponseHeader(curl, "Content-Range");
  return range.empty() || range.starts_with("bytes " + std::to_string(start) + "-");
}

// Decides, when the body begins, what it is.
void JudgeBody(_FETCH_CONTEXT& fetch) {
  const long status = GetInfo(fetch.curl, CURLINFO_RESPONSE_CODE, 0L);
  fetch.delivered = status / 100 == 2;
  if (status == kPartialContent) {
    if (!CanStartAt(fetch.curl, fetch.start)) fetch.ended = CURLE_RANGE_ERROR;
  } else {
    fetch.skip = fetch.start;
  }
}

void Flush(_FETCH_CONTEXT& fetch) {
  fetch.callback->OnFetch(fetch.offset, fetch.buffer.data(), fetch.fill, 0);
  fetch.offset += fetch.fill;
  fetch.remaining -= fetch.fill;
  fetch.fill = 0;
}

// Accepts the bytes of the range; any further byte ends the transfer.
void Take(_FETCH_CONTEXT& fetch, std::string_view piece) {
  const auto skipped =
      static_cast<std::size_t>(std::min<std::int64_t>(fetch.skip, std::ssize(piece)));
  piece.remove_prefix(skipped);
  fetch.skip -= static_cast<std::int64_t>(skipped);
  while (!piece.empty() && !IsStopped(*fetch.handle)) {
    const std::int64_t room = std::min<std::int64_t>(std::ssize(fetch.buffer), fetch.remaining);
    if (room == 0) {
      fetch.ended = CURLE_OK;
      return;
    }
    const std::size_t length =
        piece.copy(fetch.buffer.data() + fetch.fill, static_cast<std::size_t>(room - fetch.fill));
    piece.remove_prefix(length);
    fetch.fill += static_cast<std::int32_t>(length);
    if (fetch.fill == room) Flush(fetch);
  }
}

AERROR ResultOf(int status) {
  switch (status) {
    case 403:
      return ACCESS_DENIED;
    case 404:
      return FILE_NOT_FOUND;
    case 416:
      return HANDLE_EOF;
    default:
      return status / 100 == 2 ? SUCCESS : FAILED;
  }
}

AERROR TakeLastPiece(_FETCH_CONTEXT& fetch, int status) {
  const AERROR result = ResultOf(status);
  if (result == SUCCESS && fetch.fill > 0) {
    try {
      Flush(fetch);
    } catch (...) {
      // The host already has the whole range.
    }
  }
  return result;
}

// If the write function ended the transfer, its reason becomes the result: the range is complete,
// the answer is another range, or the receiver failed.
void ApplyVerdict(const _FETCH_CONTEXT& fetch, _CURLRTN& result) {
  if (!fetch.ended || result.curlcode != CURLE_WRITE_ERROR) return;
  result.curlcode = *fetch.ended;
  if (result.curlcode == CURLE_OK) {
    result.httpcode = static_cast<std::int32_t>(GetInfo(fetch.curl, CURLINFO_RESPONSE_CODE, 0L));
  }
}

void Restart(_FETCH_CONTEXT& fetch, std::int64_t offset, std::int64_t length) {
  fetch.offset = fetch.start = offset;
  fetch.remaining = length;
  fetch.received = 0;
  fetch.fill = 0;
  fetch.delivered.reset();
  fetch.skip = 0;
  fetch.ended.reset();
}

}  // namespace

std::size_t write_callback_cache_func(void* data, std::size_t size, std::size_t count,
                                      void* context) {
  auto& fetch = *static_cast<_FETCH_CONTEXT*>(context);
  const std::string_view piece(static_cast<const char*>(data), size * count);
  if (!fetch.delivered) JudgeBody(fetch);
  if (fetch.ended) return 0;
  if (*fetch.delivered) {
    try {
      Take(fetch, piece);
    } catch (...) {
      fetch.ended = CURLE_ABORTED_BY_CALLBACK;
    }
  } else if (fetch.received > kLongestErrorDocument) {
    fetch.ended = CURLE_OK;
  }
  if (fetch.ended || IsStopped(*fetch.handle)) return 0;
  fetch.received += std::ssize(piece);
  return piece.size();
}

AERROR OneDriveBiz::Read(const char* id, std::int64_t offset, std::int64_t length,
                         std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* callback, char**) {
  return AtEdge([&] {
    if (!handle || callback == nullptr || offset < 0) return INVALID_PARAMETER;
    if (length <= 0) return SUCCESS;
    if (length > std::numeric_limits<std::int64_t>::max() - offset) return INVALID_PARAMETER;
    if (!SignedIn()) return FS_NEED_AUTHORIZE;
    const std::string url = GetUrl(id) + "/content";
    const std::string range =
        "bytes=" + std::to_string(offset) + "-" + std::to_string(offset + length - 1);
    _FETCH_CONTEXT fetch;  // 64 KiB of it are not worth clearing
    fetch.handle = handle;
    fetch.callback = callback;
    const auto step = [&](const std::shared_ptr<OneDriveBizCURL>& request) {
      request->AddHeader("Range", range);
      Address(request, url);
      Restart(fetch, offset, length);
      fetch.curl = request->GetCURL();
      request->SetSpeedLimit(speedlimit_);
      request->BindHandleForDownload(handle);
      request->StopWith(handle);
      _CURLRTN result =
          request->PerformGet(reinterpret_cast<void*>(&write_callback_cache_func), &fetch);
      ApplyVerdict(fetch, result);
      return result;
    };
    const StatusHandler handler(
        [&](_CURLRTN& exchange) { return TakeLastPiece(fetch, exchange.httpcode); }, "");
    const AERROR result = Query("Read", step,
                                {.by_status = {{kAnyStatus, handler}},
                                 .curl_errors = {{CURLE_WRITE_ERROR, READ_CANCELED}},
                                 .stop = StopOf(*handle)});
    // The host's stop request also ends waits and silent transfers, which fail with other codes.
    return result == FAILED && IsStopped(*handle) ? READ_CANCELED : result;
  });
}

}  // namespace onedrive4b
