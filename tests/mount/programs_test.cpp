// Hunts programs that do not work in a mounted drive, and files that reach the service other than
// they were left.
#include <random>

#include <sys/mman.h>

#include "tests/mount/mount_runner.h"

namespace mounted {
namespace {

namespace fs = std::filesystem;

class ProgramsInMountTest : public MountTest {
 protected:
  void SyncAndCompare() {
    Sync();
    EXPECT_EQ(Sent(), Tree(mount_));
  }
};

TEST_F(ProgramsInMountTest, Git) {
  Mount();
  Script(R"sh(
    export GIT_CONFIG_GLOBAL=/dev/null GIT_AUTHOR_NAME=a GIT_AUTHOR_EMAIL=a@b
    export GIT_COMMITTER_NAME=a GIT_COMMITTER_EMAIL=a@b
    git init -q -b main project && cd project
    for i in $(seq 300); do echo "line $i" >"file$i"; done
    git add . && git commit -qm first
    git checkout -qb branch && echo more >>file7 && git commit -qam second
    git checkout -q main && git merge -q branch
    git gc -q && git fsck --strict
    [ -z "$(git status --porcelain)" ]
    git clone -q . ../clone && cd ../clone && git fsck && [ "$(ls | wc -l)" = 300 ]
    cd .. && rm -rf clone && mv project renamed && git -C renamed status --porcelain
  )sh");
  SyncAndCompare();
}

TEST_F(ProgramsInMountTest, Sqlite) {
  Mount();
  Script(R"sh(
    for mode in delete wal; do
      sqlite3 $mode.db "pragma journal_mode=$mode; create table t(a, b);"
      for process in 1 2; do
        for i in $(seq 15); do
          sqlite3 -cmd '.timeout 20000' $mode.db "insert into t values($process, randomblob(3000));"
        done &
      done
      wait
      [ "$(sqlite3 $mode.db 'select count(*) from t; pragma integrity_check;')" = "$(printf '30\nok')" ]
    done
  )sh");
  SyncAndCompare();
}

TEST_F(ProgramsInMountTest, TarAndMake) {
  Mount();
  Script(R"sh(
    mkdir -p $W/a/src && cd $W/a
    cat >Makefile <<'END'
out/all: $(patsubst src/%.txt,out/%.up,$(wildcard src/*.txt))
	cat $^ >$@
out/%.up: src/%.txt up.sh
	@mkdir -p out
	./up.sh <$< >$@.tmp && mv $@.tmp $@
END
    printf '#!/bin/sh\ntr a-z A-Z\n' >up.sh && chmod +x up.sh
    for i in $(seq 60); do echo "text $i" >src/$i.txt; done
    head -c 3000000 /dev/urandom >src/large
    tar cf ../a.tar . && cd - && mkdir a && tar xf $W/a.tar -C a && diff -r $W/a a
    make -sj4 -C a && [ "$(wc -l <a/out/all)" = 60 ] && [ "$(make -C a -q; echo $?)" = 0 ]
    touch a/src/7.txt && [ "$(make -C a | grep -c up.sh)" = 1 ]
    rm -rf a/src && [ ! -e a/src ]
  )sh");
  SyncAndCompare();
}

// Each way of saving must leave the item that was there before: its id and its sharing links.
TEST_F(ProgramsInMountTest, WaysOfSaving) {
  for (const char* name : {"truncate", "rename", "backup", "exchange"}) {
    drive().WriteFile(std::string("/") + name, "old");
  }
  const auto ids = [&] {
    std::map<std::string, std::string> found;
    for (const auto& [name, content] : Sent()) found[name] = drive().FindPath("/" + name)->id;
    return found;
  };
  const auto before = ids();
  upload_delay_ = "1";  // names rest for a moment as well
  Mount();
  Script(R"sh(
    echo new >truncate
    echo new >.rename.tmp && sync .rename.tmp && mv .rename.tmp rename
    mv backup backup~ && echo new >backup && rm backup~
    echo new >4913 && rm 4913
    cp exchange exchange.bak && echo new >exchange.new && mv exchange.new exchange && rm exchange.bak
  )sh");
  Sync();
  EXPECT_EQ(ids(), before);
  for (const auto& [name, content] : Sent()) EXPECT_EQ(content, "new\n") << name;
}

/// Random operations on one file against a copy in memory.
class Exerciser {
 public:
  Exerciser(const fs::path& file, unsigned seed) : file_(file), random_(seed) { Open(); }
  ~Exerciser() { ::close(fd_); }

  void Step() {
    static constexpr std::size_t kLongest = 300'000;
    const std::size_t offset = random_() % kLongest;
    const std::size_t length = random_() % 20'000 + 1;
    switch (random_() % 9) {
      case 0:
        return Truncate(offset);
      case 1:
        return WriteMapped(offset, length);
      case 2:
        return Reopen();
      case 3:
        ASSERT_EQ(::posix_fallocate(fd_, At(offset), At(length)), 0);
        return Extend(offset + length);
      case 4:
        return Copy(offset, random_() % kLongest, length);
      case 5:
      case 6:
        return Check(offset, length);
      default:
        return Write(offset, length);
    }
  }

  const std::string& expected() const { return expected_; }

 private:
  static off_t At(std::size_t offset) { return static_cast<off_t>(offset); }

  void Open() { fd_ = ::open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644); }

  void Extend(std::size_t size) { expected_.resize(std::max(expected_.size(), size)); }

  std::string Noise(std::size_t length) {
    std::string noise(length, '\0');
    for (char& byte : noise) byte = static_cast<char>(random_());
    return noise;
  }

  void Reopen() {
    ASSERT_EQ(::close(fd_), 0);
    Open();
    ASSERT_GE(fd_, 0);
  }

  void Truncate(std::size_t size) {
    ASSERT_EQ(::ftruncate(fd_, At(size)), 0);
    expected_.resize(size);
  }

  void Write(std::size_t offset, std::size_t length) {
    const std::string data = Noise(length);
    ASSERT_EQ(::pwrite(fd_, data.data(), length, At(offset)), At(length));
    Extend(offset + length);
    expected_.replace(offset, length, data);
  }

  void WriteMapped(std::size_t offset, std::size_t length) {
    if (offset + length > expected_.size()) return;
    void* map = ::mmap(nullptr, expected_.size(), PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    ASSERT_NE(map, MAP_FAILED);
    const std::string data = Noise(length);
    std::memcpy(static_cast<char*>(map) + offset, data.data(), length);
    expected_.replace(offset, length, data);
    ASSERT_EQ(::msync(map, expected_.size(), MS_SYNC), 0);
    ::munmap(map, expected_.size());
  }

  void Copy(std::size_t from, std::size_t to, std::size_t length) {
    if (from + length > expected_.size() || (from < to + length && to < from + length)) return;
    off_t source = At(from);
    off_t target = At(to);
    const ssize_t copied = ::copy_file_range(fd_, &source, fd_, &target, length, 0);
    ASSERT_EQ(copied, At(length)) << std::strerror(errno);
    Extend(to + length);
    expected_.replace(to, length, expected_.substr(from, length));
  }

  void Check(std::size_t offset, std::size_t length) {
    std::string data(length, '?');
    const ssize_t got = ::pread(fd_, data.data(), length, At(offset));
    const std::string wanted =
        offset < expected_.size() ? expected_.substr(offset, length) : std::string();
    ASSERT_EQ(got, At(wanted.size()));
    ASSERT_TRUE(data.starts_with(wanted));
    struct stat found = {};
    ASSERT_EQ(::fstat(fd_, &found), 0);
    ASSERT_EQ(found.st_size, At(expected_.size()));
  }

  const fs::path file_;
  std::minstd_rand random_;
  std::string expected_;
  int fd_ = -1;
};

// Uploads run meanwhile, so copies are frozen and split under the writer.
TEST_F(ProgramsInMountTest, RandomOperationsOnAFile) {
  Mount();
  for (const unsigned seed : {1U, 2U, 3U}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const fs::path file = mount_ / std::to_string(seed);
    Exerciser exerciser(file, seed);
    for (int step = 0; step < 1500; ++step) {
      exerciser.Step();
      ASSERT_FALSE(HasFatalFailure()) << "step " << step;
    }
    EXPECT_TRUE(Read(file) == exerciser.expected());
  }
  SyncAndCompare();
}

}  // namespace
}  // namespace mounted
