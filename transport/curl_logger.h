// A request object that traces its traffic through the host's logger.
#pragma once

#include <string>

#include "transport/request.h"

namespace onedrive4b {

/// Writes libcurl's informational text and all header lines, while the logger wants details, and
/// the transfer rates after each transfer. Fills `errmsg` of its results. The logger is called on
/// the transferring thread; nothing it does changes the outcome of a transfer.
///
/// Header lines are logged as they are sent, including tokens: do not use this class if others may
/// read the log.
class CURLLogger : public CURLImpl {
 public:
  CURLLogger();

  /// Switches tracing on or off as the bound logger wants it; every transfer does so first.
  void InstallLogger();
  /// URL of the last transfer with its query parameters, decoded for display.
  std::string GetLastURL() const { return lasturl; }

  _CURLRTN PerformGet(void* writeFunction, void* writeData) override;
  /// Logged twice: as a text, and as the transfer into which CURLImpl turns it.
  _CURLRTN PerformPost(std::string body) override;
  _CURLRTN PerformPost(void* readFunction, void* readData, long long size) override;

  /// libcurl's debug callback. Always 0.
  static int CURLDebug(CURL* handle, curl_infotype type, char* data, std::size_t size,
                       void* userdata);

 private:
  void BeginTransfer();
  void LogUpload(const _CURLRTN& result, long long size) const;

  std::string lasturl;
};

}  // namespace onedrive4b
