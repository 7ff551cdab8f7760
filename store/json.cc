#include "store/json.h"

#include <cstdio>

namespace kandb::store::json {

Value Value::Bool(bool b) {
  Value v(Type::kBool);
  v.bool_ = b;
  return v;
}

Value Value::Number(std::string text) {
  Value v(Type::kNumber);
  v.text_ = std::move(text);
  return v;
}

Value Value::String(std::string text) {
  Value v(Type::kString);
  v.text_ = std::move(text);
  return v;
}

const Value* Value::Find(std::string_view name) const {
  for (const auto& member : members_) {
    if (member.first == name) return &member.second;
  }
  return nullptr;
}

bool Value::AsUint64(uint64_t* out) const {
  if (type_ != Type::kNumber && type_ != Type::kString) return false;
  if (text_.empty() || text_.size() > 20) return false;
  uint64_t v = 0;
  for (char c : text_) {
    if (c < '0' || c > '9') return false;
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (v > (UINT64_MAX - digit) / 10) return false;
    v = v * 10 + digit;
  }
  *out = v;
  return true;
}

bool Value::AsInt64(int64_t* out) const {
  if (type_ != Type::kNumber && type_ != Type::kString) return false;
  const bool negative = !text_.empty() && text_[0] == '-';
  Value magnitude = String(negative ? text_.substr(1) : text_);
  uint64_t v = 0;
  if (!magnitude.AsUint64(&v)) return false;
  if (negative) {
    if (v > static_cast<uint64_t>(INT64_MAX) + 1) return false;
    *out = static_cast<int64_t>(0 - v);
  } else {
    if (v > static_cast<uint64_t>(INT64_MAX)) return false;
    *out = static_cast<int64_t>(v);
  }
  return true;
}

Value& Value::Append(Value item) {
  items_.push_back(std::move(item));
  return items_.back();
}

Value& Value::Set(std::string name, Value value) {
  members_.emplace_back(std::move(name), std::move(value));
  return members_.back().second;
}

std::string Value::Serialize() const {
  std::string out;
  SerializeTo(&out);
  return out;
}

void Value::SerializeTo(std::string* out) const {
  switch (type_) {
    case Type::kNull:
      out->append("null");
      return;
    case Type::kBool:
      out->append(bool_ ? "true" : "false");
      return;
    case Type::kNumber:
      out->append(text_);
      return;
    case Type::kString:
      AppendQuoted(text_, out);
      return;
    case Type::kArray:
      out->push_back('[');
      for (size_t i = 0; i < items_.size(); ++i) {
        if (i > 0) out->push_back(',');
        items_[i].SerializeTo(out);
      }
      out->push_back(']');
      return;
    case Type::kObject:
      out->push_back('{');
      for (size_t i = 0; i < members_.size(); ++i) {
        if (i > 0) out->push_back(',');
        AppendQuoted(members_[i].first, out);
        out->push_back(':');
        members_[i].second.SerializeTo(out);
      }
      out->push_back('}');
      return;
  }
}

void AppendQuoted(std::string_view bytes, std::string* out) {
  static constexpr char kHex[] = "0123456789abcdef";
  out->push_back('"');
  for (char c : bytes) {
    const unsigned char u = static_cast<unsigned char>(c);
    switch (c) {
      case '"':
        out->append("\\\"");
        break;
      case '\\':
        out->append("\\\\");
        break;
      case '\n':
        out->append("\\n");
        break;
      case '\r':
        out->append("\\r");
        break;
      case '\t':
        out->append("\\t");
        break;
      default:
        if (u < 0x20) {
          out->append("\\u00");
          out->push_back(kHex[u >> 4]);
          out->push_back(kHex[u & 15]);
        } else {
          out->push_back(c);
        }
    }
  }
  out->push_back('"');
}

namespace {

class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  Status ParseDocument(Value* out) {
    SkipSpace();
    Status s = ParseValue(0, out);
    if (!s.ok()) return s;
    SkipSpace();
    if (pos_ != text_.size()) return Fail("trailing bytes");
    return Status::OK();
  }

 private:
  Status Fail(const char* what) const {
    return Status::Corruption(std::string("json: ") + what + " at offset " + std::to_string(pos_));
  }

  void SkipSpace() {
    while (pos_ < text_.size() &&
           (text_[pos_] == ' ' || text_[pos_] == '\t' || text_[pos_] == '\n' || text_[pos_] == '\r')) {
      ++pos_;
    }
  }

