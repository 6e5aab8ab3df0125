#include "cli/item_text.h"

#include "base/utf8.h"
#include "host/text.h"

namespace cli {

std::string DisplayName(const host::Item& item) {
  return host::EscapeForTerminal(item.name) + (item.folder ? "/" : "");
}

std::string SizeText(std::int64_t size, bool bytes) {
  return bytes ? std::to_string(size)
               : host::HumanSize(size < 0 ? 0 : static_cast<std::uint64_t>(size));
}

std::string TimeText(const std::string& time) {
  constexpr std::size_t kSeconds = 19;
  if (time.size() < kSeconds || time[10] != 'T') return host::EscapeForTerminal(time);
  return host::EscapeForTerminal(time.substr(0, 10) + " " + time.substr(11, kSeconds - 11));
}

Json::Value ItemJson(const std::string& path, const host::Item& item) {
  Json::Value object(Json::objectValue);
  object["path"] = base::ValidUtf8(path);
  object["name"] = base::ValidUtf8(item.name);
  object["id"] = base::ValidUtf8(item.id);
  object["kind"] = item.folder ? "folder" : "file";
  object["size"] = Json::Int64{item.size};
  object["created"] = base::ValidUtf8(item.created);
  object["modified"] = base::ValidUtf8(item.modified);
  if (!item.etag.empty()) object["etag"] = base::ValidUtf8(item.etag);
  return object;
}

}  // namespace cli
