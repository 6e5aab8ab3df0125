#include "emulator/api/item_json.h"

#include "base/json_text.h"
#include "emulator/drive/names.h"
#include "emulator/text/encoding.h"

namespace emulator {
namespace {

constexpr const char* kDriveType = "business";

Json::Value IdentitySet(const Identity& identity) {
  Json::Value value;
  value["user"] = ToJson(identity);
  return value;
}

std::string QuotaState(const Quota& quota) {
  const std::uint64_t remaining = quota.total > quota.used ? quota.total - quota.used : 0;
  if (remaining == 0) return "exceeded";
  if (remaining < quota.total / 100) return "critical";
  if (remaining < quota.total / 10) return "nearing";
  return "normal";
}

Json::Value ParentReference(const Item& item, const Drive& drive, bool own) {
  Json::Value parent;
  parent["driveId"] = drive.Id();
  parent["driveType"] = kDriveType;
  if (item.IsRoot()) return parent;
  parent["id"] = item.parent_id;
  const std::string root = own ? "/drive/root:" : "/drives/" + drive.Id() + "/root:";
  parent["path"] = root + PercentEncode(item.parent_path, "/");
  return parent;
}

Json::Value TimesJson(const Item& item) {
  Json::Value times;
  times["createdDateTime"] = Rfc3339(item.created);
  times["lastModifiedDateTime"] = Rfc3339(item.modified);
  return times;
}

Json::Value Facet(const Item& item) {
  Json::Value facet = Json::objectValue;
  if (item.folder) {
    facet["childCount"] = Json::UInt64{item.child_count};
    return facet;
  }
  facet["mimeType"] = MimeType(item.name);
  facet["hashes"] = Json::objectValue;
  if (!item.hash.empty()) facet["hashes"]["quickXorHash"] = item.hash;
  return facet;
}

}  // namespace

std::string ItemJson::Context(const std::string& name) const {
  return options_.endpoint + "/$metadata#" + name;
}

std::string ItemJson::WebUrl(const Drive& drive) const {
  std::string account = drive.Owner().email;
  for (char& c : account) {
    if (c == '@' || c == '.') c = '_';
  }
  return options_.web_root + "/" + account + "/Documents";
}

Json::Value ItemJson::OfDrive(const Drive& drive) const {
  const Quota quota = drive.GetQuota();
  Json::Value value;
  value["id"] = drive.Id();
  value["driveType"] = kDriveType;
  value["owner"] = IdentitySet(drive.Owner());
  value["webUrl"] = WebUrl(drive);
  Json::Value& numbers = value["quota"];
  numbers["deleted"] = Json::UInt64{0};
  numbers["remaining"] = Json::UInt64{quota.total > quota.used ? quota.total - quota.used : 0};
  numbers["state"] = QuotaState(quota);
  numbers["total"] = Json::UInt64{quota.total};
  numbers["used"] = Json::UInt64{quota.used};
  return value;
}

Json::Value ItemJson::OfItem(const Item& item, const Drive& drive, const Identity& user) const {
  Json::Value value;
  if (!item.folder) value["@content.downloadUrl"] = links_.LinkTo(drive, item);
  value["createdBy"] = IdentitySet(item.created_by);
  value["createdDateTime"] = Rfc3339(item.created);
  value["eTag"] = item.ETag();
  value["cTag"] = item.CTag();
  value["id"] = item.id;
  value["lastModifiedBy"] = IdentitySet(item.modified_by);
  value["lastModifiedDateTime"] = Rfc3339(item.modified);
  value["name"] = item.name;
  value["parentReference"] = ParentReference(item, drive, drive.Owner().id == user.id);
  value["webUrl"] = WebUrl(drive);
  if (!item.IsRoot()) {
    value["webUrl"] = WebUrl(drive) + PercentEncode(item.parent_path + "/" + item.name, "/");
  }
  value["fileSystemInfo"] = TimesJson(item);
  value["size"] = Json::UInt64{item.size};
  value[item.folder ? "folder" : "file"] = Facet(item);
  if (item.IsRoot()) value["root"] = Json::objectValue;
  if (item.shared) value["shared"]["scope"] = "users";
  return value;
}

Json::Value ItemJson::OfSharedItem(const Item& item, const Drive& drive,
                                   const Identity& user) const {
  Json::Value remote = OfItem(item, drive, user);
  remote["shared"]["owner"] = IdentitySet(drive.Owner());
  remote["shared"]["sharedDateTime"] = Rfc3339(item.modified);
  // Contents of others have to be asked for by the item's own address.
  remote.removeMember("@content.downloadUrl");
  remote.removeMember("cTag");

  Json::Value value;
  for (const char* member : {"createdBy", "createdDateTime", "id", "lastModifiedBy",
                             "lastModifiedDateTime", "name", "webUrl", "size"}) {
    value[member] = remote[member];
  }
  value["remoteItem"] = std::move(remote);
  return value;
}

Response ItemResponse(int status, const Item& item, const Json::Value& document) {
  Response response = JsonResponse(status, base::CompactJson(document));
  response.SetHeader("ETag", item.ETag());
  return response;
}

}  // namespace emulator
