// Converts the service's item JSON to the host's records.
#include <cstring>
#include <string_view>
#include <vector>

#include "protocol/host_memory.h"
#include "protocol/onedrivebiz.h"
#include "protocol/response_json.h"
#include "support/log.h"
#include "support/text.h"

namespace onedrive4b {

namespace {

// A child of a folder in another drive is in the same drive.
std::string ChildId(const char* parent, std::string id) {
  if (OneDriveBiz::IsRemoteFile(parent)) {
    const std::vector<std::string_view> pieces = SplitAtSlash(parent);
    if (pieces.size() == 2) return std::string(pieces[0]).append("/").append(id);
  }
  return id;
}

std::shared_ptr<char[]> CopyOf(const std::string& text) {
  auto copy = std::make_shared<char[]>(text.size() + 1);
  std::memcpy(copy.get(), text.c_str(), text.size() + 1);
  return copy;
}

// For an item shared from another drive: its id there. Without a drive the id is unchanged.
void TakeRemoteId(const JsonObject& remote, std::string& id) {
  const auto remote_id = remote.FindObject("/id");
  if (!remote_id) return;
  const auto drive = remote.FindObject("/parentReference/driveId");
  if (drive) id = TextOf(*drive) + "/" + TextOf(*remote_id);
}

void TakeKindAndSize(const JsonObject& item, _FS_FILE_V2& file) {
  file.size = 0;
  if (item.HasObject("folder")) {
    file.attr = kFolder;
    return;
  }
  file.attr = kFile;
  file.size = static_cast<long long>(item.GetObject("/size"));
}

}  // namespace

void OneDriveBiz::FillData(const char* parentId, JsonObject item, _FS_FILE_V2* file) {
  file->id = ChildId(parentId, TextAt(item, "/id"));
  file->filename = TextAt(item, "/name");
  const auto tag = item.FindObject("/eTag");
  file->eTag = tag ? CopyOf(TextOf(*tag)) : nullptr;
  if (const auto created = item.FindObject("/createdDateTime")) file->crtime = TextOf(*created);
  if (const auto modified = item.FindObject("/lastModifiedDateTime")) {
    file->lasttime = TextOf(*modified);
    file->accesstime = file->lasttime;
  }
  if (const auto remote = item.FindObject("remoteItem")) {
    TakeRemoteId(*remote, file->id);
    TakeKindAndSize(*remote, *file);
  } else {
    TakeKindAndSize(item, *file);
  }
  __LOG__A(logger, LOGLEVEL_INFO,
           "[PROTOCOL  ] %s id [%s], filename [%s], attr [%d], size [%lld], crtime [%s], lasttime "
           "[%s], eTag [%s]",
           "FillData", file->id.c_str(), file->filename.c_str(), static_cast<int>(file->attr),
           static_cast<long long>(file->size), file->crtime.c_str(), file->lasttime.c_str(),
           file->eTag ? file->eTag.get() : "");
}

StatusHandler OneDriveBiz::ItemHandler(const char* parent, _FS_FILE_V2* file) {
  return {[parent, file](_CURLRTN& exchange) {
            try {
              const JsonObject document = ParseBody(exchange);
              _FS_FILE_V2 filled = *file;
              FillData(parent, document.GetObject("/"), &filled);
              *file = std::move(filled);
              return SUCCESS;
            } catch (...) {
              return FAILED;
            }
          },
          ""};
}

}  // namespace onedrive4b
