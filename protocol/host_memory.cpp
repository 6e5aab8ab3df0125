#include "protocol/host_memory.h"

#include <ctime>

#include "support/time_text.h"

namespace onedrive4b {

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
