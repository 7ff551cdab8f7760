#ifndef KANDB_STORE_JSON_H_
#define KANDB_STORE_JSON_H_

// The little JSON that etcd's HTTP gateway speaks: a reader into a small
// tree, a writer of that tree, string quoting for hand-built requests, and
// base64 (the gateway carries every key and value as base64 text, and
// 64-bit integers as decimal strings).
//
// Numbers are kept as their text, so 64-bit revisions and lease ids never
// pass through a double. The reader is strict (RFC 8259: no comments, no
// trailing commas, no leading zeros, escapes checked, surrogates paired)
// and bounded in depth, because its input comes from the network.

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/status.h"

namespace kandb::store::json {

class Value {
 public:
  enum class Type { kNull, kBool, kNumber, kString, kArray, kObject };

  Value() = default;
  static Value Null() { return Value(); }
  static Value Bool(bool b);
  // `text` must be a valid JSON number.
  static Value Number(std::string text);
  static Value String(std::string text);
  static Value Array() { return Value(Type::kArray); }
  static Value Object() { return Value(Type::kObject); }

  Type type() const { return type_; }
  bool is_null() const { return type_ == Type::kNull; }
  bool is_object() const { return type_ == Type::kObject; }
  bool is_array() const { return type_ == Type::kArray; }
  bool is_string() const { return type_ == Type::kString; }

  bool bool_value() const { return bool_; }
  // The number's text, or the string's bytes.
  const std::string& text() const { return text_; }
  const std::vector<Value>& items() const { return items_; }
  const std::vector<std::pair<std::string, Value>>& members() const { return members_; }

  // The first member named `name` of an object, or null when absent (or
  // when this is no object).
  const Value* Find(std::string_view name) const;
  // A non-negative integer, given as a number or as a decimal string (the
  // gateway's form of 64-bit fields). False for anything else or overflow.
  bool AsUint64(uint64_t* out) const;
  bool AsInt64(int64_t* out) const;

  Value& Append(Value item);
  Value& Set(std::string name, Value value);

  // Compact text; a parse of it gives an equal tree.
  std::string Serialize() const;
  void SerializeTo(std::string* out) const;

  bool operator==(const Value&) const = default;

 private:
  explicit Value(Type type) : type_(type) {}

  Type type_ = Type::kNull;
  bool bool_ = false;
  std::string text_;
  std::vector<Value> items_;
  std::vector<std::pair<std::string, Value>> members_;
};

// Nesting deeper than this is refused: the reader recurses per level.
inline constexpr int kMaxDepth = 64;

// Parses one JSON text (white space around it allowed). Fails with code 2
// "json: " + what is wrong + " at offset N".
Status Parse(std::string_view text, Value* out);

// Appends `bytes` as a JSON string literal, quotes included. Bytes that are
// not valid UTF-8 are not checked here; callers quote base64 and ASCII.
void AppendQuoted(std::string_view bytes, std::string* out);

std::string Base64Encode(std::string_view bytes);
// Standard alphabet, padding required. False on any other input.
bool Base64Decode(std::string_view text, std::string* out);

}  // namespace kandb::store::json

#endif  // KANDB_STORE_JSON_H_
