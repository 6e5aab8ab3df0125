// Hunts work that is lost when an item is changed here and, unseen from here, at the service. The
// rows say what both sides have in the end; docs/drive.md has the same as tables for people.
#include <functional>
#include <utility>

#include <gtest/gtest.h>

#include "tests/drive/client.h"

namespace drive_test {
namespace {

/// When the change there happens, as seen from the one here.
enum class Moment {
  kBefore,     ///< here nothing was sent yet
  kDuring,     ///< in the middle of the first request that sends the change from here
  kSeen,       ///< as kBefore; the folder has been listed since, but nothing was sent
  kWhileOpen,  ///< as kBefore; a program has the file open for reading until all is sent
};

/// The change there: made by somebody at the service.
class There {
 public:
  explicit There(FakeService& service) : service_(service) {}

  void Write(const std::string& path) { service_.SetData(At(path), "theirs"); }
  void Move(const std::string& from, const std::string& folder, const std::string& name) {
    FakeService::Node& node = At(from);
    node.parent = At(folder).item.id;
    node.item.name = name;
    service_.Touch(node);
  }
  void Remove(const std::string& path) {
    service_.Remove(At(path).item.id, [](const auto&) {});
  }
  void MakeFile(const std::string& folder, const std::string& name) {
    service_.SetData(service_.Add(At(folder).item.id, name, Kind::kFile), "theirs");
  }
  void MakeFolder(const std::string& folder, const std::string& name) {
    service_.Add(At(folder).item.id, name, Kind::kFolder);
  }

 private:
  FakeService::Node& At(const std::string& path) {
    FakeService::Node* node = service_.Find("root");
    for (const auto& part : std::filesystem::path(path)) {
      node = service_.FindName(node->item.id, part.string());
    }
    return *node;
  }

  FakeService& service_;
};

struct Pair {
  const char* name;
  std::function<void(Client&)> here;
  std::function<void(There&)> there;
  Client::Tree after;
  Client::Tree after_seen = {};  ///< empty: the same
};

/// One client and a drive with d/file, d/sub/x and e/.
class World {
 public:
  World() {
    client_.MakeFolder("d");
    client_.MakeFolder("d/sub");
    client_.MakeFolder("e");
    client_.Write("d/file", "base");
    client_.Write("d/sub/x", "base");
    client_.Sync();
    client_.options.upload_delay = std::chrono::hours(1);  // nothing is sent before it is seen
    client_.Restart();
    client_.GetTree();
  }

  void Run(const Pair& pair, Moment moment) {
    SCOPED_TRACE(std::string(pair.name) + ", moment " + std::to_string(static_cast<int>(moment)));
    There there(service_);
    std::shared_ptr<drive::OpenFile> open;
    if (moment == Moment::kWhileOpen)
      open = client_.drive().Open(client_.Find("d/file").number, {}, {});
    pair.here(client_);
    if (moment == Moment::kDuring) {
      client_.remote.around = [&, happened = false](const std::string& request, bool) mutable {
        if (request != "list" && request != "space" && !std::exchange(happened, true)) {
          pair.there(there);
        }
      };
    } else {
      pair.there(there);
    }
    if (moment == Moment::kSeen) {
      clock_.Pass(std::chrono::minutes(1));
      client_.GetTree();
    }
    client_.Sync();
    client_.remote.around = [](const auto&, bool) {};
    if (open) client_.drive().Close(*open);
    for (int round = 0; round < 3; ++round) {
      clock_.Pass(std::chrono::minutes(6));
      client_.work().RunUntil(clock_.Now());
      client_.GetTree();
      client_.Sync();
    }
    const bool other = moment == Moment::kSeen && !pair.after_seen.empty();
    const Client::Tree& after = other ? pair.after_seen : pair.after;
    EXPECT_EQ(service_.Tree(), after);
    EXPECT_EQ(client_.GetTree(), after);
    EXPECT_EQ(client_.drive().GetStatus().pending, 0);
  }

