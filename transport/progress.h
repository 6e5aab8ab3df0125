// Progress of a transfer, as libcurl's transfer-information callbacks report it to the host.
//
// The callbacks run on the transferring thread and never throw.
#pragma once

#include <cstdint>

#include <curl/curl.h>

#include "onedrive4b/records.h"

namespace onedrive4b {

/// libcurl's progress data points at this: the callback, and the handle whose speed is reported.
struct ProgressBinding {
  ProgressCallback callback = nullptr;  ///< null for none
  void* context = nullptr;
  CURL* curl = nullptr;
};

/// Progress of one upload that is sent in several requests, counted over all of them.
struct UploadProgress : ProgressBinding {
  std::int64_t total = 0;  ///< bytes of the whole upload
  std::int64_t last = 0;   ///< libcurl's count at the previous call within the current request
  std::int64_t sent = 0;   ///< bytes counted so far; those of a failed attempt stay counted
};

/// Report upload and download progress to a ProgressBinding. Always return 0, so that progress and
/// a throwing callback never end a transfer.
int _CURL_PROGRESS(void* binding, curl_off_t download_total, curl_off_t downloaded,
                   curl_off_t upload_total, curl_off_t uploaded);
int _CURL_PROGRESS_DOWNLOAD(void* binding, curl_off_t download_total, curl_off_t downloaded,
                            curl_off_t upload_total, curl_off_t uploaded);
/// Reports to an UploadProgress. Always returns 0.
int _CURL_PROGRESS_ONEDRIVE(void* record, curl_off_t download_total, curl_off_t downloaded,
                            curl_off_t upload_total, curl_off_t uploaded);

}  // namespace onedrive4b
