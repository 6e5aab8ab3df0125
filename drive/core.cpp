#include "drive/core.h"

#include <iterator>
#include <utility>

#include "drive/names.h"

namespace drive {

Core::Core(DriveOptions drive_options, const DriveParts& parts)
    : options(std::move(drive_options)),
      remote(parts.remote),
      work(parts.work),
      clock(parts.clock),
      watcher(parts.watcher),
      catalog(options.state / "catalog.db"),
      copies(options.state / "copies") {}

Error Core::ErrorOf(const RemoteError& failure) {
  const auto reason = [&] {
    switch (failure.trouble()) {
      case Trouble::kNotFound:
        return Reason::kNotFound;
      case Trouble::kDenied:
      case Trouble::kLocked:
        return Reason::kDenied;
      case Trouble::kInvalid:
        return Reason::kInvalidName;
      case Trouble::kNameTaken:
        return Reason::kExists;
      case Trouble::kChanged:
        return Reason::kStale;
      case Trouble::kFull:
        return Reason::kNoSpace;
      case Trouble::kTooLarge:
        return Reason::kTooLarge;
      case Trouble::kSignedOut:
        return Reason::kSignedOut;
      case Trouble::kStopped:
        return Reason::kInterrupted;
      case Trouble::kThrottled:
      case Trouble::kUnreachable:
      case Trouble::kFailed:
        break;
    }
    return Reason::kUnreachable;
  };
  return {reason(), failure.what()};
}

void Core::Answered() {
  const bool was_offline = connection.offline();
  connection.Answered();
  if (was_offline) work.WakeAt(clock.Now());
}

void Core::Failed(const RemoteError& failure) {
  if (connection.Failed(failure.trouble(), clock.Now())) {
    work.WakeAt(connection.next_try());
  } else if (failure.trouble() == Trouble::kThrottled) {
    work.WakeAt(connection.calm_until());
  }
}

void Core::WaitFor(Lock& lock, std::stop_token stop, const std::function<bool()>& done) {
  const FileTime until = clock.Now() + options.patience;
  while (!done()) {
    if (stop.stop_requested()) throw Error(Reason::kInterrupted, "interrupted");
    if (clock.Now() >= until) throw Error(Reason::kUnreachable, "the service gives no answer");
    work.Wait(lock, until, stop);
  }
}

void Core::PassAnswers(ItemNumber from, ItemNumber to) {
  // Those to steps of other items, which it had taken over itself.
  for (auto heir = heirs.begin(); heir != heirs.end();) {
    auto& [step, owner] = *heir;
    const bool passed = owner == from;
    if (passed) {
      busy.erase(busy.find(from));
      owner = to;
      if (step != to) busy.insert(to);
    }
    heir = passed && step == to ? heirs.erase(heir) : std::next(heir);
  }
  // That to its own step.
  if (!busy.contains(from) || heirs.contains(from)) return;
  heirs[from] = to;
  busy.insert(to);
}

std::string Core::PathOf(const Place& place) {
  std::string path = place.name;
  ItemNumber folder = place.parent;
  while (folder != kTop && folder != 0) {
    const std::optional<Item> item = catalog.Find(folder);
    if (!item) break;
    path.insert(0, item->place.name + '/');
    folder = item->place.parent;
  }
  return '/' + path;
}

Place Core::FreeConflictPlace(ItemNumber folder, const std::string& name) {
  for (int attempt = 1;; ++attempt) {
    Place place{.parent = folder, .name = ConflictName(name, options.host, clock.Now(), attempt)};
    const bool taken =
        catalog.FindEntry(folder, place.name) || catalog.FindBase(folder, place.name);
    if (!taken) return place;
  }
}

void Change::EntryChanged(const Place& place) {
  if (place.parent == 0) return;
  then_.emplace_back([this, place] { core_.watcher.EntryChanged(place.parent, place.name); });
}

void Change::EntryGone(const Place& place, ItemNumber number) {
  if (place.parent == 0) return;
  then_.emplace_back(
      [this, place, number] { core_.watcher.EntryGone(place.parent, place.name, number); });
}

void Change::FileChanged(ItemNumber number) {
  then_.emplace_back([this, number] { core_.watcher.FileChanged(number); });
}

void Change::Commit() {
  core_.catalog.Commit();
  committed_ = true;
  for (const auto& action : then_) action();
  then_.clear();
}

}  // namespace drive
