// Hunts entries that are counted wrong, waits that an interrupt does not end, and notes that the
// kernel gets too often or too late. The test speaks the kernel's side of the protocol
// (linux/fuse.h) over a pair of sockets.
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>
#include <linux/fuse.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "base/unique_fd.h"
#include "drive/threads.h"
#include "mount/file_system.h"
#include "mount/operations.h"
#include "tests/drive/fake_service.h"
#include "tests/host/folder_test.h"

namespace mounted {
namespace {

std::atomic<bool> nobody_takes_answers = false;

ssize_t ReadRequest(int fd, void* to, std::size_t size, void*) {
  const ssize_t got = ::recv(fd, to, size, 0);
  if (got != 0) return got;
  errno = ENODEV;  // as after an unmount
  return -1;
}

ssize_t WriteAnswer(int fd, iovec* parts, int count, void*) {
  if (nobody_takes_answers) {
    errno = ENOENT;  // as the kernel says when the program was killed meanwhile
    return -1;
  }
  return ::writev(fd, parts, count);
}

constexpr fuse_custom_io kOverSockets{
    .writev = WriteAnswer, .read = ReadRequest, .splice_receive = nullptr, .splice_send = nullptr};

template <class Value>
std::string Bytes(const Value& value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

template <class Value>
Value Parsed(const std::string& bytes) {
  Value value{};
  std::memcpy(&value, bytes.data(), std::min(sizeof value, bytes.size()));
  return value;
}

class WireTest : public host::FolderTest {
 protected:
  struct Message {
    std::uint64_t unique = 0;  ///< 0: a note
    int code = 0;              ///< the error number, or the kind of note
    std::string body;
  };

  WireTest() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    kernel_ = base::UniqueFd(ends[0]);
    const timeval patience{.tv_sec = 20, .tv_usec = 0};
    ::setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    service_.SetData(service_.Add("root", "file", drive::Kind::kFile), "content");
    service_.Add("root", "folder", drive::Kind::kFolder);
    remote_.around = [this](const std::string& request, bool done) {
      if (!done && request == "read") WaitWhileHeld();
    };
    threads_.Start();
    drive_.Start();

    std::string name = "test";
    char* words[] = {name.data()};
    fuse_args args = FUSE_ARGS_INIT(1, words);
    const fuse_lowlevel_ops operations = Operations();
    session_ = fuse_session_new(&args, &operations, sizeof operations, &files_);
    fuse_opt_free_args(&args);
    EXPECT_EQ(fuse_session_custom_io(session_, &kOverSockets, ends[1]), 0);
    server_ = std::thread([this] {
      fuse_loop_config* config = fuse_loop_cfg_create();
      fuse_session_loop_mt(session_, config);
      fuse_loop_cfg_destroy(config);
    });
    fuse_init_in init{};
    init.major = 7;
    init.minor = 31;
    EXPECT_EQ(Ask(FUSE_INIT, 0, Bytes(init).substr(0, 16)).code, 0);
  }

  ~WireTest() override {
    nobody_takes_answers = false;
    Hold(false);
    files_.requests().StopAll();
    notifier_.Stop();
    kernel_.Close();
    server_.join();
    fuse_session_destroy(session_);
  }

  std::uint64_t Send(std::uint32_t operation, std::uint64_t inode, const std::string& body) {
    const std::uint64_t unique = ++last_;
    fuse_in_header header{};
    header.len = static_cast<std::uint32_t>(sizeof header + body.size());
    header.opcode = operation;
    header.unique = unique;
    header.nodeid = inode;
    const std::string message = Bytes(header) + body;
    EXPECT_EQ(::send(kernel_.get(), message.data(), message.size(), 0), std::ssize(message));
    return unique;
  }

  Message Receive() {
    std::string message(1 << 17, '\0');
    const ssize_t got = ::recv(kernel_.get(), message.data(), message.size(), 0);
    EXPECT_GT(got, 0) << "no answer";
    const auto header = Parsed<fuse_out_header>(message);
    message.resize(got > 0 ? static_cast<std::size_t>(got) : sizeof header);
    const bool note = header.unique == 0;
    return {header.unique, note ? header.error : -header.error, message.substr(sizeof header)};
  }

  Message Ask(std::uint32_t operation, std::uint64_t inode, const std::string& body) {
    const std::uint64_t unique = Send(operation, inode, body);
    Message answer = Receive();
    // So libfuse hands back an interrupt that met no request.
    if (answer.code == EAGAIN) answer = Receive();
    EXPECT_EQ(answer.unique, unique);
    return answer;
  }

  /// The entry's inode; 0: there is none.
  std::uint64_t Lookup(const std::string& name) {
    return Parsed<fuse_entry_out>(Ask(FUSE_LOOKUP, FUSE_ROOT_ID, name + '\0').body).nodeid;
  }

  std::uint64_t Open(std::uint64_t inode, std::uint32_t operation = FUSE_OPEN) {
    return Parsed<fuse_open_out>(Ask(operation, inode, Bytes(fuse_open_in{})).body).fh;
  }

  static std::string ReadBody(std::uint64_t handle) {
    fuse_read_in read{};
    read.fh = handle;
    read.size = 4096;
    return Bytes(read);
  }

  /// Forgets are not answered, so something else is asked for behind them.
  void Forget(std::uint64_t inode, std::uint64_t count) {
    Send(FUSE_FORGET, inode, Bytes(fuse_forget_in{.nlookup = count}));
    Ask(FUSE_GETATTR, FUSE_ROOT_ID, Bytes(fuse_getattr_in{}));
    for (int i = 0; i < 200 && inodes_.IsKnown(inode); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  /// While held, the service does not answer reads.
  void Hold(bool held) {
    const std::lock_guard lock(mutex_);
    held_ = held;
    changed_.notify_all();
  }

  void WaitWhileHeld() {
    std::unique_lock lock(mutex_);
    reads_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return !held_; });
  }

  /// Asks for bytes that the service holds back, and returns once the service was asked.
  std::uint64_t SendHeldRead(std::uint64_t inode) {
    const std::uint64_t handle = Open(inode);
    Hold(true);
    const std::uint64_t unique = Send(FUSE_READ, inode, ReadBody(handle));
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return reads_; });
    return unique;
  }

