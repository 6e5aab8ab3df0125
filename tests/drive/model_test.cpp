// The loss hunted here: any order of operations, answers, failures and ends of the process in which
// the drive shows or sends something else than what programs have done, or loses one of two
// people's work.
//
// One client is compared with a plain tree in memory. Two clients are compared with each other, and
// every content that nobody replaced knowingly must be found at the service in the end.
//
// ONEDRIVE4B_MODEL="FIRST SEEDS STEPS" runs other seeds. What fails is run again without the steps
// that the failure does not need, and then shown.
#include <cstdint>
#include <cstdlib>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/drive/client.h"

namespace drive_test {
namespace {

struct Plan {
  bool two_clients = false;
  bool faults = false;    ///< requests fail before or after the service acts
  bool overlap = false;   ///< operations happen while a request is on its way
  bool restarts = false;  ///< the process is killed
};

struct Range {
  unsigned first = 1;
  unsigned seeds = 25;
  int steps = 50;
};

Range SeedsToRun() {
  Range range;
  if (const char* text = std::getenv("ONEDRIVE4B_MODEL")) {
    std::istringstream(text) >> range.first >> range.seeds >> range.steps;
  }
  return range;
}

/// Each step draws from a seed of its own: without the ones before it is still the same.
class Run {
 public:
  Run(const Plan& plan, unsigned seed) : plan_(plan), seed_(seed) {
    for (int i = 0; i < (plan.two_clients ? 2 : 1); ++i) {
      clients_.push_back(
          std::make_unique<Client>(service_, clock_, random_, "host" + std::to_string(i)));
      clients_.back()->remote.around = [this, i](const std::string& request, bool done) {
        Around(i, request, done);
      };
    }
  }

  /// What was found to be wrong; empty when all is well.
  std::string Execute(const std::vector<int>& steps) {
    try {
      for (const int step : steps) {
        random_.seed(seed_ * 1'000'003U + static_cast<unsigned>(step));
        Step();
        if (!faults_.str().empty()) return faults_.str();
      }
      Finish();
    } catch (const std::exception& error) {
      faults_ << "thrown: " << error.what() << '\n';
    }
    return faults_.str();
  }

  std::string log() const { return log_.str(); }
  int operations() const { return last_data_; }

 private:
  using Tree = Client::Tree;

  void Step() {
    const int client = Pick(static_cast<int>(clients_.size()));
    if (plan_.restarts && Pick(15) == 0) {
      Log(client, Pick(2) == 0 ? "kill" : "kill ");
      clients_[static_cast<std::size_t>(client)]->Kill();
    } else if (Pick(3) == 0) {
      Pass(client);
    } else {
      Operate(client);
    }
    if (!plan_.two_clients && Pick(8) == 0) CompareWithModel();
  }

  void Finish() {
    calm_ = true;
    clock_.Pass(std::chrono::hours(2));
    for (int round = 0; round < 4; ++round) {
      for (auto& client : clients_) {
        // Whoever believes the service to be away looks again in this time.
        clock_.Pass(std::chrono::minutes(6));
        for (int task = 0; task < 30 && client->work().RunOne(); ++task) {
        }
        client->drive().Sync(std::chrono::hours(10), {});
        try {
          client->GetTree();
        } catch (const drive::Error&) {
          // A folder was removed elsewhere: the next look does not find it.
        }
      }
    }
    const Tree tree = service_.Tree();
    for (auto& client : clients_) {
      const drive::Status status = client->drive().GetStatus();
      if (status.pending != 0) faults_ << status.pending << " changes were not sent\n";
      for (const auto& refused : status.refused) {
        faults_ << "refused: " << refused.path << ": " << refused.reason << '\n';
      }
      Compare("a client", client->GetTree(), "the service", tree);
    }
    if (!plan_.two_clients) Compare("the service", tree, "the model", model_);
    std::set<std::string> there;
    for (const auto& [path, data] : tree) there.insert(data);
    if (plan_.overlap) there.merge(service_.removed_unseen);
    for (const std::string& data : living_) {
      if (!there.contains(data)) faults_ << "lost: " << Short(data) << '\n';
    }
  }

