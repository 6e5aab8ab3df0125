// Operations of the interface that this protocol does not support.
#include "protocol/onedrivebiz.h"

namespace onedrive4b {

AERROR OneDriveBiz::SetQuota(std::uint64_t, std::uint64_t) { return SUCCESS; }

void OneDriveBiz::SetQuotaCallback(void*, bool (*)(void*, void*, std::int64_t*, std::int64_t*)) {}

AERROR OneDriveBiz::GetChanges(IFileChanges*, char**) { return SUCCESS; }

AERROR OneDriveBiz::SetFileTime(const char*, std::string, std::string, std::string, _FS_FILE_V2*,
                                char**) {
  return NOT_SUPPORTED;
}

}  // namespace onedrive4b
