// Listing a folder, and looking one item up.
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>

#include "protocol/host_memory.h"
#include "protocol/onedrivebiz.h"
#include "protocol/response_json.h"
#include "support/edge.h"
#include "support/memory.h"

namespace onedrive4b {

namespace {

constexpr long kListingLowSpeedTimeout = 60;  // seconds

// A parsed page takes five times its text, in small blocks that the allocator keeps for later.
// Returning them is not worth it for pages of normal size.
constexpr std::uint32_t kLargePage = 4 << 20;

constexpr std::string_view kSharedId = "shared";

// One running listing: passes the pages' entries to the host and follows the links between pages.
class PageReader {
 public:
  PageReader(std::string url, const char* parent, IFileList* list)
      : url_(std::move(url)), parent_(parent), list_(list), visited_{url_} {}

  const std::string& url() const { return url_; }
  bool met_large_page() const { return met_large_page_; }

  AERROR TakePage(const _CURLRTN& exchange) {
    met_large_page_ |= exchange.bodylen > kLargePage;
    try {
      const JsonObject page = ParseBody(exchange);
      JsonObject entries = page.GetObject("/value");
      for (auto index = static_cast<int>(entries.GetArraySize()); index-- > 0;) {
        Deliver(entries, index);
      }
      const auto next = page.FindObject("@odata.nextLink");
      if (!next) return SUCCESS;
      url_ = TextOf(*next);
    } catch (...) {
      return FAILED;
    }
    // A link that was already followed would loop forever.
    return visited_.insert(url_).second ? RETRY : FAILED;
  }

 private:
  // An unusable entry is left out; the others still reach the host.
  void Deliver(JsonObject& entries, int index) {
    try {
      _FS_FILE_V2 file;
      OneDriveBiz::FillData(parent_, entries[index], &file);
      // "" is the id of the top folder: a host that walks the tree would loop forever.
      if (!file.id.empty()) list_->AddFile(&file);
    } catch (...) {
    }
  }

  std::string url_;
  const char* parent_;
  IFileList* list_;
  std::unordered_set<std::string> visited_;
  bool met_large_page_ = false;
};

}  // namespace

AERROR OneDriveBiz::GetFileList(const char* id, IFileList* list, char** message) {
  return AtEdge([&] {
    if (list == nullptr) return INVALID_PARAMETER;
    if (id != nullptr && *id == '\0' && show_shared_) {
      for (const _FS_FILE_V2* folder : {&shared_, &root_}) {
        _FS_FILE_V2 copy = *folder;
        list->AddFile(&copy);
      }
      return SUCCESS;
    }
    if (id != nullptr && id == kSharedId) return GetSharedFileList(list, message);
    return ListPages("GetFileList", GetUrl(id) + "/children", id, list);
  });
}

AERROR OneDriveBiz::GetSharedFileList(IFileList* list, char**) {
  return ListPages("GetSharedFileList", service_endpoint_ + "/drive/oneDrive.sharedWithMe", nullptr,
                   list);
}

AERROR OneDriveBiz::ListPages(const char* name, std::string url, const char* parent,
                              IFileList* list) {
  if (!SignedIn()) return FS_NEED_AUTHORIZE;
  PageReader reader(std::move(url), parent, list);
  const auto step = [&](const std::shared_ptr<OneDriveBizCURL>& request) {
    Address(request, reader.url());
    request->SetLowSpeedTimeout(kListingLowSpeedTimeout);
    return request->PerformGet(nullptr, nullptr);
  };
  const StatusHandler handler([&](_CURLRTN& exchange) { return reader.TakePage(exchange); }, "");
  const AERROR result = Query(name, step, {.by_class = {{200, handler}}});
  if (reader.met_large_page()) ReturnFreeMemory();
  return result;
}

AERROR OneDriveBiz::GetFileInfo(const char* id, _FS_FILE_V2* file, char**) {
  return AtEdge([&] {
    if (file == nullptr) return INVALID_PARAMETER;
    if (id != nullptr && *id == '\0' && show_shared_) {
      *file = top_;
      return SUCCESS;
    }
    if (id != nullptr && id == kSharedId) {
      *file = shared_;
      return SUCCESS;
    }
    if (!SignedIn()) return FS_NEED_AUTHORIZE;
    const std::string url = GetUrl(id);
    const auto step = [&](const std::shared_ptr<OneDriveBizCURL>& request) {
      Address(request, url);
      return request->PerformGet(nullptr, nullptr);
    };
    // Unlike a change, a lookup fills the host's record field by field.
    const auto take = [&](_CURLRTN& exchange) {
      try {
        const JsonObject document = ParseBody(exchange);
        FillData(id, document.GetObject("/"), file);
        return SUCCESS;
      } catch (...) {
        return FAILED;
      }
    };
    return Query("GetFileInfo", step, {.by_class = {{200, StatusHandler(take, "")}}});
  });
}

}  // namespace onedrive4b
