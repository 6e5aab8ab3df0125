// The request object of this service and the module's pool of them.
#pragma once

#include "onedrive4b/export.h"
#include "transport/handle_pool.h"
#include "transport/request.h"

namespace onedrive4b {

/// Certificates are checked, and a transfer is given up after 60 s (20 s once it has been pooled)
/// below 1 byte/s.
class OneDriveBizCURL : public CURLImpl {
 public:
  OneDriveBizCURL();
};

/// Progress of one upload that is sent in several requests, counted over all of them.
struct UploadProgress : ProgressBinding {
  std::int64_t total = 0;  ///< bytes of the whole upload
  std::int64_t last = 0;   ///< libcurl's count at the previous call within the current request
  std::int64_t sent = 0;   ///< bytes counted so far; those of a failed attempt stay counted

  /// Reports the next transfer of `request`, which must end before the record does.
  void InstallOn(const OneDriveBizCURL& request);
};

/// Reports to an UploadProgress. Always 0.
int _CURL_PROGRESS_ONEDRIVE(void* record, curl_off_t download_total, curl_off_t downloaded,
                            curl_off_t upload_total, curl_off_t uploaded);

}  // namespace onedrive4b

/// The module's one pool, shared by all its protocol objects. Lives from load to unload.
ONEDRIVE4B_EXPORT extern onedrive4b::CURLQueue<onedrive4b::OneDriveBizCURL> cq;
