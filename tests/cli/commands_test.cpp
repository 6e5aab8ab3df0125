// Hunts what only whole commands show: folders that arrive incomplete or in the wrong place, output
// that is lost, items that another command would not have found, and requests past the proxy.
#include "tests/cli/program_runner.h"

namespace cli {
namespace {

namespace fs = std::filesystem;
using emulator::Fault;

class CommandsTest : public ProgramTest {
 protected:
  emulator::Drive& drive() { return service_.UserDrive(); }
};

TEST_F(CommandsTest, FoldersTravelWhole) {
  const fs::path source = work_ / "source";
  fs::create_directories(source / "Ünïcödé #1/deep/deeper");
  fs::create_directories(source / "empty");
  Write("work/source/top.txt", "top");
  Write("work/source/zero", "");
  Write("work/source/Ünïcödé #1/a%20b.txt", "escaped");
  Write("work/source/Ünïcödé #1/deep/deeper/big", std::string(9'000'000, 'b'));
  const auto tree = Tree(source);
  ASSERT_EQ(Run({"put", "-r", source.string()}).code, 0);
  EXPECT_EQ(drive().ReadFile("/source/Ünïcödé #1/deep/deeper/big"), std::string(9'000'000, 'b'));
  ASSERT_EQ(
      Run({"get", "-r", "--parallel", "2", "/My Drive/source", (work_ / "back").string()}).code, 0);
  EXPECT_EQ(Tree(work_ / "back"), tree);
  // A second time: into the folders that are there, over the files that are there.
  Write("work/source/top.txt", "changed");
  ASSERT_EQ(Run({"put", "-r", source.string(), "/My Drive"}).code, 0);
  ASSERT_EQ(Run({"get", "-r", "/My Drive/source", (work_ / "again").string()}).code, 0);
  EXPECT_EQ(Tree(work_ / "again"), Tree(source));
}

TEST_F(CommandsTest, WhatFailsInAFolderIsNamedAndTheRestGoesOn) {
  for (const char* name : {"/T/a", "/T/b", "/T/sub/c", "/T/z"}) drive().WriteFile(name, name);
  const std::string target = (work_ / "T").string();
  const auto refuse = [&](const char* part) {
    service_.AddFault(Fault::Status(403).On("GET", part).Times(Fault::kAlways));
  };
  const std::string b = drive().FindPath("/T/b")->id;
  refuse(b.c_str());
  const Outcome get = Run({"get", "-r", "/My Drive/T", target});
  EXPECT_EQ(get.code, 1);
  EXPECT_NE(get.err.find("'/My Drive/T/b'"), std::string::npos) << get.err;
  EXPECT_NE(get.err.find("1 item was not transferred"), std::string::npos) << get.err;
  EXPECT_EQ(Tree(target), (std::map<std::string, std::string>{
                              {"a", "/T/a"}, {"sub", "/"}, {"sub/c", "/T/sub/c"}, {"z", "/T/z"}}));
  service_.ClearFaults();

  refuse((drive().FindPath("/T/sub")->id + "/children").c_str());
  const Outcome list = Run({"ls", "-R", "/My Drive/T"});
  EXPECT_EQ(list.code, 1);
  EXPECT_EQ(list.out, "/My Drive/T:\na\nb\nsub/\nz\n");
  EXPECT_NE(list.err.find("'/My Drive/T/sub'"), std::string::npos) << list.err;
  const Outcome tree = Run({"tree", "/My Drive/T"});
  EXPECT_EQ(tree.code, 1);
  EXPECT_EQ(tree.out, "/My Drive/T\n├── a\n├── b\n├── sub/\n└── z\n\n1 folder, 3 files\n");
  const Outcome json = Run({"ls", "-R", "--json", "/My Drive/T"});
  EXPECT_EQ(json.code, 1);
  const auto entries = base::ParseJson(json.out);
  ASSERT_TRUE(entries) << json.out;
  EXPECT_EQ(entries->size(), 4U);
  const Outcome nested = Run({"tree", "--json", "/My Drive/T"});
  EXPECT_EQ(nested.code, 1);
  ASSERT_TRUE(base::ParseJson(nested.out)) << nested.out;
  EXPECT_EQ((*base::ParseJson(nested.out))["children"].size(), 4U);
}

TEST_F(CommandsTest, MakeFolders) {
  drive().WriteFile("/file", "x");
  struct Case {
    Arguments arguments;
    int code;
  };
  for (const Case& c : {
           Case{{"mkdir", "/My Drive/a/b"}, 5},
           {{"mkdir", "-p", "/My Drive/a/b/c"}, 0},
           {{"mkdir", "-p", "/My Drive/A/B"}, 0},
           {{"mkdir", "-p", "/My Drive/a/b/d/"}, 0},
           {{"mkdir", "/My Drive/a/e/"}, 0},
           {{"mkdir", "/My Drive/a"}, 1},
           {{"mkdir", "-p", "/My Drive/file/x"}, 1},
           {{"mkdir", "-p", "/My Drive/a/bad:name"}, 1},
           {{"mkdir", "-p", "/Shared with me/x"}, 1},
       }) {
    const Outcome outcome = Run(c.arguments);
    EXPECT_EQ(outcome.code, c.code) << testing::PrintToString(c.arguments) << outcome.err;
  }
  EXPECT_EQ(Run({"ls", "-R", "/My Drive/a"}).out,
            "/My Drive/a:\nb/\ne/\n\n/My Drive/a/b:\nc/\nd/\n\n/My Drive/a/b/c:\n\n/My "
            "Drive/a/b/d:\n\n/My Drive/a/e:\n");
}

TEST_F(CommandsTest, ASlashAtTheEndMeansAFolder) {
  drive().WriteFile("/file", "x");
  drive().MakeFolder("/folder");
  const std::string here = work_.string();
  const std::string local = Write("work/local", "x").string();
  for (const Arguments& arguments : std::vector<Arguments>{
           {"ls", "/My Drive/file/"},
           {"tree", "/My Drive/file/"},
           {"stat", "/My Drive/file/"},
           {"cat", "/My Drive/file/"},
           {"get", "/My Drive/file/", here},
           {"put", local, "/My Drive/file/"},
           {"put", local, "/My Drive/missing/"},
           {"mv", "/My Drive/file/", "/My Drive/other"},
           {"mv", "/My Drive/file", "/My Drive/missing/"},
           {"rm", "/My Drive/file/"},
           {"mkdir", "-p", "/My Drive/file/"},
       }) {
    const Outcome outcome = Run(arguments);
    EXPECT_NE(outcome.code, 0) << testing::PrintToString(arguments);
    EXPECT_EQ(drive().ReadFile("/file"), "x") << testing::PrintToString(arguments);
  }
  for (const Arguments& arguments : std::vector<Arguments>{
           {"ls", "/My Drive/folder/"},
           {"stat", "/My Drive/folder/"},
           {"put", local, "/My Drive/folder/"},
           {"mv", "/My Drive/folder/", "/My Drive/moved/"},
           {"rm", "-r", "/My Drive/moved/"},
       }) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.code, 0) << testing::PrintToString(arguments) << outcome.err;
  }
}

