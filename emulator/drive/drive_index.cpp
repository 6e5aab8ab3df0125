// The part of Drive that outlives the run: an index of the tree in index.json, beside the folder
// with the contents.
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <utility>

#include "base/files.h"
#include "base/json_text.h"
#include "emulator/drive/drive.h"
#include "emulator/drive/names.h"

namespace emulator {
namespace {

constexpr const char* kIndexName = "index.json";

Json::Value ToJson(const Identity& identity) {
  Json::Value value;
  value["id"] = identity.id;
  value["displayName"] = identity.display_name;
  value["email"] = identity.email;
  return value;
}

Identity ToIdentity(const Json::Value& value) {
  return {value["id"].asString(), value["displayName"].asString(), value["email"].asString()};
}

Seconds ToTime(const Json::Value& value) { return Seconds(std::chrono::seconds(value.asInt64())); }

Json::Value ToJson(const Item& item) {
  Json::Value value;
  value["id"] = item.id;
  value["parentId"] = item.parent_id;
  value["name"] = item.name;
  value["folder"] = item.folder;
  value["guid"] = item.guid;
  value["version"] = item.version;
  value["contentVersion"] = item.content_version;
  value["created"] = Json::Int64{item.created.time_since_epoch().count()};
  value["modified"] = Json::Int64{item.modified.time_since_epoch().count()};
  value["createdBy"] = ToJson(item.created_by);
  value["modifiedBy"] = ToJson(item.modified_by);
  if (item.shared) value["shared"] = *item.shared == SharedRole::kWrite ? "write" : "read";
  return value;
}

Item ToItem(const Json::Value& value) {
  Item item;
  item.id = value["id"].asString();
  item.parent_id = value["parentId"].asString();
  item.name = value["name"].asString();
  item.folder = value["folder"].asBool();
  item.guid = value["guid"].asString();
  item.version = value["version"].asInt();
  item.content_version = value["contentVersion"].asInt();
  item.created = ToTime(value["created"]);
  item.modified = ToTime(value["modified"]);
  item.created_by = ToIdentity(value["createdBy"]);
  item.modified_by = ToIdentity(value["modifiedBy"]);
  if (value.isMember("shared")) {
    item.shared = value["shared"] == "write" ? SharedRole::kWrite : SharedRole::kRead;
  }
  return item;
}

}  // namespace

void Drive::Save() {
  if (options_.directory.empty()) return;
  const std::lock_guard save_lock(save_mutex_);
  std::string text;
  {
    const std::lock_guard lock(mutex_);
    if (!std::exchange(changed_, false)) return;
    text = base::CompactJson(Index());
  }
  try {
    base::ReplaceFile(options_.directory / kIndexName, text, 0600);
  } catch (const std::exception&) {
    const std::lock_guard lock(mutex_);
    changed_ = true;
    throw;
  }
}

Json::Value Drive::Index() const {
  Json::Value index;
  index["driveId"] = id_;
  index["rootId"] = root_id_;
  Json::Value& items = index["items"] = Json::arrayValue;
  for (const auto& [id, node] : nodes_) {
    Json::Value entry = ToJson(node.item);
    if (node.content) {
      entry["file"] = node.content->FileName();
      entry["hash"] = node.content->Hash();
    }
    items.append(std::move(entry));
  }
  return index;
}

void Drive::Load() {
  if (options_.directory.empty()) return;
  const auto path = options_.directory / kIndexName;
  if (!std::filesystem::exists(path)) return;
  std::ifstream file(path, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  const auto index = base::ParseJson(text);
  try {
    if (!file || !index) throw std::runtime_error("it is no JSON document");
    id_ = (*index)["driveId"].asString();
    root_id_ = (*index)["rootId"].asString();
    for (const Json::Value& entry : (*index)["items"]) LoadNode(entry);
    for (const auto& [id, node] : nodes_) {
      if (id != root_id_) Get(node.item.parent_id).children[FoldName(node.item.name)] = id;
    }
    Get(root_id_);
  } catch (const std::exception& error) {
    throw std::runtime_error("cannot use the drive in " + path.string() + ": " + error.what());
  }
  DropOrphans();
}

void Drive::LoadNode(const Json::Value& entry) {
  Node node;
  node.item = ToItem(entry);
  if (!node.item.folder) {
    node.content = store_.Reopen(entry["file"].asString(), entry["hash"].asString());
    used_ += node.content->Size();
  }
  std::string id = node.item.id;
  nodes_.emplace(std::move(id), std::move(node));
}

/// Uploads that were under way when the last run was killed.
void Drive::DropOrphans() const {
  std::set<std::string> known;
  for (const auto& [id, node] : nodes_) {
    if (node.content) known.insert(node.content->FileName());
  }
  for (const auto& file : std::filesystem::directory_iterator(store_.Directory())) {
    if (!known.contains(file.path().filename().string())) std::filesystem::remove(file.path());
  }
}

}  // namespace emulator
