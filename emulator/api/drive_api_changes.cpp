// The part of DriveApi that changes drives.
#include <array>
#include <charconv>
#include <vector>

#include "base/json_text.h"
#include "emulator/api/drive_api.h"
#include "emulator/http/request_body.h"
#include "emulator/http/service_error.h"

namespace emulator {
namespace {

constexpr const char* kConflictBehavior = "@name.conflictBehavior";

OnConflict ToOnConflict(const std::optional<std::string>& text, OnConflict fallback) {
  if (!text) return fallback;
  if (*text == "fail") return OnConflict::kFail;
  if (*text == "replace") return OnConflict::kReplace;
  if (*text == "rename") return OnConflict::kRename;
  throw InvalidRequest("Invalid value for @name.conflictBehavior.");
}

std::optional<std::string> ConflictOption(const FormFields& query) {
  const auto found = query.find(kConflictBehavior);
  return found == query.end() ? std::nullopt : std::optional(found->second);
}

std::optional<Seconds> TimeMember(const Json::Value& object, const std::string& name) {
  const auto text = base::TextMember(object, name);
  if (!text) return std::nullopt;
  const auto time = ParseRfc3339(*text);
  if (!time) throw InvalidRequest("Invalid value for " + name + ".");
  return time;
}

std::string IfMatch(const Request& request) { return request.Header("If-Match").value_or(""); }

std::uint64_t AnnouncedLength(const Request& request) {
  const std::string text = request.Header("Content-Length").value_or("0");
  std::uint64_t length = 0;
  std::from_chars(text.data(), text.data() + text.size(), length);
  return length;
}

ContentPtr ReadContent(BodyReader& body, const ContentStore& store, std::uint64_t limit) {
  constexpr std::size_t kBuffer = std::size_t{256} * 1024;
  const auto writer = store.NewWriter();
  std::vector<char> buffer(kBuffer);
  while (const std::size_t count = body.Read(buffer)) {
    if (writer->Size() + count > limit) {
      throw ServiceError(413, "invalidRequest",
                         "The file is too large for a simple upload: use an upload session.");
    }
    writer->Append(std::span<const char>(buffer).first(count));
  }
  return writer->Finish();
}

}  // namespace

Drive::FileRequest DriveApi::FileTarget(const Call& call) const {
  Drive::FileRequest file;
  file.if_match = IfMatch(call.request);
  const auto there = Find(call.drive, call.address);
  if (call.address.path.empty()) {
    if (!there) throw ItemNotFound();
    if (there->folder) throw InvalidRequest("A folder has no content.");
    file.parent_id = there->parent_id;
    file.name = there->name;
  } else {
    ItemAddress folder = call.address;
    const auto slash = folder.path.rfind('/');
    file.name = folder.path.substr(slash + 1);
    folder.path.resize(slash);
    const auto parent = Find(call.drive, folder);
    if (!parent) throw ItemNotFound();
    file.parent_id = parent->id;
  }
  RequireRole(call, there ? there->id : file.parent_id, SharedRole::kWrite);
  return file;
}

Response DriveApi::PutContent(Call& call) {
  Drive::FileRequest file = FileTarget(call);
  file.on_conflict = ToOnConflict(ConflictOption(call.query), OnConflict::kReplace);
  file.by = &call.user;
  const std::uint64_t length = AnnouncedLength(call.request);
  // Refused before the body is asked for, where it can be.
  if (length > options_.simple_upload_limit) {
    throw ServiceError(413, "invalidRequest",
                       "The file is too large for a simple upload: use an upload session.");
  }
  call.drive.CheckStore(file, length);
  const ContentPtr content =
      ReadContent(call.request.body, call.drive.Store(), options_.simple_upload_limit);
  const auto stored = call.drive.StoreFile(file, content);
  return Answer(call, stored.created ? 201 : 200, stored.item);
}

Response DriveApi::CreateSession(Call& call) {
  const Json::Value item = base::ObjectMember(ReadJsonObject(call.request), "item");
  Drive::FileRequest file = FileTarget(call);
  const auto in_body = base::TextMember(item, kConflictBehavior);
  file.on_conflict =
      ToOnConflict(in_body ? in_body : ConflictOption(call.query), OnConflict::kReplace);
  return parts_.sessions.Create(call.drive, std::move(file), call.user);
}

Response DriveApi::CreateChild(Call& call) {
  const Item parent = Target(call, SharedRole::kWrite);
  const Json::Value body = ReadJsonObject(call.request);
  if (!body["folder"].isObject()) throw InvalidRequest("Only folders can be made this way.");
  const auto in_body = base::TextMember(body, kConflictBehavior);
  const auto stored = call.drive.CreateFolder(
      {.parent_id = parent.id,
       .name = base::TextMember(body, "name").value_or(""),
       .on_conflict =
           ToOnConflict(in_body ? in_body : ConflictOption(call.query), OnConflict::kFail),
       .by = &call.user});
  return Answer(call, stored.created ? 201 : 200, stored.item);
}

Response DriveApi::ChangeItem(Call& call) {
  const Item item = Target(call, SharedRole::kWrite);
  const Json::Value body = ReadJsonObject(call.request);
  const Json::Value times = base::ObjectMember(body, "fileSystemInfo");
  const auto name = base::TextMember(body, "name");
  if (body.isMember("name") && (!name || name->empty())) {
    throw InvalidRequest("The name is not valid.");
  }
  const auto in_body = base::TextMember(body, kConflictBehavior);
  const Item changed =
      call.drive.Change({.id = item.id,
                         .name = name.value_or(""),
                         .parent_id = NewParent(call, base::ObjectMember(body, "parentReference")),
                         .on_conflict = ToOnConflict(in_body ? in_body : ConflictOption(call.query),
                                                     OnConflict::kFail),
                         .created = TimeMember(times, "createdDateTime"),
                         .modified = TimeMember(times, "lastModifiedDateTime"),
                         .if_match = IfMatch(call.request),
                         .by = &call.user});
  return Answer(call, 200, changed);
}

void DriveApi::RequireSameDrive(const Call& call, const std::string& drive_id) const {
  if (&FindDrive(drive_id, call.user) == &call.drive) return;
  throw InvalidRequest("An item cannot be moved to another drive.");
}

/// Id of the folder a parentReference names; empty: it names none.
std::string DriveApi::NewParent(const Call& call, const Json::Value& reference) const {
  const auto drive_id = base::TextMember(reference, "driveId");
  if (drive_id) RequireSameDrive(call, *drive_id);
  std::optional<Item> parent;
  if (const auto id = base::TextMember(reference, "id")) {
    parent = Find(call.drive, {.drive_id = {}, .item_id = *id, .path = {}, .operation = {}});
  } else if (const auto path = base::TextMember(reference, "path")) {
    // Paths are given with escapes, as the service writes them, or plain, as people do.
    for (const std::string& form : {*path, PercentEncode(*path, "/:!")}) {
      const auto address = ParseItemAddress(form);
      if (!address || parent) continue;
      // A path without a drive begins at that of "driveId", or else at the caller's own.
      const bool names_drive = !address->drive_id.empty() || !drive_id;
      if (names_drive) RequireSameDrive(call, address->drive_id);
      parent = Find(call.drive, *address);
    }
  } else {
    return {};
  }
  if (!parent) throw ItemNotFound();
  RequireRole(call, parent->id, SharedRole::kWrite);
  return parent->id;
}

Response DriveApi::DeleteItem(Call& call) {
  const Item item = Target(call, SharedRole::kWrite);
  call.drive.Delete(item.id, IfMatch(call.request));
  return EmptyResponse(204);
}

}  // namespace emulator
