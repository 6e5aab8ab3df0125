#include "protocol/host_memory.h"

#include <cstring>
#include <ctime>

#include "support/time_text.h"

namespace onedrive4b {

AERROR CopyText(const std::string& text, char* buffer, int* length) {
  if (buffer == nullptr || length == nullptr) return INVALID_PARAMETER;
  if (*length < static_cast<std::int64_t>(text.size())) return INSUFFICIENT_BUFFER;
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  *length = static_cast<int>(text.size());
  return SUCCESS;
}

std::string LocalTimeText() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return TMToRFC3339(&local);
}

void SetTimes(_FS_FILE_V2& file, const std::string& time) {
  file.accesstime = time;
  file.lasttime = file.accesstime;
  file.crtime = file.lasttime;
}

}  // namespace onedrive4b
