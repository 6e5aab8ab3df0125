// Hunts changes made to the wrong item, over somebody else's newer version or more than once, and
// records that show what did not happen.
#include <cstring>
#include <string>
#include <vector>

#include "protocol/onedrivebiz.h"
#include "tests/protocol/signed_in_test.h"

namespace {

using Strings = std::vector<std::string>;

std::shared_ptr<char[]> Tag(const std::string& text) {
  std::shared_ptr<char[]> tag(new char[text.size() + 1]);
  std::memcpy(tag.get(), text.c_str(), text.size() + 1);
  return tag;
}

class NamespaceChangesTest : public SignedInTest {
 protected:
  enum Operation { kRename, kMove, kMoveDir, kCreate, kDelete, kDeleteDirectory };

  AERROR Run(Operation operation, const char* id, const char* target) {
    switch (operation) {
      case kRename:
        return protocol->Rename(id, target, &file, &message);
      case kMove:
        return protocol->Move(id, target, &file, &message);
      case kMoveDir:
        return protocol->MoveDir(id, target, &file, &message);
      case kCreate:
        return protocol->CreateDirectory(id, &file, &message);
      case kDelete:
        return protocol->Delete(&file, &message);
      case kDeleteDirectory:
        return protocol->DeleteDirectory(&file, &message);
    }
    return FAILED;
  }

  /// "METHOD target|if-match|body" of every request since the last call.
  Strings Asked() {
    Strings asked;
    const std::vector<Received> requests = Requests();
    for (; seen_ < requests.size(); ++seen_) {
      const Received& request = requests[seen_];
      EXPECT_EQ(request.Header("Authorization"), "Bearer A");
      if (request.method == "PATCH" || request.method == "POST") {
        EXPECT_EQ(request.Header("Content-Type"), "application/json; charset=UTF-8");
      }
      asked.push_back(request.method + " " + request.target + "|" + request.Header("if-match") +
                      "|" + request.body);
    }
    return asked;
  }
  void Reset(const char* etag) {
    file = {};
    file.id = "1";
    file.filename = "new \"name\"";
    file.eTag = etag != nullptr ? Tag(etag) : nullptr;
    file.extinfo = "mine";
  }

  _FS_FILE_V2 file;
  char text[1] = "";
  char* message = text;

 private:
  std::size_t seen_ = 0;
};

TEST_F(NamespaceChangesTest, AskTheServiceForOneChange) {
  const std::string item = R"({"id":"1","name":"stored","eTag":"E2","size":5})";
  const std::string folder = R"({"id":"9","name":"stored","eTag":"E2","folder":{}})";
  service.Answer("/api/drive/items/1", item);
  service.Answer("/api/drive/items/plain", R"({"id":"plain","name":"stored","size":5})");
  service.Answer("/api/drive/root", folder);
  service.Answer("/api/drives/b!d/items/1", item);
  for (const char* parent : {"/api/drive/root", "/api/drive/items/p", "/api/drives/b!d/items/p"}) {
    service.Answer(parent + std::string("/children"), folder, 201);
  }
  const std::string name = R"("name":"new \"name\"")";
  const std::string renamed = "{" + name + "}";
  const std::string made = R"(/children|(none)|{"folder":{},)" + name + "}";
  const std::string to_root = "{" + name + R"(,"parentReference":{"path":"/drive/root:/"}})";
  const std::string to_t = "{" + name + R"(,"parentReference":{"id":"t"}})";
  const std::string to_remote_t = "{" + name + R"(,"parentReference":{"driveId":"b!d","id":"t"}})";
  const std::string to_abc = "{" + name + R"(,"parentReference":{"id":"a/b/c"}})";
  const std::string get = "GET /api/drive/items/1|(none)|";
  const std::string patch_e1 = "PATCH /api/drive/items/1|E1|";
  const std::string patch_e2 = "PATCH /api/drive/items/1|E2|";
  const std::string patch_remote = "PATCH /api/drives/b!d/items/1|E1|";
  const std::string get_root = "GET /api/drive/root|(none)|";
  const std::string patch_root = "PATCH /api/drive/root|E2|";
  const std::string get_plain = "GET /api/drive/items/plain|(none)|";
  const std::string patch_plain = "PATCH /api/drive/items/plain|(none)|";
  struct Case {
    Operation operation;
    const char *id, *target;
    const char* etag;  // of the record; null: none
    Strings asked;
    const char* id_after;  // in the record; null: as it was
  };
  for (const Case& c : {
           Case{kRename, "1", "t", "E1", {patch_e1 + renamed}, "1"},
           {kRename, "1", nullptr, nullptr, {get, patch_e2 + renamed}, "1"},
           {kRename, "plain", "", nullptr, {get_plain, patch_plain + renamed}, "plain"},
           {kRename, nullptr, "", nullptr, {get_root, patch_root + renamed}, "9"},
           {kRename, "b!d/1", "", "E1", {patch_remote + renamed}, "b!d/1"},
           {kMove, "1", "t", "E1", {patch_e1 + to_t}, "1"},
           {kMove, "1", "", "E1", {patch_e1 + to_root}, "1"},
           {kMove, "b!d/1", "t", "E1", {patch_remote + to_t}, "b!d/1"},
           {kMove, "b!d/1", "b!d/t", "E1", {patch_remote + to_remote_t}, "b!d/1"},
           {kMove, "1", "a/b/c", "E1", {patch_e1 + to_abc}, "1"},
           {kMoveDir, "1", nullptr, nullptr, {get, patch_e2 + to_root}, "1"},
           {kCreate, "p", "", "E1", {"POST /api/drive/items/p" + made}, "9"},
           {kCreate, nullptr, "", "E1", {"POST /api/drive/root" + made}, "9"},
           {kCreate, "b!d/p", "", "E1", {"POST /api/drives/b!d/items/p" + made}, "b!d/9"},
           {kDelete, "", "", "E1", {get, "DELETE /api/drive/items/1|E2|"}, nullptr},
           {kDeleteDirectory, "", "", "E1", {get, "DELETE /api/drive/items/1|E2|"}, nullptr},
       }) {
    SCOPED_TRACE(c.asked.back());
    Reset(c.etag);
    EXPECT_EQ(Run(c.operation, c.id, c.target), SUCCESS);
    EXPECT_EQ(Asked(), c.asked);
    EXPECT_EQ(file.id, c.id_after != nullptr ? c.id_after : "1");
    EXPECT_EQ(file.filename, c.id_after != nullptr ? "stored" : "new \"name\"");
    EXPECT_EQ(file.extinfo, "mine");
    EXPECT_EQ(message, text);
  }
}