TEST_F(CommandsTest, WhatOthersShareIsDownloaded) {
  emulator::Drive& other = service_.OtherDrive();
  const std::string file = other.WriteFile("/direct.txt", "shared directly");
  other.Share(file);
  other.WriteFile("/Team/inside.txt", "in a shared folder");
  other.Share(other.FindPath("/Team")->id);
  ASSERT_EQ(Run({"get", "/Shared with me/direct.txt", work_.string()}).code, 0);
  ASSERT_EQ(Run({"get", "-r", "/Shared with me/Team", work_.string()}).code, 0);
  EXPECT_EQ(Tree(work_),
            (std::map<std::string, std::string>{{"direct.txt", "shared directly"},
                                                {"Team", "/"},
                                                {"Team/inside.txt", "in a shared folder"}}));
}

TEST_F(CommandsTest, AFileThatChangesMeanwhileIsNotTaken) {
  emulator::Drive& other = service_.OtherDrive();
  drive().WriteFile("/own.txt", "first");
  other.Share(other.WriteFile("/theirs.txt", "first"));
  for (const char* path : {"/My Drive/own.txt", "/Shared with me/theirs.txt"}) {
    service_.ClearRequests();
    Fault slow = Fault::None().On("GET", "download.aspx");
    slow.delay = std::chrono::milliseconds(500);
    service_.AddFault(slow);
    const pid_t child = Start({"get", path, work_.string()});
    EXPECT_TRUE(Eventually([&] { return CountRequests("GET", "download.aspx") > 0; }));
    drive().WriteFile("/own.txt", "other");
    other.WriteFile("/theirs.txt", "other");
    const Outcome outcome = Wait(child);
    EXPECT_EQ(outcome.code, 1) << path << outcome.err;
    EXPECT_NE(outcome.err.find("was changed during the download"), std::string::npos)
        << outcome.err;
    EXPECT_TRUE(Tree(work_).empty()) << path;
    drive().WriteFile("/own.txt", "first");
    other.WriteFile("/theirs.txt", "first");
  }
}