  drive_test::FakeService service_;
  drive_test::FakeRemote remote_{service_};
  const drive::SystemClock clock_;
  drive::Threads threads_{clock_};
  Inodes inodes_;
  Notifier notifier_{inodes_};
  drive::Drive drive_{
      {.state = folder_ / "state", .account = "a", .host = "h", .refresh = std::chrono::hours(1)},
      {.remote = remote_, .work = threads_, .clock = clock_, .watcher = notifier_}};
  FileSystem files_{{.drive = drive_, .inodes = inodes_, .notifier = notifier_}, {}};
  fuse_session* session_ = nullptr;
  std::thread server_;
  base::UniqueFd kernel_;
  std::uint64_t last_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool held_ = false;
  bool reads_ = false;  ///< the service was asked for bytes
};

TEST_F(WireTest, EntriesAreCounted) {
  const std::uint64_t file = Lookup("file");
  ASSERT_NE(file, 0U);
  EXPECT_EQ(Lookup("none"), 0U);
  EXPECT_EQ(Lookup("file"), file);
  const std::uint64_t other = Lookup("FILE");
  EXPECT_NE(other, file);
  EXPECT_EQ(NumberOf(other), NumberOf(file));
  // A listing with attributes gives each entry once more, but not "." and "..".
  const std::uint64_t folder = Open(FUSE_ROOT_ID, FUSE_OPENDIR);
  const Message listing = Ask(FUSE_READDIRPLUS, FUSE_ROOT_ID, ReadBody(folder));
  EXPECT_NE(listing.body.find("folder"), std::string::npos);
  Forget(other, 1);
  EXPECT_FALSE(inodes_.IsKnown(other));
  Forget(file, 2);
  EXPECT_TRUE(inodes_.IsKnown(file));
  Forget(file, 1);
  EXPECT_FALSE(inodes_.IsKnown(file));

  // What an interrupted program asked for is not given to it.
  nobody_takes_answers = true;
  Send(FUSE_LOOKUP, FUSE_ROOT_ID, std::string("file") + '\0');
  Send(FUSE_READDIRPLUS, FUSE_ROOT_ID, ReadBody(folder));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  nobody_takes_answers = false;
  EXPECT_FALSE(inodes_.IsKnown(file));
}