  bool Literal(std::string_view word) {
    if (text_.substr(pos_, word.size()) != word) return false;
    pos_ += word.size();
    return true;
  }

  Status ParseValue(int depth, Value* out) {
    if (pos_ >= text_.size()) return Fail("unexpected end");
    const char c = text_[pos_];
    if (c == '{' || c == '[') {
      if (depth >= kMaxDepth) return Fail("nesting too deep");
      return c == '{' ? ParseObject(depth + 1, out) : ParseArray(depth + 1, out);
    }
    if (c == '"') {
      std::string s;
      Status st = ParseString(&s);
      if (!st.ok()) return st;
      *out = Value::String(std::move(s));
      return Status::OK();
    }
    if (c == '-' || (c >= '0' && c <= '9')) return ParseNumber(out);
    if (Literal("true")) {
      *out = Value::Bool(true);
    } else if (Literal("false")) {
      *out = Value::Bool(false);
    } else if (Literal("null")) {
      *out = Value::Null();
    } else {
      return Fail("unexpected character");
    }
    return Status::OK();
  }

  Status ParseObject(int depth, Value* out) {
    ++pos_;  // '{'
    Value object = Value::Object();
    SkipSpace();
    if (pos_ < text_.size() && text_[pos_] == '}') {
      ++pos_;
      *out = std::move(object);
      return Status::OK();
    }
    for (;;) {
      SkipSpace();
      if (pos_ >= text_.size() || text_[pos_] != '"') return Fail("expected member name");
      std::string name;
      Status s = ParseString(&name);
      if (!s.ok()) return s;
      SkipSpace();
      if (pos_ >= text_.size() || text_[pos_] != ':') return Fail("expected ':'");
      ++pos_;
      SkipSpace();
      Value member;
      s = ParseValue(depth, &member);
      if (!s.ok()) return s;
      object.Set(std::move(name), std::move(member));
      SkipSpace();
      if (pos_ >= text_.size()) return Fail("unexpected end");
      if (text_[pos_] == ',') {
        ++pos_;
        continue;
      }
      if (text_[pos_] != '}') return Fail("expected ',' or '}'");
      ++pos_;
      *out = std::move(object);
      return Status::OK();
    }
  }

  Status ParseArray(int depth, Value* out) {
    ++pos_;  // '['
    Value array = Value::Array();
    SkipSpace();
    if (pos_ < text_.size() && text_[pos_] == ']') {
      ++pos_;
      *out = std::move(array);
      return Status::OK();
    }
    for (;;) {
      SkipSpace();
      Value item;
      Status s = ParseValue(depth, &item);
      if (!s.ok()) return s;
      array.Append(std::move(item));
      SkipSpace();
      if (pos_ >= text_.size()) return Fail("unexpected end");
      if (text_[pos_] == ',') {
        ++pos_;
        continue;
      }
      if (text_[pos_] != ']') return Fail("expected ',' or ']'");
      ++pos_;
      *out = std::move(array);
      return Status::OK();
    }
  }

  bool Digit() const { return pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9'; }

  Status ParseNumber(Value* out) {
    const size_t start = pos_;
    if (text_[pos_] == '-') ++pos_;
    if (!Digit()) return Fail("bad number");
    if (text_[pos_] == '0') {
      ++pos_;
      if (Digit()) return Fail("leading zero");
    } else {
      while (Digit()) ++pos_;
    }
    if (pos_ < text_.size() && text_[pos_] == '.') {
      ++pos_;
      if (!Digit()) return Fail("bad number");
      while (Digit()) ++pos_;
    }
    if (pos_ < text_.size() && (text_[pos_] == 'e' || text_[pos_] == 'E')) {
      ++pos_;
      if (pos_ < text_.size() && (text_[pos_] == '+' || text_[pos_] == '-')) ++pos_;
      if (!Digit()) return Fail("bad number");
      while (Digit()) ++pos_;
    }
    *out = Value::Number(std::string(text_.substr(start, pos_ - start)));
    return Status::OK();
  }

  bool Hex4(uint32_t* out) {
    if (text_.size() - pos_ < 4) return false;
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = text_[pos_ + i];
      v <<= 4;
      if (c >= '0' && c <= '9') {
        v |= static_cast<uint32_t>(c - '0');
      } else if (c >= 'a' && c <= 'f') {
        v |= static_cast<uint32_t>(c - 'a' + 10);
      } else if (c >= 'A' && c <= 'F') {
        v |= static_cast<uint32_t>(c - 'A' + 10);
      } else {
        return false;
      }
    }
    pos_ += 4;
    *out = v;
    return true;
  }

