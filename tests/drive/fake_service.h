// FakeService: the service in memory, and one client's view of it as a drive::Remote. It follows
// the service's public rules: names without regard to case, tags that change with each change,
// uploads and changes under a condition. Faults and interruptions come from the test.
#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "drive/names.h"
#include "drive/remote.h"

namespace drive_test {

using drive::FileTime;
using drive::Kind;
using drive::RemoteError;
using drive::RemoteItem;
using drive::Trouble;

class FakeService {
 public:
  struct Node {
    std::string parent;
    RemoteItem item;
    std::string data;
  };

  FakeService() {
    RemoteItem& root = nodes_["root"].item;
    root.id = "root";
    root.kind = Kind::kFolder;
    root.etag = "t0";
  }

  Node* Find(const std::string& id) {
    const auto found = nodes_.find(id);
    return found == nodes_.end() ? nullptr : &found->second;
  }

  Node* FindName(const std::string& parent, const std::string& name) {
    const std::string key = drive::NameKey(name);
    for (auto& [id, node] : nodes_) {
      if (node.parent == parent && drive::NameKey(node.item.name) == key) return &node;
    }
    return nullptr;
  }

  Node& Add(const std::string& parent, const std::string& name, Kind kind) {
    const std::string id = "i" + std::to_string(++last_);
    Node& node = nodes_[id];
    node.parent = parent;
    node.item.id = id;
    node.item.name = name;
    node.item.kind = kind;
    Touch(node);
    return node;
  }

  void SetData(Node& node, std::string data) {
    node.data = std::move(data);
    node.item.size = std::ssize(node.data);
    node.item.modified += std::chrono::seconds(1);
    Touch(node);
  }

  void Touch(Node& node) {
    node.item.etag = "t" + std::to_string(++last_);
    history_[node.item.etag] = node.data;
  }

  /// Removes it with all that is in it; calls `removing` for each before.
  void Remove(const std::string& id, const std::function<void(const Node&)>& removing) {
    for (const RemoteItem& entry : Entries(id)) Remove(entry.id, removing);
    removing(nodes_[id]);
    nodes_.erase(id);
  }

  std::vector<RemoteItem> Entries(const std::string& id) const {
    std::vector<RemoteItem> entries;
    for (const auto& [child, node] : nodes_) {
      if (node.parent == id) entries.push_back(node.item);
    }
    return entries;
  }

  /// Path to content; folders end in a slash.
  std::map<std::string, std::string> Tree(const std::string& id = "root",
                                          const std::string& path = "") const {
    std::map<std::string, std::string> tree;
    for (const auto& [child, node] : nodes_) {
      if (node.parent != id) continue;
      const std::string name = path + node.item.name;
      if (node.item.kind == Kind::kFile) {
        tree[name] = node.data;
      } else {
        tree[name + '/'];
        tree.merge(Tree(child, name + '/'));
      }
    }
    return tree;
  }

  /// Number of the last change.
  int last() const { return last_; }

  /// What somebody removed who had looked at it, or at its folder, before it came there. Between a
  /// look and a removal lies one request.
  std::set<std::string> removed_unseen;

  /// The content that the version with this tag had.
  const std::string& DataOf(const std::string& etag) { return history_[etag]; }

 private:
  std::map<std::string, Node> nodes_;
  std::map<std::string, std::string> history_;
  int last_ = 0;
};

class FakeRemote final : public drive::Remote {
  template <class Action>
  auto Around(const std::string& request, const Action& action) {
    const std::string kind = request.substr(0, request.find(' '));
    ++requests[kind];
    if (kind == "list" || kind == "describe" || kind == "read" || kind == "space") {
      observer_(drive::RequestEvent::kQuestion);
    }
    admit([this] {
      ++throttled;
      observer_(drive::RequestEvent::kThrottled);
    });
    around(request, false);
    auto result = action();
    around(request, true);
    return result;
  }

 public:
  explicit FakeRemote(FakeService& service) : service_(service) {}

  /// Called with the request's name before the service sees it and again after it: may throw, and
  /// may use the drive.
  std::function<void(const std::string& request, bool done)> around = [](const auto&, bool) {};
  /// Returns when the service takes the request; calls `refuse` each time that it does not.
  std::function<void(const std::function<void()>& refuse)> admit = [](const auto&) {};
  std::map<std::string, int> requests;
  int throttled = 0;

  void SetObserver(Observer observer) override { observer_ = std::move(observer); }

  RemoteItem Top() override { return service_.Find("root")->item; }