TEST_F(NamespaceChangesTest, RepeatedRequestsAreTheSame) {
  for (const int status : {401, 429}) service.Answer("/api/drive/items/1", "", status);
  service.Answer("/api/drive/items/1", R"({"id":"1","name":"stored","size":5})");
  Reset("E1");
  EXPECT_EQ(protocol->Rename("1", "", &file, nullptr), SUCCESS);
  Strings patches = Asked();
  std::erase(patches, "GET /api/drive|(none)|");
  EXPECT_EQ(patches, Strings(3, R"(PATCH /api/drive/items/1|E1|{"name":"new \"name\""})"));
}

TEST_F(NamespaceChangesTest, TheHostCanFollowThemInTheLog) {
  service.Answer("/api/drive/items/1", R"({"id":"1","name":"stored","size":5})");
  Reset("E1");
  file.filename = "n";
  EXPECT_EQ(protocol->MoveDir("1", "t", &file, nullptr), SUCCESS);
  EXPECT_EQ(protocol->Rename("1", nullptr, &file, nullptr), SUCCESS);
  EXPECT_EQ(protocol->Delete(&file, nullptr), SUCCESS);
  EXPECT_EQ(protocol->Move(nullptr, "t", &file, nullptr), FAILED);
  const std::string url = service.Endpoint() + "/drive/items/1(35)";
  const std::string filled =
      "1 [PROTOCOL  ] FillData id [1], filename [stored], attr [1], size [5], crtime [], lasttime "
      "[], eTag []";
  const std::string matched = " >> ON HTTP RANGE 200(200) : SUCCESS(0x00000000)";
  const std::string named = ", target [], filename [stored]";
  Strings lines = log.Lines();
  // The lookups of Rename and Delete are tested elsewhere.
  std::erase_if(
      lines, [](const std::string& line) { return line.find("GetFileInfo") != std::string::npos; });
  EXPECT_EQ(lines, (Strings{"1 [PROTOCOL  ] MoveDir id [1], target [t] file->filename[n]",
                            "1 [PROTOCOL  ] Move id [1], target [t], filename [n]",
                            "1 [PROTOCOL  ] Move eTag [E1]",
                            "1 [PROTOCOL  ] Move >> HTTP PATCH >> 200 : " + url, filled,
                            "1 [PROTOCOL  ] Move" + matched, "1 [PROTOCOL  ] Rename id [1]" + named,
                            filled, "1 [PROTOCOL  ] Rename eTag []",
                            "1 [PROTOCOL  ] Rename >> HTTP PATCH >> 200 : " + url, filled,
                            "1 [PROTOCOL  ] Rename" + matched, filled,
                            "1 [PROTOCOL  ] Delete >> HTTP DELETE >> 200 : " + url,
                            "1 [PROTOCOL  ] Delete >> HTTP 200 has no handler",
                            "1 [PROTOCOL  ] Move id [], target [t], filename [stored]",
                            "8 [PROTOCOL  ] Move id is null. Cannot complete move operation."}));
}

// Folders go the way of files through the table of operations, so that a host or a derived object
// that replaces one replaces the other.
TEST_F(NamespaceChangesTest, FolderOperationsGoThroughTheTable) {
  struct Derived final : onedrive4b::OneDriveBiz {
    using OneDriveBiz::OneDriveBiz;
    AERROR Move(const char*, const char*, _FS_FILE_V2*, char**) override { return CANCEL; }
    AERROR Delete(_FS_FILE_V2*, char**) override { return PENDING; }
  } derived("derived", nullptr);
  EXPECT_EQ(derived.MoveDir("1", "t", &file, nullptr), CANCEL);
  EXPECT_EQ(derived.DeleteDirectory(&file, nullptr), PENDING);
}

}  // namespace
