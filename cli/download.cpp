#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "base/files.h"
#include "cli/download_target.h"
#include "cli/transfer.h"
#include "host/text.h"

namespace cli {
namespace {

// A range costs a few requests of its own, so ranges are long; several for each thread even out
// connections of different speed.
constexpr std::int64_t kShortestRange = std::int64_t{4} << 20;
constexpr std::int64_t kLongestRange = std::int64_t{64} << 20;
constexpr std::int64_t kRangesPerThread = 4;

/// Fetches the ranges of one file on several threads, each through a handle of its own.
class RangeQueue {
 public:
  RangeQueue(const TransferContext& context, const RemoteItem& item, DownloadTarget& target,
             Progress& progress)
      : context_(context), item_(item), target_(target), progress_(progress) {
    const std::int64_t size = item.item.size;
    const auto threads = static_cast<std::int64_t>(context.options.parallel);
    range_length_ = threads == 1 ? std::max<std::int64_t>(size, 1)
                                 : std::clamp(size / (threads * kRangesPerThread), kShortestRange,
                                              kLongestRange);
    const std::int64_t ranges = (size + range_length_ - 1) / range_length_;
    for (std::int64_t i = 0; i < std::min(threads, ranges); ++i) {
      handles_.push_back(std::make_shared<_FS_HANDLE>());
    }
  }

  const std::vector<std::shared_ptr<_FS_HANDLE>>& handles() const noexcept { return handles_; }

  /// Returns when all ranges have come; throws the first failure.
  void Run() {
    std::vector<std::thread> threads;
    try {
      for (std::size_t i = 1; i < handles_.size(); ++i) {
        threads.emplace_back([this, i] { Work(handles_[i]); });
      }
    } catch (const std::system_error&) {
      // No more threads to be had: those that there are do the work.
    }
    if (!handles_.empty()) Work(handles_[0]);
    for (std::thread& thread : threads) thread.join();
    context_.interrupts.cancellation().Check();
    if (failure_) std::rethrow_exception(failure_);
  }

 private:
  void Work(const std::shared_ptr<_FS_HANDLE>& handle) noexcept {
    try {
      while (!context_.interrupts.cancellation().raised() && !failed_) {
        const std::int64_t offset = next_.fetch_add(range_length_);
        if (offset >= item_.item.size) return;
        Fetch({offset, std::min(range_length_, item_.item.size - offset)}, handle);
      }
    } catch (...) {
      Fail(std::current_exception());
    }
  }

  void Fetch(const RangeReceiver::Range& range, const std::shared_ptr<_FS_HANDLE>& handle) {
    RangeReceiver receiver(target_, range, handle, progress_);
    try {
      context_.drive.items().Read({item_.item.id, range.offset, range.length, handle}, receiver,
                                  item_.path);
    } catch (const host::Failure&) {
      receiver.Check(false);  // what ended the transfer here says more
      throw;
    }
    receiver.Check(true);
  }

  void Fail(const std::exception_ptr& failure) noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!failure_) failure_ = failure;
    failed_ = true;
    for (const auto& handle : handles_) host::StopTransfer(*handle);
  }

  const TransferContext& context_;
  const RemoteItem& item_;
  DownloadTarget& target_;
  Progress& progress_;
  std::int64_t range_length_ = 0;
  std::vector<std::shared_ptr<_FS_HANDLE>> handles_;
  std::atomic<std::int64_t> next_{0};
  std::atomic<bool> failed_{false};
  std::mutex mutex_;
  std::exception_ptr failure_;
};

/// The item as a later look at it can be compared with. Entries of some listings, such as that of
/// files that were shared directly, have no tag.
RemoteItem WithTag(const TransferContext& context, RemoteItem item) {
  if (item.item.etag.empty()) item.item = context.drive.Describe(item);
  return item;
}

/// A file that changed while its ranges were fetched one after the other would be a mixture.
void CheckUnchanged(const TransferContext& context, const RemoteItem& item) {
  const host::Item& before = item.item;
  const host::Item now = context.drive.Describe(item);
  const bool tagged = !before.etag.empty() && !now.etag.empty();
  const bool same = tagged ? now.etag == before.etag : now.modified == before.modified;
  if (same && now.size == before.size) return;
  throw host::Failure(host::FailureKind::kChanged,
                      host::Quoted(item.path) + " was changed during the download",
                      "download it again");
}

/// Passes a file on in order; what a repeated request brings again is left out.
class Printer final : public IFetchCallback {
 public:
  Printer(int fd, std::shared_ptr<_FS_HANDLE> handle, std::int64_t offset)
      : fd_(fd), handle_(std::move(handle)), next_(offset) {}

  AERROR OnFetch(std::int64_t offset, const char* data, std::int64_t length,
                 int /*reserved*/) override {
    const std::int64_t known = next_ - offset;
    if (error_ != 0 || data == nullptr || known < 0 || known >= length) return SUCCESS;
    if (!base::WriteAll(fd_, {data + known, static_cast<std::size_t>(length - known)})) {
      error_ = errno;
      host::StopTransfer(*handle_);
      return CANCEL;
    }
    next_ = offset + length;
    return SUCCESS;
  }

  void Check(bool finished, std::int64_t end) const {
    if (error_ != 0) throw host::LocalFailure("write to", "standard output", error_);
    if (finished && next_ != end) {
      throw host::Failure(
          host::FailureKind::kFailed,
          "the download ended early: " + std::to_string(end - next_) + " bytes are missing");
    }
  }

 private:
  const int fd_;
  const std::shared_ptr<_FS_HANDLE> handle_;
  std::int64_t next_;
  int error_ = 0;
};

}  // namespace

void Download(const TransferContext& context, const RemoteItem& item,
              const std::filesystem::path& target) {
  const RemoteItem known = WithTag(context, item);
  if (known.item.size < 0) {
    throw host::Failure(host::FailureKind::kFailed,
                        host::Quoted(known.path) + " has an invalid size");
  }
  const Interrupts::Scope scope(context.interrupts);
  DownloadTarget file(context.interrupts.temporary_files(), target, known.item.size);
  Progress progress(known.path, known.item.size, context.options.quiet);
  RangeQueue ranges(context, known, file, progress);
  const host::Cancellation::Transfers transfers(context.interrupts.cancellation(),
                                                ranges.handles());
  ranges.Run();
  CheckUnchanged(context, known);
  context.interrupts.cancellation().Check();
  file.Commit();
  progress.Finish();
}

void Print(const TransferContext& context, const RemoteItem& item) {
  context.out.Flush();
  const auto handle = std::make_shared<_FS_HANDLE>();
  const Interrupts::Scope scope(context.interrupts);
  const host::Cancellation::Transfers transfers(context.interrupts.cancellation(), {handle});
  const std::int64_t offset = std::min(context.options.offset, item.item.size);
  const std::int64_t left = item.item.size - offset;
  const std::int64_t length = std::min(context.options.length.value_or(left), left);
  Printer printer(context.out.fd(), handle, offset);
  try {
    context.drive.items().Read({item.item.id, offset, length, handle}, printer, item.path);
  } catch (const host::Failure&) {
    context.interrupts.cancellation().Check();
    printer.Check(false, offset + length);
    throw;
  }
  context.interrupts.cancellation().Check();
  printer.Check(true, offset + length);
}

}  // namespace cli
