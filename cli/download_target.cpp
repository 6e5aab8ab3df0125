#include "cli/download_target.h"

#include <cerrno>
#include <random>
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

constexpr int kMostNameAttempts = 100;
constexpr mode_t kPermissionBits = 07777;

}  // namespace

DownloadTarget::DownloadTarget(const std::filesystem::path& target, std::int64_t size)
    : target_(target) {
  CheckTarget();
  CreateTemporary();
  try {
    Reserve(size);
  } catch (...) {
    ::unlink(temporary_file_.c_str());
    throw;
  }
}

DownloadTarget::~DownloadTarget() {
  if (!temporary_file_.empty()) ::unlink(temporary_file_.c_str());
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
                        host::Quoted(target_.string()) + " is no regular file",
                        "'onedrive4b cat' writes to pipes and devices");
  }
  mode_ = status.st_mode & kPermissionBits;
}

void DownloadTarget::CreateTemporary() {
  std::random_device random;
  const std::filesystem::path folder = target_.parent_path();
  for (int attempt = 0; attempt < kMostNameAttempts; ++attempt) {
    // Not the target's own name plus something: that could be longer than a name may be.
    temporary_file_ = (folder / host::Formatted(".onedrive4b-%08x.part", random())).string();
    fd_ = base::UniqueFd(
        ::open(temporary_file_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (fd_) return;
    if (errno != EEXIST) break;
  }
  const int error = errno;
  temporary_file_.clear();
  throw host::LocalFailure("create a file in", folder.empty() ? "." : folder.string(), error);
}

void DownloadTarget::Reserve(std::int64_t size) {
  if (size <= 0 || ::fallocate(fd_.get(), 0, 0, size) == 0) return;
  // A file system that cannot reserve shows a full disk when it is written to.
  if (errno == ENOSPC || errno == EFBIG || errno == EDQUOT) {
    throw host::LocalFailure(
        "reserve " + host::HumanSize(static_cast<std::uint64_t>(size)) + " for", target_.string(),
        errno);
  }
}

int DownloadTarget::Write(std::int64_t offset, std::string_view data) noexcept {
  return base::WriteAllAt(fd_.get(), offset, data) ? 0 : errno;
}

void DownloadTarget::Commit() {
  if (mode_) ::fchmod(fd_.get(), *mode_);
  if (::fsync(fd_.get()) != 0 || !fd_.Close() ||
      ::rename(temporary_file_.c_str(), target_.c_str()) != 0) {
    throw host::LocalFailure("write", target_.string(), errno);
  }
  temporary_file_.clear();
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
