// Hunts wrong names and ids, entries lost or doubled, pages followed for ever or to the wrong
// place, and records that keep or lose what they should not.
#include <string>

#include "protocol/onedrivebiz.h"
#include "tests/protocol/signed_in_test.h"

namespace {

using onedrive4b::JsonObject;
using onedrive4b::OneDriveBiz;
using Strings = std::vector<std::string>;

class BrowseTest : public SignedInTest {
 protected:
  AERROR List(const char* id) {
    list.files.clear();
    return protocol->GetFileList(id, &list, nullptr);
  }
  std::string Page(const std::string& entries, const std::string& next = "") const {
    return "{\"value\":[" + entries + "]" +
           (next.empty() ? "" : ",\"@odata.nextLink\":\"" + next + "\"") + "}";
  }

  FileCollector list;
};

std::string Item(const std::string& id) {
  return R"({"id":")" + id + R"(","name":"n)" + id + R"(","size":1})";
}

TEST_F(SignedInTest, AddressesItemsByTheirIds) {
  auto* object = dynamic_cast<OneDriveBiz*>(protocol.get());
  ASSERT_NE(object, nullptr);
  struct Case {
    const char *id, *url;
    bool remote;
  };
  for (const Case& c : {
           Case{nullptr, "/drive/root", false},
           {"", "/drive/items/", false},
           {"root", "/drive/items/root", false},
           {"01ABC", "/drive/items/01ABC", false},
           {"b!x9/01DEF", "/drives/b!x9/items/01DEF", true},
           {"a/b/c", "/drive/items/a/b/c", true},
           {"a/", "/drive/items/a/", true},
           {"/", "/drive/items//", true},
       }) {
    EXPECT_EQ(object->GetUrl(c.id), service.Endpoint() + c.url);
    EXPECT_EQ(OneDriveBiz::IsRemoteFile(c.id), c.remote);
  }
}

TEST_F(BrowseTest, SynthesisedFoldersNeedNoRequest) {
  EXPECT_EQ(List(""), SUCCESS);
  ASSERT_EQ(list.files.size(), 2U);
  const _FS_FILE_V2& shared = list.files[0];
  const _FS_FILE_V2& drive = list.files[1];
  EXPECT_EQ(shared.id + "|" + shared.filename, "shared|Shared with me");
  EXPECT_EQ(drive.id + "|" + drive.filename, "root|My Drive");
  EXPECT_EQ(shared.attr, 0x42U);
  EXPECT_EQ(drive.attr, 2U);
  EXPECT_TRUE(shared.crtime == shared.lasttime && shared.lasttime == shared.accesstime);
  EXPECT_TRUE(shared.crtime.ends_with(".000Z"));
  _FS_FILE_V2 file;
  file.extinfo = "replaced as a whole";
  EXPECT_EQ(protocol->GetFileInfo("", &file, nullptr), SUCCESS);
  EXPECT_EQ(file.id + "|" + file.filename + "|" + file.extinfo, "||");
  EXPECT_EQ(protocol->GetFileInfo("shared", &file, nullptr), SUCCESS);
  EXPECT_EQ(file.id, "shared");
  EXPECT_TRUE(Requests().empty());

  // Without the option the top folder is nothing special; the shared view stays reachable.
  HideShared();
  service.Answer("/api/drive/items//children", Page(""));
  service.Answer("/api/drive/items/", Item("top"));
  service.Answer("/api/drive/oneDrive.sharedWithMe", Page(""));
  service.Answer("/api/drive/root/children", Page(""));
  EXPECT_EQ(List(""), SUCCESS);
  EXPECT_EQ(protocol->GetFileInfo("", &file, nullptr), SUCCESS);
  EXPECT_EQ(List("shared"), SUCCESS);
  EXPECT_EQ(List(nullptr), SUCCESS);
  EXPECT_EQ(Requests().size(), 4U);
}

TEST_F(BrowseTest, DeliversPagesInOrderWithinOneCall) {
  const std::string second = "/api/next?$skiptoken=a%2Bb&x=%20";
  service.Answer("/api/drive/items/f/children",
                 Page(Item("1") + "," + Item("2"), service.Url(second)));
  service.Answer(second, "", 429);
  service.Answer(second, "{}", 401);
  service.Answer(second, Page(Item("3") + R"(,{"id":"4","size":1},)" + Item("5")));
  EXPECT_EQ(List("f"), SUCCESS);
  EXPECT_EQ(list.Names(), (Strings{"n2", "n1", "n5", "n3"}))
      << "the entry without name is left out";
  EXPECT_EQ(time.waits(), std::vector<long>{1});
  for (const Received& request : Requests()) EXPECT_NE(request.Header("Authorization"), "(none)");
  EXPECT_TRUE(log.Has("1 [PROTOCOL  ] GetFileList >> ON HTTP RANGE 200(200) : RETRY(0x00000002)"));
  EXPECT_TRUE(log.Has("GetFileList >> HTTP GET >> 200 : " + service.Url(second)));
  EXPECT_TRUE(
      log.Has("1 [PROTOCOL  ] FillData id [1], filename [n1], attr [1], size [1], crtime [], "
              "lasttime [], eTag []"));
}

TEST_F(BrowseTest, AHugePageIsDeliveredLikeAnyOther) {
  service.Answer("/api/drive/items/f/children", std::string(17 << 20, ' ') + Page(Item("one")));
  EXPECT_EQ(List("f"), SUCCESS);
  EXPECT_EQ(list.Names(), Strings{"none"});
}

TEST_F(BrowseTest, NoPageIsFollowedTwice) {
  const std::string children = "/api/drive/items/f/children";
  service.Answer(children, Page(Item("1") + R"(,7,null,"x",[])", service.Url(children)));
  EXPECT_EQ(List("f"), FAILED);
  EXPECT_EQ(list.Names(), Strings{"n1"});
  EXPECT_EQ(Requests().size(), 1U);
  service.AnswerOnly(children, Page(Item("1"), service.Url("/api/p2")));
  service.Answer("/api/p2", Page(Item("2"), service.Url(children)));
  EXPECT_EQ(List("f"), FAILED);
  EXPECT_EQ(list.Names(), (Strings{"n1", "n2"}));
}

TEST_F(BrowseTest, RecordsKeepWhatAnItemDoesNotSay) {
  _FS_FILE_V2 file;
  file.crtime = file.lasttime = file.accesstime = "before";
  file.eTag.reset(new char[1]{});
  file.extlist = {"mine"};
  OneDriveBiz::FillData(nullptr, JsonObject(R"({"id":"1","name":"n","size":1})"), &file);
  EXPECT_EQ(file.crtime + file.lasttime + file.accesstime, "beforebeforebefore");
  EXPECT_EQ(file.eTag, nullptr);
  EXPECT_EQ(file.extlist.size(), 1U);
  _FS_FILE_V2 partial;
  EXPECT_THROW(
      OneDriveBiz::FillData(nullptr, JsonObject(R"({"id":"1","name":"n","eTag":"e"})"), &partial),
      AERROR);
  EXPECT_STREQ(partial.eTag.get(), "e") << "fields before the missing one are written";
}

TEST_F(BrowseTest, LooksUpOneItem) {
  struct Case {
    const char *id, *target, *body;
    int status;
    AERROR result;
  };
  for (const Case& c : {
           Case{"1", "/api/drive/items/1", R"({"id":"1","name":"n","size":5})", 200, SUCCESS},
           {"b!d/2", "/api/drives/b!d/items/2", R"({"id":"2","name":"n","folder":{}})", 200,
            SUCCESS},
           {nullptr, "/api/drive/root", R"({"id":"r","name":"root","folder":{}})", 200, SUCCESS},
           {"3", "/api/drive/items/3", "{}", 404, FAILED},
       }) {
    SCOPED_TRACE(c.target);
    service.Answer(c.target, c.body, c.status);
    _FS_FILE_V2 file;
    char* message = reinterpret_cast<char*>(&file);
    EXPECT_EQ(protocol->GetFileInfo(c.id, &file, &message), c.result);
    EXPECT_EQ(message, reinterpret_cast<char*>(&file)) << "message pointers stay as they were";
    EXPECT_EQ(service.Targets().back(), std::string("GET ") + c.target);
  }
  EXPECT_TRUE(log.Has("8 [PROTOCOL  ] GetFileInfo >> HTTP 404"));
}

}  // namespace
