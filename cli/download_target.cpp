#include "cli/download_target.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/files.h"
#include "host/cancellation.h"
#include "host/failure.h"
#include "host/text.h"

namespace cli {
namespace {

constexpr mode_t kPermissionBits = 07777;

}  // namespace

DownloadTarget::DownloadTarget(TemporaryFiles& files, const std::filesystem::path& target,
                               std::int64_t size)
    : target_(target) {
  CheckTarget();
  temporary_.emplace(files, target_.parent_path());
  Reserve(size);
}

void DownloadTarget::CheckTarget() {
  std::error_code error;
  // A link stays; what it leads to is replaced.
  if (std::filesystem::is_symlink(target_, error)) {
    target_ = std::filesystem::canonical(target_, error);
    if (error) throw host::LocalFailure("follow the link", target_.string(), error.value());
  }
  struct stat status {};
  if (::stat(target_.c_str(), &status) != 0) {
    if (errno == ENOENT && target_.has_filename()) return;
    throw host::LocalFailure("write", target_.string(), errno);
  }
  if (S_ISDIR(status.st_mode)) throw host::LocalFailure("write", target_.string(), EISDIR);
  if (!S_ISREG(status.st_mode)) {
    throw host::Failure(host::FailureKind::kLocal,
                        host::Quoted(target_.string()) + " is not a regular file",
                        "'onedrive4b cat' writes to pipes and devices");
  }
  mode_ = status.st_mode & kPermissionBits;
}

void DownloadTarget::Reserve(std::int64_t size) {
  if (size <= 0 || ::fallocate(temporary_->fd(), 0, 0, size) == 0) return;
  // A file system that cannot reserve shows a full disk when it is written to.
  if (errno == ENOSPC || errno == EFBIG || errno == EDQUOT) {
    throw host::LocalFailure(
        "reserve " + host::HumanSize(static_cast<std::uint64_t>(size)) + " for", target_.string(),
        errno);
  }
}

int DownloadTarget::Write(std::int64_t offset, std::string_view data) noexcept {
  return base::WriteAllAt(temporary_->fd(), offset, data) ? 0 : errno;
}

void DownloadTarget::Commit() {
  if (mode_) ::fchmod(temporary_->fd(), *mode_);
  if (::fsync(temporary_->fd()) != 0 || !temporary_->MoveTo(target_)) {
    throw host::LocalFailure("write", target_.string(), errno);
  }
  base::SyncFolder(target_.parent_path());
}

RangeReceiver::RangeReceiver(DownloadTarget& target, const Range& range,
                             std::shared_ptr<_FS_HANDLE> handle, Progress& progress)
    : target_(target),
      range_(range),
      handle_(std::move(handle)),
      progress_(progress),
      reached_(range.offset),
      reported_(range.offset) {}

AERROR RangeReceiver::OnFetch(std::int64_t offset, const char* data, std::int64_t length,
                              int /*reserved*/) {
  if (error_ != 0 || out_of_order_) return CANCEL;
  // A repeated request starts over, so what came before it no longer counts.
  if (offset == range_.offset) reached_ = offset;
  if (data == nullptr || length < 0 || offset != reached_ ||
      length > range_.offset + range_.length - offset) {
    out_of_order_ = true;
  } else {
    error_ = target_.Write(offset, {data, static_cast<std::size_t>(length)});
  }
  if (error_ != 0 || out_of_order_) {
    host::StopTransfer(*handle_);
    return CANCEL;
  }
  reached_ += length;
  if (reached_ > reported_) {
    progress_.Add(reached_ - reported_);
    reported_ = reached_;
  }
  return SUCCESS;
}

void RangeReceiver::Check(bool finished) const {
  if (error_ != 0) throw host::LocalFailure("write", target_.temporary_file(), error_);
  if (out_of_order_) {
    throw host::Failure(host::FailureKind::kFailed,
                        "the module delivered bytes that were not asked for");
  }
  if (finished && reached_ != range_.offset + range_.length) {
    throw host::Failure(
        host::FailureKind::kFailed,
        "the download ended early: " + std::to_string(range_.offset + range_.length - reached_) +
            " bytes are missing",
        "the file may have become shorter; try again");
  }
}

}  // namespace cli
