// ValueStore: named texts that outlive the program, in one JSON file that is private to the user.
//
// Threads: every operation may be called from any thread. Several processes may use one file: each
// change is made under a lock file, on the file's newest content, and replaces the file as a whole,
// so a crash at any moment leaves the old content or the new one.
// Lifetime: the store keeps no file open but the lock file, and needs nothing from its maker.
#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace host {

class ValueStore {
 public:
  /// Holds the store's lock, in this process and among processes, until it is destroyed. A thread
  /// that holds one may take another and may call every operation.
  class Hold {
   public:
    explicit Hold(ValueStore& store);
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

   private:
    ValueStore& store_;
    std::unique_lock<std::recursive_mutex> lock_;
  };

  /// A store in memory only.
  ValueStore() = default;
  /// The store in `file`. Its folder is made (0700) with the first change. A missing file is an
  /// empty store; so is a damaged one, which `warning` then reports and the first change moves
  /// aside instead of overwriting it.
  explicit ValueStore(std::filesystem::path file);

  /// The stored text; empty when there is none. Looks at the file each time; throws Failure when it
  /// exists and cannot be read.
  std::string Get(const std::string& section, const std::string& key);

  /// Stores a text; an empty one removes the key. Throws Failure when the file cannot be written:
  /// the value then counts in this process only, and the next change tries to write it again.
  void Set(const std::string& section, const std::string& key, const std::string& value);

  /// Removes a section.
  void Erase(const std::string& section);

  /// What is wrong with the file; empty when nothing is. Fixed when the store is made.
  const std::string& warning() const noexcept { return warning_; }

 private:
  using Section = std::map<std::string, std::string>;
  struct Change {
    std::string section;
    std::string key;
    std::string value;  ///< empty: remove
  };

  void Lock();
  void Unlock();
  void Load();
  bool Parse(const std::string& text);
  void Make(Change change);
  void Apply(const Change& change);
  void Save();
  void PrepareFolder() const;
  void MoveDamagedFileAside();

  std::filesystem::path file_;  ///< empty: in memory only
  std::recursive_mutex mutex_;
  std::size_t depth_ = 0;  ///< of Holds; the outermost one locks the file
  base::UniqueFd lock_file_;
  std::map<std::string, Section> sections_;
  std::vector<Change> unsaved_;  ///< changes that the file lacks because it could not be written
  bool damaged_ = false;
  std::string warning_;
};

}  // namespace host
