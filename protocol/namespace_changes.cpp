// Changes of the tree that move no file content: rename, move, create folder, delete.
//
// Changes of an existing item carry its entity tag in "if-match", so that the service refuses them
// when somebody else has changed the item since.
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "protocol/host_memory.h"
#include "protocol/onedrivebiz.h"
#include "protocol/request_headers.h"
#include "support/edge.h"
#include "support/log.h"
#include "support/text.h"

namespace onedrive4b {

namespace {

const char* TextOf(const std::shared_ptr<char[]>& etag) { return TextOrEmpty(etag.get()); }

// The service identifies an item of another user's drive by the drive's id and the item's id; null
// or empty is the drive root.
void SetParent(JsonObject reference, const char* target) {
  if (target == nullptr || *target == '\0') {
    reference["path"] = std::string("/drive/root:/");
    return;
  }
  const std::vector<std::string_view> pieces = SplitAtSlash(target);
  const bool remote = OneDriveBiz::IsRemoteFile(target) && pieces.size() == 2;
  if (remote) reference["driveId"] = std::string(pieces[0]);
  reference["id"] = std::string(remote ? pieces[1] : target);
}

}  // namespace

AERROR OneDriveBiz::FindETag(const char* id, const _FS_FILE_V2& file, char** message,
                             std::shared_ptr<char[]>& etag) {
  etag = file.eTag;
  if (etag) return SUCCESS;
  _FS_FILE_V2 present;
  if (GetFileInfo(id, &present, message) != SUCCESS) return FAILED;
  etag = present.eTag;
  return SUCCESS;
}

AERROR OneDriveBiz::PatchItem(const char* name, const char* id, const std::shared_ptr<char[]>& etag,
                              const JsonObject& changes, _FS_FILE_V2* file) {
  const std::string url = GetUrl(id);
  const std::string body = changes.ToText();
  const auto step = [&](const std::shared_ptr<OneDriveBizCURL>& request) {
    request->SetRequest("PATCH");
    RequireMatch(*request, etag);
    request->AddHeader("Content-Type", kJsonContent);
    Address(request, url);
    return request->PerformPost(body);
  };
  return Query(name, step, {.by_class = {{200, ItemHandler(id, file)}}});
}

AERROR OneDriveBiz::Rename(const char* id, const char* target, _FS_FILE_V2* file, char** message) {
  constexpr const char* kName = "Rename";
  return AtEdge([&] {
    if (file == nullptr) return INVALID_PARAMETER;
    if (!SignedIn()) return FS_NEED_AUTHORIZE;
    __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s id [%s], target [%s], filename [%s]", kName,
             TextOrEmpty(id), TextOrEmpty(target), file->filename.c_str());
    std::shared_ptr<char[]> etag;
    if (FindETag(id, *file, message, etag) != SUCCESS) return FAILED;
    __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s eTag [%s]", kName, TextOf(etag));
    JsonObject changes = JsonObject::GetEmptyObject();
    changes["name"] = file->filename;
    return PatchItem(kName, id, etag, changes, file);
  });
}

AERROR OneDriveBiz::Move(const char* id, const char* target, _FS_FILE_V2* file, char** message) {
  constexpr const char* kName = "Move";
  return AtEdge([&] {
    if (file == nullptr) return INVALID_PARAMETER;
    if (!SignedIn()) return FS_NEED_AUTHORIZE;
    __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s id [%s], target [%s], filename [%s]", kName,
             TextOrEmpty(id), TextOrEmpty(target), file->filename.c_str());
    if (id == nullptr) {
      __LOG__A(logger, LOGLEVEL_ERROR,
               "[PROTOCOL  ] %s id is null. Cannot complete move operation.", kName);
      return FAILED;
    }
    std::shared_ptr<char[]> etag;
    if (FindETag(id, *file, message, etag) != SUCCESS) return FAILED;
    __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s eTag [%s]", kName, TextOf(etag));
    JsonObject changes = JsonObject::GetEmptyObject();
    SetParent(changes["parentReference"], target);
    changes["name"] = file->filename;
    return PatchItem(kName, id, etag, changes, file);
  });
}

AERROR OneDriveBiz::MoveDir(const char* id, const char* target, _FS_FILE_V2* file, char** message) {
  if (file == nullptr) return INVALID_PARAMETER;
  __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s id [%s], target [%s] file->filename[%s]",
           "MoveDir", TextOrEmpty(id), TextOrEmpty(target), file->filename.c_str());
  return Move(id, target, file, message);
}

AERROR OneDriveBiz::CreateDirectory(const char* parent, _FS_FILE_V2* file, char**) {
  return AtEdge([&] {
    if (file == nullptr) return INVALID_PARAMETER;
    if (!SignedIn()) return FS_NEED_AUTHORIZE;
    JsonObject folder = JsonObject::GetEmptyObject();
    folder.Insert("folder", JsonObject::GetEmptyObject());
    folder["name"] = file->filename;
    const std::string url = GetUrl(parent) + "/children";
    const std::string body = folder.ToText();
    const auto step = [&](const std::shared_ptr<OneDriveBizCURL>& request) {
      request->AddHeader("Content-Type", kJsonContent);
      Address(request, url);
      return request->PerformPost(body);
    };
    return Query("CreateDirectory", step, {.by_class = {{200, ItemHandler(parent, file)}}});
  });
}

AERROR OneDriveBiz::Delete(_FS_FILE_V2* file, char** message) {
  return AtEdge([&] {
    if (file == nullptr) return INVALID_PARAMETER;
    if (!SignedIn()) return FS_NEED_AUTHORIZE;
    // The record's tag is ignored: Delete removes the current version.
    _FS_FILE_V2 present;
    if (GetFileInfo(file->id.c_str(), &present, message) != SUCCESS) return FAILED;
    const std::string url = GetUrl(file->id.c_str());
    const auto step = [&](const std::shared_ptr<OneDriveBizCURL>& request) {
      request->SetRequest("DELETE");
      RequireMatch(*request, present.eTag);
      Address(request, url);
      return request->PerformPost(nullptr, nullptr, -1);
    };
    return Query("Delete", step, {});
  });
}

AERROR OneDriveBiz::DeleteDirectory(_FS_FILE_V2* file, char** message) {
  return Delete(file, message);
}

}  // namespace onedrive4b
