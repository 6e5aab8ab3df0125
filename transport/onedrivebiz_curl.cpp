#include "transport/onedrivebiz_curl.h"

onedrive4b::CURLQueue<onedrive4b::OneDriveBizCURL> cq;

namespace onedrive4b {

namespace {

constexpr long kLowSpeedTime = 60;  // seconds

}  // namespace

OneDriveBizCURL::OneDriveBizCURL() {
  SetLowSpeedTimeout(kLowSpeedTime);
  SetSSLDefaults();
}

void UploadProgress::InstallOn(const OneDriveBizCURL& request) {
  curl = request.GetCURL();
  last = 0;
  SetOption(curl, CURLOPT_XFERINFOFUNCTION, &_CURL_PROGRESS_ONEDRIVE);
  SetOption(curl, CURLOPT_XFERINFODATA, this);
  SetOption(curl, CURLOPT_NOPROGRESS, 0L);
}

int _CURL_PROGRESS_ONEDRIVE(void* record, curl_off_t, curl_off_t, curl_off_t, curl_off_t uploaded) {
  auto* progress = static_cast<UploadProgress*>(record);
  if (progress == nullptr || progress->callback == nullptr) return 0;
  progress->sent += uploaded - progress->last;
  progress->last = uploaded;
  return ReportProgress(progress, CURLINFO_SPEED_UPLOAD_T, progress->total, progress->sent);
}

}  // namespace onedrive4b
