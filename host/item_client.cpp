#include "host/item_client.h"

#include <array>
#include <utility>

#include "host/text.h"

namespace host {
namespace {

/// Collects a listing.
class Collector final : public IFileList {
 public:
  AERROR AddFile(_FS_FILE_V2* file) override {
    if (file == nullptr) return INVALID_PARAMETER;
    items.push_back(ToItem(*file));
    return SUCCESS;
  }

  std::vector<Item> items;
};

}  // namespace

std::string ItemClient::UserName() const {
  // The interface does not say how long the name is, so the buffer grows until it fits.
  constexpr std::size_t kLongest = 1U << 20U;
  std::string name;
  session_.Call("asking who is signed in", [&](IProtocol_V2& protocol) {
    AERROR result = INSUFFICIENT_BUFFER;
    for (std::size_t size = 512; result == INSUFFICIENT_BUFFER && size <= kLongest; size *= 2) {
      name.assign(size, '\0');
      int length = static_cast<int>(size) - 1;
      result = protocol.GetUserInfo(name.data(), &length);
      if (result == SUCCESS) name.resize(static_cast<std::size_t>(length));
    }
    return result;
  });
  return name;
}

Space ItemClient::DriveSpace() const {
  Space space;
  session_.Call("asking for the drive's space", [&](IProtocol_V2& protocol) {
    return protocol.GetQuota(&space.total, &space.used);
  });
  return space;
}

Item ItemClient::Top() const {
  std::array<char, 1024> id{};
  session_.Call("finding the drive's top", [&](IProtocol_V2& protocol) {
    int length = static_cast<int>(id.size()) - 1;
    return protocol.GetRootID(id.data(), &length);
  });
  Item top;
  top.id = id.data();
  top.folder = true;
  top.made_up = top.id.empty();
  return top;
}

std::vector<Item> ItemClient::List(const std::string& id, const std::string& shown) const {
  Collector collector;
  session_.Call("listing " + Quoted(shown), [&](IProtocol_V2& protocol) {
    collector.items.clear();
    return protocol.GetFileList(id.c_str(), &collector, nullptr);
  });
  return std::move(collector.items);
}

Item ItemClient::Describe(const std::string& id, const std::string& shown) const {
  _FS_FILE_V2 record;
  session_.Call("looking up " + Quoted(shown), [&](IProtocol_V2& protocol) {
    return protocol.GetFileInfo(id.c_str(), &record, nullptr);
  });
  return ToItem(record);
}

Item ItemClient::MakeFolder(const NewPlace& place) const {
  _FS_FILE_V2 record;
  record.filename = place.name;
  session_.Call("making the folder " + Quoted(place.shown), [&](IProtocol_V2& protocol) {
    return protocol.CreateDirectory(place.folder_id.c_str(), &record, nullptr);
  });
  return ToItem(record);
}

Item ItemClient::Rename(const Item& item, const std::string& name, const std::string& shown) const {
  _FS_FILE_V2 record = ToRecord(item);
  record.filename = name;
  session_.Call("renaming " + Quoted(shown) + " to " + Quoted(name), [&](IProtocol_V2& protocol) {
    return protocol.Rename(item.id.c_str(), name.c_str(), &record, nullptr);
  });
  return ToItem(record);
}

Item ItemClient::Move(const Item& item, const NewPlace& place, const std::string& shown) const {
  _FS_FILE_V2 record = ToRecord(item);
  record.filename = place.name;
  // The drive's own top is not an item that a request could name as a parent.
  const std::string folder = place.folder_id == kDriveId ? std::string() : place.folder_id;
  const std::string action = "moving " + Quoted(shown) + " to " + Quoted(place.shown);
  session_.Call(action, [&](IProtocol_V2& protocol) {
    const char* id = item.id.c_str();
    return item.folder ? protocol.MoveDir(id, folder.c_str(), &record, nullptr)
                       : protocol.Move(id, folder.c_str(), &record, nullptr);
  });
  return ToItem(record);
}

void ItemClient::Delete(const Item& item, const std::string& shown) const {
  _FS_FILE_V2 record = ToRecord(item);
  session_.Call("deleting " + Quoted(shown), [&](IProtocol_V2& protocol) {
    return item.folder ? protocol.DeleteDirectory(&record, nullptr)
                       : protocol.Delete(&record, nullptr);
  });
}

void ItemClient::Read(const ReadRequest& request, IFetchCallback& to,
                      const std::string& shown) const {
  session_.Call("downloading " + Quoted(shown), [&](IProtocol_V2& protocol) {
    return protocol.Read(request.id.c_str(), request.offset, request.length, request.handle, &to,
                         nullptr);
  });
}

Item ItemClient::Upload(const UploadRequest& request, ICacheIO& from,
                        const std::string& shown) const {
  const NewPlace& place = request.place;
  Item version;
  version.name = place.name;
  version.size = request.size;
  version.etag = request.etag;
  _FS_FILE_V2 record;
  const std::string action = "uploading " + Quoted(shown) + " to " + Quoted(place.shown);
  session_.Call(action, [&](IProtocol_V2& protocol) {
    record = ToRecord(version);
    return protocol.Upload(place.folder_id.c_str(), request.handle, &from, &record, UPLOAD_FLAG{},
                           nullptr);
  });
  return ToItem(record);
}

}  // namespace host
