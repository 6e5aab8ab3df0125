// The content origin: downloads and upload sessions, by pre-authenticated URLs. It refuses requests
// that carry a bearer token, as the real one may.
// Threads: callable from many at once. Lifetime: refers to what it is made of.
#pragma once

#include <string>
#include <vector>

#include "emulator/api/download_links.h"
#include "emulator/api/upload_sessions.h"
#include "emulator/drive/drive.h"
#include "emulator/http/message.h"

namespace emulator {

class ContentService {
 public:
  ContentService(std::vector<Drive*> drives, const DownloadLinks& links, UploadSessions& sessions)
      : drives_(std::move(drives)), links_(links), sessions_(sessions) {}

  /// Throws ServiceError.
  Response Handle(Request& request);

 private:
  Response Download(const Request& request) const;

  const std::vector<Drive*> drives_;
  const DownloadLinks& links_;
  UploadSessions& sessions_;
};

}  // namespace emulator
