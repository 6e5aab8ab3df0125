#include "emulator/api/content_service.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

#include "emulator/drive/names.h"
#include "emulator/http/service_error.h"
#include "emulator/text/encoding.h"

namespace emulator {
namespace {

struct ByteRange {
  std::uint64_t first = 0;
  std::uint64_t length = 0;
};

std::optional<std::uint64_t> ToNumber(std::string_view text) {
  std::uint64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool whole = result.ec == std::errc() && result.ptr == text.data() + text.size();
  return whole ? std::optional(number) : std::nullopt;
}

ServiceError NotSatisfiable(std::uint64_t size) {
  return ServiceError(416, "invalidRange", "The range lies beyond the end of the file.")
      .WithHeader("Content-Range", "bytes */" + std::to_string(size));
}

/// RFC 9110 section 14.2: one range is honoured; anything else is ignored (nullopt), and one that
/// begins beyond the end is refused.
std::optional<ByteRange> ReadRange(const std::string& header, std::uint64_t size) {
  std::string_view text = header;
  if (!text.starts_with("bytes=")) return std::nullopt;
  text.remove_prefix(text.find('=') + 1);
  const auto dash = text.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  const auto first = ToNumber(text.substr(0, dash));
  const auto last = ToNumber(text.substr(dash + 1));
  if (!first) {
    if (dash != 0 || !last) return std::nullopt;
    if (*last == 0 || size == 0) throw NotSatisfiable(size);
    const std::uint64_t length = std::min(*last, size);
    return ByteRange{.first = size - length, .length = length};
  }
  if (!last && dash + 1 != text.size()) return std::nullopt;
  if (last && *last < *first) return std::nullopt;
  if (*first >= size) throw NotSatisfiable(size);
  const std::uint64_t end = last ? std::min(*last, size - 1) : size - 1;
  return ByteRange{.first = *first, .length = end - *first + 1};
}

}  // namespace

Response ContentService::Handle(Request& request) {
  if (request.Header("Authorization")) {
    throw Unauthenticated("A pre-authenticated URL must not be used with an access token.");
  }
  if (request.Path().ends_with("/uploadSession")) return sessions_.Handle(request);
  if (request.Path().ends_with("/download.aspx")) return Download(request);
  throw ItemNotFound();
}

Response ContentService::Download(const Request& request) const {
  if (request.method != "GET" && request.method != "HEAD") throw MethodNotAllowed("GET, HEAD");
  const auto target = links_.Read(request);
  if (!target) throw Unauthenticated("The download URL is not valid, or has expired.");
  const auto drive = std::find_if(drives_.begin(), drives_.end(),
                                  [&](const Drive* one) { return one->Id() == target->drive_id; });
  const auto item = drive == drives_.end() ? std::nullopt : (*drive)->FindItem(target->item_id);
  const ContentPtr content = item ? (*drive)->FindContent(item->id) : nullptr;
  if (!content) throw ItemNotFound();

  Response response;
  response.headers = {
      {"Content-Type", MimeType(item->name)},
      {"Accept-Ranges", "bytes"},
      {"ETag", item->ETag()},
      {"Last-Modified", HttpDate(item->modified)},
      {"Content-Disposition", "attachment; filename*=UTF-8''" + PercentEncode(item->name)}};
  response.content = content;
  response.content_length = content->Size();
  // A range that is meant for another version (If-Range) is ignored, too.
  const auto only_for = request.Header("If-Range");
  if (only_for && *only_for != item->ETag()) return response;
  if (const auto range = ReadRange(request.Header("Range").value_or(""), content->Size())) {
    response.status = 206;
    response.content_offset = range->first;
    response.content_length = range->length;
    response.SetHeader("Content-Range", "bytes " + std::to_string(range->first) + "-" +
                                            std::to_string(range->first + range->length - 1) + "/" +
                                            std::to_string(content->Size()));
  }
  return response;
}

}  // namespace emulator
