// Hunts system calls that do not do in a mounted drive what they promise.
#include <algorithm>
#include <functional>

#include <dirent.h>
#include <linux/falloc.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

#include "tests/mount/mount_runner.h"

namespace mounted {
namespace {

namespace fs = std::filesystem;

class CallsTest : public MountTest {
 protected:
  std::string At(const std::string& name) const { return mount_ / name; }

  base::UniqueFd Open(const std::string& name, int flags) const {
    return base::UniqueFd(::open(At(name).c_str(), flags | O_CLOEXEC, 0644));
  }

  struct stat Stat(const std::string& name) const {
    struct stat found = {};
    EXPECT_EQ(::stat(At(name).c_str(), &found), 0) << name;
    return found;
  }

  std::set<std::string> Names(const fs::path& folder) const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.insert(entry.path().filename());
    return names;
  }
};

TEST_F(CallsTest, WhatIsNotToBeChangedIsRefused) {
  drive().WriteFile("/file", "x");
  const cli::Outcome outcome = Run({"mount", mount_.string()});
  ASSERT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_EQ(::access(mount_.c_str(), R_OK | X_OK), 0);
  EXPECT_EQ(::access(At("My Drive").c_str(), R_OK | W_OK | X_OK), 0);
  EXPECT_EQ(::access(At("My Drive/file").c_str(), R_OK | W_OK), 0);
  const auto refused = [](int result) { return result == -1 && errno == EACCES; };
  EXPECT_TRUE(refused(::access(mount_.c_str(), W_OK)));
  EXPECT_TRUE(refused(::access(At("Shared with me").c_str(), W_OK)));
  EXPECT_TRUE(refused(::access(At("My Drive/file").c_str(), X_OK)));
  EXPECT_TRUE(refused(::mkdir(At("new").c_str(), 0755)));
  EXPECT_TRUE(refused(::mkdir(At("Shared with me/new").c_str(), 0755)));
  EXPECT_TRUE(refused(::rmdir(At("Shared with me").c_str())));
  EXPECT_TRUE(refused(::rename(At("My Drive/file").c_str(), At("file").c_str())));
}

TEST_F(CallsTest, RefusalsHaveTheirErrorNumbers) {
  drive().WriteFile("/file", "x");
  drive().WriteFile("/full/inside", "x");
  Mount();
  const auto rename = [&](const char* from, const char* to, unsigned flags) {
    return ::renameat2(AT_FDCWD, At(from).c_str(), AT_FDCWD, At(to).c_str(), flags);
  };
  const auto make = [&](const std::string& name) {
    return Open(name, O_WRONLY | O_CREAT) ? 0 : -1;
  };
  const std::string long_path = std::string(150, 'a') + "/" + std::string(150, 'b');
  struct Case {
    const char* what;
    int error;
    std::function<int()> call;
  };
  for (const Case& c : std::vector<Case>{
           {"absent", ENOENT, [&] { return ::unlink(At("none").c_str()); }},
           {"exclusive", EEXIST, [&] { return Open("file", O_CREAT | O_EXCL) ? 0 : -1; }},
           {"exists", EEXIST, [&] { return ::mkdir(At("full").c_str(), 0755); }},
           {"not empty", ENOTEMPTY, [&] { return ::rmdir(At("full").c_str()); }},
           {"rmdir of a file", ENOTDIR, [&] { return ::rmdir(At("file").c_str()); }},
           {"unlink of a folder", EISDIR, [&] { return ::unlink(At("full").c_str()); }},
           {"keep", EEXIST, [&] { return rename("file", "full/inside", RENAME_NOREPLACE); }},
           {"exchange", EINVAL, [&] { return rename("file", "full", RENAME_EXCHANGE); }},
           {"into itself", EINVAL, [&] { return rename("full", "full/in", 0); }},
           {"over a full folder", EISDIR, [&] { return rename("file", "full", 0); }},
           {"hard link", EPERM, [&] { return ::link(At("file").c_str(), At("l").c_str()); }},
           {"symbolic link", EPERM, [&] { return ::symlink("file", At("l").c_str()); }},
           {"pipe", EPERM, [&] { return ::mkfifo(At("p").c_str(), 0600); }},
           {"device", EPERM, [&] { return ::mknod(At("d").c_str(), S_IFCHR, makedev(1, 3)); }},
           {"owner", EPERM, [&] { return ::chown(At("file").c_str(), 12345, getgid()); }},
           {"colon", EINVAL, [&] { return make("a:b"); }},
           {"trailing dot", EINVAL, [&] { return make("a."); }},
           {"reserved", EINVAL, [&] { return ::mkdir(At("CON").c_str(), 0755); }},
           {"rename to a bad name", EINVAL, [&] { return rename("file", "f?", 0); }},
           {"long name", ENAMETOOLONG, [&] { return make(std::string(256, 'a')); }},
           {"hole", EOPNOTSUPP,
            [&] {
              return ::fallocate(Open("file", O_RDWR).get(),
                                 FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 1);
            }},
           {"attribute", EOPNOTSUPP,
            [&] { return ::setxattr(At("file").c_str(), "user.x", "1", 1, 0); }},
       }) {
    errno = 0;
    EXPECT_EQ(c.call(), -1) << c.what;
    EXPECT_STREQ(std::strerror(errno), std::strerror(c.error)) << c.what;
  }
  EXPECT_EQ(Tree(mount_), Sent());
}

TEST_F(CallsTest, NamesHaveNoCase) {
  drive().WriteFile("/Read me.txt", "text");
  drive().WriteFile("/Folder/inside", "x");
  const std::string id = drive().FindPath("/Read me.txt")->id;
  Mount();
  EXPECT_EQ(Read(At("READ ME.TXT")), "text");
  EXPECT_EQ(Stat("read me.txt").st_ino, Stat("Read me.txt").st_ino);
  EXPECT_EQ(Read(At("FOLDER/Inside")), "x");
  EXPECT_FALSE(Open("READ me.txt", O_CREAT | O_EXCL));
  // What is written under one spelling is read under the other.
  std::ofstream(At("read ME.txt")) << "other";
  EXPECT_EQ(Read(At("Read me.txt")), "other");
  EXPECT_EQ(Names(mount_), (std::set<std::string>{"Folder", "Read me.txt"}));

  // A change of case alone is a rename.
  ASSERT_EQ(::rename(At("Read me.txt").c_str(), At("README.txt").c_str()), 0);
  ASSERT_EQ(::rename(At("Folder").c_str(), At("folder").c_str()), 0);
  EXPECT_EQ(Names(mount_), (std::set<std::string>{"README.txt", "folder"}));
  ASSERT_EQ(::rename(At("README.txt").c_str(), At("readme.txt").c_str()), 0);
  EXPECT_EQ(Names(mount_), (std::set<std::string>{"folder", "readme.txt"}));
  Sync();
  EXPECT_EQ(Sent(), (Files{{"folder", "/"}, {"folder/inside", "x"}, {"readme.txt", "other"}}));
  EXPECT_EQ(drive().FindPath("/readme.txt")->id, id);

  // What was removed under one spelling is gone under all.
  EXPECT_EQ(Stat("readme.txt").st_size, 5);
  ASSERT_EQ(::unlink(At("ReadMe.txt").c_str()), 0);
  EXPECT_TRUE(Eventually([&] { return ::access(At("readme.txt").c_str(), F_OK) != 0; }));
}

TEST_F(CallsTest, AttributesAreKept) {
  Mount();
  std::ofstream(At("file")) << "text";
  const timespec times[] = {{1'500'000'000, 5}, {1'400'000'000, 123'456'789}};
  ASSERT_EQ(::utimensat(AT_FDCWD, At("file").c_str(), times, 0), 0);
  ASSERT_EQ(::chmod(At("file").c_str(), 0700), 0);
  ASSERT_EQ(::chown(At("file").c_str(), getuid(), getgid()), 0);
  const auto check = [&] {
    const struct stat found = Stat("file");
    EXPECT_EQ(found.st_mtim.tv_sec, 1'400'000'000);
    EXPECT_EQ(found.st_mtim.tv_nsec, 123'456'789);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(found.st_mode & 0777, 0777 & ~mask);
    EXPECT_EQ(found.st_uid, getuid());
    EXPECT_EQ(found.st_size, 4);
    EXPECT_EQ(found.st_nlink, 1U);
  };
  check();
  Unmount();
  Mount();
  check();
  ASSERT_EQ(::chmod(At("file").c_str(), 0600), 0);
  EXPECT_EQ(Stat("file").st_mode & 0111, 0U);

  char value[64] = {};
  const auto extended = [&](const char* name) {
    const ssize_t size = ::getxattr(At("file").c_str(), name, value, sizeof value);
    return size < 0 ? std::string(std::strerror(errno)) : std::string(value, std::size_t(size));
  };
  EXPECT_EQ(extended("user.onedrive4b.id"), drive().FindPath("/file")->id);
  EXPECT_EQ(extended("user.onedrive4b.etag"), drive().FindPath("/file")->ETag());
  EXPECT_EQ(extended("user.onedrive4b.state"), "clean");
  EXPECT_EQ(extended("user.none"), std::strerror(ENODATA));

  struct statvfs space = {};
  ASSERT_EQ(::statvfs(mount_.c_str(), &space), 0);
  EXPECT_EQ(space.f_blocks * space.f_frsize, drive().GetQuota().total);
}

TEST_F(CallsTest, RemovedFilesGoOnWhileTheyAreOpen) {
  drive().WriteFile("/sent", "of the service");
  Mount();
  for (const char* name : {"sent", "new"}) {
    SCOPED_TRACE(name);
    const base::UniqueFd file = Open(name, O_RDWR | O_CREAT);
    ASSERT_TRUE(file);
    ASSERT_EQ(::unlink(At(name).c_str()), 0);
    EXPECT_FALSE(fs::exists(At(name)));
    ASSERT_EQ(::pwrite(file.get(), "more", 4, 20), 4);
    struct stat found = {};
    ASSERT_EQ(::fstat(file.get(), &found), 0);
    EXPECT_EQ(found.st_size, 24);
    EXPECT_EQ(found.st_nlink, 0U);
    char data[24] = {};
    EXPECT_EQ(::pread(file.get(), data, sizeof data, 0), 24);
    EXPECT_EQ(std::string(data + 20, 4), "more");
  }
  Sync();
  EXPECT_EQ(Sent(), Files());
}

TEST_F(CallsTest, FoldersAreListedWhole) {
  constexpr std::size_t kCount = 700;
  for (std::size_t i = 0; i < kCount; ++i) drive().WriteFile("/many/" + std::to_string(i), "x");
  Mount();
  EXPECT_EQ(Names(mount_ / "many").size(), kCount);
  // Entries that are removed while the folder is read: none is left out, none comes twice.
  DIR* folder = ::opendir(At("many").c_str());
  ASSERT_NE(folder, nullptr);
  std::set<std::string> seen;
  while (const dirent* entry = ::readdir(folder)) {
    if (entry->d_name[0] == '.') continue;
    EXPECT_TRUE(seen.insert(entry->d_name).second);
    EXPECT_EQ(::unlinkat(::dirfd(folder), entry->d_name, 0), 0) << entry->d_name;
  }
  EXPECT_EQ(seen.size(), kCount);
  ::close(Open("many/new", O_WRONLY | O_CREAT).Release());
  ::rewinddir(folder);
  std::size_t left = 0;
  while (const dirent* entry = ::readdir(folder)) left += entry->d_name[0] != '.' ? 1 : 0;
  EXPECT_EQ(left, 1U);
  ::closedir(folder);
}

TEST_F(CallsTest, LocksHoldBetweenPrograms) {
  Mount();
  const base::UniqueFd mine = Open("file", O_RDWR | O_CREAT);
  const base::UniqueFd other = Open("file", O_RDWR);
  ASSERT_EQ(::flock(mine.get(), LOCK_EX), 0);
  EXPECT_EQ(::flock(other.get(), LOCK_EX | LOCK_NB), -1);
  EXPECT_EQ(errno, EWOULDBLOCK);
  Script("! flock -n file true");
}

TEST_F(CallsTest, ReadOnlyDrivesAreNotChanged) {
  drive().WriteFile("/file", "x");
  Mount({"--read-only"});
  EXPECT_EQ(Read(At("file")), "x");
  EXPECT_FALSE(Open("file", O_WRONLY));
  EXPECT_EQ(errno, EROFS);
  EXPECT_EQ(::mkdir(At("folder").c_str(), 0755), -1);
  EXPECT_EQ(errno, EROFS);
}

}  // namespace
}  // namespace mounted