TEST_F(WireTest, InterruptsEndWaits) {
  const std::uint64_t file = Lookup("file");
  const std::uint64_t waiting = SendHeldRead(file);
  // Others are answered meanwhile.
  EXPECT_EQ(Ask(FUSE_GETATTR, file, Bytes(fuse_getattr_in{})).code, 0);
  Send(FUSE_INTERRUPT, 0, Bytes(fuse_interrupt_in{.unique = waiting}));
  const Message ended = Receive();
  EXPECT_EQ(ended.unique, waiting);
  EXPECT_EQ(ended.code, EINTR);
  // One that comes late meets nobody.
  Send(FUSE_INTERRUPT, 0, Bytes(fuse_interrupt_in{.unique = waiting}));
  Hold(false);
  EXPECT_EQ(Ask(FUSE_READ, file, ReadBody(Open(file))).body, "content");
}

TEST_F(WireTest, TheEndInterruptsEveryWait) {
  const std::uint64_t file = Lookup("file");
  const std::uint64_t waiting = SendHeldRead(file);
  files_.requests().StopAll();
  const Message ended = Receive();
  EXPECT_EQ(ended.unique, waiting);
  EXPECT_EQ(ended.code, EINTR);
}

TEST_F(WireTest, TheKernelIsToldOfWhatItKnows) {
  const std::uint64_t file = Lookup("file");
  const drive::ItemNumber number = NumberOf(file);
  notifier_.EntryChanged(drive::kTop, "early");
  notifier_.Start(session_);
  const auto expect = [&](int code, const std::string& part) {
    const Message note = Receive();
    EXPECT_EQ(note.unique, 0U);
    EXPECT_EQ(note.code, code);
    EXPECT_NE(note.body.find(part), std::string::npos);
  };
  notifier_.FileChanged(number);
  expect(FUSE_NOTIFY_INVAL_INODE, Bytes(file));
  notifier_.EntryGone(drive::kTop, "file", number);
  expect(FUSE_NOTIFY_DELETE, "file");
  expect(FUSE_NOTIFY_INVAL_ENTRY, "file");
  expect(FUSE_NOTIFY_INVAL_INODE, "");

  Forget(file, 1);
  notifier_.FileChanged(number);
  notifier_.EntryChanged(number, "inside");
  notifier_.EntryChanged(drive::kTop, "other");
  expect(FUSE_NOTIFY_INVAL_ENTRY, "other");
  expect(FUSE_NOTIFY_INVAL_INODE, "");
  notifier_.Stop();
  notifier_.EntryChanged(drive::kTop, "late");
  EXPECT_EQ(Ask(FUSE_GETATTR, FUSE_ROOT_ID, Bytes(fuse_getattr_in{})).code, 0);
}

// Pages of two versions never meet: who opens another version than the one that is open reads
// around the kernel's cache.
TEST_F(WireTest, PagesBelongToOneVersion) {
  constexpr fuse_ino_t kFile = 7;
  EXPECT_EQ(inodes_.Open(kFile, 1), Caching::kRenew);
  EXPECT_EQ(inodes_.Open(kFile, 1), Caching::kKeep);
  EXPECT_EQ(inodes_.Open(kFile, 2), Caching::kBypass);
  inodes_.Close(kFile, Caching::kBypass);
  inodes_.Close(kFile, Caching::kRenew);
  EXPECT_EQ(inodes_.Open(kFile, 2), Caching::kBypass);
  inodes_.Close(kFile, Caching::kKeep);
  EXPECT_EQ(inodes_.Open(kFile, 2), Caching::kRenew);
  EXPECT_EQ(inodes_.Open(kFile | kOtherSpelling, 2), Caching::kBypass);
}

}  // namespace
}  // namespace mounted
