// JSON: parsing, paths, conversions and modifications. Input: a path, then the document.
#include <regex>
#include <stdexcept>

#include <json/reader.h>
#include <json/value.h>

#include "fuzz/input.h"
#include "helpers/text.h"
#include "support/json_object.h"
#include "support/text.h"

namespace onedrive4b {
namespace {

enum class Outcome { kDone, kMissing, kWrongType };

// Nothing but what the header names may be thrown.
template <typename Operation>
Outcome OutcomeOf(Operation operation) {
  try {
    operation();
    return Outcome::kDone;
  } catch (const AERROR& error) {
    Require(error == ACCESS_VIOLATION, "a missing member is an access violation");
    return Outcome::kMissing;
  } catch (const Json::LogicError&) {
    return Outcome::kWrongType;
  }
}

// The way that a path leads, by the rules, on the tree itself.
Outcome WayOf(const Json::Value* value, const std::string& path) {
  static const std::regex kSlash("/");
  for (const std::string& piece : split(path, kSlash)) {
    if (piece.empty()) continue;
    if (!value->isObject() && !value->isNull()) return Outcome::kWrongType;
    if (!value->isMember(piece)) return Outcome::kMissing;
    value = &(*value)[piece];
  }
  return Outcome::kDone;
}

void CheckPath(const JsonObject& view, const Json::Value& tree, const std::string& path) {
  const Outcome way = WayOf(&tree, path);
  Require(OutcomeOf([&] { view.GetObject(path.c_str()); }) == way, "a path leads where it should");
  bool has = false;
  const Outcome asked = OutcomeOf([&] { has = view.HasObject(path.c_str()); });
  Require((asked == Outcome::kWrongType) == (way == Outcome::kWrongType) &&
              has == (way == Outcome::kDone),
          "what is at the end of a path is known to be there");
}

void CheckConversions(const JsonObject& value) {
  OutcomeOf([&] { Require(IsCText(static_cast<std::string>(value)), "text ends at its NUL"); });
  OutcomeOf([&] {
    try {
      const auto wide = static_cast<std::wstring>(value);
      Require(ws2s(wide) == static_cast<std::string>(value), "wide text converts back");
    } catch (const std::range_error&) {
    }
  });
  OutcomeOf([&] {
    const auto number = static_cast<long long>(value);
    Require(static_cast<long>(value) == number, "one 64-bit number");
    Require(static_cast<int>(value) == static_cast<int>(static_cast<std::uint32_t>(number)),
            "an int is its low 32 bits");
    Require(static_cast<int>(static_cast<AERROR>(value)) == static_cast<int>(value), "as a result");
  });
  OutcomeOf([&] { static_cast<void>(static_cast<unsigned long long>(value)); });
  OutcomeOf([&] { static_cast<void>(static_cast<double>(value)); });
  OutcomeOf([&] { static_cast<void>(static_cast<bool>(value)); });
  OutcomeOf([&] { Require(value.GetKeys().size() == value.GetArraySize(), "a name a member"); });
}

void CheckArrayChanges(JsonObject& array) {
  const std::string before = array.ToText();
  const unsigned int count = array.GetArraySize();
  JsonObject itself = array.Copy();
  array.InsertArrayItem("text");
  array.InsertArrayItem(itself);
  Require(array[static_cast<int>(count) + 1].GetArraySize() == count + 1, "appended as it was");
  Require(array.RemoveArrayItem(count + 1) && array.RemoveArrayItem(count), "what is there goes");
  Require(!array.RemoveArrayItem(count), "what is not there stays away");
  Require(array.ToText() == before, "nothing else has changed");
}

void CheckObjectChanges(JsonObject& object) {
  constexpr const char* kNew = "a name of our own";
  if (object.HasObject(kNew)) return;
  const std::string before = object.ToText();
  object.Insert(kNew, object);
  Require(object.GetObject(kNew).ToText() == before, "inserted as it was");
  object.Insert(kNew, std::wstring(L"\u00e4\u6f22"));
  Require(TextAt(object, kNew) == "\u00e4\u6f22", "replaced by text");
  Require(object.Remove(kNew), "removed");
  Require(!object.Remove(kNew), "removed once");
  Require(object.ToText() == before, "nothing else has changed");
}

void Check(const std::string& path, std::string_view text) {
  JsonObject document(text.data(), static_cast<unsigned int>(text.size()));
  const std::string written = document.ToText();
  Require(JsonObject(written.c_str()).ToText() == written, "what is written reads as the same");

  Json::Value tree;
  Json::Reader().parse(text.data(), text.data() + text.size(), tree);
  Require(JsonObject(tree).ToText() == written, "a view shows the document");
  CheckPath(document, tree, path);
  if (WayOf(&tree, path) != Outcome::kDone) return;
  JsonObject value = document.GetObject(path.c_str());
  CheckConversions(value);
  if (value.IsArray()) CheckArrayChanges(value);
  if (tree.isObject()) CheckObjectChanges(document);
  Require(document.ToText() == written, "the document is as it was");
}

}  // namespace
}  // namespace onedrive4b

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  const std::string path = input.Line();
  try {
    onedrive4b::Check(path, input.Rest());
  } catch (const AERROR& error) {
    Require(error == JSON_PARSE_FAILED, "text that does not parse is a parse failure");
  }
  return 0;
}