  static std::string Short(const std::string& data) { return data.substr(0, 12); }

  void Compare(const std::string& name, const Tree& tree, const std::string& other_name,
               const Tree& other) {
    if (tree == other) return;
    for (const auto& [whose, entries] : {std::pair(name, tree), std::pair(other_name, other)}) {
      faults_ << whose << " has";
      for (const auto& [path, data] : entries) faults_ << "  " << path << ' ' << Short(data);
      faults_ << '\n';
    }
  }

  int Pick(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }

  void Log(int client, const std::string& line) {
    log_ << std::string(static_cast<std::size_t>(depth_) * 2, ' ') << client << ": " << line
         << '\n';
  }

  /// The world goes on while a request is on its way.
  void Around(int client, const std::string& request, bool done) {
    if (std::getenv("ONEDRIVE4B_MODEL_REQUESTS") != nullptr)
      Log(client, (done ? "] " : "[ ") + request);
    if (calm_) return;
    if (plan_.faults && Pick(12) == 0) {
      Log(client, "no answer to " + request + (done ? " (done)" : ""));
      throw RemoteError(Trouble::kUnreachable, "no answer");
    }
    if (!plan_.overlap || Pick(4) != 0) return;
    const int other = Pick(static_cast<int>(clients_.size()));
    if (operating_.contains(other)) return;
    ++depth_;
    Operate(other);
    --depth_;
  }

  void Pass(int client) {
    const int seconds = Pick(40);
    clock_.Pass(std::chrono::seconds(seconds));
    const int tasks = Pick(8);
    Log(client, "pass " + std::to_string(seconds) + " s, tasks " + std::to_string(tasks));
    for (int i = 0; i < tasks; ++i) clients_[static_cast<std::size_t>(client)]->work().RunOne();
  }

  std::string PickPath() {
    static const std::vector<std::string> kNames = {"a", "b", "c", "B"};
    std::string path;
    for (int depth = Pick(3); depth >= 0; --depth) {
      path += (path.empty() ? "" : "/") + kNames[static_cast<std::size_t>(Pick(4))];
    }
    return path;
  }

  std::string NewData() {
    std::string data = "<" + std::to_string(++last_data_) + ">";
    if (Pick(4) == 0) data.resize(static_cast<std::size_t>(150'000 + Pick(200'000)), 'x');
    return data;
  }

  void Operate(int client) {
    const std::string path = PickPath();
    const std::string other = PickPath();
    const int what = Pick(11);
    static const char* const kVerbs[] = {"write",  "write",  "append", "read",   "mkdir", "mkdir",
                                         "remove", "remove", "rename", "rename", "save"};
    const std::string data = NewData();
    const std::string line = std::string(kVerbs[what]) + ' ' + path +
                             (what >= 8 ? " -> " + other : "") + ' ' + data.substr(0, 6);
    Log(client, line + " {");
    operating_.insert(client);
    try {
      Client& at = *clients_[static_cast<std::size_t>(client)];
      switch (what) {
        case 0:
        case 1:
          Write(at, path, data);
          break;
        case 2:
          Append(at, path, data);
          break;
        case 3:
          Read(at, path);
          break;
        case 4:
        case 5:
          MakeFolder(at, path);
          break;
        case 6:
        case 7:
          Remove(at, path);
          break;
        case 8:
        case 9:
          Rename(at, path, other);
          break;
        default:
          Save(at, path, data);
          break;
      }
      Log(client, "}");
    } catch (const drive::Error& error) {
      Log(client, std::string("} ") + error.what());
    }
    operating_.erase(client);
  }

  // Each operation on the drive, on the model, and on what must not be lost. What an operation
  // replaces, it replaces knowingly: the client shows that content.

