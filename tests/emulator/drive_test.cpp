// The emulator's drive without the wire: an index that a killed run left, and what a change costs.
#include "emulator/drive/drive.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <time.h>

#include "base/files.h"
#include "emulator/store/journal.h"

namespace emulator {
namespace {

namespace fs = std::filesystem;

class DriveTest : public testing::Test {
 protected:
  DriveTest() { fs::remove_all(directory_); }
  ~DriveTest() override { fs::remove_all(directory_); }

  static DriveOptions In(const fs::path& directory) {
    return {.owner = {"id", "Name", "name@contoso.example"}, .directory = directory};
  }
  static std::string Read(const fs::path& file) {
    return base::ReadFileIfAny(file, std::size_t{1} << 30U).value_or("");
  }

  const fs::path directory_ = testing::TempDir() + "emulator_drive_test";
  const fs::path index_ = directory_ / "index.journal";
};

/// Paths with the bytes of files, and with "/" for folders.
std::map<std::string, std::string> Tree(const Drive& drive, const std::string& folder = "") {
  std::map<std::string, std::string> tree;
  const auto id = drive.FindPath(folder + "/")->id;
  for (const Item& item : drive.Children(id, "", 1000).items) {
    const std::string path = folder + "/" + item.name;
    tree[path] = item.folder ? "/" : drive.ReadFile(path).value_or("(no content)");
    if (item.folder) tree.merge(Tree(drive, path));
  }
  return tree;
}

std::uint64_t BytesBelow(const Drive& drive, const std::string& folder) {
  std::uint64_t size = 0;
  for (const auto& [path, bytes] : Tree(drive, folder)) size += bytes == "/" ? 0 : bytes.size();
  return size;
}

/// Each changes the drive in one way that the index has to hold.
std::vector<void (*)(Drive&)> Changes() {
  return {
      [](Drive& drive) { drive.WriteFile("/a/b/one.txt", "one"); },
      [](Drive& drive) { drive.WriteFile("/a/two.txt", "two, too"); },
      [](Drive& drive) { drive.WriteFile("/A/TWO.txt", "replaced"); },
      [](Drive& drive) {
        drive.Change({.id = drive.FindPath("/a/b")->id, .name = "c", .parent_id = drive.RootId()});
      },
      [](Drive& drive) {
        drive.Change({.id = drive.FindPath("/c/one.txt")->id,
                      .name = "two.txt",
                      .parent_id = drive.FindPath("/a")->id,
                      .on_conflict = OnConflict::kReplace});
      },
      [](Drive& drive) { drive.MakeFolder("/c/Übung"); },
      [](Drive& drive) { drive.Share(drive.FindPath("/a")->id, SharedRole::kWrite); },
      [](Drive& drive) { drive.Delete(drive.FindPath("/c")->id, ""); },
  };
}

TEST_F(DriveTest, FoldersHaveTheSizeOfWhatIsBelowThem) {
  Drive drive(In({}));
  for (const auto& change : Changes()) {
    change(drive);
    for (const std::string folder : {"", "/a", "/a/b", "/c"}) {
      const auto item = drive.FindPath(folder + "/");
      if (item) {
        EXPECT_EQ(item->size, BytesBelow(drive, folder)) << folder;
      }
    }
    EXPECT_EQ(drive.GetQuota().used, BytesBelow(drive, ""));
  }
}

/// What stands in `from` at the moment a run is killed: the contents, and the index as given.
void CopyKilled(const fs::path& from, const fs::path& to, const std::string& index) {
  fs::remove_all(to);
  fs::create_directories(to / "content");
  for (const auto& file : fs::directory_iterator(from / "content")) {
    fs::create_hard_link(file, to / "content" / file.path().filename());
  }
  std::ofstream(to / "index.journal", std::ios::binary) << index;
}

TEST_F(DriveTest, IsThereAsOfTheLastWholeChangeAtWhateverByteTheRunWasKilled) {
  const fs::path moment = directory_.string() + "_moment";
  const fs::path killed = directory_.string() + "_killed";
  Drive drive(In(directory_));
  drive.Save();
  for (const auto& change : Changes()) {
    const auto before = Tree(drive);
    const std::string old_index = Read(index_);
    change(drive);
    CopyKilled(directory_, moment, old_index);
    drive.Save();
    const std::string index = Read(index_);
    ASSERT_TRUE(index.starts_with(old_index));
    ASSERT_GT(index.size(), old_index.size());
    for (std::size_t left = 0; left <= index.size() - old_index.size();
         left += left == 0 ? 1 : 40) {
      CopyKilled(moment, killed, index.substr(0, index.size() - left));
      const Drive found(In(killed));
      ASSERT_EQ(Tree(found), left == 0 ? Tree(drive) : before) << left;
    }
  }
  fs::remove_all(moment);
  fs::remove_all(killed);
}

TEST_F(DriveTest, RecordsAppendedAfterAnUnfinishedOneAreReadable) {
  fs::create_directory(directory_);
  {
    Journal journal(index_);
    journal.Append("first");
    journal.Append("a longer record, of which a part is lost");
  }
  const std::string whole = Read(index_);
  const std::size_t first = whole.find('\n') + 1;
  for (std::size_t cut = first; cut < whole.size(); ++cut) {
    std::ofstream(index_, std::ios::binary) << whole.substr(0, cut);
    {
      Journal journal(index_);
      ASSERT_EQ(journal.TakeRecords(), std::vector<std::string>{"first"}) << cut;
      journal.Append("2");
    }
    ASSERT_EQ(Journal(index_).TakeRecords(), (std::vector<std::string>{"first", "2"})) << cut;
  }
}

TEST_F(DriveTest, DamageBeforeTheEndOfTheIndexIsAnErrorAndTouchesNothing) {
  {
    Drive drive(In(directory_));
    for (const auto& change : Changes()) {
      change(drive);
      drive.Save();
    }
  }
  std::string index = Read(index_);
  index[index.find('\n') + 20] ^= 1;
  std::ofstream(index_, std::ios::binary) << index;
  EXPECT_THROW(Drive(In(directory_)), std::runtime_error);
  EXPECT_EQ(Read(index_), index);
}

TEST_F(DriveTest, FindsTheIndexOfVersion1) {
  fs::create_directories(directory_ / "content");
  std::ofstream(directory_ / "content" / "c1") << "kept";
  std::ofstream(directory_ / "index.json") << R"({"driveId":"b!d","rootId":"r","items":[
             {"id":"r","parentId":"","name":"root","folder":true,"guid":"G"},
             {"id":"f","parentId":"r","name":"kept.txt","folder":false,"guid":"H","version":3,
              "contentVersion":2,"file":"c1","hash":""}]})";
  for (int run = 1; run <= 2; ++run) {
    const Drive drive(In(directory_));
    EXPECT_EQ(drive.Id(), "b!d") << run;
    EXPECT_EQ(drive.ReadFile("/kept.txt"), "kept") << run;
    EXPECT_EQ(drive.GetQuota().used, 4U) << run;
  }
  EXPECT_FALSE(fs::exists(directory_ / "index.json"));
}

/// Of this thread, so that other work on the machine does not count.
double CpuSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

TEST_F(DriveTest, AChangeCostsTheSameHoweverManyFilesThereAre) {
  for (const auto& directory : {fs::path(), directory_}) {
    Drive drive(In(directory));
    const auto add = [&](int first, int count) {
      const double start = CpuSeconds();
      for (int i = first; i < first + count; ++i) {
        drive.AddFile(drive.RootId(), "file " + std::to_string(i), TextContent("x"));
        drive.FindItem(drive.RootId());
        drive.Save();
      }
      return CpuSeconds() - start;
    };
    const double few = add(0, 2000);
    add(2000, 6000);
    EXPECT_LT(add(8000, 2000), 4 * few + 0.1) << directory;
    EXPECT_EQ(drive.GetQuota().used, 10000U);
    EXPECT_EQ(drive.FindPath("/")->child_count, 10000U);
    if (directory.empty()) continue;
    EXPECT_LT(fs::file_size(index_), std::uintmax_t{20000} * 1000) << "it is written anew";
    EXPECT_EQ(Drive(In(directory)).FindPath("/")->child_count, 10000U);
  }
}

}  // namespace
}  // namespace emulator
