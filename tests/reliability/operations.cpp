#include "tests/reliability/operations.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

namespace faults {

namespace {

constexpr const char* kItemJson =
    R"({"id":"i","name":"a.txt","eTag":"E1","createdDateTime":"c","lastModifiedDateTime":"m","size":12})";
constexpr const char* kItemText = "i|a.txt|12|E1|c|m|1";
constexpr const char* kSharedItem =
    R"({"id":"s","name":"b.txt","eTag":"E3","createdDateTime":"c","lastModifiedDateTime":"m",)"
    R"("remoteItem":{"id":"r","size":7,"parentReference":{"driveId":"d"}}})";
constexpr const char* kUntouched = "|n|5||||0";

std::string Page(const std::string& entry, const std::string& next) {
  std::string page = R"({"value":[)" + entry + R"(,{"id":"z","name":"z","size":1}])";
  if (!next.empty()) page += R"(,"@odata.nextLink":")" + next + "\"";
  return page + "}";
}

std::string Stored(std::int64_t size) {
  return R"({"id":"i","name":"n","eTag":"E1","createdDateTime":"c","lastModifiedDateTime":"m","size":)" +
         std::to_string(size) + "}";
}

void FillWithAnswers(FaultService& service) {
  const std::string api = "/api/drive";
  const std::string endpoint = service.Origin() + "/api";
  service.Put("POST /discovery", 200,
              R"({"value":[{"capability":"MyFiles","serviceApiVersion":"v2.0",)"
              R"("serviceResourceId":"https://res/","serviceEndpointUri":")" +
                  endpoint + R"("}]})");
  service.Put(
      "GET " + api, 200,
      R"({"owner":{"user":{"displayName":"Robin"}},"quota":{"total":1000,"remaining":250}})");
  service.Put("GET " + api + "/items/i", 200, kItemJson);
  service.Put("GET " + api + "/items/f/children", 200, Page(kItemJson, endpoint + "/page2"));
  service.Put("GET /api/page2", 200, Page(kItemJson, ""));
  service.Put("GET " + api + "/oneDrive.sharedWithMe", 200, Page(kSharedItem, ""));
  service.Put("PATCH " + api + "/items/i", 200, kItemJson);
  service.Put("POST " + api + "/items/f/children", 201, kItemJson);
  service.Put("DELETE " + api + "/items/i", 204, "");
  service.Put("GET " + api + "/items/i/content", 206, std::string(kReadLength, 'c'),
              {{"Content-Range", "bytes 0-99/4000"}});
  service.Put("PUT " + api + "/items/f:/n:/content", 201, Stored(5));
  service.Put("POST " + api + "/items/f:/n:/upload.createSession", 200,
              R"({"uploadUrl":")" + service.Origin() + R"(/up","expirationDateTime":"t"})");
  service.Put("PUT /up", 202, R"({"nextExpectedRanges":["10485760-"]})");
  service.Put("PUT /up later", 200, Stored(kSessionSize));
}

AERROR Connect(Call& call) {
  const AERROR result = call.drive.Connect(&call.host, kEmptyCredential);
  char name[64] = {};
  int length = sizeof name - 1;
  call.reached = call.drive.GetUserInfo(name, &length) == SUCCESS ? name : "";
  return result;
}

AERROR GetQuota(Call& call) {
  std::uint64_t total = 1;
  std::uint64_t used = 2;
  const AERROR result = call.drive.GetQuota(&total, &used);
  call.reached = std::to_string(total) + "," + std::to_string(used);
  return result;
}

// Calls with a record that names the item "i", or a new one "n", with a tag or without.
template <typename Change>
AERROR OnRecord(Call& call, const char* id, bool tag, Change change) {
  _FS_FILE_V2 file;
  file.id = id;
  file.filename = "n";
  file.size = 5;
  if (tag) file.eTag.reset(new char[3]{'E', '0'});
  const AERROR result = change(call.drive, &file);
  call.reached = TextOf(file);
  return result;
}

AERROR GetFileInfo(Call& call) {
  return OnRecord(call, "", false,
                  [](auto& drive, auto* file) { return drive.GetFileInfo("i", file, nullptr); });
}

AERROR List(Call& call, const char* id) {
  FileCollector list;
  const AERROR result = call.drive.GetFileList(id, &list, nullptr);
  call.reached.clear();
  for (const _FS_FILE_V2& file : list.files) call.reached += TextOf(file) + ";";
  return result;
}
AERROR ListFolder(Call& call) { return List(call, "f"); }
AERROR ListShared(Call& call) { return List(call, "shared"); }

template <bool tag>
AERROR Rename(Call& call) {
  return OnRecord(call, "", tag,
                  [](auto& drive, auto* file) { return drive.Rename("i", "n", file, nullptr); });
}
template <bool tag>
AERROR Move(Call& call) {
  return OnRecord(call, "", tag,
                  [](auto& drive, auto* file) { return drive.Move("i", "f", file, nullptr); });
}
AERROR CreateDirectory(Call& call) {
  return OnRecord(call, "", false, [](auto& drive, auto* file) {
    return drive.CreateDirectory("f", file, nullptr);
  });
}
AERROR Delete(Call& call) {
  return OnRecord(call, "i", false,
                  [](auto& drive, auto* file) { return drive.Delete(file, nullptr); });
}