TEST_F(CommandsTest, OptionsStandBeforeAndBehindTheCommand) {
  drive().WriteFile("/f", "x");
  for (const Arguments& arguments : std::vector<Arguments>{
           {"--no-shared", "ls", "-l", "--bytes"},
           {"ls", "-l", "--bytes", "--no-shared"},
           {"ls", "-l", "--no-shared", "/", "--bytes"},
       }) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.code, 0) << outcome.err;
    EXPECT_TRUE(outcome.out.starts_with("-  1  ")) << outcome.out;
  }
  EXPECT_EQ(Run({"ls", "--service-file", service_file_, "--refresh-token-file"}).code, 2);
}

TEST_F(CommandsTest, LogoutForgetsTheSignIn) {
  ASSERT_EQ(Run({"whoami"}).code, 0);
  ASSERT_EQ(Run({"logout"}).code, 0);
  const std::string stored = Read(folder_ / "state/onedrive4b/p.json");
  EXPECT_EQ(stored.find("refresh_token"), std::string::npos) << stored;
  EXPECT_EQ(Run({"whoami"}).code, 4);
  EXPECT_EQ(Run({"logout"}).code, 0) << "nothing to forget";
}

TEST_F(CommandsTest, TheEnvironmentsProxyIsForBothHalves) {
  struct Case {
    std::vector<std::string> environment;
    Arguments options;
    int code;
    const char* says;
  };
  const Arguments token = {"--token-url", "https://authority.invalid/token"};
  const Arguments service = {"--service-endpoint", "https://drive.invalid", "--service-resource",
                             service_.ServiceResource()};
  const auto with = [](Arguments options, const char* more) {
    options.insert(options.end(), {"--proxy", more});
    return options;
  };
  const std::string dead = "http://127.0.0.1:9";
  for (const Case& c : {
           Case{{"https_proxy=" + dead}, token, 7, "the proxy cannot be reached"},
           {{"ALL_PROXY=" + dead}, token, 7, "the proxy cannot be reached"},
           {{"https_proxy=" + dead, "NO_PROXY=.invalid"}, token, 4, "not resolve"},
           {{"https_proxy=" + dead}, with(token, "none"), 4, "not resolve"},
           {{"https_proxy=" + dead}, service, 4, "Couldn't connect to server"},
           {{"https_proxy=" + dead, "no_proxy=invalid"}, service, 4, "Couldn't resolve host name"},
           {{"https_proxy=" + dead}, with(service, "none"), 4, "Couldn't resolve host name"},
           {{"https_proxy=socks5h://h"}, token, 2, "https_proxy"},
           {{"https_proxy=" + dead, "http_proxy=" + dead, "all_proxy=" + dead}, {}, 0, "Demo User"},
           {{"http_proxy=" + dead}, {"--emulator"}, 0, "Demo User"},
       }) {
    environment_ = c.environment;
    Arguments arguments = {"whoami"};
    arguments.insert(arguments.end(), c.options.begin(), c.options.end());
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.code, c.code) << testing::PrintToString(arguments) << outcome.err;
    EXPECT_NE((outcome.out + outcome.err).find(c.says), std::string::npos) << outcome.err;
  }
}

