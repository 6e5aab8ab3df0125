// TemporaryFiles: files that must be gone when the program ends, however it ends.
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
    /// Makes it in `folder` under a name of its own. Throws a kLocal Failure.
    File(TemporaryFiles& files, const std::filesystem::path& folder);
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    int fd() const noexcept { return fd_.get(); }
    const std::string& path() const noexcept { return path_; }

    /// Closes the file and gives it the name `target`, replacing what has that name. False with
    /// errno set.
    bool MoveTo(const std::filesystem::path& target);

   private:
    bool Create(const std::filesystem::path& folder);
    void Forget();

    TemporaryFiles& files_;
    std::string path_;  ///< empty once it has another name
    base::UniqueFd fd_;
  };

  /// For the end of the program: removes all files. No other one can be made afterwards.
  void RemoveAll() noexcept;

 private:
  std::mutex mutex_;
  std::set<std::string> paths_;
  bool closed_ = false;
};

}  // namespace cli
