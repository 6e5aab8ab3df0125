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

}  // namespace onedrive4b
