#include "cli/browse_commands.h"

#include <string>

#include "base/json_text.h"
#include "base/utf8.h"
#include "cli/item_text.h"
#include "host/authority.h"
#include "host/settings.h"
#include "host/text.h"

namespace cli {

void WhoAmI(const BrowseContext& context) {
  const std::string name = context.drive.items().UserName();
  const host::ServiceSettings& service = context.options.service;
  const std::string tenant = host::TenantOf(service.token_url);
  const std::string& drive = host::DriveAddress(service);
  if (context.options.json) {
    Json::Value document(Json::objectValue);
    document["name"] = base::ValidUtf8(name);
    document["tenant"] = base::ValidUtf8(tenant);
    document["drive"] = base::ValidUtf8(drive);
    document["drive_from"] = service.drive_from;
    return context.out.Write(base::PrettyJson(document));
  }
  context.out.Write(host::EscapeForTerminal(name) + "\n");
  Table table({false, false});
  if (!tenant.empty()) table.Add({"Tenant", host::EscapeForTerminal(tenant)});
  table.Add({"Drive", host::EscapeForTerminal(drive)});
  if (!service.drive_from.empty()) table.Add({"Address from", service.drive_from});
  table.WriteTo(context.out);
}

void ShowSpace(const BrowseContext& context) {
  const auto [total, used] = context.drive.items().DriveSpace();
  const std::uint64_t free = used < total ? total - used : 0;
  if (context.options.json) {
    Json::Value document(Json::objectValue);
    document["total"] = Json::UInt64{total};
    document["used"] = Json::UInt64{used};
    document["free"] = Json::UInt64{free};
    return context.out.Write(base::PrettyJson(document));
  }
  const auto text = [&](std::uint64_t size) {
    return context.options.bytes ? std::to_string(size) : host::HumanSize(size);
  };
  const auto percent = static_cast<unsigned>(
      total == 0 ? 0.0 : static_cast<double>(used) * 100 / static_cast<double>(total) + 0.5);
  Table table({true, true, true, true});
  table.Add({"Total", "Used", "Free", "Use%"});
  table.Add({text(total), text(used), text(free), std::to_string(percent) + "%"});
  table.WriteTo(context.out);
}

void ShowItem(const BrowseContext& context) {
  const RemoteItem item = context.drive.Find(context.options.remote);
  const host::Item record = context.drive.Describe(item);
  if (context.options.json) return context.out.Write(base::PrettyJson(ItemJson(item.path, record)));
  Table table({false, false});
  table.Add({"Path", host::EscapeForTerminal(item.path)});
  table.Add({"Name", host::EscapeForTerminal(record.name)});
  table.Add({"Kind", record.folder ? "folder" : "file"});
  if (!record.folder) {
    table.Add(
        {"Size", SizeText(record.size, false) + " (" + std::to_string(record.size) + " bytes)"});
  }
  table.Add({"Created", TimeText(record.created)});
  table.Add({"Modified", TimeText(record.modified)});
  if (!record.etag.empty()) table.Add({"Tag", host::EscapeForTerminal(record.etag)});
  table.Add({"Id", host::EscapeForTerminal(record.id)});
  table.WriteTo(context.out);
}

}  // namespace cli
