#include "transport/curl_logger.h"

#include <algorithm>
#include <limits>
#include <string_view>
#include <utility>

#include "support/log.h"

namespace onedrive4b {

namespace {

int Truncated(double bytes_per_second) {
  return static_cast<int>(
      std::min(bytes_per_second, static_cast<double>(std::numeric_limits<int>::max())));
}

}  // namespace

CURLLogger::CURLLogger() { SetOption(GetCURL(), CURLOPT_ERRORBUFFER, errorbuffer.data()); }

void CURLLogger::InstallLogger() {
  if (logger == nullptr) return;
  bool detailed = false;
  try {
    detailed = logger->IsDetailed();
  } catch (...) {
    // A logger that cannot say gets no details.
  }
  SetOption(GetCURL(), CURLOPT_VERBOSE, detailed ? 1L : 0L);
  if (detailed) {
    SetOption(GetCURL(), CURLOPT_DEBUGFUNCTION, &CURLDebug);
  } else {
    SetOption(GetCURL(), CURLOPT_DEBUGFUNCTION, nullptr);
  }
}

void CURLLogger::BeginTransfer() {
  const std::string parameters = BuildQueryString(false);
  std::string shown = url;
  if (!parameters.empty()) {
    shown += (url.find('?') == std::string::npos ? "?" : "&") + parameters;
  }
  InstallLogger();
  lasturl = Unescape(shown.c_str());
}

_CURLRTN CURLLogger::PerformGet(void* writeFunction, void* writeData) {
  BeginTransfer();
  _CURLRTN result = CURLImpl::PerformGet(writeFunction, writeData);
  __LOG__A(logger, LOGLEVEL_INFO, "[PERF      ] Download %db/s : %s(%d bytes)",
           Truncated(result.downspeed), GetLoggableURL().c_str(), static_cast<int>(result.bodylen));
  return result;
}

_CURLRTN CURLLogger::PerformPost(std::string body) {
  BeginTransfer();
  const auto size = static_cast<long long>(body.size());
  _CURLRTN result = CURLImpl::PerformPost(std::move(body));
  LogUpload(result, size);
  return result;
}

_CURLRTN CURLLogger::PerformPost(void* readFunction, void* readData, long long size) {
  BeginTransfer();
  _CURLRTN result = CURLImpl::PerformPost(readFunction, readData, size);
  LogUpload(result, size);
  return result;
}

void CURLLogger::LogUpload(const _CURLRTN& result, long long size) const {
  __LOG__A(logger, LOGLEVEL_INFO, "[PERF      ] Upload %db/s / Download %db/s : %s(%d / %d bytes)",
           Truncated(result.upspeed), Truncated(result.downspeed), GetLoggableURL().c_str(),
           static_cast<int>(size), static_cast<int>(result.bodylen));
}

int CURLLogger::CURLDebug(CURL*, curl_infotype type, char* data, std::size_t size, void*) {
  const auto log = [&](LOGLEVEL level, const char* format) {
    __LOG__A(logger, level, format, std::string(data, size).c_str());
  };
  const std::string_view text(data, size);
  try {
    if (type == CURLINFO_TEXT) {
      log(LOGLEVEL_DETAIL, "[NETWORK   ] [INFORMATION] %s");
    } else if (type == CURLINFO_HEADER_IN && !text.starts_with('\r')) {
      log(LOGLEVEL_INFO, "[NETWORK   ] [HEADER   >>] %s");
    } else if (type == CURLINFO_HEADER_OUT && !text.starts_with('\r') &&
               !text.starts_with("PASS ")) {
      log(LOGLEVEL_INFO, "[NETWORK   ] [HEADER   <<] %s");
    }
  } catch (...) {
    // A line for which there is no memory is not worth the transfer.
  }
  return 0;
}

}  // namespace onedrive4b
