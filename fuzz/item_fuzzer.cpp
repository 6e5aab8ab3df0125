// Item mapping: the service's JSON to the host's record. Input: the id through which the item was
// reached, then the item.
#include <algorithm>

#include <json/reader.h>

#include "fuzz/signed_in_object.h"
#include "protocol/onedrivebiz.h"

namespace {

using onedrive4b::JsonObject;
using onedrive4b::OneDriveBiz;

// False when the mapping refuses the item.
bool Map(const std::string& parent, Json::Value& item, _FS_FILE_V2& file) {
  try {
    OneDriveBiz::FillData(parent.c_str(), JsonObject(item), &file);
    return true;
  } catch (const AERROR& error) {
    Require(error == ACCESS_VIOLATION, "a missing member is an access violation");
  } catch (const Json::LogicError&) {
  }
  return false;
}

// Text of a member as C text; "" for none.
std::string MemberText(const Json::Value& object, const char* name) {
  return object.isMember(name) ? object[name].asString().c_str() : "";
}

std::string ExpectedId(std::string parent, const Json::Value& item) {
  if (item.isMember("remoteItem")) {
    const Json::Value& remote = item["remoteItem"];
    if (remote.isMember("id") && remote["parentReference"].isMember("driveId")) {
      return MemberText(remote["parentReference"], "driveId") + "/" + MemberText(remote, "id");
    }
  }
  // "drive/id" and "drive/id/" name an item of another drive.
  if (parent.ends_with('/')) parent.pop_back();
  const bool in_other_drive = std::count(parent.begin(), parent.end(), '/') == 1;
  return (in_other_drive ? parent.substr(0, parent.find('/') + 1) : "") + MemberText(item, "id");
}

void CheckRecord(const std::string& parent, const Json::Value& item, const _FS_FILE_V2& file) {
  RequireWellFormed(file);
  Require(file.id == ExpectedId(parent, item), "the id is that of the item in its drive");
  Require(file.filename == MemberText(item, "name"), "the name is the item's");
  Require(file.crtime == MemberText(item, "createdDateTime"), "created when the item was");
  Require(file.lasttime == MemberText(item, "lastModifiedDateTime"), "modified when it was");
  Require((file.eTag != nullptr) == item.isMember("eTag"), "a tag when the item has one");
  if (file.eTag) Require(file.eTag.get() == MemberText(item, "eTag"), "the tag is the item's");
  const Json::Value& facts = item.isMember("remoteItem") ? item["remoteItem"] : item;
  Require((file.attr == 2) == facts.isMember("folder"), "folders are folders");
  if (file.attr == 1) Require(file.size == facts["size"].asInt64(), "a file has its size");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const std::string parent = input.Line();
  Json::Value item;
  try {
    const std::string_view text = input.Rest();
    if (!Json::Reader().parse(text.data(), text.data() + text.size(), item)) return 0;
  } catch (const Json::RuntimeError&) {
    return 0;  // nested too deep
  }
  const LogRecorder log;
  _FS_FILE_V2 file;
  if (!Map(parent, item, file)) return 0;
  CheckRecord(parent, item, file);
  // A record that held another item holds this one afterwards.
  _FS_FILE_V2 used = file;
  used.id = used.filename = "old";
  used.size = 7;
  Require(Map(parent, item, used), "what maps once maps again");
  CheckRecord(parent, item, used);
  Require(OneDriveBiz::IsRemoteFile(file.id.c_str()) == (file.id.find('/') != std::string::npos),
          "ids of other drives have a slash");
  return 0;
}
