// Which URL an item id stands for.
#include <cstring>
#include <string_view>
#include <vector>

#include "protocol/host_memory.h"
#include "protocol/onedrivebiz.h"
#include "support/edge.h"
#include "support/text.h"

namespace onedrive4b {

bool OneDriveBiz::IsRemoteFile(const char* id) {
  return id != nullptr && std::strchr(id, '/') != nullptr;
}

std::string OneDriveBiz::GetUrl(const char* id) {
  if (id == nullptr) return service_endpoint_ + "/drive/root";
  if (IsRemoteFile(id)) {
    const std::vector<std::string_view> pieces = SplitAtSlash(id);
    if (pieces.size() == 2) {
      std::string url = service_endpoint_ + "/drives/";
      url.append(pieces[0]).append("/items/").append(pieces[1]);
      return url;
    }
  }
  return service_endpoint_ + "/drive/items/" + id;
}

}  // namespace onedrive4b
