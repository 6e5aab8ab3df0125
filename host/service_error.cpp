#include "host/service_error.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <string_view>

#include <curl/curl.h>

namespace host {
namespace {

constexpr std::string_view kMark = ">> ";

std::string WithoutTag(const std::string& line) {
  const std::size_t end = line.find("] ");
  return line.starts_with('[') && end != std::string::npos ? line.substr(end + 2) : line;
}

/// The module's forms: ">> HTTP 404", ">> ON HTTP 404 : ...", ">> ON HTTP(for any code) 404 : ..."
/// and ">> ON HTTP RANGE 200(206) : ...", where the first number is a class.
int StatusIn(std::string_view reason) {
  std::size_t at = reason.find("HTTP");
  if (at == std::string_view::npos) return 0;
  reason.remove_prefix(at + 4);
  at = reason.starts_with(" RANGE") ? reason.find('(')
       : reason.starts_with("(")    ? reason.find(')')
                                    : 0;
  if (at != std::string_view::npos) at = reason.find_first_of("0123456789", at);
  if (at == std::string_view::npos) return 0;
  int status = 0;
  std::from_chars(reason.data() + at, reason.data() + reason.size(), status);
  return status;
}

/// The transfer library's error whose text this is.
std::optional<CURLcode> TransferErrorIn(std::string_view reason) {
  for (int code = CURLE_OK + 1; code < CURL_LAST; ++code) {
    if (reason == curl_easy_strerror(static_cast<CURLcode>(code))) {
      return static_cast<CURLcode>(code);
    }
  }
  return std::nullopt;
}

ServiceError ReadLine(const std::string& line) {
  ServiceError error;
  error.line = WithoutTag(line);
  const std::size_t at = error.line.rfind(kMark);
  if (at == std::string::npos) return error;
  const std::string_view reason = std::string_view(error.line).substr(at + kMark.size());
  error.throttled = reason == "No more backoff";
  error.status = StatusIn(reason);
  if (error.status != 0) return error;
  const std::optional<CURLcode> transfer = TransferErrorIn(reason);
  error.lost = transfer.has_value();
  error.proxy = transfer == CURLE_COULDNT_RESOLVE_PROXY || transfer == CURLE_PROXY;
  return error;
}

struct StatusMeaning {
  int status;
  FailureKind kind;
  const char* advice;
};

constexpr auto kMeanings = std::to_array<StatusMeaning>({
    {400, FailureKind::kRefused, "the service does not accept this name or request"},
    {401, FailureKind::kSignIn, "run 'onedrive4b login' again"},
    {403, FailureKind::kDenied, "the account has no permission for this"},
    {404, FailureKind::kNotFound, "the item no longer exists; list the folder again"},
    {409, FailureKind::kConflict,
     "an item of this name already exists, or another change is in progress"},
    {412, FailureKind::kChanged, "the item was changed by someone else; list the folder again"},
    {413, FailureKind::kTooLarge, "the file is too large for the service"},
    {416, FailureKind::kChanged, "the file is shorter now; list the folder again"},
    {423, FailureKind::kLocked,
     "the item is locked, perhaps because it is open somewhere; try later"},
    {429, FailureKind::kThrottled, "the service receives too many requests; try again later"},
    {503, FailureKind::kThrottled, "the service receives too many requests; try again later"},
    {507, FailureKind::kQuota, "the drive is full"},
});

const StatusMeaning* MeaningOf(int status) {
  const auto* const found =
      std::find_if(kMeanings.begin(), kMeanings.end(),
                   [&](const StatusMeaning& known) { return known.status == status; });
  return found == kMeanings.end() ? nullptr : found;
}

FailureKind KindOf(AERROR result) {
  switch (result) {
    case FILE_NOT_FOUND:
    case PATH_NOT_FOUND:
      return FailureKind::kNotFound;
    case ACCESS_DENIED:
      return FailureKind::kDenied;
    case HANDLE_EOF:
      return FailureKind::kChanged;
    case FS_NEED_AUTHORIZE:
    case AUTH_FAILED:
      return FailureKind::kSignIn;
    case READ_CANCELED:
    case UPLOAD_CANCELED:
      return FailureKind::kInterrupted;
    default:
      return FailureKind::kFailed;
  }
}

}  // namespace

ServiceError ReadServiceError(const std::vector<std::string>& lines) {
  for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
    ServiceError error = ReadLine(*line);
    if (error.status != 0 || error.lost || error.throttled) return error;
  }
  return lines.empty() ? ServiceError{} : ReadLine(lines.back());
}

FailureKind KindOf(AERROR result, const ServiceError& error) {
  if (const StatusMeaning* meaning = MeaningOf(error.status)) return meaning->kind;
  if (error.status >= 500) return FailureKind::kTrouble;
  if (error.throttled) return FailureKind::kThrottled;
  if (error.proxy) return FailureKind::kProxy;
  const FailureKind kind = KindOf(result);
  return error.lost && kind == FailureKind::kFailed ? FailureKind::kUnreachable : kind;
}

std::string AdviceFor(const ServiceError& error) {
  if (const StatusMeaning* meaning = MeaningOf(error.status)) return meaning->advice;
  if (error.status >= 500) return "the service reports a fault of its own; try later";
  if (error.throttled) return "the service receives too many requests; try again later";
  return "";
}

}  // namespace host
