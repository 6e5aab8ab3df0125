#include "transport/progress.h"

#include "transport/easy_option.h"

namespace onedrive4b {

namespace {

int Report(const ProgressBinding* to, CURLINFO speed, curl_off_t total, curl_off_t done) {
  if (to == nullptr || to->callback == nullptr) return 0;
  const curl_off_t bytes_per_second = GetInfo(to->curl, speed, curl_off_t{0});
  try {
    to->callback(total, done, to->context, static_cast<double>(bytes_per_second));
  } catch (...) {
  }
  return 0;
}

}  // namespace

int _CURL_PROGRESS(void* binding, curl_off_t, curl_off_t, curl_off_t upload_total,
                   curl_off_t uploaded) {
  return Report(static_cast<const ProgressBinding*>(binding), CURLINFO_SPEED_UPLOAD_T, upload_total,
                uploaded);
}

int _CURL_PROGRESS_DOWNLOAD(void* binding, curl_off_t download_total, curl_off_t downloaded,
                            curl_off_t, curl_off_t) {
  return Report(static_cast<const ProgressBinding*>(binding), CURLINFO_SPEED_DOWNLOAD_T,
                download_total, downloaded);
}

int _CURL_PROGRESS_ONEDRIVE(void* record, curl_off_t, curl_off_t, curl_off_t, curl_off_t uploaded) {
  auto* progress = static_cast<UploadProgress*>(record);
  if (progress == nullptr || progress->callback == nullptr) return 0;
  progress->sent += uploaded - progress->last;
  progress->last = uploaded;
  return Report(progress, CURLINFO_SPEED_UPLOAD_T, progress->total, progress->sent);
}

}  // namespace onedrive4b
