// Hunts items that the catalog remembers differently from what stands in its file.
#include "drive/catalog.h"

#include <gtest/gtest.h>

namespace drive_test {
namespace {

using drive::Catalog;
using drive::Item;

class CatalogTest : public testing::Test {
 protected:
  CatalogTest() {
    item_.place = {.parent = drive::kTop, .name = "File"};
    item_.size = 7;
    catalog_.Add(item_);
  }

  std::int64_t Size() { return catalog_.Get(item_.number).size; }

  Catalog catalog_{":memory:"};
  Item item_;
};

TEST_F(CatalogTest, ForgetsWhatWasRolledBack) {
  catalog_.Begin();
  item_.size = 8;
  catalog_.Put(item_);
  EXPECT_EQ(Size(), 8);
  Item other;
  other.place = {.parent = drive::kTop, .name = "other"};
  catalog_.Add(other);
  catalog_.Rollback();
  EXPECT_EQ(Size(), 7);
  EXPECT_FALSE(catalog_.Find(other.number));
}

TEST_F(CatalogTest, FindsAnItemWhereItsLastPutLeftIt) {
  // Once with and once without a change of what the indexes are about.
  item_.id = "id";
  item_.base = item_.place = {.parent = drive::kTop, .name = "moved"};
  catalog_.Put(item_);
  item_.size = 9;
  item_.etag = "tag";
  catalog_.Put(item_);
  EXPECT_FALSE(catalog_.FindEntry(drive::kTop, "file"));
  for (const auto& found : {catalog_.FindEntry(drive::kTop, "MOVED"), catalog_.FindId("id"),
                            catalog_.FindBase(drive::kTop, "moved")}) {
    ASSERT_TRUE(found);
    EXPECT_EQ(found->size, 9);
  }
  // Entries reads the file itself.
  ASSERT_EQ(catalog_.Entries(drive::kTop).size(), 1U);
  EXPECT_EQ(catalog_.Entries(drive::kTop)[0].etag, "tag");
  EXPECT_TRUE(catalog_.Pending().empty());
  item_.dirty = true;
  catalog_.Put(item_);
  EXPECT_EQ(catalog_.Pending().size(), 1U);
}

TEST_F(CatalogTest, DoesNotBringBackWhatWasErased) {
  catalog_.Erase(item_.number);
  catalog_.Put(item_);
  EXPECT_FALSE(catalog_.Find(item_.number));
}

}  // namespace
}  // namespace drive_test
