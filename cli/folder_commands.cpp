#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "base/json_text.h"
#include "cli/batch.h"
#include "cli/browse_commands.h"
#include "cli/item_text.h"
#include "host/text.h"

namespace cli {
namespace {

/// No folder of the service lies deeper (a path has 400 characters at most); a loop of links would.
constexpr std::size_t kDeepest = 400;

using Entries = std::vector<host::Item>;

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

RemoteItem Child(const RemoteItem& folder, const host::Item& entry) {
  return {JoinRemotePath(folder.path, entry.name), folder.item.id, entry};
}

/// The folders below the one that the person named. One that cannot be listed is reported, and the
/// others go on.
class Walk {
 public:
  /// What was found before a failure is seen before its message.
  explicit Walk(const BrowseContext& context)
      : context_(context), batch_([&context] { context.out.Flush(); }) {}

  /// Nothing when the folder cannot be listed.
  std::optional<Entries> List(const RemoteItem& folder, std::size_t depth) {
    std::optional<Entries> entries;
    batch_.Try([&] {
      CheckDepth(depth, folder.path);
      entries = context_.drive.List(folder);
    });
    return entries;
  }

  /// Throws a kFailed Failure when a folder could not be listed.
  void Check() const { batch_.Check("folder", "listed"); }

 private:
  const BrowseContext& context_;
  Batch batch_;
};

class TextList {
 public:
  TextList(const BrowseContext& context, Walk& walk) : context_(context), walk_(walk) {}

  void Show(const RemoteItem& folder, const Entries& entries, std::size_t depth) {
    if (context_.options.recursive) {
      context_.out.Write((depth > 0 ? "\n" : "") + host::EscapeForTerminal(folder.path) + ":\n");
    }
    WriteEntries(context_, entries);
    if (!context_.options.recursive) return;
    for (const host::Item& entry : entries) {
      if (!entry.folder) continue;
      const RemoteItem child = Child(folder, entry);
      if (const auto below = walk_.List(child, depth + 1)) Show(child, *below, depth + 1);
    }
  }

 private:
  const BrowseContext& context_;
  Walk& walk_;
};

class JsonList {
 public:
  JsonList(const BrowseContext& context, Walk& walk) : context_(context), walk_(walk) {}

  void Add(const RemoteItem& folder, const Entries& entries, std::size_t depth) {
    for (const host::Item& entry : entries) {
      const RemoteItem child = Child(folder, entry);
      items.append(ItemJson(child.path, entry));
      if (!context_.options.recursive || !entry.folder) continue;
      if (const auto below = walk_.List(child, depth + 1)) Add(child, *below, depth + 1);
    }
  }

  Json::Value items{Json::arrayValue};

 private:
  const BrowseContext& context_;
  Walk& walk_;
};

std::string Counted(std::size_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

class TreeDrawing {
 public:
  TreeDrawing(const BrowseContext& context, Walk& walk) : context_(context), walk_(walk) {}

  void Draw(const RemoteItem& folder, const Entries& entries, const std::string& stem,
            std::size_t depth) {
    for (std::size_t i = 0; i < entries.size(); ++i) {
      const host::Item& entry = entries[i];
      const bool last = i + 1 == entries.size();
      context_.out.Write(stem + (last ? "└── " : "├── ") + DisplayName(entry) + "\n");
      ++(entry.folder ? folders_ : files_);
      if (!entry.folder || depth == context_.options.depth) continue;
      const RemoteItem child = Child(folder, entry);
      if (const auto below = walk_.List(child, depth + 1)) {
        Draw(child, *below, stem + (last ? "    " : "│   "), depth + 1);
      }
    }
  }

  std::string Counts() const {
    return Counted(folders_, "folder") + ", " + Counted(files_, "file");
  }

 private:
  const BrowseContext& context_;
  Walk& walk_;
  std::size_t folders_ = 0;
  std::size_t files_ = 0;
};

/// `entries`: of a folder that was listed.
Json::Value TreeJson(const BrowseContext& context, Walk& walk, const RemoteItem& item,
                     const std::optional<Entries>& entries, std::size_t depth) {
  Json::Value node = ItemJson(item.path, item.item);
  if (!entries) return node;
  node["children"] = Json::Value(Json::arrayValue);
  for (const host::Item& entry : *entries) {
    const RemoteItem child = Child(item, entry);
    const bool deep_enough = depth == context.options.depth;
    const auto below = entry.folder && !deep_enough ? walk.List(child, depth + 1) : std::nullopt;
    node["children"].append(TreeJson(context, walk, child, below, depth + 1));
  }
  return node;
}

/// What the person named; entries only of a folder.
struct Named {
  RemoteItem item;
  std::optional<Entries> entries;
};

Named FindNamed(const BrowseContext& context) {
  Named named{context.drive.Find(context.options.remote), std::nullopt};
  if (named.item.item.folder) named.entries = context.drive.List(named.item);
  return named;
}

}  // namespace

void ListFolder(const BrowseContext& context) {
  const auto [item, entries] = FindNamed(context);
  Walk walk(context);
  if (context.options.json) {
    JsonList list(context, walk);
    if (entries) list.Add(item, *entries, 0);
    if (!entries) list.items.append(ItemJson(item.path, item.item));
    context.out.Write(base::PrettyJson(list.items));
  } else if (entries) {
    TextList(context, walk).Show(item, *entries, 0);
  } else {
    WriteEntries(context, {item.item});
  }
  walk.Check();
}

void ShowTree(const BrowseContext& context) {
  const auto [item, entries] = FindNamed(context);
  Walk walk(context);
  if (context.options.json) {
    context.out.Write(base::PrettyJson(TreeJson(context, walk, item, entries, 1)));
  } else {
    context.out.Write(host::EscapeForTerminal(item.path) + "\n");
    TreeDrawing tree(context, walk);
    if (entries) tree.Draw(item, *entries, "", 1);
    context.out.Write("\n" + tree.Counts() + "\n");
  }
  walk.Check();
}

}  // namespace cli
