// TemporaryFiles: files that are removed when the program ends, also after a signal.
//
// Threads: every operation may be called from any thread; one File belongs to one owner.
// Lifetime: must outlive the files.
#pragma once

#include <filesystem>
#include <mutex>
#include <set>
#include <string>

#include "base/unique_fd.h"

namespace cli {

class TemporaryFiles {
 public:
  /// An empty file, open for reading and writing, which is removed with this object.
  class File {
   public:
    /// Creates it in `folder` under a unique name. Throws a kLocal Failure.
    File(TemporaryFiles& files, const std::filesystem::path& folder);
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    int fd() const noexcept { return fd_.get(); }
    const std::string& path() const noexcept { return path_; }

    /// Closes the file and renames it to `target`, replacing an existing file. False with errno
    /// set.
    bool MoveTo(const std::filesystem::path& target);

   private:
    bool Create(const std::filesystem::path& folder);
    void Forget();

    TemporaryFiles& files_;
    std::string path_;  ///< empty once it has another name
    base::UniqueFd fd_;
  };

  /// For the end of the program: removes all files. No new file can be created afterwards.
  void RemoveAll() noexcept;

 private:
  std::mutex mutex_;
  std::set<std::string> paths_;
  bool closed_ = false;
};

}  // namespace cli
