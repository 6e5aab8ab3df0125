#include "cli/browse_commands.h"

#include <string>
#include <vector>

#include "base/json_text.h"
#include "base/utf8.h"
#include "host/text.h"

namespace cli {
namespace {

/// No folder of the service lies deeper (a path has 400 characters at most); a loop of links would.
constexpr std::size_t kDeepest = 400;

std::string SizeText(std::int64_t size, bool bytes) {
  return bytes ? std::to_string(size)
               : host::HumanSize(size < 0 ? 0 : static_cast<std::uint64_t>(size));
}

/// "2026-01-02T03:04:05Z" as "2026-01-02 03:04:05"; another form unchanged.
std::string TimeText(const std::string& time) {
  constexpr std::size_t kSeconds = 19;
  if (time.size() < kSeconds || time[10] != 'T') return host::EscapeForTerminal(time);
  return host::EscapeForTerminal(time.substr(0, 10) + " " + time.substr(11, kSeconds - 11));
}

std::string DisplayName(const host::Item& record) {
  return host::EscapeForTerminal(record.name) + (record.folder ? "/" : "");
}

Json::Value ItemJson(const std::string& path, const host::Item& record) {
  Json::Value item(Json::objectValue);
  item["path"] = base::ValidUtf8(path);
  item["name"] = base::ValidUtf8(record.name);
  item["id"] = base::ValidUtf8(record.id);
  item["kind"] = record.folder ? "folder" : "file";
  item["size"] = Json::Int64{record.size};
  item["created"] = base::ValidUtf8(record.created);
  item["modified"] = base::ValidUtf8(record.modified);
  if (!record.etag.empty()) item["etag"] = base::ValidUtf8(record.etag);
  return item;
}

void CheckDepth(std::size_t depth, const std::string& path) {
  if (depth > kDeepest) {
    throw host::Failure(
        host::FailureKind::kFailed,
        "the folders under " + host::Quoted(path.substr(0, 100)) + "... are nested too deep");
  }
}

void WriteEntries(const BrowseContext& context, const std::vector<host::Item>& entries) {
  Table table(context.options.long_format ? std::vector<bool>{false, true, false, false}
                                          : std::vector<bool>{false});
  for (const host::Item& entry : entries) {
    if (!context.options.long_format) {
      table.Add({DisplayName(entry)});
      continue;
    }
    const std::string size =
        entry.folder ? std::string("-") : SizeText(entry.size, context.options.bytes);
    table.Add({entry.folder ? "d" : "-", size, TimeText(entry.modified), DisplayName(entry)});
  }
  table.WriteTo(context.out);
}

void ListAsText(const BrowseContext& context, const RemoteItem& folder, std::size_t depth) {
  CheckDepth(depth, folder.path);
  const auto entries = context.drive.List(folder);
  if (context.options.recursive) {
    context.out.Write((depth > 0 ? "\n" : "") + host::EscapeForTerminal(folder.path) + ":\n");
  }
  WriteEntries(context, entries);
  if (!context.options.recursive) return;
  for (const host::Item& entry : entries) {
    if (!entry.folder) continue;
    ListAsText(context, {JoinRemotePath(folder.path, entry.name), folder.item.id, entry},
               depth + 1);
  }
}

void ListAsJson(const BrowseContext& context, const RemoteItem& folder, std::size_t depth,
                Json::Value& items) {
  CheckDepth(depth, folder.path);
  for (const host::Item& entry : context.drive.List(folder)) {
    const std::string path = JoinRemotePath(folder.path, entry.name);
    items.append(ItemJson(path, entry));
    if (context.options.recursive && entry.folder) {
      ListAsJson(context, {path, folder.item.id, entry}, depth + 1, items);
    }
  }
}

struct TreeCounts {
  std::size_t folders = 0;
  std::size_t files = 0;
};

std::string Counted(std::size_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

void DrawBranches(const BrowseContext& context, const RemoteItem& folder, const std::string& stem,
                  std::size_t depth, TreeCounts& counts) {
  CheckDepth(depth, folder.path);
  const auto entries = context.drive.List(folder);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const host::Item& entry = entries[i];
    const bool last = i + 1 == entries.size();
    context.out.Write(stem + (last ? "└── " : "├── ") + DisplayName(entry) + "\n");
    ++(entry.folder ? counts.folders : counts.files);
    if (!entry.folder || depth == context.options.depth) continue;
    DrawBranches(context, {JoinRemotePath(folder.path, entry.name), folder.item.id, entry},
                 stem + (last ? "    " : "│   "), depth + 1, counts);
  }
}

Json::Value TreeJson(const BrowseContext& context, const RemoteItem& item, std::size_t depth) {
  CheckDepth(depth, item.path);
  Json::Value node = ItemJson(item.path, item.item);
  const bool deep_enough = context.options.depth != 0 && depth > context.options.depth;
  if (!item.item.folder || deep_enough) return node;
  node["children"] = Json::Value(Json::arrayValue);
  for (const host::Item& entry : context.drive.List(item)) {
    const RemoteItem child{JoinRemotePath(item.path, entry.name), item.item.id, entry};
    node["children"].append(TreeJson(context, child, depth + 1));
  }
  return node;
}

}  // namespace

void WhoAmI(const BrowseContext& context) {
  const std::string name = context.drive.items().UserName();
  if (context.options.json) {
    Json::Value document(Json::objectValue);
    document["name"] = base::ValidUtf8(name);
    context.out.Write(base::PrettyJson(document));
  } else {
    context.out.Write(host::EscapeForTerminal(name) + "\n");
  }
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

void ListFolder(const BrowseContext& context) {
  const RemoteItem item = context.drive.Find(context.options.remote);
  if (context.options.json) {
    Json::Value items(Json::arrayValue);
    if (item.item.folder) {
      ListAsJson(context, item, 0, items);
    } else {
      items.append(ItemJson(item.path, item.item));
    }
    context.out.Write(base::PrettyJson(items));
  } else if (item.item.folder) {
    ListAsText(context, item, 0);
  } else {
    WriteEntries(context, {item.item});
  }
}

void ShowTree(const BrowseContext& context) {
  const RemoteItem item = context.drive.Find(context.options.remote);
  if (context.options.json) return context.out.Write(base::PrettyJson(TreeJson(context, item, 1)));
  context.out.Write(host::EscapeForTerminal(item.path) + "\n");
  TreeCounts counts;
  if (item.item.folder) DrawBranches(context, item, "", 1, counts);
  context.out.Write("\n" + Counted(counts.folders, "folder") + ", " +
                    Counted(counts.files, "file") + "\n");
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
