// The part of Drive that outlives the run: an index of the tree, beside the folder with the
// contents. Each record of the index is a document with what one request changed,
//   {"driveId": ..., "rootId": ..., "items": [items as they are now], "gone": [ids]}
// and the first has all items. When more has been appended than the tree is large, the index is
// written anew.
#include <set>
#include <stdexcept>
#include <utility>

#include "base/files.h"
#include "base/json_text.h"
#include "emulator/drive/drive.h"
#include "emulator/drive/names.h"

namespace emulator {
namespace {

constexpr const char* kIndexName = "index.journal";
constexpr const char* kOldIndexName = "index.json";  // of version 1.0: one record, without checksum
constexpr std::size_t kSmallTree = 1000;  // items; a smaller tree is not written anew more often

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
  if (!journal_) return;
  const std::lock_guard save_lock(save_mutex_);
  std::set<std::string> changed;
  std::vector<ContentPtr> replaced;
  std::string record;
  bool whole = journal_->IsEmpty();
  {
    const std::lock_guard lock(mutex_);
    if (changed_.empty()) return;
    changed.swap(changed_);
    replaced.swap(replaced_);
    whole = whole || appended_ + changed.size() > nodes_.size() + kSmallTree;
    record = base::CompactJson(whole ? WholeIndex() : Changes(changed));
  }
  try {
    if (whole) {
      journal_->Replace(record);
    } else {
      journal_->Append(record);
    }
  } catch (const std::exception&) {
    const std::lock_guard lock(mutex_);
    changed_.merge(changed);
    replaced_.insert(replaced_.end(), replaced.begin(), replaced.end());
    throw;
  }
  appended_ = whole ? 0 : appended_ + changed.size();
  for (const ContentPtr& content : replaced) content->Abandon();
}

Json::Value Drive::Changes(const std::set<std::string>& ids) const {
  Json::Value record;
  record["driveId"] = id_;
  record["rootId"] = root_id_;
  for (const std::string& id : ids) {
    const auto found = nodes_.find(id);
    if (found == nodes_.end()) {
      record["gone"].append(id);
    } else {
      record["items"].append(Entry(found->second));
    }
  }
  return record;
}

Json::Value Drive::WholeIndex() const {
  Json::Value record;
  record["driveId"] = id_;
  record["rootId"] = root_id_;
  for (const auto& [id, node] : nodes_) record["items"].append(Entry(node));
  return record;
}

Json::Value Drive::Entry(const Node& node) {
  Json::Value entry = ToJson(node.item);
  if (node.content) {
    entry["file"] = node.content->FileName();
    entry["hash"] = node.content->Hash();
  }
  return entry;
}

void Drive::Load() {
  const auto& directory = options_.directory;
  if (directory.empty()) return;
  journal_.emplace(directory / kIndexName);
  try {
    auto records = journal_->TakeRecords();
    const bool old = records.empty() && std::filesystem::exists(directory / kOldIndexName);
    if (old) {
      constexpr std::size_t kNoLimit = std::size_t(-1);
      records.push_back(base::ReadFileIfAny(directory / kOldIndexName, kNoLimit).value_or(""));
    }
    if (records.empty()) return;
    LoadRecords(records);
    DropOrphans();
    if (!old) return;
    changed_.insert(root_id_);
    Save();
    std::filesystem::remove(directory / kOldIndexName);
  } catch (const std::exception& error) {
    throw std::runtime_error("cannot use the drive in " + directory.string() + ": " + error.what());
  }
}

void Drive::LoadRecords(const std::vector<std::string>& records) {
  // Contents are looked for at the end: those that were replaced meanwhile are not there any more.
  std::map<std::string, Json::Value> entries;
  for (const std::string& text : records) {
    const auto record = base::ParseJson(text);
    if (!record) throw std::runtime_error("a record of the index is not a JSON document");
    id_ = (*record)["driveId"].asString();
    root_id_ = (*record)["rootId"].asString();
    for (const Json::Value& entry : (*record)["items"]) entries[entry["id"].asString()] = entry;
    for (const Json::Value& id : (*record)["gone"]) entries.erase(id.asString());
  }
  for (const auto& [id, entry] : entries) {
    Node node;
    node.item = ToItem(entry);
    if (!node.item.folder) {
      node.content = store_.Reopen(entry["file"].asString(), entry["hash"].asString());
    }
    nodes_.emplace(id, std::move(node));
  }
  for (auto& [id, node] : nodes_) {
    if (id != root_id_) Get(node.item.parent_id).children[FoldName(node.item.name)] = id;
    if (node.content) AddSize(node, node.content->Size());
  }
  if (!nodes_.empty()) Get(root_id_);
}

/// Uploads that were under way when the last run was killed, and contents that it had replaced.
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
