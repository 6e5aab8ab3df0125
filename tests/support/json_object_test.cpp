// Hunts documents that read or write wrongly: a lost member, a view that copies, a copy that
// aliases, text that the reader takes or refuses against the rules.
#include "support/json_object.h"

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>
#include <json/value.h>

namespace onedrive4b {
namespace {

template <typename Operation>
AERROR ThrownBy(Operation operation) {
  try {
    operation();
  } catch (AERROR error) {
    return error;
  }
  return SUCCESS;
}

TEST(JsonObject, ParsesWhatTheServiceAndTheHostSend) {
  struct Case {
    const char* text;
    const char* written;  // null: JSON_PARSE_FAILED
  };
  for (const Case& c : {
           Case{R"({"b":1, "a":[true, null]})", R"({"a":[true,null],"b":1})"},
           {"  7 ", "7"},
           {"{} trailing", "{}"},
           {"/* note */ {\"a\": 1 // end\n}", R"({"a":1})"},
           {"null", "null"},
           {"", nullptr},
           {"   ", nullptr},
           {"{\"a\":", nullptr},
           {"<html>", nullptr},
       }) {
    SCOPED_TRACE(c.text);
    if (c.written != nullptr) {
      EXPECT_EQ(JsonObject(c.text).ToText(), c.written);
    } else {
      EXPECT_EQ(ThrownBy([&] { JsonObject object(c.text); }), JSON_PARSE_FAILED);
    }
  }
  EXPECT_EQ(JsonObject("[1]garbage", 3).ToText(), "[1]");
  EXPECT_EQ(ThrownBy([] { JsonObject object("{}", 0); }), JSON_PARSE_FAILED);
  EXPECT_EQ(ThrownBy([] { JsonObject object(nullptr, 0); }), JSON_PARSE_FAILED);
}

TEST(JsonObject, NestingBeyondTheReaderIsAParseFailure) {
  const std::string deep(100000, '[');
  EXPECT_EQ(ThrownBy([&] { JsonObject object(deep.c_str()); }), JSON_PARSE_FAILED);
}

TEST(JsonObject, FollowsPaths) {
  const JsonObject document(
      R"({"results":{"refresh_token":"t"},"value":[1],"@odata.nextLink":"n","0":"digit","n":null})");
  for (const char* path :
       {"results/refresh_token", "/results/refresh_token", "//results//refresh_token/"}) {
    EXPECT_EQ(TextAt(document, path), "t") << path;
  }
  EXPECT_EQ(TextAt(document, "/@odata.nextLink"), "n");
  EXPECT_EQ(TextAt(document, "0"), "digit");
  EXPECT_TRUE(document.HasObject(""));
  const auto found = document.FindObject("/results");
  ASSERT_TRUE(found.has_value());
  EXPECT_EQ(TextAt(*found, "refresh_token"), "t");
  EXPECT_EQ(document.GetObject("/").ToText(), document.ToText());
  for (const char* path : {"/results/access", "missing/deeper", "/n/x"}) {
    EXPECT_FALSE(document.HasObject(path)) << path;
    EXPECT_FALSE(document.FindObject(path).has_value()) << path;
    EXPECT_EQ(ThrownBy([&] { document.GetObject(path); }), ACCESS_VIOLATION) << path;
  }
  EXPECT_THROW(document.GetObject("/value/0"), Json::LogicError);
  EXPECT_THROW(document.HasObject("/@odata.nextLink/x"), Json::LogicError);
}

TEST(JsonObject, ViewsAliasAndOwnersCopy) {
  JsonObject owner(R"({"a":{"x":1},"b":{"y":2}})");
  JsonObject view = owner.GetObject("a");
  JsonObject view_copy(view);
  view_copy["x"] = std::string("through the copy");
  EXPECT_EQ(TextAt(owner, "a/x"), "through the copy");

  const JsonObject owner_copy(owner);
  owner["a"]["x"] = std::string("later");
  EXPECT_EQ(TextAt(owner_copy, "a/x"), "through the copy");

  view = owner.GetObject("b");  // written through the view, into the tree
  EXPECT_EQ(owner.ToText(), R"({"a":{"y":2},"b":{"y":2}})");
  view = JsonObject(R"({"own":1})");  // the view becomes an owner; the tree stays
  view["own"] = std::string("mine");
  EXPECT_EQ(owner.ToText(), R"({"a":{"y":2},"b":{"y":2}})");
  EXPECT_EQ(view.ToText(), R"({"own":"mine"})");

  owner.Copy()["c"] = std::string("same document");
  EXPECT_TRUE(owner.HasObject("c"));

  JsonObject null_document(nullptr);
  JsonObject alias(null_document);  // a null document counts as a view
  alias.Insert("a", JsonObject("[1]"));
  EXPECT_EQ(null_document.ToText(), R"({"a":[1]})");
}

TEST(JsonObject, InsertsCopiesEvenOfItself) {
  JsonObject document("{\"a\":1}");
  document.Insert("self", document);
  EXPECT_EQ(document.ToText(), R"({"a":1,"self":{"a":1}})");
  document.Insert("wide", std::wstring(L"\u00e9\U0001F600"));
  EXPECT_EQ(TextAt(document, "wide"), "\xC3\xA9\xF0\x9F\x98\x80");

  JsonObject list(nullptr);
  list.InsertArrayItem("x");
  list.InsertArrayItem(list);
  EXPECT_EQ(list.ToText(), R"(["x",["x"]])");
}

TEST(JsonObject, RemovesOnlyWhatIsThere) {
  JsonObject list("[1,2,3]");
  EXPECT_FALSE(list.RemoveArrayItem(5));
  EXPECT_TRUE(list.RemoveArrayItem((1UL << 32) + 1));  // taken as 32 bits
  EXPECT_EQ(list.ToText(), "[1,3]");
  EXPECT_FALSE(list.Remove("a"));

  JsonObject object(R"({"a":1})");
  EXPECT_FALSE(object.RemoveArrayItem(0));
  EXPECT_FALSE(object.Remove("b"));
  EXPECT_TRUE(object.Remove("a"));
  EXPECT_EQ(object.ToText(), "{}");
}

TEST(JsonObject, Converts) {
  JsonObject document(
      R"({"null":null,"big":4294967301,"min":-9223372036854775808,"max":18446744073709551615,
          "real":1.5,"yes":true,"nul":"a\u0000b","object":{},"bad":"\u00ff","text":"5"})");
  const auto at = [&](const char* path) { return document.GetObject(path); };
  EXPECT_EQ(static_cast<int>(at("big")), 5);
  EXPECT_EQ(static_cast<AERROR>(at("big")), INSUFFICIENT_BUFFER);
  EXPECT_EQ(static_cast<long long>(at("min")), -9223372036854775807LL - 1);
  EXPECT_EQ(static_cast<unsigned long long>(at("max")), 18446744073709551615ULL);
  EXPECT_EQ(static_cast<long>(at("real")), 1);
  EXPECT_EQ(static_cast<double>(at("real")), 1.5);
  EXPECT_EQ(TextAt(document, "yes"), "true");
  EXPECT_EQ(static_cast<int>(at("yes")), 1);
  EXPECT_EQ(TextAt(document, "null"), "");
  EXPECT_EQ(static_cast<long long>(at("null")), 0);
  EXPECT_FALSE(static_cast<bool>(at("null")));
  EXPECT_EQ(TextAt(document, "nul"), "a");
  EXPECT_EQ(static_cast<std::wstring>(at("bad")), L"\u00ff");
  EXPECT_THROW(static_cast<void>(static_cast<long long>(at("object"))), Json::LogicError);
  EXPECT_THROW(static_cast<void>(static_cast<long long>(at("text"))), Json::LogicError);
  EXPECT_THROW(static_cast<void>(static_cast<std::string>(at("object"))), Json::LogicError);
  EXPECT_THROW(static_cast<void>(static_cast<std::wstring>(JsonObject("\"\xff\""))),
               std::range_error);
}

TEST(JsonObject, SaysWhatItHolds) {
  JsonObject document(R"({"b":[1,2],"a":{"x":1},"n":null})");
  EXPECT_EQ(document.GetKeys(), (std::vector<std::string>{"a", "b", "n"}));
  EXPECT_EQ(document["b"].GetArraySize(), 2U);
  EXPECT_EQ(document["a"].GetArraySize(), 1U);
  EXPECT_EQ(JsonObject("5").GetArraySize(), 0U);
  EXPECT_TRUE(document["b"].IsArray());
  EXPECT_FALSE(document["n"].IsValid());
  EXPECT_TRUE(document["n"].GetKeys().empty());
  EXPECT_THROW(document["b"].GetKeys(), Json::LogicError);
  EXPECT_EQ(document["b"][1].ToText(), "2");
  document["new"]["deeper"] = std::string("made on the way");
  EXPECT_TRUE(document.HasObject("new/deeper"));
}

}  // namespace
}  // namespace onedrive4b
