// A drive with one item, and the operations that need a service, on it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tests/test_host.h"
#include "tests/web_server.h"

namespace small_drive {

inline constexpr std::int64_t kLarge = 104857600;  // goes through an upload session

/// What an honest service says. Large files go to `session_url`, whose path ends in "/session".
inline emulator::Response Answer(const Received& request, const std::string& session_url) {
  const std::string path = request.target.substr(0, request.target.find('?'));
  const auto ends = [&](std::string_view ending) { return path.ends_with(ending); };
  const std::string item = R"({"id":"item","name":"n","eTag":"e","size":)" +
                           std::to_string(ends("/session") ? kLarge : 7) + "}";
  if (request.method == "DELETE") return emulator::EmptyResponse(204);
  if (ends(".createSession")) {
    return emulator::JsonResponse(
        200, R"({"expirationDateTime":"x","uploadUrl":")" + session_url + "\"}");
  }
  if (ends("/drive")) {
    return emulator::JsonResponse(200, R"({"owner":{"user":{"displayName":"R"}},)"
                                       R"("quota":{"total":9,"remaining":2}})");
  }
  if (request.method == "GET" && ends("/content")) return emulator::JsonResponse(200, "content");
  const bool page = request.method == "GET" && ends("/children");
  return emulator::JsonResponse(200, page ? "{\"value\":[" + item + "]}" : item);
}

inline AERROR Look(IProtocol_V2& p, const char* id) {
  _FS_FILE_V2 file;
  return p.GetFileInfo(id, &file, nullptr);
}

inline AERROR Upload(IProtocol_V2& p, std::int64_t size) {
  FilledContent content;
  _FS_FILE_V2 file;
  file.filename = "n";
  file.size = size;
  return p.Upload("item", std::make_shared<_FS_HANDLE>(), &content, &file, {}, nullptr);
}

/// What needs the service.
struct Operation {
  const char* name;
  const char* method;  // of its last request, and the end of its target
  const char* ending;
  AERROR (*run)(IProtocol_V2& p);
};

inline const std::vector<Operation>& Operations() {
  static const std::vector<Operation> all = {
      {"GetQuota", "GET", "/drive",
       [](IProtocol_V2& p) {
         std::uint64_t bytes = 0;
         return p.GetQuota(&bytes, &bytes);
       }},
      {"GetFileList", "GET", "/children",
       [](IProtocol_V2& p) {
         FileCollector list;
         return p.GetFileList("item", &list, nullptr);
       }},
      {"GetFileInfo", "GET", "/item", [](IProtocol_V2& p) { return Look(p, "item"); }},
      {"Rename", "PATCH", "/item",
       [](IProtocol_V2& p) {
         _FS_FILE_V2 file;
         return p.Rename("item", "", &file, nullptr);
       }},
      {"Move", "PATCH", "/item",
       [](IProtocol_V2& p) {
         _FS_FILE_V2 file;
         return p.MoveDir("item", "root", &file, nullptr);
       }},
      {"CreateDirectory", "POST", "/children",
       [](IProtocol_V2& p) {
         _FS_FILE_V2 file;
         return p.CreateDirectory("item", &file, nullptr);
       }},
      {"Delete", "DELETE", "/item",
       [](IProtocol_V2& p) {
         _FS_FILE_V2 file;
         file.id = "item";
         return p.Delete(&file, nullptr);
       }},
      {"Read", "GET", "/content",
       [](IProtocol_V2& p) {
         FilledContent content;
         return p.Read("item", 0, 7, std::make_shared<_FS_HANDLE>(), &content, nullptr);
       }},
      {"Upload", "PUT", "/content", [](IProtocol_V2& p) { return Upload(p, 7); }},
      {"Upload session", "POST", ".createSession",
       [](IProtocol_V2& p) { return Upload(p, kLarge); }},
      {"Upload chunk", "PUT", "/session", [](IProtocol_V2& p) { return Upload(p, kLarge); }},
  };
  return all;
}

}  // namespace small_drive
