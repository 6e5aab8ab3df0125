#include "protocol/upload.h"

#include <algorithm>
#include <cstdio>

#include "protocol/host_memory.h"
#include "protocol/onedrivebiz.h"
#include "protocol/request_headers.h"
#include "protocol/response_json.h"
#include "support/edge.h"
#include "support/log.h"
#include "transport/transfer_handle.h"

namespace onedrive4b {

// An upload session and its progress.
struct UploadSession {
  std::string url;
  std::string expiry;
  std::uint64_t start = 0;   // file offset of the next chunk
  std::uint64_t length = 0;  // of the next chunk; all that is left until the chunk is cut
  std::uint64_t size = 0;

  bool IsLastChunk() const { return start + length == size; }

  std::string ContentRange() const {
    return "bytes " + std::to_string(start) + "-" + std::to_string(start + length - 1) + "/" +
           std::to_string(size);
  }
};

namespace {

constexpr std::int64_t kLargestSimpleUpload = 104857599;
constexpr std::uint64_t kLargestChunk = 10485760;
constexpr long kLowSpeedTimeout = 60;  // seconds

// Tells the service what to do if the name is taken.
constexpr const char* kConflictBehavior = "@name.conflictBehavior";

// Both requests of a large upload are logged under this name.
constexpr const char* kUploadLargeItem = "UploadLargeItem";

AERROR TakeSession(const _CURLRTN& exchange, UploadSession& session) {
  try {
    const JsonObject reply = ParseBody(exchange);
    session.url = TextAt(reply, "/uploadUrl");
    session.expiry = TextAt(reply, "/expirationDateTime");
    return SUCCESS;
  } catch (...) {
    return FAILED;
  }
}

// The service names the ranges it expects; they are logged and do not steer the upload.
AERROR TakeChunkAccepted(const _CURLRTN& exchange, UploadSession& session) {
  try {
    const JsonObject reply = ParseBody(exchange);
    JsonObject ranges = reply.GetObject("/nextExpectedRanges");
    for (int index = 0; index < static_cast<int>(ranges.GetArraySize()); ++index) {
      __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s nextExpectedRanges: %s", "operator()",
               static_cast<std::string>(ranges[index]).c_str());
    }
  } catch (...) {
    return FAILED;
  }
  session.start += session.length;
  session.length = session.size - session.start;
  return session.length != 0 ? RETRY : SUCCESS;
}

// Sends the source's bytes as the request's body.
_CURLRTN Send(OneDriveBizCURL& request, _UPLOAD_SOURCE& source, std::int64_t speed_limit) {
  const auto size = static_cast<long long>(source.remaining);
  request.SetSpeedLimit(speed_limit);
  request.SetPostFileSize(size);
  request.SetLowSpeedTimeout(kLowSpeedTimeout);
  // The body can then be sent again: after a redirect, or after a kept connection was closed.
  request.SetBodySeek(&seek_callback_cache_func, &source);
  request.StopWith(source.handle);
  return request.PerformPost(reinterpret_cast<void*>(&read_callback_cache_func), &source, size);
}

// False if the host's cache did not deliver a valid piece.
bool Fill(_CACHEIO_REQUEST& piece, ICacheIO& cache) {
  const std::uint64_t wanted = piece.length;
  try {
    return cache.ReadCache(&piece) == 0 && piece.done > 0 && piece.done <= wanted;
  } catch (...) {
    return false;
  }
}

}  // namespace

std::size_t read_callback_cache_func(void* buffer, std::size_t size, std::size_t count,
                                     void* source) {
  auto& from = *static_cast<_UPLOAD_SOURCE*>(source);
  if (IsStopped(*from.handle)) return CURL_READFUNC_ABORT;
  if (from.remaining == 0) return 0;
  _CACHEIO_REQUEST piece;
  piece.buffer = static_cast<char*>(buffer);
  piece.offset = static_cast<std::int64_t>(from.offset);
  piece.length = std::min<std::uint64_t>(size * count, from.remaining);
  piece.handle = from.handle;
  piece.remaining = from.remaining;
  if (!Fill(piece, *from.cache)) return CURL_READFUNC_ABORT;
  from.offset += piece.done;
  from.remaining -= piece.done;
  SetPosition(*from.handle, from.offset);
  return piece.done;
}

int seek_callback_cache_func(void* source, curl_off_t offset, int origin) {
  auto& from = *static_cast<_UPLOAD_SOURCE*>(source);
  const std::uint64_t end = from.offset + from.remaining;
  if (origin != SEEK_SET || offset < 0 || static_cast<std::uint64_t>(offset) > end - from.begin) {
    return CURL_SEEKFUNC_FAIL;
  }
  from.offset = from.begin + static_cast<std::uint64_t>(offset);
  from.remaining = end - from.offset;
  return CURL_SEEKFUNC_OK;
}

AERROR OneDriveBiz::Upload(const char* parent, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* cache,
                           _FS_FILE_V2* file, UPLOAD_FLAG, char** message) {
  return AtEdge([&] {
    if (!handle || cache == nullptr || file == nullptr || file->size < 0) return INVALID_PARAMETER;
    // The URL would contain the name only up to its first NUL, perhaps the name of another file.
    if (file->filename.find('\0') != std::string::npos) return INVALID_PARAMETER;
    if (!SignedIn()) return FS_NEED_AUTHORIZE;
    return file->size > kLargestSimpleUpload
               ? UploadLargeItem(parent, handle, cache, file, message)
               : UploadSimpleItem(parent, handle, cache, file, message);
  });
}

