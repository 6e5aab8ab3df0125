#include "emulator/api/drive_api.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "base/json_text.h"
#include "emulator/http/service_error.h"

namespace emulator {
namespace {

/// Query options may be written with or without the dollar sign.
std::optional<std::string> QueryOption(const FormFields& query, const std::string& name) {
  for (const std::string& key : {"$" + name, name}) {
    if (const auto found = query.find(key); found != query.end()) return found->second;
  }
  return std::nullopt;
}

std::optional<std::size_t> ToNumber(const std::string& text) {
  std::size_t number = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return number;
}

/// Keeps the members named in $select, and the annotations.
void Select(const FormFields& query, Json::Value& item) {
  const auto select = QueryOption(query, "select");
  if (!select) return;
  const std::string list = "," + *select + ",";
  for (const std::string& name : item.getMemberNames()) {
    if (name.front() != '@' && list.find("," + name + ",") == std::string::npos) {
      item.removeMember(name);
    }
  }
}

bool IsTag(const Item& item, const std::string& tag) {
  return tag == item.ETag() || tag == item.CTag();
}

}  // namespace

const std::vector<DriveApi::Route>& DriveApi::Routes() {
  static const std::vector<Route> routes = {
      {"", "GET", &DriveApi::GetDrive, true},
      {"sharedWithMe", "GET", &DriveApi::GetShared, true},
      {"", "GET", &DriveApi::GetItem, false},
      {"", "PATCH", &DriveApi::ChangeItem, false},
      {"", "DELETE", &DriveApi::DeleteItem, false},
      {"children", "GET", &DriveApi::GetChildren, false},
      {"children", "POST", &DriveApi::CreateChild, false},
      {"content", "GET", &DriveApi::GetContent, false},
      {"content", "PUT", &DriveApi::PutContent, false},
      {"createSession", "POST", &DriveApi::CreateSession, false},
      {"createUploadSession", "POST", &DriveApi::CreateSession, false},
  };
  return routes;
}

Response DriveApi::Handle(Request& request) {
  const Identity user = parts_.authority.Authenticate(request, options_.resource);
  const auto address = ParseItemAddress(request.Path().substr(options_.endpoint_path.size()));
  if (!address) throw InvalidRequest("The request's address is malformed.");
  // What GET gives, HEAD gives without the body.
  const std::string method = request.method == "HEAD" ? "GET" : request.method;
  std::string allowed;
  for (const Route& route : Routes()) {
    if (route.operation != address->operation || route.of_drive != address->item_id.empty()) {
      continue;
    }
    if (route.method != method) {
      allowed += (allowed.empty() ? "" : ", ") + std::string(route.method);
      continue;
    }
    Call call{request, *address, ParseForm(request.Query()), user,
              FindDrive(address->drive_id, user)};
    return (this->*route.handle)(call);
  }
  if (!allowed.empty()) throw MethodNotAllowed(allowed);
  throw InvalidRequest("Unsupported segment type.");
}

Drive& DriveApi::FindDrive(const std::string& id, const Identity& user) const {
  for (Drive* drive : parts_.drives) {
    if (id.empty() ? drive->Owner().id == user.id : drive->Id() == id) return *drive;
  }
  throw ItemNotFound();
}

std::optional<Item> DriveApi::Find(const Drive& drive, const ItemAddress& address) {
  auto item = drive.FindItem(address.item_id == "root" ? drive.RootId() : address.item_id);
  if (!item || address.path.empty()) return item;
  const std::string base = item->IsRoot() ? "" : item->parent_path + "/" + item->name;
  return drive.FindPath(base + address.path);
}

Item DriveApi::Target(const Call& call, SharedRole role) const {
  auto item = Find(call.drive, call.address);
  if (!item) throw ItemNotFound();
  RequireRole(call, item->id, role);
  return *std::move(item);
}

void DriveApi::RequireRole(const Call& call, const std::string& item_id, SharedRole role) {
  if (call.Own()) return;
  const auto given = call.drive.RoleOf(item_id);
  if (!given || (role == SharedRole::kWrite && *given != SharedRole::kWrite)) throw AccessDenied();
}

Response DriveApi::GetDrive(Call& call) {
  if (!call.Own()) throw AccessDenied();
  Json::Value document = parts_.json.OfDrive(call.drive);
  document["@odata.context"] = parts_.json.Context("drives/$entity");
  Select(call.query, document);
  return JsonResponse(200, base::CompactJson(document));
}

Response DriveApi::GetItem(Call& call) {
  const Item item = Target(call, SharedRole::kRead);
  if (IsTag(item, call.request.Header("If-None-Match").value_or(""))) {
    Response unchanged = EmptyResponse(304);
    unchanged.SetHeader("ETag", item.ETag());
    return unchanged;
  }
  return Answer(call, 200, item);
}

Response DriveApi::Answer(const Call& call, int status, const Item& item) const {
  Json::Value document = parts_.json.OfItem(item, call.drive, call.user);
  document["@odata.context"] = parts_.json.Context("items/$entity");
  Select(call.query, document);
  if (item.folder && QueryOption(call.query, "expand") == "children") {
    std::string next;
    document["children"] = ChildrenJson(call, item, "", next);
  }
  return ItemResponse(status, item, document);
}

Response DriveApi::GetContent(Call& call) {
  const Item item = Target(call, SharedRole::kRead);
  if (item.folder) throw InvalidRequest("A folder has no content.");
  Response response = EmptyResponse(302);
  response.SetHeader("Location", parts_.links.LinkTo(call.drive, item));
  return response;
}

Response DriveApi::GetChildren(Call& call) {
  const Item folder = Target(call, SharedRole::kRead);
  if (!folder.folder) throw InvalidRequest("The item is not a folder.");
  std::string next;
  Json::Value document;
  document["value"] = ChildrenJson(call, folder, PageStart(call), next);
  document["@odata.context"] = parts_.json.Context("items");
  if (!next.empty()) document["@odata.nextLink"] = NextLink(call, next);
  return JsonResponse(200, base::CompactJson(document));
}

Json::Value DriveApi::ChildrenJson(const Call& call, const Item& folder, const std::string& from,
                                   std::string& next) const {
  auto page = call.drive.Children(folder.id, from, PageSize(call));
  Json::Value children = Json::arrayValue;
  for (const Item& child : page.items) {
    Json::Value entry = parts_.json.OfItem(child, call.drive, call.user);
    Select(call.query, entry);
    children.append(std::move(entry));
  }
  next = std::move(page.next);
  return children;
}

Response DriveApi::GetShared(Call& call) {
  if (!call.Own()) throw AccessDenied();
  const std::size_t first = ToNumber(PageStart(call)).value_or(0);
  const std::size_t limit = PageSize(call);
  std::size_t place = 0;
  Json::Value document;
  Json::Value& entries = document["value"] = Json::arrayValue;
  for (const Drive* drive : parts_.drives) {
    if (drive == &call.drive) continue;
    for (const Item& item : drive->SharedItems()) {
      if (place >= first && place < first + limit) {
        entries.append(parts_.json.OfSharedItem(item, *drive, call.user));
      }
      ++place;
    }
  }
  document["@odata.context"] = parts_.json.Context("items");
  if (place > first + limit) {
    document["@odata.nextLink"] = NextLink(call, std::to_string(first + limit));
  }
  return JsonResponse(200, base::CompactJson(document));
}

std::size_t DriveApi::PageSize(const Call& call) const {
  const auto top = QueryOption(call.query, "top");
  if (!top) return options_.page_size;
  const auto wanted = ToNumber(*top);
  if (!wanted || *wanted == 0) throw InvalidRequest("Invalid value for $top.");
  return std::min(*wanted, options_.page_size);
}

std::string DriveApi::PageStart(const Call& call) const {
  const auto token = QueryOption(call.query, "skiptoken");
  if (!token) return {};
  const auto mark = token->find('.');
  const auto start = DecodeBase64(token->substr(0, mark));
  if (mark == std::string::npos || !start ||
      token->substr(mark + 1) != PercentDecode(page_signer_.Sign(*start))) {
    throw InvalidRequest("The page token is not valid.");
  }
  return *start;
}

std::string DriveApi::NextLink(const Call& call, const std::string& next) const {
  std::string link = call.request.origin;
  link += call.request.Path();
  link += '?';
  std::string_view query = call.request.Query();
  while (!query.empty()) {
    const std::string_view pair = query.substr(0, query.find('&'));
    query.remove_prefix(std::min(pair.size() + 1, query.size()));
    if (pair.find("skiptoken=") != std::string_view::npos) continue;
    link += pair;
    link += '&';
  }
  return link + "$skiptoken=" + PercentEncode(EncodeBase64(next)) + "." + page_signer_.Sign(next);
}

}  // namespace emulator
