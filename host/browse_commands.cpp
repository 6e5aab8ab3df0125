#include "host/browse_commands.h"

#include <string>
#include <vector>

#include "base/utf8.h"
#include "host/text.h"

namespace host {
namespace {

/// No folder of the service lies deeper (a path has 400 characters at most); a loop of links would.
constexpr std::size_t kDeepest = 400;

std::string SizeText(std::int64_t size, bool bytes) {
  return bytes ? std::to_string(size) : HumanSize(size < 0 ? 0 : static_cast<std::uint64_t>(size));
}

/// "2026-01-02T03:04:05Z" as "2026-01-02 03:04:05"; another form unchanged.
std::string TimeText(const std::string& time) {
  constexpr std::size_t kSeconds = 19;
  if (time.size() < kSeconds || time[10] != 'T') return EscapeForTerminal(time);
  return EscapeForTerminal(time.substr(0, 10) + " " + time.substr(11, kSeconds - 11));
}

std::string DisplayName(const _FS_FILE_V2& record) {
  return EscapeForTerminal(record.filename) + (IsFolder(record) ? "/" : "");
}

Json::Value ItemJson(const std::string& path, const _FS_FILE_V2& record) {
  Json::Value item(Json::objectValue);
  item["path"] = base::ValidUtf8(path);
  item["name"] = base::ValidUtf8(record.filename);
  item["id"] = base::ValidUtf8(record.id);
  item["kind"] = IsFolder(record) ? "folder" : "file";
  item["size"] = Json::Int64{record.size};
  item["created"] = base::ValidUtf8(record.crtime);
  item["modified"] = base::ValidUtf8(record.lasttime);
  if (record.eTag) item["etag"] = base::ValidUtf8(record.eTag.get());
  return item;
}

void CheckDepth(std::size_t depth, const std::string& path) {
  if (depth > kDeepest) {
    throw Failure(FailureKind::kFailed,
                  "the folders under " + Quoted(path.substr(0, 100)) + "... are nested too deep");
  }
}

void WriteEntries(const BrowseContext& context, const std::vector<_FS_FILE_V2>& entries) {
  Table table(context.options.long_format ? std::vector<bool>{false, true, false, false}
                                          : std::vector<bool>{false});
  for (const _FS_FILE_V2& entry : entries) {
    if (!context.options.long_format) {
      table.Add({DisplayName(entry)});
      continue;
    }
    const std::string size =
        IsFolder(entry) ? std::string("-") : SizeText(entry.size, context.options.bytes);
    table.Add({IsFolder(entry) ? "d" : "-", size, TimeText(entry.lasttime), DisplayName(entry)});
  }
  table.WriteTo(context.out);
}

void ListAsText(const BrowseContext& context, const RemoteItem& folder, std::size_t depth) {
  CheckDepth(depth, folder.path);
  const auto entries = context.drive.List(folder.record.id, folder.path);
  if (context.options.recursive) {
    context.out.Write((depth > 0 ? "\n" : "") + EscapeForTerminal(folder.path) + ":\n");
  }
  WriteEntries(context, entries);
  if (!context.options.recursive) return;
  for (const _FS_FILE_V2& entry : entries) {
    if (!IsFolder(entry)) continue;
    ListAsText(context, {JoinRemotePath(folder.path, entry.filename), folder.record.id, entry},
               depth + 1);
  }
}

void ListAsJson(const BrowseContext& context, const RemoteItem& folder, std::size_t depth,
                Json::Value& items) {
  CheckDepth(depth, folder.path);
  for (const _FS_FILE_V2& entry : context.drive.List(folder.record.id, folder.path)) {
    const std::string path = JoinRemotePath(folder.path, entry.filename);
    items.append(ItemJson(path, entry));
    if (context.options.recursive && IsFolder(entry)) {
      ListAsJson(context, {path, folder.record.id, entry}, depth + 1, items);
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
  const auto entries = context.drive.List(folder.record.id, folder.path);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const _FS_FILE_V2& entry = entries[i];
    const bool last = i + 1 == entries.size();
    context.out.Write(stem + (last ? "└── " : "├── ") + DisplayName(entry) + "\n");
    ++(IsFolder(entry) ? counts.folders : counts.files);
    if (!IsFolder(entry) || depth == context.options.depth) continue;
    DrawBranches(context, {JoinRemotePath(folder.path, entry.filename), folder.record.id, entry},
                 stem + (last ? "    " : "│   "), depth + 1, counts);
  }
}

Json::Value TreeJson(const BrowseContext& context, const RemoteItem& item, std::size_t depth) {
  CheckDepth(depth, item.path);
  Json::Value node = ItemJson(item.path, item.record);
  const bool deep_enough = context.options.depth != 0 && depth > context.options.depth;
  if (!IsFolder(item.record) || deep_enough) return node;
  node["children"] = Json::Value(Json::arrayValue);
  for (const _FS_FILE_V2& entry : context.drive.List(item.record.id, item.path)) {
    const RemoteItem child{JoinRemotePath(item.path, entry.filename), item.record.id, entry};
    node["children"].append(TreeJson(context, child, depth + 1));
  }
  return node;
}

}  // namespace

void WhoAmI(const BrowseContext& context) {
  // The interface tells the size that is missing for no name, so the buffer grows until it fits.
  std::string name(256, '\0');
  int length = 0;
  AERROR result = INSUFFICIENT_BUFFER;
  while (result == INSUFFICIENT_BUFFER && name.size() < (1U << 20U)) {
    name.resize(name.size() * 2);
    length = static_cast<int>(name.size()) - 1;
    result = context.drive.protocol().GetUserInfo(name.data(), &length);
  }
  context.drive.session().Check(result, "asking who is signed in");
  name.resize(static_cast<std::size_t>(length));
  if (context.options.json) {
    Json::Value document(Json::objectValue);
    document["name"] = base::ValidUtf8(name);
    context.out.Write(base::PrettyJson(document));
  } else {
    context.out.Write(EscapeForTerminal(name) + "\n");
  }
}

void ShowSpace(const BrowseContext& context) {
  std::uint64_t total = 0;
  std::uint64_t used = 0;
  context.drive.session().Check(context.drive.protocol().GetQuota(&total, &used),
                                "asking for the drive's space");
  const std::uint64_t free = used < total ? total - used : 0;
  if (context.options.json) {
    Json::Value document(Json::objectValue);
    document["total"] = Json::UInt64{total};
    document["used"] = Json::UInt64{used};
    document["free"] = Json::UInt64{free};
    return context.out.Write(base::PrettyJson(document));
  }
  const auto text = [&](std::uint64_t size) {
    return context.options.bytes ? std::to_string(size) : HumanSize(size);
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
    if (IsFolder(item.record)) {
      ListAsJson(context, item, 0, items);
    } else {
      items.append(ItemJson(item.path, item.record));
    }
    context.out.Write(base::PrettyJson(items));
  } else if (IsFolder(item.record)) {
    ListAsText(context, item, 0);
  } else {
    WriteEntries(context, {item.record});
  }
}

void ShowTree(const BrowseContext& context) {
  const RemoteItem item = context.drive.Find(context.options.remote);
  if (context.options.json) return context.out.Write(base::PrettyJson(TreeJson(context, item, 1)));
  context.out.Write(EscapeForTerminal(item.path) + "\n");
  TreeCounts counts;
  if (IsFolder(item.record)) DrawBranches(context, item, "", 1, counts);
  context.out.Write("\n" + Counted(counts.folders, "folder") + ", " +
                    Counted(counts.files, "file") + "\n");
}

void ShowItem(const BrowseContext& context) {
  const RemoteItem item = context.drive.Find(context.options.remote);
  const _FS_FILE_V2 record = context.drive.Describe(item);
  if (context.options.json) return context.out.Write(base::PrettyJson(ItemJson(item.path, record)));
  Table table({false, false});
  table.Add({"Path", EscapeForTerminal(item.path)});
  table.Add({"Name", EscapeForTerminal(record.filename)});
  table.Add({"Kind", IsFolder(record) ? "folder" : "file"});
  if (!IsFolder(record)) {
    table.Add(
        {"Size", SizeText(record.size, false) + " (" + std::to_string(record.size) + " bytes)"});
  }
  table.Add({"Created", TimeText(record.crtime)});
  table.Add({"Modified", TimeText(record.lasttime)});
  if (record.eTag) table.Add({"Tag", EscapeForTerminal(record.eTag.get())});
  table.Add({"Id", EscapeForTerminal(record.id)});
  table.WriteTo(context.out);
}

}  // namespace host