 private:
  FakeService service_;
  TestClock clock_;
  std::mt19937 random_{1};
  Client client_{service_, clock_, random_, "here"};
};

/// The tree in the end: what is said, and the rest as it was.
Client::Tree With(Client::Tree tree,
                  const Client::Tree& rest = {{"d/sub/", ""}, {"d/sub/x", "base"}}) {
  tree.insert({{"d/", ""}, {"e/", ""}});
  tree.insert(rest.begin(), rest.end());
  return tree;
}

const std::string kConflict = " (conflict here 2019-12-20)";

const auto kWrite = [](Client& here) { here.Write("d/file", "mine"); };
const auto kRename = [](Client& here) { here.Rename("d/file", "d/here"); };
const auto kMove = [](Client& here) { here.Rename("d/file", "e/file"); };
const auto kRemove = [](Client& here) { here.Remove("d/file"); };
const auto kReplace = [](Client& here) {
  here.Write("d/lock", "mine");
  here.Rename("d/lock", "d/file");
};
const auto kWritten = [](There& there) { there.Write("d/file"); };
const auto kRenamed = [](There& there) { there.Move("d/file", "d", "there"); };
const auto kMoved = [](There& there) { there.Move("d/file", "e", "moved"); };
const auto kRemoved = [](There& there) { there.Remove("d/file"); };

TEST(Contradiction, OneFile) {
  const Client::Tree both = With({{"d/file", "theirs"}, {"d/file" + kConflict, "mine"}});
  // The service gives a moved file another tag: that only its place is new cannot be known.
  const auto kept = [](const char* theirs) {
    return With({{theirs, "base"}, {"d/file" + kConflict, "mine"}});
  };
  const auto beside = [](const std::string& theirs) {
    return With({{theirs, "base"}, {theirs + kConflict, "mine"}});
  };
  const std::vector<Pair> pairs = {
      {"written, written", kWrite, kWritten, both},
      {"written, renamed", kWrite, kRenamed, kept("d/there"), beside("d/there")},
      {"written, moved", kWrite, kMoved, kept("e/moved"), beside("e/moved")},
      {"written, removed", kWrite, kRemoved, With({{"d/file", "mine"}})},
      {"replaced, written", kReplace, kWritten, both},
      {"replaced, renamed", kReplace, kRenamed, kept("d/there"), beside("d/there")},
      {"replaced, moved", kReplace, kMoved, kept("e/moved"), beside("e/moved")},
      {"replaced, removed", kReplace, kRemoved, With({{"d/file", "mine"}})},
      {"renamed, written", kRename, kWritten, With({{"d/here", "theirs"}})},
      {"renamed, renamed", kRename, kRenamed, With({{"d/here", "base"}})},
      {"renamed, moved", kRename, kMoved, With({{"e/here", "base"}})},
      {"renamed, removed", kRename, kRemoved, With({})},
      {"moved, written", kMove, kWritten, With({{"e/file", "theirs"}})},
      {"moved, renamed", kMove, kRenamed, With({{"e/file", "base"}})},
      {"moved, moved", kMove, kMoved, With({{"e/file", "base"}})},
      {"moved, removed", kMove, kRemoved, With({})},
      {"removed, written", kRemove, kWritten, With({{"d/file", "theirs"}})},
      {"removed, renamed", kRemove, kRenamed, With({{"d/there", "base"}})},
      {"removed, moved", kRemove, kMoved, With({{"e/moved", "base"}})},
      {"removed, removed", kRemove, kRemoved, With({})},
  };
  for (const Pair& pair : pairs) {
    for (const Moment moment :
         {Moment::kBefore, Moment::kDuring, Moment::kSeen, Moment::kWhileOpen}) {
      World().Run(pair, moment);
    }
  }
}

TEST(Contradiction, TheSameNewName) {
  const auto file = [](Client& here) { here.Write("d/new", "mine"); };
  const auto folder = [](Client& here) { here.MakeFolder("d/new"); };
  const auto renamed = [](Client& here) { here.Rename("d/file", "d/new"); };
  const auto full = [](Client& here) {
    here.MakeFolder("d/new");
    here.Write("d/new/mine", "mine");
  };
  const auto their_file = [](There& there) { there.MakeFile("d", "NEW"); };
  const auto their_folder = [](There& there) {
    there.MakeFolder("d", "NEW");
    there.MakeFile("d/NEW", "theirs");
  };
  const auto their_move = [](There& there) { there.Move("d/sub/x", "d", "NEW"); };
  const Client::Tree base = {{"d/file", "base"}, {"d/sub/", ""}, {"d/sub/x", "base"}};
  const Client::Tree without_x = {{"d/file", "base"}, {"d/sub/", ""}};
  const Client::Tree theirs = {{"d/NEW/", ""}, {"d/NEW/theirs", "theirs"}};
  const auto and_theirs = [&](Client::Tree tree) {
    tree.insert(theirs.begin(), theirs.end());
    return tree;
  };
  const std::string ours = "d/new" + kConflict;
  const std::vector<Pair> pairs = {
      {"file, file", file, their_file, With({{"d/NEW", "theirs"}, {ours, "mine"}}, base)},
      {"file, folder", file, their_folder, With(and_theirs({{ours, "mine"}}), base)},
      {"file, moved", file, their_move, With({{"d/NEW", "base"}, {ours, "mine"}}, without_x)},
      {"folder, file", folder, their_file, With({{"d/NEW", "theirs"}, {ours + '/', ""}}, base)},
      {"folder, folder", full, their_folder,
       With({{"d/new/", ""}, {"d/new/mine", "mine"}, {"d/new/theirs", "theirs"}}, base)},
      {"full folder, file", full, their_file,
       With({{"d/NEW", "theirs"}, {ours + '/', ""}, {ours + "/mine", "mine"}}, base)},
      {"renamed, file", renamed, their_file, With({{"d/NEW", "theirs"}, {ours, "base"}})},
      {"renamed, folder", renamed, their_folder, With(and_theirs({{ours, "base"}}))},
      {"renamed, moved", renamed, their_move,
       With({{"d/NEW", "base"}, {ours, "base"}}, {{"d/sub/", ""}})},
  };
  for (const Pair& pair : pairs) {
    for (const Moment moment : {Moment::kBefore, Moment::kDuring, Moment::kSeen})
      World().Run(pair, moment);
  }
}

TEST(Contradiction, AFolderAndWhatIsInIt) {
  const auto remove = [](Client& here) {
    here.Remove("d/sub/x");
    here.Remove("d/sub");
  };
  const auto rename = [](Client& here) { here.Rename("d/sub", "d/here"); };
  const auto move = [](Client& here) { here.Rename("d/sub", "e/sub"); };
  const auto write = [](Client& here) { here.Write("d/sub/x", "mine"); };
  const auto add = [](Client& here) { here.Write("d/sub/mine", "mine"); };
  const auto removed = [](There& there) { there.Remove("d/sub"); };
  const auto renamed = [](There& there) { there.Move("d/sub", "d", "there"); };
  const auto moved = [](There& there) { there.Move("d/sub", "e", "moved"); };
  const auto written = [](There& there) { there.Write("d/sub/x"); };
  const auto added = [](There& there) { there.MakeFile("d/sub", "theirs"); };
  const Client::Tree base = {{"d/file", "base"}};
  const std::vector<Pair> pairs = {
      {"removed, removed", remove, removed, With({}, base)},
      {"removed, written in", remove, written, With({{"d/sub/", ""}, {"d/sub/x", "theirs"}}, base)},
      {"renamed, removed", rename, removed, With({{"d/here/", ""}}, base)},
      {"renamed, renamed", rename, renamed, With({{"d/here/", ""}, {"d/here/x", "base"}}, base)},
      {"renamed, moved", rename, moved, With({{"e/here/", ""}, {"e/here/x", "base"}}, base)},
      {"renamed, added to", rename, added,
       With({{"d/here/", ""}, {"d/here/x", "base"}, {"d/here/theirs", "theirs"}}, base)},
      {"moved, written in", move, written, With({{"e/sub/", ""}, {"e/sub/x", "theirs"}}, base)},
      {"moved into each other",
       [](Client& here) { here.Rename("e", "d/sub/e"); },
       [](There& there) { there.Move("d/sub", "e", "sub"); },
       {{"d/", ""}, {"d/file", "base"}, {"e/", ""}, {"e/sub/", ""}, {"e/sub/x", "base"}}},
      {"written in, removed", write, removed, With({{"d/sub/", ""}, {"d/sub/x", "mine"}}, base)},
      {"written in, renamed", write, renamed,
       With({{"d/there/", ""}, {"d/there/x", "mine"}}, base)},
      {"added to, removed", add, removed, With({{"d/sub/", ""}, {"d/sub/mine", "mine"}}, base)},
      {"added to, moved", add, moved,
       With({{"e/moved/", ""}, {"e/moved/x", "base"}, {"e/moved/mine", "mine"}}, base)},
  };
  for (const Pair& pair : pairs) {
    for (const Moment moment : {Moment::kBefore, Moment::kDuring, Moment::kSeen})
      World().Run(pair, moment);
  }
  // What comes into a folder in the moment between the look at it and its removal goes with it.
  World().Run({"removed, added to", remove, added,
               With({{"d/sub/", ""}, {"d/sub/theirs", "theirs"}}, base)},
              Moment::kBefore);
}

}  // namespace
}  // namespace drive_test