bool OneDriveBiz::MustBeNew(const _FS_FILE_V2& file) const {
  return upload_if_new_ && TextOrEmpty(file.eTag.get())[0] == '\0';
}

AERROR OneDriveBiz::UploadSimpleItem(const char* parent, std::shared_ptr<_FS_HANDLE> handle,
                                     ICacheIO* cache, _FS_FILE_V2* file, char**) {
  const auto step = [&](const std::shared_ptr<OneDriveBizCURL>& request) {
    const std::string url =
        GetUrl(parent) + ":/" + request->Escape(file->filename.c_str()) + ":/content";
    request->SetRequest("PUT");
    if (upload_if_match_) RequireMatch(*request, file->eTag);
    Address(request, MustBeNew(*file) ? url + "?" + kConflictBehavior + "=fail" : url);
    __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s file [%s] length [%lld]", "operator()",
             file->filename.c_str(), static_cast<long long>(file->size));
    _UPLOAD_SOURCE source{0, handle, cache, static_cast<std::uint64_t>(file->size), 0};
    SetPosition(*handle, 0);
    request->BindHandle(handle);
    return Send(*request, source, speedlimit_);
  };
  return Query("UploadSimpleItem", step,
               {.by_class = {{200, ItemHandler(parent, file)}}, .stop = StopOf(*handle)});
}

AERROR OneDriveBiz::UploadLargeItem(const char* parent, std::shared_ptr<_FS_HANDLE> handle,
                                    ICacheIO* cache, _FS_FILE_V2* file, char**) {
  UploadSession session;
  session.size = session.length = static_cast<std::uint64_t>(file->size);
  const AERROR made = MakeUploadSession(parent, handle, *file, session);
  if (made != SUCCESS || session.url.empty()) return FILE_WRITE_FAILED;
  return SendChunks(parent, handle, cache, session, file);
}

AERROR OneDriveBiz::MakeUploadSession(const char* parent, const std::shared_ptr<_FS_HANDLE>& handle,
                                      const _FS_FILE_V2& file, UploadSession& session) {
  const auto step = [&](const std::shared_ptr<OneDriveBizCURL>& request) {
    const std::string url =
        GetUrl(parent) + ":/" + request->Escape(file.filename.c_str()) + ":/upload.createSession";
    JsonObject body = JsonObject::GetEmptyObject();
    body["item"]["name"] = file.filename;
    if (MustBeNew(file)) body["item"][kConflictBehavior] = "fail";
    request->AddHeader("Content-Type", kJsonContent);
    if (upload_if_match_) RequireMatch(*request, file.eTag);
    Address(request, url);
    request->StopWith(handle);
    return request->PerformPost(body.ToText());
  };
  const StatusHandler made([&](_CURLRTN& exchange) { return TakeSession(exchange, session); }, "");
  return Query(kUploadLargeItem, step, {.by_class = {{200, made}}, .stop = StopOf(*handle)});
}

AERROR OneDriveBiz::SendChunks(const char* parent, const std::shared_ptr<_FS_HANDLE>& handle,
                               ICacheIO* cache, UploadSession& session, _FS_FILE_V2* file) {
  SetPosition(*handle, 0);
  UploadProgress progress{{handle->progress, handle->progressctx, nullptr}, file->size, 0, 0};
  const auto step = [&](const std::shared_ptr<OneDriveBizCURL>& request) {
    request->BindUpload(progress);
    // The URL carries its own authorisation: send no token, and do not log its query.
    request->SetPreauthenticatedURL(session.url.c_str());
    request->SetRequest("PUT");
    session.length = std::min(session.length, kLargestChunk);
    request->AddHeader("Content-Range", session.ContentRange());
    request->AddHeader("Content-Type", kBinaryContent);
    _UPLOAD_SOURCE source{session.start, handle, cache, session.length, session.start};
    return Send(*request, source, speedlimit_);
  };
  const StatusHandler accepted(
      [&](_CURLRTN& exchange) { return TakeChunkAccepted(exchange, session); }, "");
  const StatusHandler stored(
      [&](_CURLRTN& exchange) {
        _FS_FILE_V2 item = *file;
        const AERROR result = ItemHandler(parent, &item)(exchange);
        if (result != SUCCESS) return result;
        // If an earlier chunk is answered with an item, the file is incomplete unless its size is
        // that of the whole file.
        const bool whole = session.IsLastChunk() || item.size == file->size;
        if (whole) *file = std::move(item);
        return whole ? SUCCESS : FAILED;
      },
      "");
  // Any other answer below 400 would count as success, although the file is not stored.
  const StatusHandler unexpected([](_CURLRTN&) { return FAILED; }, "");
  return Query(kUploadLargeItem, step,
               {.by_class = {{200, unexpected}, {300, unexpected}},
                .by_status = {{200, stored}, {201, stored}, {202, accepted}},
                .stop = StopOf(*handle)});
}

}  // namespace onedrive4b
