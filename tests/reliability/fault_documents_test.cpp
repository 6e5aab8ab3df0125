// Documents whose members are of the wrong type, missing, or hold texts that no honest service
// writes, addresses that lead elsewhere, and tokens that are none. Hunts crashes, fields that hold
// anything but what was sent, and requests to places where nothing of ours belongs.
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include <json/reader.h>
#include <json/writer.h>

#include "tests/reliability/fault_cell.h"

namespace {

using emulator::Response;
using faults::Document;
using faults::Find;
using faults::kNeedsNewObject;
using faults::Operation;
using faults::Outcome;
using faults::Rig;
using Text = std::optional<std::string>;

// A value in place of an honest one, and what it is as a text and as a number, if it is.
struct Value {
  std::string name;
  Text json;  // nothing: the member is missing
  Text text = {};
  Text number = {};
};

constexpr const char* kSomeText = "*";  // however it is written
constexpr const char* kLineFeeds = "a\r\nX: y";

std::vector<Value> Values() {
  const std::string long_text(10000, 'n');
  return {{"missing", {}},
          {"object", "{}"},
          {"array", "[]"},
          {"null", "null", "", "0"},
          {"text", R"("x")", "x"},
          {"digits", R"("7")", "7"},
          {"number", "7", "7", "7"},
          {"negative", "-1", "-1", "-1"},
          {"fraction", "1.5", "1.5", "1"},
          {"1e300", "1e300", kSomeText},
          {"beyond 64 bits", "99999999999999999999", kSomeText},
          {"true", "true", "true", "1"},
          {"no UTF-8", "\"\xFF\xC0\x80\"", "\xFF\xC0\x80"},
          {"NUL inside", R"("a\u0000b")", "a"},
          {"line feeds", R"("a\r\nX: y")", kLineFeeds},
          {"10 KB text", "\"" + long_text + "\"", long_text}};
}

enum class Reading {
  kText,     // any text
  kNumber,   // of 64 bits
  kExact,    // one text only
  kAddress,  // of the next request
  kObject,   // with members that are needed
  kParent,   // an object with members that may be missing
  kFolder,   // that it is there
  kList,     // of which no element is needed
};

// A member that the module reads. Items are read in one place, so two operations stand for all that
// take one: a look, which fills the host's record field by field, and a change, which does not. Of
// the others each has to leave the record alone when an item breaks off in the middle.
struct Member {
  const char* operation;
  std::string path;
  Reading reading;
  int field = -1;           // of the record that it ends up in
  Text missing = {};        // that field without the member; nothing: it is needed
  std::string prefix = {};  // of that field
};

std::vector<Member> Members() {
  using enum Reading;
  constexpr const char* kShared = "GetFileList: shared";
  std::vector<Member> all{{"Connect: discovery", "value", kObject},
                          {"Connect: discovery", "value/0/capability", kExact},
                          {"Connect: discovery", "value/0/serviceApiVersion", kExact},
                          {"Connect: discovery", "value/0/serviceResourceId", kText},
                          {"Connect: discovery", "value/0/serviceEndpointUri", kAddress},
                          {"Connect: account", "owner", kObject},
                          {"Connect: account", "owner/user", kObject},
                          {"Connect: account", "owner/user/displayName", kText},
                          {"GetQuota", "quota", kObject},
                          {"GetQuota", "quota/total", kNumber},
                          {"GetQuota", "quota/remaining", kNumber},
                          {"GetFileList", "@odata.nextLink", kAddress, -1, "the last page"},
                          {kShared, "value", kList},
                          {kShared, "value/0/remoteItem/id", kText, 0, "s", "d/"},
                          {kShared, "value/0/remoteItem/size", kNumber, 2},
                          {kShared, "value/0/remoteItem/folder", kFolder},
                          {kShared, "value/0/remoteItem/parentReference", kParent, 0, "s"},
                          {kShared, "value/0/remoteItem/parentReference/driveId", kText, 0, "s"},
                          {"Move", "size", kNumber, 2},
                          {"CreateDirectory", "size", kNumber, 2},
                          {"Upload", "size", kNumber, 2},
                          {"Upload: session", "uploadUrl", kAddress},
                          {"Upload: session", "expirationDateTime", kText},
                          {"Upload: first part", "nextExpectedRanges", kList},
                          {"Upload: first part", "nextExpectedRanges/0", kText, -1, "none"}};
  for (const auto& [operation, at] :
       {std::pair("GetFileInfo", ""), {"Rename", ""}, {"GetFileList: page 2", "value/0/"}}) {
    const std::string item = at;
    all.insert(all.end(), {{operation, item + "id", kText, 0},
                           {operation, item + "name", kText, 1},
                           {operation, item + "size", kNumber, 2},
                           {operation, item + "eTag", kText, 3, ""},
                           {operation, item + "createdDateTime", kText, 4, ""},
                           {operation, item + "lastModifiedDateTime", kText, 5, ""},
                           {operation, item + "folder", kFolder},
                           {operation, item + "remoteItem", kObject, -1, "as it was"}});
  }
  return all;
}

// Puts the value, or nothing, at the path.
std::string Altered(const std::string& document, std::string_view path, const Value& value) {
  Json::Value root;
  Json::Reader().parse(document, root);
  Json::Value* at = &root;
  for (std::size_t slash; (slash = path.find('/')) != std::string_view::npos;) {
    const std::string name(path.substr(0, slash));
    at = at->isArray() ? &(*at)[std::stoi(name)] : &(*at)[name];
    path.remove_prefix(slash + 1);
  }
  const std::string name(path);
  constexpr const char* kMark = "@here@";
  if (value.json) {
    (at->isArray() ? (*at)[std::stoi(name)] : (*at)[name]) = kMark;
  } else if (at->isArray()) {
    at->resize(0);
  } else {
    at->removeMember(name);
  }
  // As it stands, not as the writer would write it.
  std::string text = Json::FastWriter().write(root);
  const std::size_t mark = text.find(std::string("\"") + kMark + "\"");
  if (value.json) text.replace(mark, std::strlen(kMark) + 2, *value.json);
  return text;
}

bool IsOfEntry(const Member& member) {
  return std::string_view(member.operation).starts_with("GetFileList") &&
         member.path.starts_with("value/0/");
}

// What the field becomes; nothing when the document or the entry cannot be used.
Text Read(const Member& member, const Value& value) {
  if (!value.json) return member.reading == Reading::kFolder ? "file" : member.missing;
  switch (member.reading) {
    case Reading::kText:
      // The empty id is that of the top folder.
      if (IsOfEntry(member) && member.path == "value/0/id" && value.text == "") return {};
      if (!value.text || value.text == kSomeText) return value.text;
      return member.prefix + *value.text + (member.path.ends_with("driveId") ? "/r" : "");
    case Reading::kNumber:
      return value.number;
    case Reading::kParent:
      return value.json == "{}" || value.json == "null" ? member.missing : std::nullopt;
    case Reading::kList:
      return "";
    case Reading::kFolder:
      return "folder";
    default:
      return std::nullopt;
  }
}

// The record's text with what a member alters in it.
std::string WithField(const std::string& record, const Member& member, const std::string& text) {
  std::vector<std::string> fields(1);
  for (const char character : record) {
    if (character == '|') {
      fields.emplace_back();
    } else {
      fields.back() += character;
    }
  }
  if (text == "folder") {
    fields.at(2) = "0";
    fields.at(6) = "2";
  } else if (member.field >= 0) {
    fields.at(static_cast<std::size_t>(member.field)) = text;
  }
  std::string joined = fields[0];
  for (std::size_t index = 1; index < fields.size(); ++index) joined += "|" + fields[index];
  return joined;
}

std::string FirstPage(const Operation& list) { return list.whole.substr(0, list.whole.size() / 2); }

// A listing goes on without an entry that cannot be used. It is the last one to be handed over.
void ExpectEntry(const Operation& list, const Member& member, const Text& read, Outcome& outcome) {
  const std::size_t begin = list.whole.rfind(';', list.whole.size() - 2) + 1;
  const std::string entry = list.whole.substr(begin, list.whole.size() - begin - 1);
  outcome.result = SUCCESS;
  outcome.reached =
      list.whole.substr(0, begin) + (read ? WithField(entry, member, *read) + ";" : std::string());
}

Outcome Expected(const Operation& operation, const Member& member, const Value& value) {
  const Text read = Read(member, value);
  Outcome outcome{operation.failure, operation.untouched, 1, operation.before};
  if (IsOfEntry(member)) {
    ExpectEntry(operation, member, read, outcome);
  } else if (read) {
    outcome.result = SUCCESS;
    outcome.reached = WithField(operation.whole, member, *read);
    if (operation.document == Document::kPage) {
      outcome.reached = member.reading == Reading::kList ? "" : FirstPage(operation);
    }
    if (member.path.ends_with("displayName")) outcome.reached = read->size() < 64 ? *read : "";
    if (operation.name == "GetQuota") outcome.reached.reset();
  } else if (operation.name == "GetFileInfo") {
    outcome.reached.reset();
  } else if (member.reading == Reading::kAddress) {
    if (operation.document == Document::kPage) outcome.reached = FirstPage(operation);
    // It believes to be signed in, at that address; the session is there, and the part goes
    // nowhere.
    if (operation.connects && value.text) outcome.heals_after = kNeedsNewObject;
    if (operation.document == Document::kSession && value.text != "") {
      outcome.result = value.text ? FAILED : operation.failure;
    }
  }
  if (read == kSomeText) outcome.reached.reset();
  return outcome;
}

class FaultDocuments : public faults::FaultTest {
 protected:
  // The operation with an answer whose member is altered.
  void MeetAltered(Rig& rig, const Operation& operation, const std::string& path,
                   const Value& value, const Outcome& expected) {
    const std::string body = Altered(rig.service.Honest(operation.key).text, path, value);
    Meet(rig, operation, expected, [&] {
      rig.service.Break(operation.key, [=](Response& response) { response.text = body; });
    });
  }
};

TEST_F(FaultDocuments, MembersOfAnyTypeAndText) {
  for (const Member& member : Members()) {
    const Operation& operation = Find(member.operation);
    Rig rig(!operation.connects);
    for (const Value& value : Values()) {
      // Names of hosts are for nobody to look up.
      const bool host = value.text && value.text != "" && value.text != kLineFeeds;
      if (member.reading == Reading::kAddress && host) continue;
      SCOPED_TRACE(operation.name + " meets " + member.path + " = " + value.name);
      MeetAltered(rig, operation, member.path, value, Expected(operation, member, value));
    }
  }
}

// Addresses that the service gives away. None but those of web servers is ever asked, and the one
// of another origin is asked without the token, unless it is the service's own from then on.
TEST_F(FaultDocuments, AddressesThatLeadElsewhere) {
  for (const auto& [name, member, path] :
       {std::tuple("Connect: discovery", "value/0/serviceEndpointUri", "/api"),
        {"GetFileList", "@odata.nextLink", "/api/page2"},
        {"Upload: session", "uploadUrl", "/up"}}) {
    const Operation& operation = Find(name);
    Rig rig(!operation.connects);
    const std::string foreign = rig.service.ForeignOrigin() + path;
    const std::string nowhere = rig.service.Origin() + "/up/nowhere";
    for (const std::string& address :
         {foreign, nowhere, std::string("file:///etc/hostname"), std::string("ftp://127.0.0.1/"),
          std::string("gopher://127.0.0.1/"), std::string("dict://127.0.0.1/"), std::string("/"),
          std::string("//127.0.0.1:1/"), std::string("https://["), std::string("https://"),
          std::string("https://user@127.0.0.1:1/")}) {
      SCOPED_TRACE(operation.name + " is told of " + address);
      Outcome expected{operation.failure, operation.untouched};
      if (operation.document == Document::kPage) expected.reached = FirstPage(operation);
      if (operation.document == Document::kSession) expected.result = FAILED;
      if (operation.connects) expected.heals_after = kNeedsNewObject;
      if (address == nowhere) expected.before = 1;
      if (address == foreign) {
        expected = {SUCCESS, operation.whole};
        expected.bearer_may_leave = operation.connects;
      }
      MeetAltered(rig, operation, member, {"", "\"" + address + "\""}, expected);
    }
  }
}

// What the host's authorisation says in place of tokens, at sign-in and at a renewal.
TEST_F(FaultDocuments, RepliesThatAreNoTokens) {
  struct Reply {
    const char* name;
    std::optional<std::string> text;
    bool goes_on = false;  // a renewal keeps the token that it has
  };
  const Operation& look = Find("GetFileInfo");
  for (const Reply& reply : {
           Reply{"none", {}},
           {"empty", ""},
           {"no JSON", "<html>"},
           {"nested 100,000 deep", std::string(100000, '[')},
           {"array", "[]"},
           {"null", "null", true},
           {"without results", "{}", true},
           {"results are a number", R"({"results":7})"},
           {"without access token", R"({"results":{}})", true},
           {"access token is an object", R"({"results":{"access_token":{}}})"},
           {"access token with line feeds", R"({"results":{"access_token":"A\r\nX: y"}})", true},
       }) {
    for (const std::string stage : {"discovery", "service", "renewal"}) {
      SCOPED_TRACE(stage + ": " + reply.name);
      Rig rig(stage == "renewal");
      const TestHost::Authorization honest = rig.host.authorize;
      rig.host.authorize = [&](const std::string& credential) {
        const bool service = credential.find("resource") != std::string::npos;
        return stage == (service ? "discovery" : "service") ? honest(credential) : reply.text;
      };
      time.Advance(std::chrono::hours(2));
      if (stage == "renewal") {
        rig.service.Break(
            look.key, [](Response& response) { response = emulator::EmptyResponse(401); }, 1);
      }
      const AERROR result = stage == "renewal" ? rig.Run(look) : rig.Connect();
      const AERROR expected = stage != "renewal" ? AUTH_FAILED : reply.goes_on ? SUCCESS : FAILED;
      EXPECT_STREQ(GetAERRORA(result), GetAERRORA(expected));
      EXPECT_EQ(rig.host.replies_out, 0);
      rig.host.authorize = honest;
      rig.service.Heal();
      time.Advance(std::chrono::hours(2));
      EXPECT_EQ(stage == "renewal" ? rig.Run(look) : rig.Connect(), SUCCESS) << "the next one";
    }
  }
}

// Ids and names as a service may have given them come back from the host.
TEST_F(FaultDocuments, IdsWithLineFeedsGoNowhere) {
  Rig rig;
  rig.service.Take();
  FileCollector list;
  _FS_FILE_V2 file;
  const std::string id = kLineFeeds;
  file.id = id;
  file.eTag.reset(new char[8]{'E'});
  const auto handle = std::make_shared<_FS_HANDLE>();
  FilledContent content;
  IProtocol_V2& drive = *rig.protocol;
  EXPECT_EQ(drive.GetFileInfo(id.c_str(), &file, nullptr), FAILED);
  EXPECT_EQ(drive.GetFileList(id.c_str(), &list, nullptr), FAILED);
  EXPECT_EQ(drive.Rename(id.c_str(), "n", &file, nullptr), FAILED);
  EXPECT_EQ(drive.Move(id.c_str(), "f", &file, nullptr), FAILED);
  EXPECT_EQ(drive.CreateDirectory(id.c_str(), &file, nullptr), FAILED);
  EXPECT_EQ(drive.Delete(&file, nullptr), FAILED);
  EXPECT_EQ(drive.Read(id.c_str(), 0, 1, handle, &content, nullptr), FAILED);
  EXPECT_EQ(drive.Upload(id.c_str(), handle, &content, &file, {}, nullptr), FAILED);
  file.eTag.reset(new char[8]{'E', '\r', '\n'});
  EXPECT_EQ(drive.Rename("i", "n", &file, nullptr), FAILED);
  EXPECT_TRUE(rig.service.Take().empty());
  // A tag that a look has found.
  for (const char* change : {"Rename: lookup", "Delete: lookup"}) {
    MeetAltered(rig, Find(change), "eTag", {"", R"("a\r\nX: y")"},
                {FAILED, Find(change).untouched});
  }
  EXPECT_EQ(rig.Run(Find("GetFileInfo")), SUCCESS);
}

}  // namespace
