#include "cli/temporary_files.h"

#include <cerrno>
#include <random>

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "host/failure.h"
#include "host/text.h"

namespace cli {
namespace {

constexpr int kMostNameAttempts = 100;

}  // namespace

TemporaryFiles::File::File(TemporaryFiles& files, const std::filesystem::path& folder)
    : files_(files) {
  // Held while the file is made: one that RemoveAll does not know would stay.
  const std::lock_guard<std::mutex> lock(files_.mutex_);
  if (files_.closed_) throw host::Failure(host::FailureKind::kInterrupted, "interrupted");
  if (!Create(folder)) {
    throw host::LocalFailure("create a file in", folder.empty() ? "." : folder.string(), errno);
  }
  files_.paths_.insert(path_);
}

TemporaryFiles::File::~File() {
  if (path_.empty()) return;
  ::unlink(path_.c_str());
  Forget();
}

bool TemporaryFiles::File::MoveTo(const std::filesystem::path& target) {
  if (!fd_.Close() || ::rename(path_.c_str(), target.c_str()) != 0) return false;
  Forget();
  path_.clear();
  return true;
}

bool TemporaryFiles::File::Create(const std::filesystem::path& folder) {
  std::random_device random;
  for (int attempt = 0; attempt < kMostNameAttempts; ++attempt) {
    // Not the target's own name plus something: that could be longer than a name may be.
    path_ = (folder / host::Formatted(".onedrive4b-%08x.part", random())).string();
    fd_ = base::UniqueFd(::open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (fd_) return true;
    if (errno != EEXIST) return false;
  }
  return false;
}

void TemporaryFiles::File::Forget() {
  const std::lock_guard<std::mutex> lock(files_.mutex_);
  files_.paths_.erase(path_);
}

void TemporaryFiles::RemoveAll() noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  closed_ = true;
  for (const std::string& path : paths_) ::unlink(path.c_str());
}

}  // namespace cli