  /// Repeats a look until nothing was waited for, so that it still holds afterwards. In the middle
  /// of a listing of its own a client waits in vain each time.
  template <class Look>
  static auto Settled(Client& at, const Look& look) {
    constexpr int kTries = 3;
    for (int tries = 1;; ++tries) {
      const int waits = at.work().waits;
      auto seen = look();
      if (at.work().waits == waits || tries == kTries) return seen;
    }
  }

  /// The content that the client shows there; nothing when there is none.
  std::optional<std::string> LookFor(Client& at, const std::string& path) {
    const drive::ItemNumber folder = at.Folder(std::filesystem::path(path).parent_path());
    drive::Attributes found;
    try {
      found = at.drive().Lookup(folder, std::filesystem::path(path).filename().string(), {});
    } catch (const drive::Error& error) {
      if (error.reason() == drive::Reason::kNotFound) return std::nullopt;
      throw;
    }
    if (found.kind != Kind::kFile) return std::nullopt;
    const drive::RemoteState state = at.drive().StateOf(found.number);
    if (state.state == "clean") return service_.DataOf(state.etag);
    return at.ReadNumber(found.number);
  }

  std::optional<std::string> Shown(Client& at, const std::string& path) {
    return Settled(at, [&] { return LookFor(at, path); });
  }

  void Replace(const std::optional<std::string>& old) {
    if (old) living_.erase(*old);
  }

  void Write(Client& at, const std::string& path, const std::string& data) {
    const auto old = Shown(at, path);
    at.Write(path, data);
    Replace(old);
    living_.insert(data);
    model_[InModel(path)] = data;
  }

  void Append(Client& at, const std::string& path, const std::string& data) {
    const auto old = Shown(at, path);
    const std::string now = at.ReadNumber(at.Append(path, data));
    if (!now.ends_with(data)) faults_ << path << " does not end with what was appended\n";
    // Opening it may have shown what others had saved meanwhile.
    const std::string before = now.substr(0, now.size() - data.size());
    if (!plan_.two_clients && before != old) faults_ << path << " was another one\n";
    Replace(before);
    living_.insert(now);
    model_[InModel(path)] = now;
  }

  void Read(Client& at, const std::string& path) {
    const auto shown = Shown(at, path);
    const std::string data = at.Read(path);
    if (!plan_.two_clients && !plan_.overlap && data != model_[InModel(path)]) {
      faults_ << path << " reads " << Short(data) << '\n';
    }
  }

  void MakeFolder(Client& at, const std::string& path) {
    at.MakeFolder(path);
    model_[InModel(path) + '/'];
  }

  void Remove(Client& at, const std::string& path) {
    const auto old = Settled(at, [&] {
      at.Find(path);
      return LookFor(at, path);
    });
    at.Remove(path);
    Replace(old);
    const std::string known = InModel(path);
    model_.erase(known);
    model_.erase(known + '/');
  }

  void Rename(Client& at, const std::string& from, const std::string& to) {
    const auto old = Settled(at, [&] {
      at.Find(from);
      return LookFor(at, to);
    });
    const bool same = drive::NameKey(from) == drive::NameKey(to);
    at.Rename(from, to);
    if (!same) Replace(old);
    RenameInModel(from, to);
  }

  /// As many editors save: a new file, renamed over the old one.
  void Save(Client& at, const std::string& path, const std::string& data) {
    const std::string temporary = path + ".tmp";
    Write(at, temporary, data);
    Rename(at, temporary, path);
  }

  // The model: paths as they were created. Names are found without regard to case.

  std::string InModel(const std::string& path) {
    std::string known;
    for (const auto& part : std::filesystem::path(path)) {
      std::string best = part.string();
      for (const auto& [entry, data] : model_) {
        if (entry.size() <= known.size() || entry.compare(0, known.size(), known) != 0) continue;
        const std::string rest = entry.substr(known.size());
        const std::string name = rest.substr(0, rest.find('/'));
        if (drive::NameKey(name) == drive::NameKey(part.string())) best = name;
      }
      known += best + '/';
    }
    known.pop_back();
    return known;
  }

