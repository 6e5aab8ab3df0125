#include "emulator/http/message.h"

#include <algorithm>
#include <array>

#include "emulator/text/encoding.h"

namespace emulator {

std::optional<std::string> FindHeader(const HeaderList& headers, std::string_view name) {
  for (const auto& [key, value] : headers) {
    if (EqualsIgnoringCase(key, name)) return value;
  }
  return std::nullopt;
}

std::string_view Request::Path() const {
  return std::string_view(target).substr(0, target.find('?'));
}

std::string_view Request::Query() const {
  const auto mark = target.find('?');
  return mark == std::string::npos ? std::string_view() : std::string_view(target).substr(mark + 1);
}

void Response::SetHeader(std::string_view name, std::string value) {
  std::erase_if(headers,
                [&](const auto& header) { return EqualsIgnoringCase(header.first, name); });
  headers.emplace_back(name, std::move(value));
}

Response JsonResponse(int status, std::string text) {
  Response response;
  response.status = status;
  response.headers = {{"Content-Type", "application/json; charset=utf-8"},
                      {"Cache-Control", "private, max-age=0"}};
  response.text = std::move(text);
  return response;
}

Response EmptyResponse(int status) {
  Response response;
  response.status = status;
  return response;
}

std::string_view ReasonPhrase(int status) {
  using Entry = std::pair<int, std::string_view>;
  static constexpr std::array<Entry, 37> kPhrases = {{
      {100, "Continue"},
      {101, "Switching Protocols"},
      {102, "Processing"},
      {103, "Early Hints"},
      {200, "OK"},
      {201, "Created"},
      {202, "Accepted"},
      {204, "No Content"},
      {206, "Partial Content"},
      {301, "Moved Permanently"},
      {302, "Found"},
      {303, "See Other"},
      {304, "Not Modified"},
      {307, "Temporary Redirect"},
      {308, "Permanent Redirect"},
      {400, "Bad Request"},
      {401, "Unauthorized"},
      {403, "Forbidden"},
      {404, "Not Found"},
      {405, "Method Not Allowed"},
      {408, "Request Timeout"},
      {409, "Conflict"},
      {410, "Gone"},
      {411, "Length Required"},
      {412, "Precondition Failed"},
      {413, "Content Too Large"},
      {416, "Range Not Satisfiable"},
      {423, "Locked"},
      {429, "Too Many Requests"},
      {431, "Request Header Fields Too Large"},
      {500, "Internal Server Error"},
      {501, "Not Implemented"},
      {502, "Bad Gateway"},
      {503, "Service Unavailable"},
      {504, "Gateway Timeout"},
      {507, "Insufficient Storage"},
      {509, "Bandwidth Limit Exceeded"},
  }};
  const auto* const found = std::find_if(kPhrases.begin(), kPhrases.end(),
                                         [&](const Entry& entry) { return entry.first == status; });
  return found == kPhrases.end() ? "Unknown" : found->second;
}

}  // namespace emulator