  static void AppendUtf8(uint32_t cp, std::string* out) {
    if (cp < 0x80) {
      out->push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }

  // Raw bytes of a string are passed through as they are (the gateway
  // sends UTF-8; nothing here depends on it being valid), but control
  // characters must be escaped.
  Status ParseString(std::string* out) {
    ++pos_;  // '"'
    for (;;) {
      if (pos_ >= text_.size()) return Fail("unterminated string");
      const char c = text_[pos_];
      if (c == '"') {
        ++pos_;
        return Status::OK();
      }
      if (static_cast<unsigned char>(c) < 0x20) return Fail("control character in string");
      if (c != '\\') {
        out->push_back(c);
        ++pos_;
        continue;
      }
      ++pos_;
      if (pos_ >= text_.size()) return Fail("unterminated string");
      const char e = text_[pos_++];
      switch (e) {
        case '"':
        case '\\':
        case '/':
          out->push_back(e);
          break;
        case 'b':
          out->push_back('\b');
          break;
        case 'f':
          out->push_back('\f');
          break;
        case 'n':
          out->push_back('\n');
          break;
        case 'r':
          out->push_back('\r');
          break;
        case 't':
          out->push_back('\t');
          break;
        case 'u': {
          uint32_t cp = 0;
          if (!Hex4(&cp)) return Fail("bad \\u escape");
          if (cp >= 0xDC00 && cp <= 0xDFFF) return Fail("lone low surrogate");
          if (cp >= 0xD800 && cp <= 0xDBFF) {
            uint32_t low = 0;
            if (!Literal("\\u") || !Hex4(&low) || low < 0xDC00 || low > 0xDFFF) {
              return Fail("unpaired surrogate");
            }
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          }
          AppendUtf8(cp, out);
          break;
        }
        default:
          return Fail("bad escape");
      }
    }
  }

  const std::string_view text_;
  size_t pos_ = 0;
};

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int Base64Digit(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

}  // namespace

Status Parse(std::string_view text, Value* out) {
  Value parsed;
  Status s = Parser(text).ParseDocument(&parsed);
  if (!s.ok()) return s;
  *out = std::move(parsed);
  return Status::OK();
}

std::string Base64Encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t v = static_cast<uint32_t>(static_cast<unsigned char>(bytes[i])) << 16 |
                       static_cast<uint32_t>(static_cast<unsigned char>(bytes[i + 1])) << 8 |
                       static_cast<unsigned char>(bytes[i + 2]);
    out.push_back(kAlphabet[v >> 18]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    out.push_back(kAlphabet[(v >> 6) & 63]);
    out.push_back(kAlphabet[v & 63]);
  }
  const size_t rest = bytes.size() - i;
  if (rest > 0) {
    uint32_t v = static_cast<uint32_t>(static_cast<unsigned char>(bytes[i])) << 16;
    if (rest == 2) v |= static_cast<uint32_t>(static_cast<unsigned char>(bytes[i + 1])) << 8;
    out.push_back(kAlphabet[v >> 18]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    out.push_back(rest == 2 ? kAlphabet[(v >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

bool Base64Decode(std::string_view text, std::string* out) {
  if (text.size() % 4 != 0) return false;
  std::string decoded;
  decoded.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    int d[4];
    int pad = 0;
    for (int k = 0; k < 4; ++k) {
      const char c = text[i + k];
      if (c == '=' && last && k >= 2) {
        d[k] = 0;
        ++pad;
        continue;
      }
      if (pad > 0) return false;  // data after padding
      d[k] = Base64Digit(c);
      if (d[k] < 0) return false;
    }
    const uint32_t v = static_cast<uint32_t>(d[0]) << 18 | static_cast<uint32_t>(d[1]) << 12 |
                       static_cast<uint32_t>(d[2]) << 6 | static_cast<uint32_t>(d[3]);
    // Bits below the last whole byte must be zero, so that every byte
    // string has exactly one encoding.
    if ((pad == 1 && (v & 0xFF) != 0) || (pad == 2 && (v & 0xFFFF) != 0)) return false;
    decoded.push_back(static_cast<char>(v >> 16));
    if (pad < 2) decoded.push_back(static_cast<char>((v >> 8) & 0xFF));
    if (pad < 1) decoded.push_back(static_cast<char>(v & 0xFF));
  }
  *out = std::move(decoded);
  return true;
}

}  // namespace kandb::store::json
