// UploadSource: a local file during its upload; detects changes of the file.
//
// Threads: one thread at a time, the one that runs the upload.
// Lifetime: keeps the file open until it is destroyed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include <sys/stat.h>

#include "base/unique_fd.h"
#include "onedrive4b/interfaces.h"

namespace cli {

class UploadSource final : public ICacheIO {
 public:
  /// Throws a kLocal Failure when the file cannot be read or is not a regular file.
  explicit UploadSource(std::filesystem::path file);

  /// Size when the file was opened: the upload sends this many bytes.
  std::int64_t size() const noexcept { return status_.st_size; }

  /// Reads the piece from the file. Refuses the last piece if the file has changed since it was
  /// opened, so that the service never stores a mixture.
  int ReadCache(_CACHEIO_REQUEST* request) override;

  /// Throws the kLocal Failure that ended the upload, also if the file has changed since it was
  /// opened.
  void Check() const;

 private:
  bool HasChanged() const noexcept;

  const std::filesystem::path file_;
  base::UniqueFd fd_;
  struct stat status_ {};  ///< as it was opened
  int error_ = 0;
  bool changed_ = false;
};

}  // namespace cli
