// The request object of this service and the module's pool of them.
#pragma once

#include "onedrive4b/export.h"
#include "transport/handle_pool.h"
#include "transport/request.h"

namespace onedrive4b {

/// Certificates are checked, and a transfer ends after 60 s (20 s once the object has been pooled)
/// below 1 byte/s.
class OneDriveBizCURL : public CURLImpl {
 public:
  OneDriveBizCURL();
};

}  // namespace onedrive4b

/// The module's one pool, shared by all its protocol objects. Lives from load to unload.
ONEDRIVE4B_EXPORT extern onedrive4b::CURLQueue<onedrive4b::OneDriveBizCURL> cq;
