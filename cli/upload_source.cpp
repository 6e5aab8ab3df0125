#include "cli/upload_source.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "host/failure.h"
#include "host/text.h"

namespace cli {

UploadSource::UploadSource(std::filesystem::path file)
    : file_(std::move(file)),
      // Opening a pipe would wait for its other end.
      fd_(::open(file_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
  if (!fd_ || ::fstat(fd_.get(), &status_) != 0)
    throw host::LocalFailure("read", file_.string(), errno);
  if (S_ISDIR(status_.st_mode)) throw host::LocalFailure("upload", file_.string(), EISDIR);
  if (!S_ISREG(status_.st_mode)) {
    throw host::Failure(host::FailureKind::kLocal,
                        host::Quoted(file_.string()) + " is not a regular file");
  }
}

int UploadSource::ReadCache(_CACHEIO_REQUEST* request) {
  if (request == nullptr || request->buffer == nullptr) return INVALID_PARAMETER;
  const std::uint64_t most = std::numeric_limits<std::int32_t>::max();
  const auto length = static_cast<std::size_t>(std::min(request->length, most));
  ssize_t got = 0;
  do {
    got = ::pread(fd_.get(), request->buffer, length, request->offset);
  } while (got < 0 && errno == EINTR);
  if (got < 0) {
    error_ = errno;
    return FILE_READ_FAILED;
  }
  const bool last = request->offset + got >= status_.st_size;
  // Nothing to read before the end: the file has become shorter.
  if ((got == 0 && length > 0) || (last && HasChanged())) {
    changed_ = true;
    return FILE_READ_FAILED;
  }
  request->done = static_cast<std::uint64_t>(got);
  return SUCCESS;
}

void UploadSource::Check() const {
  if (error_ != 0) throw host::LocalFailure("read", file_.string(), error_);
  if (changed_ || HasChanged()) {
    throw host::Failure(host::FailureKind::kLocal,
                        host::Quoted(file_.string()) + " changed while it was uploaded",
                        "upload it again when nothing writes to it");
  }
}

bool UploadSource::HasChanged() const noexcept {
  struct stat now {};
  // By name: another file may have taken its place.
  if (::stat(file_.c_str(), &now) != 0) return true;
  return now.st_dev != status_.st_dev || now.st_ino != status_.st_ino ||
         now.st_size != status_.st_size || now.st_mtim.tv_sec != status_.st_mtim.tv_sec ||
         now.st_mtim.tv_nsec != status_.st_mtim.tv_nsec;
}

}  // namespace cli
