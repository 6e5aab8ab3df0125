// Hunts changes that are dropped, hidden or hammered on because the service refuses them, and
// programs that hang or lose something because it does not answer.
#include <functional>
#include <utility>

#include <gtest/gtest.h>

#include "tests/drive/client.h"

namespace drive_test {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

struct Refused {
  const char* name;
  const char* request;  ///< the kind of request that is refused
  std::function<void(Client&)> change;
  std::string path;
  Client::Tree here;     ///< what programs see, from the start
  Client::Tree service;  ///< as long as it is refused
};

void PrintTo(const Refused& refused, std::ostream* to) { *to << refused.name; }

class RefusalTest : public testing::Test {
 protected:
  RefusalTest() {
    client_.MakeFolder("d");
    client_.Write("file", "old");
    EXPECT_TRUE(client_.Sync());
    client_.GetTree();
    client_.remote.around = [this](const std::string& request, bool done) {
      if (!done && trouble_ && (refused_.empty() || request.starts_with(refused_))) {
        ++met_;
        throw RemoteError(*trouble_, "the service's reason");
      }
    };
  }

  /// Lets time pass in which the drive works by itself.
  void Wait(FileTime::duration time) { client_.work().RunUntil(clock_.Now() + time); }

  FakeService service_;
  TestClock clock_;
  std::mt19937 random_{1};
  Client client_{service_, clock_, random_, "here"};
  std::optional<Trouble> trouble_;
  std::string refused_;
  int met_ = 0;
};

const Client::Tree kBefore = {{"d/", ""}, {"file", "old"}};

std::vector<Refused> Changes() {
  const auto with = [](Client::Tree more) {
    more.insert(kBefore.begin(), kBefore.end());
    return more;
  };
  return {
      {"new file", "upload", [](Client& at) { at.Write("new", "x"); }, "/new", with({{"new", "x"}}),
       kBefore},
      {"new folder", "mkdir", [](Client& at) { at.MakeFolder("new"); }, "/new",
       with({{"new/", ""}}), kBefore},
      {"written", "upload", [](Client& at) { at.Write("file", "new"); }, "/file",
       with({{"file", "new"}}), kBefore},
      {"renamed",
       "rename",
       [](Client& at) { at.Rename("file", "other"); },
       "/other",
       {{"d/", ""}, {"other", "old"}},
       kBefore},
      {"moved",
       "move",
       [](Client& at) { at.Rename("file", "d/file"); },
       "/d/file",
       {{"d/", ""}, {"d/file", "old"}},
       kBefore},
      {"removed", "delete", [](Client& at) { at.Remove("file"); }, "/file", {{"d/", ""}}, kBefore},
  };
}

class RefusedChange : public RefusalTest,
                      public testing::WithParamInterface<std::tuple<Trouble, Refused>> {};

TEST_P(RefusedChange, IsKeptShownAndTriedAgain) {
  const auto& [trouble, change] = GetParam();
  trouble_ = trouble;
  refused_ = change.request;
  change.change(client_);
  EXPECT_FALSE(client_.Sync());
  EXPECT_EQ(client_.GetTree(), change.here);
  EXPECT_EQ(service_.Tree(), change.service);
  const drive::Status status = client_.drive().GetStatus();
  EXPECT_EQ(status.pending, 1);
  ASSERT_EQ(status.refused.size(), 1);
  EXPECT_EQ(status.refused[0].path, change.path);
  EXPECT_NE(status.refused[0].reason, "");

  const int before = met_;
  Wait(minutes(120));
  EXPECT_GT(met_, before) << "not tried again";
  EXPECT_LT(met_, before + 20) << "tried too often";
  client_.Restart();
  EXPECT_EQ(client_.drive().GetStatus().refused.size(), 1);

  trouble_.reset();
  EXPECT_TRUE(client_.Sync());
  EXPECT_EQ(service_.Tree(), change.here);
  EXPECT_TRUE(client_.drive().GetStatus().refused.empty());
}

INSTANTIATE_TEST_SUITE_P(All, RefusedChange,
                         testing::Combine(testing::Values(Trouble::kInvalid, Trouble::kDenied,
                                                          Trouble::kNameTaken, Trouble::kChanged,
                                                          Trouble::kLocked, Trouble::kFull,
                                                          Trouble::kTooLarge, Trouble::kFailed),
                                          testing::ValuesIn(Changes())));

// Without the service: what is here works, what is not fails within its bound, then at once.
TEST_F(RefusalTest, CutOff) {
  client_.Write("large", std::string(1'000'000, 'x'));
  EXPECT_TRUE(client_.Sync());
  service_.SetData(*service_.FindName("root", "file"), "there");
  Wait(minutes(1));
  EXPECT_EQ(client_.GetTree().size(), 3);  // notices the new version, and reads all

  for (const Trouble trouble : {Trouble::kUnreachable, Trouble::kSignedOut}) {
    trouble_ = trouble;
    refused_ = "";
    Wait(minutes(10));
    EXPECT_FALSE(client_.drive().GetStatus().online);
    EXPECT_EQ(client_.drive().GetStatus().signed_out, trouble == Trouble::kSignedOut);
    const FileTime began = clock_.Now();
    EXPECT_EQ(client_.Read("file"), "there");
    client_.Write("made offline", "x");
    client_.Rename("large", "d/large");
    EXPECT_THROW(client_.Find("unknown"), drive::Error);
    EXPECT_THROW(client_.drive().SpaceOf({}), drive::Error);
    EXPECT_EQ(clock_.Now(), began) << "something has waited";
    Wait(std::chrono::hours(8));
    EXPECT_LT(met_, 200) << "asks too often";

    met_ = 0;
    trouble_.reset();
    Wait(minutes(10));  // all goes up by itself
    EXPECT_TRUE(client_.drive().GetStatus().online);
    EXPECT_EQ(client_.drive().GetStatus().pending, 0);
    EXPECT_EQ(service_.Tree(), client_.GetTree());
    client_.Remove("made offline");
    client_.Rename("d/large", "large");
    EXPECT_TRUE(client_.Sync());
  }
}

// The account is known: the drive starts without the service.
TEST_F(RefusalTest, StartsCutOff) {
  client_.Write("file", "mine");
  trouble_ = Trouble::kUnreachable;
  client_.Restart();
  EXPECT_EQ(client_.Read("file"), "mine");
  client_.Write("new", "x");
  Wait(minutes(5));
  trouble_.reset();
  Wait(minutes(10));
  EXPECT_EQ(service_.Tree(), (Client::Tree{{"d/", ""}, {"file", "mine"}, {"new", "x"}}));
}

}  // namespace
}  // namespace drive_test
