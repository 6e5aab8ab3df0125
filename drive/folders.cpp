#include "drive/folders.h"

#include <algorithm>
#include <utility>

namespace drive {
namespace {

/// So long after its last use a folder is kept fresh.
constexpr std::chrono::minutes kInUse{10};
/// At most so many folders are kept fresh: each comparison counts against the account's quota of
/// requests.
constexpr std::size_t kMostFresh = 32;

}  // namespace

bool Folders::IsOld(const Item& folder) const {
  // A folder that the service does not have has no listing to compare with.
  if (!folder.IsSent() && folder.number != kTop && folder.kind != Kind::kFixedFolder) return false;
  const FileTime now = core_.clock.Now();
  return folder.listed == FileTime{} || now < folder.listed ||
         now - folder.listed >= core_.options.refresh;
}

void Folders::Use(ItemNumber folder) {
  const FileTime now = core_.clock.Now();
  if (used_.empty()) core_.work.WakeAt(now + core_.options.refresh);
  used_[folder] = now;
}

void Folders::NeedListing(Lock& lock, ItemNumber folder, std::stop_token stop) {
  const Item item = core_.catalog.Get(folder);
  if (!item.IsFolder()) throw Error(Reason::kNotFolder, "it is not a folder");
  Use(folder);
  if (item.listed != FileTime{} || !IsOld(item)) return;
  Await(lock, folder, stop);
}

void Folders::NeedFreshListing(Lock& lock, ItemNumber folder, std::stop_token stop) {
  const Item item = core_.catalog.Get(folder);
  if (!item.IsFolder()) throw Error(Reason::kNotFolder, "it is not a folder");
  Use(folder);
  if (!IsOld(item)) return;
  if (item.listed == FileTime{}) return Await(lock, folder, stop);
  if (core_.connection.offline()) return;
  try {
    Await(lock, folder, stop);
  } catch (const Error& error) {
    // What is known is better than nothing.
    if (error.reason() == Reason::kInterrupted) throw;
  }
}

void Folders::Refresh(const Item& folder) {
  Use(folder.number);
  if (IsOld(folder) && !core_.connection.offline() && !core_.stopping) Start(folder.number);
}

void Folders::Start(ItemNumber folder) {
  Run& run = runs_[folder];
  if (std::exchange(run.running, true)) return;
  core_.work.Submit(Lane::kAsk, [this, folder](std::stop_token) {
    Lock lock(core_.mutex);
    std::optional<RemoteError> failure;
    try {
      ListNow(lock, folder);
    } catch (const RemoteError& error) {
      failure = error;
    } catch (const Error& error) {
      failure = RemoteError(Trouble::kFailed, error.what());
    }
    Run& run_now = runs_[folder];
    run_now.running = false;
    run_now.failure = std::move(failure);
    ++run_now.ended;
    core_.work.Changed();
  });
}

void Folders::Await(Lock& lock, ItemNumber folder, std::stop_token stop) {
  // A request that is running already may have been answered before something that the caller
  // knows; only one that begins now counts.
  const std::uint64_t wanted = runs_[folder].ended + (runs_[folder].running ? 2 : 1);
  core_.WaitFor(lock, stop, [&] {
    const Run& run = runs_[folder];
    if (run.ended >= wanted) return true;
    if (run.running) return false;
    if (core_.connection.offline() || core_.stopping) {
      throw Error(core_.connection.signed_out() ? Reason::kSignedOut : Reason::kUnreachable,
                  "the service cannot be reached");
    }
    Start(folder);
    return false;
  });
  if (const auto& failure = runs_[folder].failure) throw Core::ErrorOf(*failure);
}

void Folders::ListNow(Lock& lock, ItemNumber folder) {
  const Item item = core_.catalog.Get(folder);
  if (!item.IsSent() && folder != kTop) return;
  Listing listing{.folder = folder, .question = core_.answers.Ask()};
  std::optional<RemoteError> failure;
  lock.unlock();
  try {
    listing.items = core_.remote.List(item.id);
  } catch (const RemoteError& error) {
    failure = error;
  }
  lock.lock();
  std::vector<Item> missing;
  if (!failure) missing = Merge::Missing(core_, listing);
  lock.unlock();
  for (const Item& absent : missing) {
    if (failure) break;
    try {
      listing.asked.emplace(absent.number, core_.remote.Describe(absent.id));
    } catch (const RemoteError& error) {
      if (error.trouble() == Trouble::kNotFound) {
        listing.asked.emplace(absent.number, std::nullopt);
      } else {
        failure = error;
      }
    }
  }
  lock.lock();
  if (failure) {
    core_.answers.End(listing.question);
    core_.Failed(*failure);
    if (failure->trouble() == Trouble::kNotFound) Suspect(folder);
    throw RemoteError(*failure);
  }
  core_.Answered();
  Answers::Question& applied = applied_[folder];
  if (listing.question > applied) {
    applied = listing.question;
    Change change(core_);
    Merge(change).Apply(listing);
    change.Commit();
  }
  core_.answers.End(listing.question);
  core_.work.Changed();
}

void Folders::Suspect(ItemNumber number) {
  const std::optional<Item> item = core_.catalog.Find(number);
  if (!item || !item->IsSent() || core_.stopping || number == kTop) return;
  if (!suspected_.insert(number).second) return;
  const Answers::Question question = core_.answers.Ask();
  core_.work.Submit(Lane::kAsk, [this, number, id = item->id, question](std::stop_token) {
    std::optional<RemoteItem> remote;
    bool gone = false;
    try {
      remote = core_.remote.Describe(id);
    } catch (const RemoteError& error) {
      gone = error.trouble() == Trouble::kNotFound;
    }
    const Lock lock(core_.mutex);
    suspected_.erase(number);
    std::optional<Item> now = core_.catalog.Find(number);
    if (now && now->id == id && !core_.busy.contains(number) &&
        !core_.answers.ToldSince(id, question) && (remote || gone)) {
      Change change(core_);
      Merge merge(change);
      if (remote) {
        merge.Update(*now, *remote);
        core_.catalog.Put(*now);
      } else {
        merge.Gone(*std::move(now));
      }
      change.Commit();
    }
    core_.answers.End(question);
    core_.work.Changed();
  });
}

void Folders::Tick() {
  const FileTime now = core_.clock.Now();
  std::erase_if(used_, [&](const auto& use) { return now - use.second > kInUse; });
  if (used_.empty() || core_.stopping) return;
  core_.work.WakeAt(now + core_.options.refresh);
  if (core_.connection.offline()) return;
  std::vector<std::pair<FileTime, ItemNumber>> latest;
  for (const auto& [folder, time] : used_) latest.emplace_back(time, folder);
  std::sort(latest.rbegin(), latest.rend());
  if (latest.size() > kMostFresh) latest.resize(kMostFresh);
  for (const auto& [time, folder] : latest) {
    const std::optional<Item> item = core_.catalog.Find(folder);
    if (item && IsOld(*item)) Start(folder);
  }
}

}  // namespace drive