  std::vector<RemoteItem> List(const std::string& id) override {
    int when = 0;
    std::vector<RemoteItem> entries = Around("list", [&] {
      Need(id);
      when = service_.last();
      return service_.Entries(id);
    });
    for (const RemoteItem& entry : entries) looked_[entry.id] = when;
    return entries;
  }

  RemoteItem Describe(const std::string& id) override {
    int when = 0;
    RemoteItem item = Around("describe", [&] {
      when = service_.last();
      return Need(id).item;
    });
    looked_[id] = when;
    return item;
  }

  RemoteItem MakeFolder(const std::string& folder, const std::string& name) override {
    return Around("mkdir " + name, [&] {
      Need(folder);
      NeedFree(folder, name, "");
      return service_.Add(folder, name, Kind::kFolder).item;
    });
  }

  RemoteItem Rename(const RemoteItem& item, const std::string& name) override {
    return Around("rename " + name, [&] {
      FakeService::Node& node = NeedVersion(item);
      NeedFree(node.parent, name, item.id);
      node.item.name = name;
      service_.Touch(node);
      return node.item;
    });
  }

  RemoteItem Move(const RemoteItem& item, const std::string& folder,
                  const std::string& name) override {
    return Around("move " + name, [&] {
      FakeService::Node& node = NeedVersion(item);
      for (const FakeService::Node* at = &Need(folder); at->item.id != "root";
           at = service_.Find(at->parent)) {
        if (at->item.id == item.id) throw RemoteError(Trouble::kInvalid, "into itself");
      }
      NeedFree(folder, name, item.id);
      node.parent = folder;
      node.item.name = name;
      service_.Touch(node);
      return node.item;
    });
  }

  void Delete(const RemoteItem& item) override {
    Around("delete", [&] {
      Need(item.id);
      service_.Remove(item.id, [this](const FakeService::Node& node) {
        const bool unseen = std::stoi(node.item.etag.substr(1)) > looked_[node.item.id];
        if (unseen) service_.removed_unseen.insert(node.data);
      });
      return 0;
    });
  }

  void Read(const std::string& id, std::int64_t offset, std::int64_t length,
            const drive::PieceSink& to, std::stop_token) override {
    std::string data;
    Around("read", [&] {
      data = Need(id).data;
      return 0;
    });
    const auto size = std::ssize(data);
    if (offset >= size) throw RemoteError(Trouble::kChanged, "past the end");
    to(offset, std::span(data).subspan(static_cast<std::size_t>(offset),
                                       static_cast<std::size_t>(std::min(length, size - offset))));
  }

  RemoteItem Upload(const drive::RemoteUpload& upload, const drive::PieceSource& from,
                    std::stop_token) override {
    return Around("upload " + upload.name, [&] {
      Need(upload.folder_id);
      FakeService::Node* node = service_.FindName(upload.folder_id, upload.name);
      if (node != nullptr && upload.etag.empty()) throw RemoteError(Trouble::kNameTaken, "taken");
      if (!upload.etag.empty() && (node == nullptr || node->item.etag != upload.etag)) {
        throw RemoteError(Trouble::kChanged, "another version");
      }
      std::string data(static_cast<std::size_t>(upload.size), '\0');
      for (std::size_t done = 0; done < data.size();) {
        const std::size_t piece = std::min<std::size_t>(data.size() - done, 64 << 10);
        done += from(static_cast<std::int64_t>(done), std::span(data).subspan(done, piece));
      }
      if (node == nullptr) node = &service_.Add(upload.folder_id, upload.name, Kind::kFile);
      service_.SetData(*node, std::move(data));
      return node->item;
    });
  }

  drive::Space GetSpace() override {
    return Around("space", [] { return drive::Space{.total = 1000, .used = 1}; });
  }

 private:
  FakeService::Node& Need(const std::string& id) {
    FakeService::Node* node = service_.Find(id);
    if (node == nullptr) throw RemoteError(Trouble::kNotFound, "not found");
    return *node;
  }

  FakeService::Node& NeedVersion(const RemoteItem& item) {
    FakeService::Node& node = Need(item.id);
    if (!item.etag.empty() && node.item.etag != item.etag) {
      throw RemoteError(Trouble::kChanged, "another version");
    }
    return node;
  }

  void NeedFree(const std::string& folder, const std::string& name, const std::string& id) {
    const FakeService::Node* node = service_.FindName(folder, name);
    if (node != nullptr && node->item.id != id) throw RemoteError(Trouble::kNameTaken, "taken");
  }

  FakeService& service_;
  Observer observer_;
  std::map<std::string, int> looked_;  ///< the service's last change when this item was seen last
};

}  // namespace drive_test
