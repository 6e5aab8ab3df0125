// Hunts storms: requests that are refused because too many go out, and files that cannot be opened
// because changes take up all that the account may ask.
#include <gtest/gtest.h>

#include "tests/drive/client.h"

namespace drive_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// A service that answers so many requests in each second; each answer takes a while.
class PaceTest : public testing::Test {
 protected:
  static constexpr int kRate = 10;

  PaceTest() {
    client_.remote.admit = [this](const std::function<void()>& refuse) {
      clock_.Pass(milliseconds(30));
      while (!Passes()) {
        refuse();
        clock_.Pass(seconds(1));
      }
    };
  }

  bool Passes() {
    if (clock_.Now() - second_ >= seconds(1)) {
      second_ = clock_.Now();
      passed_ = 0;
    }
    ++asked_;
    return !limited_ || ++passed_ <= kRate;
  }

  void MakeFiles(int count) {
    for (int i = 0; i < count; ++i) client_.Write("file " + std::to_string(i), "content");
  }

  FakeService service_;
  TestClock clock_;
  std::mt19937 random_{1};
  Client client_{service_, clock_, random_, "here"};
  FileTime second_{};
  int passed_ = 0;
  int asked_ = 0;
  bool limited_ = true;
};

TEST_F(PaceTest, AThousandChangesMakeNoStorm) {
  MakeFiles(1000);
  const FileTime began = clock_.Now();
  asked_ = client_.remote.throttled = 0;
  EXPECT_TRUE(client_.Sync());
  EXPECT_EQ(service_.Tree().size(), 1000);
  EXPECT_LT(client_.remote.throttled * 100, asked_ * 5) << "of " << asked_;
  EXPECT_LT(clock_.Now() - began, seconds(1000 / kRate) * 1.4);
}

TEST_F(PaceTest, NothingIsHeldBackOnceThereIsNoLimit) {
  MakeFiles(100);
  EXPECT_TRUE(client_.Sync());
  limited_ = false;
  for (int minute = 0; minute < 10; ++minute) {
    clock_.Pass(seconds(60));
    client_.Write("now and then", "content " + std::to_string(minute));
    EXPECT_TRUE(client_.Sync());
  }
  const FileTime began = clock_.Now();
  for (int i = 0; i < 100; ++i) client_.Write("later " + std::to_string(i), "content");
  EXPECT_TRUE(client_.Sync());
  EXPECT_LT(clock_.Now() - began, seconds(5));
}

}  // namespace
}  // namespace drive_test
