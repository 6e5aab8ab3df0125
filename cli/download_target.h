// DownloadTarget and RangeReceiver: the local side of a download.
//
// The content is written to a temporary file in the target's folder, which replaces the target only
// when it is complete; until then, and on any failure, the target is unchanged.
//
// Threads: Write may be called from several threads at once; the rest by the owner. A RangeReceiver
// belongs to the thread that runs its transfer.
// Lifetime: a target that is destroyed before Commit removes its temporary file.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

#include "cli/progress.h"
#include "cli/temporary_files.h"
#include "onedrive4b/interfaces.h"

namespace cli {

class DownloadTarget {
 public:
  /// Makes the temporary file and reserves `size` bytes for it. Throws a kLocal Failure if
  /// the folder is missing, the disk is full, or the target is not a file.
  DownloadTarget(TemporaryFiles& files, const std::filesystem::path& target, std::int64_t size);

  const std::string& temporary_file() const noexcept { return temporary_->path(); }

  /// Writes all of `data` at `offset`. Returns 0 or the system's error number.
  int Write(std::int64_t offset, std::string_view data) noexcept;

  /// Flushes the content to the disk and replaces the target. Throws a kLocal Failure.
  void Commit();

 private:
  void CheckTarget();
  void Reserve(std::int64_t size);

  std::filesystem::path target_;
  std::optional<mode_t> mode_;  ///< of the file that is to be replaced
  std::optional<TemporaryFiles::File> temporary_;
};

/// Receives the bytes of one range and checks that none is missing.
class RangeReceiver final : public IFetchCallback {
 public:
  struct Range {
    std::int64_t offset = 0;
    std::int64_t length = 0;
  };

  /// Stops the transfer through `handle` if a piece cannot be stored.
  RangeReceiver(DownloadTarget& target, const Range& range, std::shared_ptr<_FS_HANDLE> handle,
                Progress& progress);

  AERROR OnFetch(std::int64_t offset, const char* data, std::int64_t length, int reserved) override;

  /// Throws the failure of a piece that could not be stored, or a kFailed Failure if bytes are
  /// missing. `finished`: whether the transfer reported success.
  void Check(bool finished) const;

 private:
  DownloadTarget& target_;
  const Range range_;
  const std::shared_ptr<_FS_HANDLE> handle_;
  Progress& progress_;
  std::int64_t reached_;   ///< end of the bytes received without a gap
  std::int64_t reported_;  ///< furthest end that counted as progress
  int error_ = 0;          ///< of the file system
  bool out_of_order_ = false;
};

}  // namespace cli
