// Hunts what only whole programs show: a host that does not find its module, trusts the wrong
// certificate, says nothing useful, or exits with the wrong code.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

struct Outcome {
  int code = -1;
  std::string text;  // standard output and error
};

Outcome Shell(const std::string& command) {
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  Outcome outcome;
  std::array<char, 4096> piece;
  while (const std::size_t length = std::fread(piece.data(), 1, piece.size(), pipe)) {
    outcome.text.append(piece.data(), length);
  }
  const int status = pclose(pipe);
  outcome.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return outcome;
}

// The emulator as a program, over TLS, and a host program in a folder of its own whose bundle holds
// the emulator's authority.
class ProgramsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // No request to this machine may go through a proxy that the environment names.
    setenv("https_proxy", "http://127.0.0.1:9", 1);
    setenv("http_proxy", "http://127.0.0.1:9", 1);
    std::string pattern = (fs::temp_directory_path() / "onedrive4b-programs-XXXXXX").string();
    folder = mkdtemp(pattern.data());
    for (const char* name : {"bin", "lib", "Frameworks"}) fs::create_directory(folder / name);
    fs::copy(HOST_PROGRAM, folder / "bin/onedrive4b");
    fs::copy(MODULE_PATH, folder / "lib/libonedrive4b.so");
    emulator = fork();
    if (emulator == 0) {
      if (std::freopen((folder / "emulator.log").c_str(), "w", stdout) == nullptr) _exit(1);
      execl(EMULATOR_PROGRAM, "onedrive4b-emulator", "--seed", "--ca-file",
            (folder / "Frameworks/cacert.pem").c_str(), "--ready-file",
            (folder / "service.json").c_str(), nullptr);
      _exit(1);
    }
    for (int i = 0; i < 1000 && !fs::exists(folder / "service.json"); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(fs::exists(folder / "service.json")) << "the emulator did not start";
  }
  static void TearDownTestSuite() {
    kill(emulator, SIGTERM);
    int status = -1;
    waitpid(emulator, &status, 0);
    EXPECT_EQ(status, 0) << "the emulator ends cleanly";
    EXPECT_FALSE(fs::exists(folder / "service.json")) << "and takes its refresh token with it";
    fs::remove_all(folder);
  }

  static Outcome Host(const std::string& arguments) {
    return Shell("'" + (folder / "bin/onedrive4b").string() + "' --service-file '" +
                 (folder / "service.json").string() + "' " + arguments);
  }
  static Json::Value HostJson(const std::string& arguments) {
    const Outcome outcome = Host(arguments + " --json");
    EXPECT_EQ(outcome.code, 0) << outcome.text;
    Json::Value document;
    std::istringstream text(outcome.text);
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), text, &document, nullptr))
        << outcome.text;
    return document;
  }

  static inline fs::path folder;
  static inline pid_t emulator = -1;
};

TEST_F(ProgramsTest, BrowseTheDriveOverVerifiedTls) {
  EXPECT_EQ(HostJson("whoami")["name"].asString(), "Demo User");
  EXPECT_GT(HostJson("df")["total"].asUInt64(), 0U);
  const Outcome photos = Host("ls '/My Drive/Photos 2026'");
  EXPECT_EQ(photos.code, 0);
  EXPECT_EQ(std::count(photos.text.begin(), photos.text.end(), '\n'), 450);
  const Outcome log = Host("-v ls '/My Drive/Photos 2026'");
  EXPECT_NE(log.text.find("GetFileList >> HTTPS GET >> 200 : https://"), std::string::npos);
  const Outcome tree = Host("tree '/Shared with me'");
  EXPECT_NE(tree.text.find("Kick-off.txt"), std::string::npos) << tree.text;
  EXPECT_TRUE(tree.text.ends_with("\n2 folders, 3 files\n")) << tree.text;
  const Outcome one = Host("tree '/Shared with me/Team plans/Minutes'");
  EXPECT_TRUE(one.text.ends_with("\n0 folders, 1 file\n")) << one.text;
  EXPECT_NE(Host("stat '/my drive/documents/100% sure #1.txt'").text.find("47 bytes"),
            std::string::npos);
  const Outcome hidden = Host("--no-shared ls /");
  EXPECT_NE(hidden.text.find("Welcome.txt"), std::string::npos) << hidden.text;
}

TEST_F(ProgramsTest, CarryFilesBothWays) {
  const std::string file = (folder / "up.bin").string();
  const std::string back = (folder / "back.bin").string();
  Shell("head -c 3000000 /dev/urandom > '" + file + "'");
  EXPECT_EQ(Host("mkdir '/My Drive/T'").code, 0);
  EXPECT_EQ(Host("put '" + file + "' '/My Drive/T/a b#%.bin'").code, 0);
  EXPECT_EQ(Host("get --parallel 3 '/My Drive/T/a b#%.bin' '" + back + "'").code, 0);
  EXPECT_EQ(Shell("cmp '" + file + "' '" + back + "'").code, 0);
  const std::string part = "cat --offset 1000 --length 70000 '/My Drive/T/a b#%.bin'";
  EXPECT_EQ(Host(part).text, Shell("tail -c +1001 '" + file + "' | head -c 70000").text);
  EXPECT_EQ(Host("cat --offset 2999999 '/My Drive/T/a b#%.bin'").text.size(), 1U);
  EXPECT_EQ(Host("mv '/My Drive/T/a b#%.bin' '/My Drive/T/c.bin'").code, 0);
  EXPECT_EQ(HostJson("stat '/My Drive/T/c.bin'")["size"].asInt64(), 3000000);
  EXPECT_EQ(Host("rm -r '/My Drive/T'").code, 0);
  EXPECT_EQ(Host("stat '/My Drive/T'").code, 5);
}

TEST_F(ProgramsTest, SayWhatFailedAndExitAccordingly) {
  struct Case {
    const char* arguments;
    int code;
    const char* says;
  };
  for (const Case& c : {
           Case{"no-such-command", 2, "--help"},
           {"ls '/My Drive/nowhere'", 5, "nowhere"},
           {"--module /nonexistent.so whoami", 3, "/nonexistent.so"},
           {"--proxy http://127.0.0.1:1 whoami", 7, "the proxy cannot be reached"},
           {"get '/My Drive/Welcome.txt' /nonexistent/x", 6, "/nonexistent"},
       }) {
    SCOPED_TRACE(c.arguments);
    const Outcome outcome = Host(c.arguments);
    EXPECT_EQ(outcome.code, c.code) << outcome.text;
    EXPECT_NE(outcome.text.find(c.says), std::string::npos) << outcome.text;
  }
  fs::rename(folder / "Frameworks/cacert.pem", folder / "aside.pem");
  const Outcome untrusted = Host("whoami");
  fs::rename(folder / "aside.pem", folder / "Frameworks/cacert.pem");
  EXPECT_EQ(untrusted.code, 4) << "a certificate of an unknown authority is refused";
}

TEST_F(ProgramsTest, NeedNoAccountWithTheServiceInside) {
  const Outcome tree =
      Shell("'" + (folder / "bin/onedrive4b").string() + "' --emulator tree '/My Drive/Documents'");
  EXPECT_EQ(tree.code, 0);
  EXPECT_NE(tree.text.find("January.md"), std::string::npos);
}

}  // namespace
