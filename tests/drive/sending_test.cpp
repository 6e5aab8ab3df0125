// Hunts changes that are lost, or never sent, because programs went on while they were being sent.
#include <functional>
#include <utility>

#include <gtest/gtest.h>

#include "tests/drive/client.h"

namespace drive_test {
namespace {

class SendingTest : public testing::Test {
 protected:
  SendingTest() {
    client_.remote.around = [this](const std::string& request, bool done) {
      if (!done && request == request_) std::exchange(action_, [] {})();
    };
  }

  /// Does something while the service takes the next upload of `name`.
  void During(const std::string& name, std::function<void()> action) {
    request_ = "upload " + name;
    action_ = std::move(action);
  }

  void Save(const std::string& content) {
    client_.Write("lock", content);
    client_.Rename("lock", "file");
  }

  void ExpectSent(const Client::Tree& tree) {
    EXPECT_TRUE(client_.Sync());
    EXPECT_EQ(client_.GetTree(), tree);
    EXPECT_EQ(service_.Tree(), tree);
  }

  FakeService service_;
  TestClock clock_;
  std::mt19937 random_{1};
  Client client_{service_, clock_, random_, "here"};
  std::string request_;
  std::function<void()> action_ = [] {};
};

// Every save takes over the item, whose first version is still on its way.
TEST_F(SendingTest, SavedAgainAndAgain) {
  for (const int saves : {1, 2, 3}) {
    client_.Write("file", "first");
    During("file", [&] {
      for (int i = 1; i <= saves; ++i) Save("save " + std::to_string(i));
    });
    EXPECT_TRUE(client_.Sync());
    ExpectSent({{"file", "save " + std::to_string(saves)}});
  }
}

// The new version, too, is on its way, under the name that it was written with.
TEST_F(SendingTest, SavedWhileTheNewVersionIsSent) {
  for (const char* before : {"none", "sent"}) {
    if (std::string(before) == "sent") {
      client_.Write("file", "old");
      EXPECT_TRUE(client_.Sync());
    }
    client_.Write("lock", "new");
    During("lock", [&] {
      client_.Write("other", "x");
      client_.Rename("lock", "file");
      client_.Rename("other", "file");
    });
    EXPECT_TRUE(client_.Sync());
    ExpectSent({{"file", "x"}});
  }
}

// A version that is still on its way is not the one that the file has when it is opened again.
TEST_F(SendingTest, OpenedAgainWhileItIsSent) {
  client_.Write("file", "first");
  std::shared_ptr<drive::OpenFile> open;
  During("file", [&] {
    client_.Append("file", ", second");
    open = client_.drive().Open(client_.Find("file").number, {.write = true}, {});
    const std::string more = ", third";
    client_.drive().Write(*open, client_.Find("file").size, more, {});
  });
  client_.Sync();
  client_.drive().Write(*open, 0, std::span("FIRST", 5), {});
  client_.drive().Close(*open);
  ExpectSent({{"file", "FIRST, second, third"}});
}

// The size that was sent counts, whether it was recorded or not.
TEST_F(SendingTest, SentWhileItIsOpen) {
  client_.Write("file", "first");
  const auto open = client_.drive().Open(client_.Find("file").number, {.write = true}, {});
  client_.drive().Write(*open, 5, std::span(" and more", 9), {});
  EXPECT_TRUE(client_.Sync());
  EXPECT_EQ(client_.Find("file").size, 14);
  client_.drive().Close(*open);
  ExpectSent({{"file", "first and more"}});
}

// The new folder waits for the name of the old one, which is to go into the new one.
TEST_F(SendingTest, FolderMovedIntoOneThatHasItsName) {
  client_.MakeFolder("a");
  client_.Write("a/file", "content");
  EXPECT_TRUE(client_.Sync());
  client_.Rename("a", "b");
  client_.MakeFolder("a");
  client_.MakeFolder("a/deeper");
  client_.Rename("b", "a/deeper/a");
  ExpectSent({{"a/", ""}, {"a/deeper/", ""}, {"a/deeper/a/", ""}, {"a/deeper/a/file", "content"}});
}

// Nobody asks for it: a file is sent once it has rested, and what is renamed or removed meanwhile
// does not wait for that.
TEST_F(SendingTest, SentOnceItHasRested) {
  const auto wait = [&](std::chrono::milliseconds time) {
    client_.work().RunUntil(clock_.Now() + time);
  };
  client_.Write("file", "first");
  wait(std::chrono::seconds(4));
  client_.Write("other", "second");
  EXPECT_EQ(service_.Tree(), Client::Tree());
  wait(std::chrono::milliseconds(1500));
  EXPECT_EQ(service_.Tree(), Client::Tree({{"file", "first"}}));
  wait(std::chrono::seconds(5));
  EXPECT_EQ(service_.Tree(), Client::Tree({{"file", "first"}, {"other", "second"}}));
  client_.Write("file", "third");
  client_.Rename("file", "renamed");
  client_.Remove("other");
  wait(std::chrono::seconds(3));
  EXPECT_EQ(service_.Tree(), Client::Tree({{"renamed", "first"}}));
  wait(std::chrono::seconds(3));
  EXPECT_EQ(service_.Tree(), Client::Tree({{"renamed", "third"}}));
}

}  // namespace
}  // namespace drive_test
