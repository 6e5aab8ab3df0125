// The one type through which the module reads and writes JSON: a handle on a jsoncpp tree.
//
// An owning object contains its own document. A view refers to a value inside another object's
// document; copying it copies the reference. A view is valid while that tree exists and the value
// is neither removed nor replaced. An object whose own document is null counts as a view.
//
// Members are kept in byte-wise order of their names. Errors: JSON_PARSE_FAILED for text that does
// not parse, ACCESS_VIOLATION for a missing member, both thrown as AERROR; a value of the wrong
// type raises jsoncpp's Json::LogicError, which callers of the module never see.
//
// Not locked: a tree and its views belong to one thread at a time.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <json/value.h>

#include "onedrive4b/aerror.h"

namespace onedrive4b {

class JsonObject {
 public:
  /// Owning; parses exactly `length` bytes. Comments are accepted, and so is text after the first
  /// complete value.
  JsonObject(const char* text, unsigned int length);

  /// Owning; parses NUL-terminated text. Null results in a null document.
  explicit JsonObject(const char* text);

  /// View of `value`.
  explicit JsonObject(Json::Value& value);

  /// Deep copy of an owning object; for a view, a second view of the same value.
  JsonObject(const JsonObject& source);
  virtual ~JsonObject() = default;

  /// From an owning object: becomes an owning object with a deep copy. From a view: overwrites the
  /// value that this object refers to with a deep copy of the view's value.
  JsonObject& operator=(const JsonObject& source);

  /// Overwrites the value that this object refers to with a string.
  JsonObject& operator=(std::string text);

  /// Owning; "{}".
  static JsonObject GetEmptyObject();

  /// View of the same value, whatever this object is.
  JsonObject Copy();

  /// View of the member at `path`: names separated by "/", empty ones skipped, digits are names
  /// too. Throws ACCESS_VIOLATION when one is missing.
  JsonObject GetObject(const char* path) const;
  /// Like GetObject, but empty when a member is missing.
  std::optional<JsonObject> FindObject(const char* path) const;
  /// Whether GetObject would find it.
  bool HasObject(const char* path) const;

  /// View of a member, created as null when absent.
  JsonObject operator[](const char* key);
  /// View of an array element; past the end it is created as null.
  JsonObject operator[](int index);

  /// Elements of an array, members of an object, 0 for anything else.
  unsigned int GetArraySize() const;
  /// Names of the members; none for null.
  std::vector<std::string> GetKeys() const;
  bool IsValid() const;  ///< not null
  bool IsArray() const;

  /// Each writes deep copies into the value that this object refers to, and returns true.
  bool Insert(const char* key, const JsonObject& value);
  bool Insert(const char* key, const std::wstring& text);
  bool InsertArrayItem(std::string text);
  bool InsertArrayItem(JsonObject& item);

  /// False, without change, when there is no such element or member.
  bool RemoveArrayItem(unsigned long index);
  bool Remove(const char* key);

  /// jsoncpp's conversions: null becomes "", 0 or false; numbers convert to other numbers and to
  /// text.
  explicit operator std::string() const;   ///< up to the first NUL
  explicit operator std::wstring() const;  ///< throws std::range_error for malformed UTF-8
  explicit operator unsigned long long() const;
  explicit operator long long() const;
  explicit operator long() const;
  explicit operator int() const;     ///< low 32 bits of the 64-bit number
  explicit operator AERROR() const;  ///< low 32 bits of the 64-bit number
  explicit operator double() const;
  explicit operator bool() const;

  /// Compact text without white space around it.
  std::string ToText() const;

 private:
  Json::Value* Find(const char* path) const;

  Json::Value* target;  // never null
  Json::Value root;     // null in a view
};

/// Text of the value. Throws as the conversion does.
inline std::string TextOf(const JsonObject& value) { return static_cast<std::string>(value); }

/// Text of the member at `path`. Throws as GetObject and the conversion do.
inline std::string TextAt(const JsonObject& object, const char* path) {
  return TextOf(object.GetObject(path));
}

}  // namespace onedrive4b