  void RenameInModel(const std::string& from, const std::string& to) {
    const std::string source = InModel(from);
    const std::filesystem::path to_path(to);
    std::string target = to_path.has_parent_path() ? InModel(to_path.parent_path()) + '/' : "";
    target += to_path.filename();
    if (source == target) return;
    if (const std::string old = InModel(to); old != source) {
      model_.erase(old);
      model_.erase(old + '/');
    }
    Tree moved;
    for (auto entry = model_.begin(); entry != model_.end();) {
      const bool inside = entry->first.compare(0, source.size() + 1, source + '/') == 0;
      if (entry->first == source || inside) {
        moved[target + entry->first.substr(source.size())] = entry->second;
        entry = model_.erase(entry);
      } else {
        ++entry;
      }
    }
    model_.merge(moved);
  }

  void CompareWithModel() {
    try {
      const bool calm = std::exchange(calm_, true);
      const Tree tree = clients_.front()->GetTree();
      calm_ = calm;
      Compare("the client", tree, "the model", model_);
    } catch (const drive::Error&) {
      calm_ = false;  // what is not here cannot be compared now
    }
  }

  const Plan plan_;
  const unsigned seed_;
  std::mt19937 random_;
  TestClock clock_;
  FakeService service_;
  std::vector<std::unique_ptr<Client>> clients_;
  Tree model_;
  std::set<std::string> living_;  ///< contents that nobody has replaced
  int last_data_ = 0;
  int depth_ = 0;
  std::set<int> operating_;  ///< clients in the middle of an operation
  bool calm_ = false;
  std::ostringstream faults_;
  std::ostringstream log_;
};

std::vector<int> AllSteps(int count) {
  std::vector<int> steps(static_cast<std::size_t>(count));
  std::iota(steps.begin(), steps.end(), 0);
  return steps;
}

bool Fails(const Plan& plan, unsigned seed, const std::vector<int>& steps) {
  return !Run(plan, seed).Execute(steps).empty();
}

/// The steps that a failure needs: takes away pieces that get smaller and smaller.
std::vector<int> Shrink(const Plan& plan, unsigned seed, std::vector<int> steps) {
  for (std::ptrdiff_t piece = std::ssize(steps) / 2; piece > 0; piece /= 2) {
    for (std::ptrdiff_t at = 0; at + piece <= std::ssize(steps);) {
      std::vector<int> fewer = steps;
      fewer.erase(fewer.begin() + at, fewer.begin() + at + piece);
      if (Fails(plan, seed, fewer)) {
        steps = std::move(fewer);
      } else {
        at += piece;
      }
    }
  }
  return steps;
}

void RunModel(const Plan& plan) {
  const Range range = SeedsToRun();
  std::int64_t operations = 0;
  for (unsigned seed = range.first; seed < range.first + range.seeds; ++seed) {
    const std::vector<int> steps = AllSteps(range.steps);
    Run run(plan, seed);
    const bool failed = !run.Execute(steps).empty();
    operations += run.operations();
    if (!failed) continue;
    Run shrunk(plan, seed);
    const std::string faults = shrunk.Execute(Shrink(plan, seed, steps));
    ADD_FAILURE() << "seed " << seed << '\n' << shrunk.log() << faults;
  }
  testing::Test::RecordProperty("operations", std::to_string(operations));
}

TEST(Model, OneClient) { RunModel({}); }
TEST(Model, OneClientWithFaults) { RunModel({.faults = true}); }
TEST(Model, OneClientWithOverlap) { RunModel({.overlap = true}); }
TEST(Model, OneClientWithRestarts) { RunModel({.faults = true, .restarts = true}); }
TEST(Model, TwoClients) { RunModel({.two_clients = true}); }
TEST(Model, TwoClientsWithOverlap) { RunModel({.two_clients = true, .overlap = true}); }
TEST(Model, TwoClientsWithEverything) {
  RunModel({.two_clients = true, .faults = true, .overlap = true, .restarts = true});
}

}  // namespace
}  // namespace drive_test