TEST_F(CommandsTest, TokensGoToEncryptedAddressesOnly) {
  for (const Arguments& options : std::vector<Arguments>{
           {"--token-url", "http://authority.example/token"},
           {"--authority", "http://127.authority.example"},
           {"--discovery-url", "http://discovery.example"},
           {"--service-endpoint", "http://drive.example", "--service-resource", "r"},
       }) {
    for (const char* command : {"whoami", "login"}) {
      Arguments arguments = {command};
      arguments.insert(arguments.end(), options.begin(), options.end());
      service_.ClearRequests();
      const Outcome outcome = Run(arguments);
      EXPECT_EQ(outcome.code, 2) << testing::PrintToString(arguments);
      EXPECT_NE(outcome.err.find("unencrypted"), std::string::npos) << outcome.err;
      EXPECT_TRUE(service_.Requests().empty());
    }
  }
}

class LoginCommandTest : public ProgramTest {
 protected:
  void SetUp() override { std::filesystem::create_directory(work_); }

  /// Runs a login, answering with `answer` as soon as it shows its code.
  Outcome LogIn(bool (emulator::Service::*answer)(const std::string&)) {
    const pid_t child =
        Start({"login", "--device", "--client-id", service_.ClientId(), "--authority",
               service_.AuthorityUrl(), "--unified-api", service_.UnifiedApiUrl()});
    std::string code;
    EXPECT_TRUE(Eventually([&] {
      const std::string out = Read(folder_ / "out");
      const std::size_t at = out.find("code\n  ");
      if (at != std::string::npos) code = out.substr(at + 7, 9);
      return code.size() == 9;
    }));
    EXPECT_TRUE((service_.*answer)(code));
    return Wait(child);
  }

  const std::filesystem::path profile_ = folder_ / "state/onedrive4b/p.json";
};

TEST_F(LoginCommandTest, FindsTheDriveAndReplacesAProfileOnlyByWhatWorks) {
  const Outcome login = LogIn(&emulator::Service::ApproveDevice);
  EXPECT_EQ(login.code, 0) << login.err;
  EXPECT_NE(login.out.find("Signed in as Demo User"), std::string::npos) << login.out;
  EXPECT_NE(login.out.find(service_.ServiceEndpoint()), std::string::npos) << login.out;
  service_.ClearRequests();
  EXPECT_EQ(Run({"ls"}).code, 0);
  EXPECT_EQ(CountRequests("GET", "/me/drive"), 0U) << "it is asked once";

  const Outcome declined = LogIn(&emulator::Service::DeclineDevice);
  EXPECT_EQ(declined.code, 4);
  EXPECT_NE(declined.err.find("declined"), std::string::npos) << declined.err;
  EXPECT_EQ(Run({"ls"}).code, 0) << "the old sign-in is good";

  EXPECT_EQ(Run({"logout"}).code, 0);
  EXPECT_EQ(Run({"ls"}).code, 4);
}

TEST_F(LoginCommandTest, AsksAgainWhereADriveIsThatHasMoved) {
  ASSERT_EQ(LogIn(&emulator::Service::ApproveDevice).code, 0);
  std::string text = Read(profile_);
  const std::string here = "demo_contoso_example";
  ASSERT_NE(text.find(here), std::string::npos);
  text.replace(text.find(here), here.size(), "old_name");
  std::ofstream(profile_) << text;
  const Outcome outcome = Run({"ls"});
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_NE(Read(profile_).find(here), std::string::npos);
}

}  // namespace
}  // namespace cli
