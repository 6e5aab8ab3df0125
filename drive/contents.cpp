#include "drive/contents.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "base/files.h"

namespace drive {
namespace {

constexpr std::int64_t kBlock = 128 << 10;
constexpr std::int64_t kLongestChunk = 8 << 20;
constexpr int kFetchesAtATime = 4;
/// So long after the last write, a file that stays open is sent.
constexpr std::chrono::seconds kRestOfOpenFiles{30};
/// The local disk keeps so much room for the catalog, in bytes.
constexpr std::int64_t kSpareSpace = std::int64_t{64} << 20;
constexpr std::int64_t kLargestFile = std::int64_t{250} << 30;

[[noreturn]] void ThrowStale() {
  throw Error(Reason::kStale, "the file was replaced by another version");
}

}  // namespace

// Opening and closing. ------------------------------------------------------------------------

ContentPointer Contents::Current(ItemNumber number) const {
  const auto found = current_.find(number);
  return found == current_.end() ? nullptr : found->second;
}

ContentPointer Contents::ContentOf(const Item& item) {
  if (ContentPointer content = Current(item.number)) return content;
  auto content = std::make_shared<Content>();
  content->number = item.number;
  content->id = item.id;
  content->etag = item.etag;
  content->size = item.size;
  content->modified = item.modified;
  content->base_size = item.base_size;
  content->base_modified = item.base_modified;
  content->dirty = item.dirty;
  if (item.copy != 0) {
    auto fd = std::make_shared<base::UniqueFd>(core_.copies.Open(item.copy));
    if (!*fd && item.dirty) {
      throw Error(Reason::kBroken, "the local copy with unsent changes is missing");
    }
    if (*fd) {
      content->copy = item.copy;
      content->fd = std::move(fd);
      if (!item.dirty) content->ranges = core_.catalog.Ranges(item.copy);
      content->ranges.Cut(item.size);
    }
  }
  current_[item.number] = content;
  return content;
}

std::shared_ptr<OpenFile> Contents::Open(Lock& lock, ItemNumber number, OpenMode mode,
                                         std::stop_token stop) {
  const Item item = core_.catalog.Get(number);
  if (item.IsFolder()) throw Error(Reason::kIsFolder, "it is a folder");
  auto file = std::make_shared<OpenFile>();
  file->number = number;
  file->write = mode.write;
  file->content = ContentOf(item);
  file->version = versions_[number];
  ++file->content->openers;
  if (mode.write) {
    ++file->content->writers;
    file->content->written = core_.clock.Now();
  }
  if (mode.write && mode.truncate) {
    try {
      Resize(lock, file->content, 0, stop);
    } catch (...) {
      Close(*file);
      throw;
    }
  }
  return file;
}

void Contents::Close(OpenFile& file) {
  if (std::exchange(file.closed, true)) return;
  if (file.write) --file.content->writers;
  CloseContent(file.content);
}

void Contents::CloseContent(const ContentPointer& content) {
  --content->openers;
  Flush(*content);
  if (content->current && content->dirty && content->writers == 0) {
    const FileTime due = content->written + core_.options.upload_delay;
    core_.work.WakeAt(due);
    std::optional<Item> item = core_.catalog.Find(content->number);
    if (item && item->due != due) {
      Change change(core_);
      item->due = due;
      core_.catalog.Put(*item);
      change.Commit();
    }
  }
  if (content->openers > 0) return;
  const std::optional<Item> item = core_.catalog.Find(content->number);
  if (item && item->IsRemoved())
    core_.work.WakeAt(core_.clock.Now());  // its removal may have waited
  Release(content);
}

/// The last user of a content went: what nobody needs any more goes, too.
void Contents::Release(const ContentPointer& content) {
  if (content->openers > 0 || content->sending || content->recording ||
      !content->fetching.empty()) {
    return;
  }
  if (!content->current) {
    Change change(core_);
    if (!content->dirty) cache_bytes_ -= content->ranges.Bytes();
    content->ranges = {};
    RemoveCopy(change, std::exchange(content->copy, 0));
    change.Commit();
    return;
  }
  // It was let go before, while its upload was running, and the file was opened anew since.
  if (Current(content->number) != content) return;
  const std::optional<Item> item = core_.catalog.Find(content->number);
  if (item && item->IsRemoved() && !item->IsPending() && !core_.busy.contains(item->number)) {
    Change change(core_);
    Forget(change, *item);
    core_.catalog.Erase(item->number);
    change.Commit();
    Release(content);
    return;
  }
  if (content->unsynced && !content->dirty) return Record(content);
  current_.erase(content->number);
}

/// Notes which bytes are here, after they are on the disk: a range that the catalog names must
/// never read as zeros after the power failed.
void Contents::Record(const ContentPointer& content) {
  content->recording = true;
  content->unsynced = false;
  core_.work.Submit(Lane::kRead, [this, content](std::stop_token) {
    Lock lock(core_.mutex);
    const auto fd = content->fd;
    const RangeSet ranges = content->ranges;
    lock.unlock();
    const bool synced = ::fdatasync(fd->get()) == 0;
    lock.lock();
    content->recording = false;
    const std::optional<Item> item = core_.catalog.Find(content->number);
    if (synced && content->current && !content->dirty && item && item->copy == content->copy) {
      Change change(core_);
      core_.catalog.PutRanges(content->copy, ranges);
      core_.catalog.TouchCopy(content->copy, core_.clock.Now());
      change.Commit();
    }
    Release(content);
  });
}

void Contents::RemoveCopy(Change& change, std::int64_t copy) {
  if (copy == 0) return;
  core_.catalog.EraseCopy(copy);
  change.Then([this, copy] { core_.copies.Remove(copy); });
}

// Reading. ------------------------------------------------------------------------------------

std::size_t Contents::Read(Lock& lock, OpenFile& file, std::int64_t offset, std::span<char> to,
                           std::stop_token stop) {
  const ContentPointer content = file.content;
  if (offset < 0) throw Error(Reason::kInvalid, "the offset is negative");
  const auto range = [&] {
    const auto wanted = static_cast<std::int64_t>(to.size());
    return Range{.begin = offset,
                 .end = offset + std::clamp<std::int64_t>(content->size - offset, 0, wanted)};
  };
  if (range().empty()) return 0;
  if (!content->Has(range())) Fetch(lock, content, range(), stop);
  if (!content->dirty) ReadAhead(file, range());
  const auto length = static_cast<std::size_t>(range().length());
  const auto fd = content->fd;
  std::shared_lock reading(content->data);
  lock.unlock();
  std::size_t done = 0;
  int error = 0;
  while (done < length) {
    const ssize_t part = ::pread(fd->get(), to.data() + done, length - done,
                                 offset + static_cast<std::int64_t>(done));
    if (part < 0 && errno == EINTR) continue;
    if (part < 0) error = errno;
    if (part <= 0) break;
    done += static_cast<std::size_t>(part);
  }
  reading.unlock();
  lock.lock();
  if (error != 0) ThrowLocalError("read", error);
  return done;
}

void Contents::Fetch(Lock& lock, const ContentPointer& content, Range range, std::stop_token stop) {
  const FileTime began = core_.clock.Now();
  const std::uint64_t failures = content->failures;
  while (!content->Has(range)) {
    if (content->failures != failures) throw Core::ErrorOf(*content->failure);
    if (!content->current) ThrowStale();
    if (stop.stop_requested()) throw Error(Reason::kInterrupted, "interrupted");
    if (StartMissing(content, range)) continue;
    const FileTime until = std::max(began, content->progress) + core_.options.patience;
    if (core_.clock.Now() >= until) {
      throw Error(Reason::kUnreachable, "the service gives no answer");
    }
    core_.work.Wait(lock, until, stop);
  }
}

/// Asks for the first part of the range that is neither here nor asked for. False: there is none,
/// or enough is being asked for.
bool Contents::StartMissing(const ContentPointer& content, Range range) {
  RangeSet known = content->ranges;
  for (const Range& part : content->fetching) known.Add(part);
  const std::optional<Range> gap = known.FirstGap(range);
  if (!gap || content->fetching.size() >= kFetchesAtATime) return false;
  if (core_.connection.offline() || core_.stopping) {
    throw Error(core_.connection.signed_out() ? Reason::kSignedOut : Reason::kUnreachable,
                "the service cannot be reached");
  }
  // Whole blocks, so that small reads beside each other are one request.
  Range chunk{.begin = gap->begin / kBlock * kBlock,
              .end = (gap->end + kBlock - 1) / kBlock * kBlock};
  chunk.end = std::min({chunk.end, chunk.begin + chunk_limit_, content->size});
  chunk = known
              .FirstGap(
                  {.begin = std::max(chunk.begin, gap->begin / kBlock * kBlock), .end = chunk.end})
              .value_or(*gap);
  if (chunk.begin > gap->begin) chunk = {.begin = gap->begin, .end = chunk.begin};
  StartFetch(content, chunk);
  return true;
}

void Contents::StartFetch(const ContentPointer& content, Range range) {
  EnsureCopy(*content);
  content->fetching.push_back(range);
  ++fetches_;
  core_.work.Submit(Lane::kRead, [this, content, range](std::stop_token stop) {
    RunFetch(content, range, stop);
  });
}

void Contents::RunFetch(const ContentPointer& content, Range range, std::stop_token stop) {
  const FileTime began = core_.clock.Now();
  std::optional<RemoteError> failure;
  try {
    Download(content, range, stop);
  } catch (const RemoteError& error) {
    failure = error;
  } catch (const Error& error) {
    failure = RemoteError(Trouble::kFailed, error.what());
  }

  Lock lock(core_.mutex);
  --fetches_;
  std::erase(content->fetching, range);
  if (failure) {
    ++content->failures;
    content->failure = failure;
    core_.Failed(*failure);
    const Trouble trouble = failure->trouble();
    if (trouble == Trouble::kChanged || trouble == Trouble::kNotFound) {
      content->failure = RemoteError(Trouble::kChanged, failure->what());
      core_.suspect(content->number);
    }
  } else {
    core_.Answered();
    if (!content->dirty) {
      cache_bytes_ -= content->ranges.Bytes();
      content->ranges.Add(range);
      cache_bytes_ += content->ranges.Bytes();
    }
    content->unsynced = true;
    const auto took = core_.clock.Now() - began;
    if (took > std::chrono::seconds(2)) chunk_limit_ = std::max(chunk_limit_ / 2, kBlock);
    if (took < std::chrono::milliseconds(500)) {
      chunk_limit_ = std::min(chunk_limit_ * 2, kLongestChunk);
    }
  }
  Release(content);
  if (cache_bytes_ > core_.options.cache_limit) LimitCache();
  core_.work.Changed();
}

/// Writes the bytes into the copy. What comes from more than one request is of one version only if
/// the tag is the same after each: tags never come back.
void Contents::Download(const ContentPointer& content, Range range, std::stop_token stop) {
  const auto fd = content->fd;
  std::int64_t received = 0;
  const PieceSink sink = [&](std::int64_t offset, std::span<const char> piece) {
    if (offset < range.begin || offset + std::ssize(piece) > range.end) {
      throw RemoteError(Trouble::kFailed, "the service sent bytes that were not asked for");
    }
    if (!base::WriteAllAt(fd->get(), offset, {piece.data(), piece.size()})) {
      throw RemoteError(Trouble::kFailed, "cannot write a local copy");
    }
    received = offset + std::ssize(piece) - range.begin;
    const Lock lock(core_.mutex);
    content->progress = core_.clock.Now();
  };
  core_.remote.Read(content->id, range.begin, range.length(), sink, stop);
  if (received != range.length()) {
    throw RemoteError(Trouble::kChanged, "the file was changed at the service");
  }
  if (range == Range{.begin = 0, .end = content->base_size}) return;
  const RemoteItem now = core_.remote.Describe(content->id);
  if (!IsVersion(now, content->etag, content->base_size, content->base_modified)) {
    throw RemoteError(Trouble::kChanged, "the file was changed at the service");
  }
}

void Contents::ReadAhead(OpenFile& file, Range read) {
  const bool sequential = read.begin == file.next_offset && read.begin > 0;
  file.next_offset = read.end;
  file.read_ahead =
      sequential ? std::clamp(file.read_ahead * 2, 2 * kBlock, kFetchesAtATime * kLongestChunk) : 0;
  const ContentPointer& content = file.content;
  if (file.read_ahead == 0 || !content->current || core_.connection.offline() || core_.stopping) {
    return;
  }
  while (fetches_ < kFetchesAtATime) {
    const Range ahead{.begin = read.end,
                      .end = std::min(read.end + file.read_ahead, content->size)};
    RangeSet known = content->ranges;
    for (const Range& part : content->fetching) known.Add(part);
    const std::optional<Range> gap = known.FirstGap(ahead);
    // Small gaps wait until they are worth a request.
    const std::int64_t least = std::min(file.read_ahead / 2, chunk_limit_);
    if (!gap || (gap->length() < least && gap->end < content->size)) return;
    if (!StartMissing(content, *gap)) return;
  }
}

// Writing. ------------------------------------------------------------------------------------

void Contents::AddCopy(Item& item) {
  CheckSpace();
  item.copy = core_.catalog.AddCopy();
  core_.copies.Create(item.copy);
}

void Contents::EnsureCopy(Content& content) {
  if (content.fd) return;
  CheckSpace();
  Change change(core_);
  const std::int64_t copy = core_.catalog.AddCopy();
  auto fd = std::make_shared<base::UniqueFd>(core_.copies.Create(copy));
  if (content.current) {
    Item item = core_.catalog.Get(content.number);
    item.copy = copy;
    if (!item.dirty) item.copy_etag = content.etag;
    core_.catalog.Put(item);
  }
  change.Commit();
  content.copy = copy;
  content.fd = std::move(fd);
}

void Contents::CheckSpace() {
  const FileTime now = core_.clock.Now();
  if (now - space_checked_ > std::chrono::seconds(1) || now < space_checked_) {
    space_checked_ = now;
    space_left_ = core_.copies.FreeSpace() > kSpareSpace;
  }
  if (!space_left_) throw Error(Reason::kNoSpace, "the local disk is full");
}

/// From here on the copy may be written to. `keep`: how many of the present bytes stay.
void Contents::MakeDirty(Lock& lock, const ContentPointer& content, std::int64_t keep,
                         std::stop_token stop) {
  for (;;) {
    if (!content->current) ThrowStale();
    if (content->dirty && !content->sending) return EnsureCopy(*content);
    if (content->dirty) {
      ContinueOnOwnCopy(lock, content, keep, stop);
      continue;
    }
    const Range needed{.begin = 0, .end = std::min(keep, content->size)};
    if (!content->Has(needed)) {
      Fetch(lock, content, needed, stop);
      continue;  // much may have happened meanwhile
    }
    EnsureCopy(*content);
    Change change(core_);
    Item item = core_.catalog.Get(content->number);
    MarkDirty(change, item);
    core_.catalog.Put(item);
    change.Commit();
    // A copy that is shorter than its file was fetched in part only: the rest is not kept.
    if (::ftruncate(content->fd->get(), content->size) != 0) ThrowLocalError("write", errno);
    return;
  }
}

void Contents::MarkDirty(Change& change, Item& item) {
  const ContentPointer content = Current(item.number);
  if (!item.dirty) {
    const RangeSet ranges = content ? content->ranges : core_.catalog.Ranges(item.copy);
    change.Then([this, bytes = ranges.Bytes()] { cache_bytes_ -= bytes; });
  }
  item.dirty = true;
  item.refusal = {};
  item.due = core_.clock.Now() + core_.options.upload_delay;
  core_.work.WakeAt(item.due);
  if (!content) return;
  item.copy = content->copy;
  change.Then([content] {
    content->dirty = true;
    content->ranges = {};
    content->written = content->modified;
  });
}

void Contents::ContinueOnOwnCopy(Lock& lock, const ContentPointer& content, std::int64_t keep,
                                 std::stop_token stop) {
  while (content->cloning) {
    if (stop.stop_requested()) throw Error(Reason::kInterrupted, "interrupted");
    core_.work.Wait(lock, core_.clock.Now() + core_.options.patience, stop);
  }
  if (!content->sending) return;
  CheckSpace();
  Change begin(core_);
  const std::int64_t copy = core_.catalog.AddCopy();
  begin.Commit();
  content->cloning = true;
  const auto old = content->fd;
  auto fd = std::make_shared<base::UniqueFd>();
  lock.unlock();
  std::optional<Error> failure;
  try {
    *fd = core_.copies.Create(copy);
    if (keep > 0) CloneFile(old->get(), fd->get());
  } catch (const Error& error) {
    failure = error;
  }
  lock.lock();
  content->cloning = false;
  core_.work.Changed();
  Change change(core_);
  std::optional<Item> item = core_.catalog.Find(content->number);
  if (failure || !item || !content->current || !content->sending) {
    // The upload may have ended meanwhile: then the old copy is free again.
    RemoveCopy(change, copy);
    change.Commit();
    if (failure) throw Error(*failure);
    return;
  }
  item->copy = copy;
  core_.catalog.Put(*item);
  change.Commit();
  content->copy = copy;
  content->fd = std::move(fd);
  content->sending = false;
  content->unsynced = true;
}

void Contents::Write(Lock& lock, OpenFile& file, std::int64_t offset, std::span<const char> data,
                     std::stop_token stop) {
  const ContentPointer content = file.content;
  const std::int64_t end = offset + std::ssize(data);
  if (offset < 0) throw Error(Reason::kInvalid, "the offset is negative");
  if (end > kLargestFile) throw Error(Reason::kTooLarge, "the service takes no larger files");
  CheckSpace();
  MakeDirty(lock, content, content->size, stop);
  const auto fd = content->fd;
  ++content->writing;
  ++content->generation;
  lock.unlock();
  const bool written = base::WriteAllAt(fd->get(), offset, {data.data(), data.size()});
  const int error = errno;
  lock.lock();
  --content->writing;
  content->size = std::max(content->size, written ? end : FileSize(fd->get()));
  content->written = content->modified = core_.clock.Now();
  content->unrecorded = content->unsynced = true;
  if (!written) {
    space_left_ = space_left_ && error != ENOSPC && error != EDQUOT;
    ThrowLocalError("write", error);
  }
}

void Contents::Resize(Lock& lock, const ContentPointer& content, std::int64_t size,
                      std::stop_token stop) {
  if (size < 0) throw Error(Reason::kInvalid, "the size is negative");
  if (size > kLargestFile) throw Error(Reason::kTooLarge, "the service takes no larger files");
  if (size == content->size && content->dirty) return;
  MakeDirty(lock, content, std::min(size, content->size), stop);
  if (::ftruncate(content->fd->get(), size) != 0) ThrowLocalError("write", errno);
  ++content->generation;
  content->size = size;
  content->written = content->modified = core_.clock.Now();
  content->unrecorded = content->unsynced = true;
}

void Contents::Truncate(Lock& lock, ItemNumber number, std::int64_t size, std::stop_token stop) {
  const std::shared_ptr<OpenFile> file = Open(lock, number, {.write = true}, stop);
  try {
    Resize(lock, file->content, size, stop);
  } catch (...) {
    Close(*file);
    throw;
  }
  Close(*file);
}

void Contents::Allocate(Lock& lock, OpenFile& file, Range range, bool keep_size,
                        std::stop_token stop) {
  const ContentPointer content = file.content;
  if (range.begin < 0 || range.empty()) throw Error(Reason::kInvalid, "nothing to allocate");
  if (range.end > kLargestFile) {
    throw Error(Reason::kTooLarge, "the service takes no larger files");
  }
  CheckSpace();
  MakeDirty(lock, content, content->size, stop);
  const int mode = keep_size ? FALLOC_FL_KEEP_SIZE : 0;
  if (::fallocate(content->fd->get(), mode, range.begin, range.length()) != 0) {
    if (errno != EOPNOTSUPP) ThrowLocalError("write", errno);
    // What the local disk cannot reserve is at least as long as it should be.
    if (!keep_size && range.end > content->size &&
        ::ftruncate(content->fd->get(), range.end) != 0) {
      ThrowLocalError("write", errno);
    }
  }
  ++content->generation;
  content->size = std::max(content->size, FileSize(content->fd->get()));
  content->written = content->modified = core_.clock.Now();
  content->unrecorded = content->unsynced = true;
}

void Contents::SetModified(ItemNumber number, FileTime modified) {
  if (const ContentPointer content = Current(number)) content->modified = modified;
}

void Contents::Flush(Content& content) {
  if (!content.unrecorded) return;
  content.unrecorded = false;
  if (!content.current) return;
  Change change(core_);
  if (std::optional<Item> item = core_.catalog.Find(content.number)) {
    item->size = content.size;
    item->modified = content.modified;
    item->changed = core_.clock.Now();
    item->due = content.written + core_.options.upload_delay;
    core_.catalog.Put(*item);
  }
  change.Commit();
}

void Contents::FlushAll() {
  for (const auto& [number, content] : current_) Flush(*content);
}

void Contents::SyncData(Lock& lock, const ContentPointer& content) {
  Flush(*content);
  if (!content->fd || !std::exchange(content->unsynced, false)) return;
  const auto fd = content->fd;
  const std::int64_t copy = content->copy;
  lock.unlock();
  const bool synced = ::fsync(fd->get()) == 0;
  const int error = errno;
  core_.copies.SyncNames(copy);
  lock.lock();
  if (synced) return;
  content->unsynced = true;
  ThrowLocalError("write", error);
}

void Contents::SyncAllData(Lock& lock) {
  std::vector<ContentPointer> unsynced;
  for (const auto& [number, content] : current_) {
    if (content->dirty && content->unsynced) unsynced.push_back(content);
  }
  for (const ContentPointer& content : unsynced) SyncData(lock, content);
}

// Versions. -----------------------------------------------------------------------------------

void Contents::Overlay(Item& item) const {
  const ContentPointer content = Current(item.number);
  if (!content || !content->dirty) return;
  item.size = content->size;
  item.modified = content->modified;
}

bool Contents::IsOpen(ItemNumber number) const {
  const ContentPointer content = Current(number);
  return content && content->openers > 0;
}

std::optional<FileTime> Contents::RestUntil(ItemNumber number) const {
  const ContentPointer content = Current(number);
  if (!content || content->writers == 0) return std::nullopt;
  return content->written + kRestOfOpenFiles;
}

bool Contents::IsComplete(const Item& item) {
  if (item.dirty || item.size == 0) return true;
  if (item.copy == 0) return false;
  const ContentPointer content = Current(item.number);
  const Range all{.begin = 0, .end = item.size};
  return content ? content->Has(all) : core_.catalog.Ranges(item.copy).Contains(all);
}

void Contents::Drop(Change& change, Item& item) {
  const std::int64_t copy = std::exchange(item.copy, 0);
  item.copy_etag.clear();
  item.dirty = false;
  // Nobody can open a removed file anew.
  if (!item.IsRemoved()) change.FileChanged(item.number);
  change.Then([this, number = item.number] { ++versions_[number]; });
  const ContentPointer content = Current(item.number);
  if (!content) {
    const std::int64_t bytes = core_.catalog.Ranges(copy).Bytes();
    change.Then([this, bytes] { cache_bytes_ -= bytes; });
    RemoveCopy(change, copy);
    return;
  }
  // The copy is the content's from now on.
  change.Then([this, content] {
    content->current = false;
    current_.erase(content->number);
    Release(content);
    core_.work.Changed();
  });
}

void Contents::Forget(Change& change, const Item& item) {
  Item gone = item;
  Drop(change, gone);
  change.Then([this, number = item.number] { versions_.erase(number); });
}

// Sending. ------------------------------------------------------------------------------------

std::optional<FrozenCopy> Contents::Freeze(const Item& item) {
  ContentPointer content = ContentOf(item);
  if (content->writing > 0 || content->sending || content->cloning) return std::nullopt;
  EnsureCopy(*content);
  content->sending = true;
  return FrozenCopy{.content = content,
                    .fd = content->fd,
                    .copy = content->copy,
                    .size = content->size,
                    .generation = content->generation};
}

bool Contents::Thaw(const FrozenCopy& frozen) {
  Content& content = *frozen.content;
  const bool own = content.copy == frozen.copy;
  if (own) {
    content.sending = false;
  } else {
    Change change(core_);
    RemoveCopy(change, frozen.copy);
    change.Commit();
  }
  const bool clean = own && content.current && content.dirty && !content.cloning &&
                     content.writing == 0 && content.generation == frozen.generation;
  core_.work.Changed();
  return clean;
}

void Contents::Retag(Change& change, Item& item, const std::string& etag) {
  const std::string old = std::exchange(item.etag, etag);
  if (item.copy_etag == old) item.copy_etag = etag;
  if (const ContentPointer content = Current(item.number); content && content->etag == old) {
    change.Then([content, etag] { content->etag = etag; });
  }
}

void Contents::MarkClean(Change& change, Item& item) {
  Overlay(item);  // what was sent may not have been recorded yet
  item.dirty = false;
  item.copy_etag = item.etag;
  RangeSet all;
  all.Add({.begin = 0, .end = item.size});
  core_.catalog.PutRanges(item.copy, all);
  core_.catalog.TouchCopy(item.copy, core_.clock.Now());
  const ContentPointer content = Current(item.number);
  change.Then([this, content, all, item] {
    cache_bytes_ += all.Bytes();
    if (!content) return;
    content->dirty = false;
    content->ranges = all;
    content->id = item.id;
    content->etag = item.etag;
    content->base_size = item.base_size;
    content->base_modified = item.base_modified;
    content->unrecorded = content->unsynced = false;
    Release(content);
  });
}

// The cache. ----------------------------------------------------------------------------------

void Contents::LoadCacheSize() {
  cache_bytes_ = 0;
  for (const Item& item : core_.catalog.CleanCopies()) {
    cache_bytes_ += core_.catalog.Ranges(item.copy).Bytes();
  }
}

std::vector<ActiveTransfer> Contents::Downloads() const {
  std::vector<ActiveTransfer> downloads;
  for (const auto& [number, content] : current_) {
    if (content->fetching.empty()) continue;
    const std::optional<Item> item = core_.catalog.Find(number);
    if (!item || item->IsRemoved()) continue;
    downloads.push_back({.path = core_.PathOf(item->place),
                         .upload = false,
                         .done = content->ranges.Bytes(),
                         .total = content->size});
  }
  return downloads;
}

void Contents::LimitCache() {
  // A tenth below, so that not every fetch has to look again.
  const std::int64_t aim = core_.options.cache_limit / 10 * 9;
  const std::vector<Item> copies = core_.catalog.CleanCopies();
  for (Item item : copies) {
    if (cache_bytes_ <= aim) return;
    if (Current(item.number)) continue;
    Change change(core_);
    const std::int64_t bytes = core_.catalog.Ranges(item.copy).Bytes();
    RemoveCopy(change, std::exchange(item.copy, 0));
    core_.catalog.Put(item);
    change.Then([this, bytes] { cache_bytes_ -= bytes; });
    change.Commit();
  }
  // What is left is open: its bytes go, and come again when they are read.
  for (const Item& item : copies) {
    if (cache_bytes_ <= aim) return;
    const ContentPointer content = Current(item.number);
    if (!content || content->dirty || content->sending || !content->fetching.empty()) continue;
    const std::unique_lock alone(content->data);
    if (::ftruncate(content->fd->get(), 0) != 0) continue;
    if (::ftruncate(content->fd->get(), content->size) != 0) continue;
    cache_bytes_ -= content->ranges.Bytes();
    content->ranges = {};
  }
}

}  // namespace drive