AERROR Read(Call& call) {
  struct Receiver final : IFetchCallback {
    AERROR OnFetch(std::int64_t offset, const char* data, std::int64_t length, int) override {
      if (offset != static_cast<std::int64_t>(bytes.size())) bytes += "(misplaced)";
      bytes.append(data, static_cast<std::size_t>(length));
      return SUCCESS;
    }
    std::string bytes;
  } receiver;
  const AERROR result = call.drive.Read("i", 0, kReadLength, call.handle, &receiver, nullptr);
  call.reached = receiver.bytes;
  return result;
}

template <std::int64_t size>
AERROR Upload(Call& call) {
  FilledContent cache;
  return OnRecord(call, "", false, [&](auto& drive, auto* file) {
    file->size = size;
    return drive.Upload("f", call.handle, &cache, file, {}, nullptr);
  });
}

}  // namespace

Rig::Rig(bool connect) {
  FillWithAnswers(service);
  Renew();
  if (connect && Connect() != SUCCESS) throw std::runtime_error("cannot connect");
}

ProtocolPtr Rig::Made() {
  ProtocolPtr made = MakeProtocol(&host);
  made->SetOpt("discovery_url", (service.Origin() + "/discovery").c_str());
  return made;
}

AERROR Rig::Run(const Operation& operation) {
  Call call{*protocol, host, handle};
  const AERROR result = operation.run(call);
  reached = std::move(call.reached);
  return result;
}

std::string TextOf(const _FS_FILE_V2& file) {
  return file.id + "|" + file.filename + "|" + std::to_string(file.size) + "|" +
         (file.eTag ? file.eTag.get() : "") + "|" + file.crtime + "|" + file.lasttime + "|" +
         std::to_string(file.attr);
}

const std::vector<Operation>& Operations() {
  using enum Document;
  const std::string item = kItemText;
  const std::string page = "z|z|1||||1;" + item + ";";
  const std::string stored = "i|n|5|E1|c|m|1";
  const std::string large = "|n|104857600||||0";
  static const std::vector<Operation> all{
      {"Connect: discovery", "POST /discovery", kServices, AUTH_FAILED, 0, true, Connect, "",
       "Robin"},
      {"Connect: account", "GET /api/drive", kAccount, AUTH_FAILED, 1, true, Connect, "", "Robin"},
      {"GetQuota", "GET /api/drive", kAccount, ACCESS_VIOLATION, 0, false, GetQuota, "1,2",
       "1000,750"},
      {"GetFileInfo", "GET /api/drive/items/i", kItem, FAILED, 0, false, GetFileInfo, kUntouched,
       item},
      {"GetFileList", "GET /api/drive/items/f/children", kPage, FAILED, 0, false, ListFolder, "",
       page + page},
      {"GetFileList: page 2", "GET /api/page2", kPage, FAILED, 1, false, ListFolder, page,
       page + page},
      {"GetFileList: shared", "GET /api/drive/oneDrive.sharedWithMe", kPage, FAILED, 0, false,
       ListShared, "", "z|z|1||||1;d/r|b.txt|7|E3|c|m|1;"},
      {"Rename: lookup", "GET /api/drive/items/i", kItem, FAILED, 0, false, Rename<false>,
       kUntouched, item},
      {"Rename", "PATCH /api/drive/items/i", kItem, FAILED, 0, false, Rename<true>, "|n|5|E0|||0",
       item},
      {"Move: lookup", "GET /api/drive/items/i", kItem, FAILED, 0, false, Move<false>, kUntouched,
       item},
      {"Move", "PATCH /api/drive/items/i", kItem, FAILED, 0, false, Move<true>, "|n|5|E0|||0",
       item},
      {"CreateDirectory", "POST /api/drive/items/f/children", kItem, FAILED, 0, false,
       CreateDirectory, kUntouched, item},
      {"Delete: lookup", "GET /api/drive/items/i", kItem, FAILED, 0, false, Delete, "i|n|5||||0",
       "i|n|5||||0"},
      {"Delete", "DELETE /api/drive/items/i", kNone, FAILED, 1, false, Delete, "i|n|5||||0",
       "i|n|5||||0"},
      {"Read", "GET /api/drive/items/i/content", kBytes, FAILED, 0, false, Read, "",
       std::string(kReadLength, 'c')},
      {"Upload", "PUT /api/drive/items/f:/n:/content", kItem, FAILED, 0, false, Upload<5>,
       kUntouched, stored},
      {"Upload: session", "POST /api/drive/items/f:/n:/upload.createSession", kSession,
       FILE_WRITE_FAILED, 0, false, Upload<kSessionSize>, large, "i|n|104857600|E1|c|m|1"},
      {"Upload: first part", "PUT /up", kAccepted, FAILED, 1, false, Upload<kSessionSize>, large,
       "i|n|104857600|E1|c|m|1"},
      {"Upload: next part", "PUT /up later", kItem, FAILED, 2, false, Upload<kSessionSize>, large,
       "i|n|104857600|E1|c|m|1"},
  };
  return all;
}

const Operation& Find(std::string_view name) {
  for (const Operation& operation : Operations()) {
    if (operation.name == name) return operation;
  }
  throw std::invalid_argument("no such operation");
}

std::vector<Operation> OperationsOfConnected() {
  std::vector<Operation> all;
  for (const Operation& operation : Operations()) {
    const bool known = std::any_of(all.begin(), all.end(),
                                   [&](const Operation& one) { return one.run == operation.run; });
    if (!operation.connects && !known) all.push_back(operation);
  }
  return all;
}

}  // namespace faults
