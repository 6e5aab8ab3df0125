// The program's own decisions: half-written files, wrong items and names that lead elsewhere are
// what these tests hunt.
#include <functional>

#include <sys/stat.h>

#include "cli/download_target.h"
#include "cli/progress.h"
#include "cli/remote_path.h"
#include "cli/transfer_commands.h"
#include "cli/upload_source.h"
#include "host/text.h"
#include "tests/host/folder_test.h"

namespace cli {
namespace {

namespace fs = std::filesystem;
using host::FailureKind;
using host::Item;
using host::KindOf;

using CliTest = host::FolderTest;

TEST(Text, Sizes) {
  EXPECT_EQ(host::HumanSize(999), "999 B");
  EXPECT_EQ(host::HumanSize(1023488), "1.0 MiB");
  EXPECT_EQ(host::ParseSize("2M"), 2097152);
  for (const char* bad : {"", "0", "k", "1kb", "-1", "9999999999999G"}) {
    EXPECT_FALSE(host::ParseSize(bad)) << bad;
  }
}

Item Named(const std::string& id, const std::string& name, bool folder) {
  Item item;
  item.id = id;
  item.name = name;
  item.folder = folder;
  return item;
}

TEST(RemotePath, FindsByExactNameThenWithoutCase) {
  const Lister list = [](const RemoteItem& folder) -> std::vector<Item> {
    const std::string& id = folder.item.id;
    if (id == "top") {
      return {Named("1", "docs", true), Named("2", "Docs", true), Named("3", "F", false)};
    }
    return {Named(id + "a", "ÜBER.txt", false)};
  };
  const auto find = [&](const std::string& path) {
    return ResolvePath({"/", "", Named("top", "", true)}, SplitRemotePath(path), list);
  };
  const std::pair<const char*, const char*> cases[] = {
      {"/", "top"}, {"/Docs", "2"}, {"DOCS/", "1"}, {"//docs/./über.TXT", "1a"}, {"x/../F", "3"}};
  for (const auto& [path, id] : cases) EXPECT_EQ(find(path).item.id, id) << path;
  EXPECT_EQ(find("docs/über.txt").path, "/docs/ÜBER.txt");
  EXPECT_EQ(find("docs/über.txt").parent_id, "1");
  for (const char* path : {"/nope/x", "/F/x", "/docs/nope"}) {
    EXPECT_EQ(KindOf([&] { find(path); }), FailureKind::kNotFound) << path;
  }
  for (const char* bad : {"", ".", "..", "a/b", "a:b", "a.", "a ", "a\n", "\xFF"}) {
    EXPECT_EQ(KindOf([&] { CheckNewName(bad); }), FailureKind::kRefused) << bad;
  }
  for (const char* bad : {"", ".", "..", "a/b", "/etc/x"}) {
    EXPECT_EQ(KindOf([&] { CheckLocalName(bad); }), FailureKind::kLocal) << bad;
  }
}

TEST_F(CliTest, DownloadReplacesItsTargetOnlyWhenWhole) {
  TemporaryFiles files;
  const fs::path target = Write("t", "old");
  chmod(target.c_str(), 0640);
  fs::create_symlink("t", folder_ / "link");
  {
    DownloadTarget abandoned(files, target, 5);
    EXPECT_EQ(abandoned.Write(0, "new"), 0);
  }
  EXPECT_EQ(KindOf([&] { DownloadTarget huge(files, target, INT64_MAX); }), FailureKind::kLocal);
  EXPECT_EQ(KindOf([&] { DownloadTarget folder(files, folder_, 1); }), FailureKind::kLocal);
  EXPECT_EQ(KindOf([&] { DownloadTarget none(files, folder_ / "no/t", 1); }), FailureKind::kLocal);
  EXPECT_EQ(KindOf([&] { DownloadTarget device(files, "/dev/null", 1); }), FailureKind::kLocal);
  EXPECT_EQ(Read(target), "old");
  DownloadTarget good(files, folder_ / "link", 5);
  EXPECT_EQ(good.Write(3, "er"), 0);
  EXPECT_EQ(good.Write(0, "new"), 0);
  good.Commit();
  EXPECT_EQ(Read(target), "newer");
  EXPECT_EQ(Mode(target), 0640U);
  EXPECT_EQ(Names(), (std::set<std::string>{"link", "t"}));
}

TEST_F(CliTest, RangeIsWholeOrFails) {
  TemporaryFiles files;
  struct Case {
    const char* what;
    std::vector<std::pair<std::int64_t, std::string>> pieces;
    bool good;
  };
  const Case cases[] = {
      {"in order", {{4, "ab"}, {6, "cd"}}, true},
      {"repeated from the start", {{4, "xx"}, {4, "ab"}, {6, "cd"}}, true},
      {"repeated and then short", {{4, "ab"}, {6, "cd"}, {4, "ab"}}, false},
      {"short", {{4, "ab"}}, false},
      {"a gap", {{4, "a"}, {6, "cd"}}, false},
      {"beyond the end", {{4, "abcde"}}, false},
      {"before the start", {{3, "_abcd"}}, false},
  };
  for (const Case& test : cases) {
    DownloadTarget target(files, folder_ / "r", 8);
    Progress progress("r", 8, true);
    const auto handle = std::make_shared<_FS_HANDLE>();
    RangeReceiver receiver(target, {4, 4}, handle, progress);
    for (const auto& [offset, data] : test.pieces) {
      receiver.OnFetch(offset, data.data(), static_cast<std::int64_t>(data.size()), 0);
    }
    EXPECT_EQ(KindOf([&] { receiver.Check(true); }) == std::nullopt, test.good) << test.what;
    if (test.good) {
      EXPECT_EQ(Read(target.temporary_file()).substr(4), "abcd") << test.what;
    }
  }
}

TEST_F(CliTest, UploadNoticesWhatChangesUnderneath) {
  const auto upload = [&](const std::function<void(const fs::path&)>& meanwhile) {
    const fs::path file = Write("u", "0123456789");
    // A second write within one tick of the file system's clock would not show.
    fs::last_write_time(file, fs::file_time_type::clock::now() - std::chrono::hours(1));
    UploadSource source(file);
    char buffer[8];
    _CACHEIO_REQUEST request{buffer, 0, 8, 0, nullptr, 10, 0};
    EXPECT_EQ(source.ReadCache(&request), 0);
    EXPECT_EQ(request.done, 8U);
    meanwhile(file);
    request.offset = 8;
    const int result = source.ReadCache(&request);
    EXPECT_EQ(KindOf([&] { source.Check(); }) == std::nullopt, result == 0);
    return result == 0;
  };
  EXPECT_TRUE(upload([](const fs::path&) {}));
  EXPECT_FALSE(upload([](const fs::path& file) { fs::resize_file(file, 8); }));
  EXPECT_FALSE(upload([](const fs::path& file) { fs::resize_file(file, 11); }));
  EXPECT_FALSE(upload([&](const fs::path&) { Write("u", "9876543210"); }));
  EXPECT_FALSE(upload([&](const fs::path& file) { fs::rename(Write("v", "0123456789"), file); }));
  EXPECT_FALSE(upload([](const fs::path& file) { fs::remove(file); }));
  ASSERT_EQ(mkfifo((folder_ / "pipe").c_str(), 0600), 0);
  for (const char* name : {"pipe", "missing", "."}) {
    EXPECT_EQ(KindOf([&] { UploadSource source(folder_ / name); }), FailureKind::kLocal) << name;
  }
}

}  // namespace
}  // namespace cli
