#ifndef KANDB_PDPB_WIRE_H_
#define KANDB_PDPB_WIRE_H_

// The field record every placement-driver message is made of, and the pieces
// each message encoder and decoder is built from.
//
// A message is a bare concatenation of field records:
//   tag     u16 little-endian  field number
//   length  u32 little-endian  number of value bytes that follow
//   value   `length` bytes
// Integers travel as 8-byte little-endian values (narrower ones too), booleans
// as one byte, strings and nested messages as their raw bytes. A repeated
// field is one record per element; an empty one writes nothing.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "common/coding.h"

namespace kandb::pdpb {

// Tag (2 bytes) and length (4 bytes) in front of every value.
inline constexpr size_t kFieldHeaderSize = 6;
// Encoded size of one integer field, header included.
inline constexpr size_t kIntegerFieldSize = kFieldHeaderSize + 8;
// Encoded size of one boolean field, header included.
inline constexpr size_t kBoolFieldSize = kFieldHeaderSize + 1;

// ---- Encoding: each operation appends to *out. ----

// Appends one record. Only the low 16 bits of `tag` and the low 32 bits of
// `length` are written; no encoder produces a value that long.
void AppendField(std::string* out, uint32_t tag, uint64_t length, const char* data);

// Appends an 8-byte integer record. Narrower values (u32, one-byte
// enumerations) go through here too, zero-extended.
void AppendU64Field(std::string* out, uint32_t tag, uint64_t value);

// Appends a one-byte boolean record (0 or 1).
void AppendBoolField(std::string* out, uint32_t tag, bool value);

// Appends a string record whose value is the bytes of `value`.
inline void AppendBytesField(std::string* out, uint32_t tag, const std::string& value) {
  AppendField(out, tag, value.size(), value.data());
}

// Appends a nested-message record holding the encoding of `message`, made by
// its own EncodeTo (found by argument-dependent lookup). The header is
// reserved first and its length back-filled, so the sub-message is encoded
// in place rather than through a temporary buffer; the bytes are the same.
template <typename M>
void AppendMessageField(std::string* out, uint32_t tag, const M& message) {
  const size_t header_at = out->size();
  out->append(kFieldHeaderSize, '\0');
  EncodeTo(message, out);
  const size_t length = out->size() - header_at - kFieldHeaderSize;
  EncodeFixed16(out->data() + header_at, static_cast<uint16_t>(tag));
  EncodeFixed32(out->data() + header_at + 2, static_cast<uint32_t>(length));
}

// ---- Decoding ----

// One record as the decoding loop hands it to a message decoder. `data`
// points into the caller's input and is valid only as long as that is.
struct Field {
  uint16_t tag;
  uint32_t size;
  const char* data;
};

// The decoding loop shared by every message decoder. Walks the records of
// data[0, size) and calls `on_field(const Field&)` for each, in order; the
// callback returns false to reject the message (a malformed known field) and
// true otherwise, unknown tags included, which is how they are skipped.
// Returns true iff every callback returned true and the input ends exactly at
// a record boundary: 1 to 5 trailing bytes (a torn header) or a record
// claiming more bytes than remain fail.
template <typename OnField>
bool DecodeFields(size_t size, const char* data, OnField&& on_field) {
  while (size >= kFieldHeaderSize) {
    Field field;
    field.tag = DecodeFixed16(data);
    field.size = DecodeFixed32(data + 2);
    // Written as a subtraction so that no sum can wrap.
    if (size - kFieldHeaderSize < field.size) return false;
    field.data = data + kFieldHeaderSize;
    data += kFieldHeaderSize + field.size;
    size -= kFieldHeaderSize + field.size;
    if (!on_field(field)) return false;
  }
  return size == 0;
}

// Counts the records of data[0, size) per tag, for tags below N; counting
// stops at the first bad framing, which the decoding loop then reports. A
// decoder uses it to size its repeated fields once instead of growing them
// element by element. A count never exceeds size / 6, so whatever an input
// claims, the reservation stays proportional to its length.
template <size_t N>
std::array<uint32_t, N> CountFields(size_t size, const char* data) {
  std::array<uint32_t, N> counts{};
  while (size >= kFieldHeaderSize) {
    const uint16_t tag = DecodeFixed16(data);
    const uint32_t length = DecodeFixed32(data + 2);
    if (size - kFieldHeaderSize < length) break;
    if (tag < N) ++counts[tag];
    data += kFieldHeaderSize + length;
    size -= kFieldHeaderSize + length;
  }
  return counts;
}

// Makes room for `more` elements beyond those *out already holds.
template <typename T>
void ReserveMore(std::vector<T>* out, size_t more) {
  if (more > 0) out->reserve(out->size() + more);
}

// Per-type readers for use inside an `on_field` callback. Each returns false
// when the record's length does not fit the type, leaving *out unchanged.

inline bool ReadU64(const Field& field, uint64_t* out) {
  if (field.size != 8) return false;
  *out = DecodeFixed64(field.data);
  return true;
}

// A 32-bit value in an 8-byte record: the high half is ignored.
inline bool ReadU32(const Field& field, uint32_t* out) {
  if (field.size != 8) return false;
  *out = DecodeFixed32(field.data);
  return true;
}

// A one-byte enumeration in an 8-byte record: only the lowest byte counts.
template <typename Integer>
inline bool ReadLowByte(const Field& field, Integer* out) {
  if (field.size != 8) return false;
  *out = static_cast<uint8_t>(field.data[0]);
  return true;
}

// Any non-zero byte reads as true.
inline bool ReadBool(const Field& field, bool* out) {
  if (field.size != 1) return false;
  *out = field.data[0] != 0;
  return true;
}

// Replaces *out with the value bytes; any length is accepted.
inline void ReadBytes(const Field& field, std::string* out) { out->assign(field.data, field.size); }

// One element of a repeated integer field.
inline bool ReadRepeatedU64(const Field& field, std::vector<uint64_t>* out) {
  if (field.size != 8) return false;
  out->push_back(DecodeFixed64(field.data));
  return true;
}

// A non-repeated nested message, decoded by its own Decode (found by
// argument-dependent lookup). A second occurrence of the field replaces the
// first as a whole, the same as for an integer or a string: the value is
// decoded into a fresh default message and moved over *out, so nothing of an
// earlier occurrence (a field the later one leaves out, or its repeated
// elements) survives. On failure *out is unchanged.
template <typename M>
bool ReadMessage(const Field& field, M* out) {
  M value;
  if (!Decode(field.size, field.data, &value)) return false;
  *out = std::move(value);
  return true;
}

// One element of a repeated nested message: appended default-initialised,
// then decoded in place.
template <typename M>
bool ReadRepeatedMessage(const Field& field, std::vector<M>* out) {
  out->emplace_back();
  return Decode(field.size, field.data, &out->back());
}

}  // namespace kandb::pdpb

#endif  // KANDB_PDPB_WIRE_H_
