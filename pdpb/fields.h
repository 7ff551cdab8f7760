#ifndef KANDB_PDPB_FIELDS_H_
#define KANDB_PDPB_FIELDS_H_

// The field list of a message, declared once beside its structure: for each
// field its tag, its member and the form it travels in. One generic encoder,
// size function and decoder (codec.h) work from that list, so a message is
// added by declaring its fields and nothing else.
//
//   struct Peer { uint64_t id; uint64_t store_id; uint8_t role; };
//   KANDB_PDPB_FIELDS(Peer, U64(1, &Peer::id), U64(2, &Peer::store_id),
//                     LowByte(3, &Peer::role))
//
// Fields are listed, and encoded, in ascending tag order.

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

namespace kandb::pdpb {

// How a field travels.
enum class FieldKind {
  kU64,         // 8-byte integer
  kU32,         // 32-bit value in an 8-byte record; the high half is ignored
  kLowByte,     // one-byte enumeration in an 8-byte record; only the lowest byte counts
  kBool,        // one byte, any non-zero value is true
  kBytes,       // raw bytes, any length
  kMessage,     // a nested message, always written
  kRepeatedU64,      // one 8-byte record per element
  kRepeatedMessage,  // one nested record per element
  // Written only when not zero or empty. For fields added after a record
  // was first persisted or answered: a message that leaves them unset
  // encodes exactly as before they existed.
  kU64IfSet,
  kLowByteIfSet,
  kBytesIfSet,
};

template <FieldKind K, typename M, typename T>
struct FieldSpec {
  static constexpr FieldKind kKind = K;
  uint16_t tag;
  T M::*member;
};

template <typename M>
constexpr auto U64(uint16_t tag, uint64_t M::*member) {
  return FieldSpec<FieldKind::kU64, M, uint64_t>{tag, member};
}
template <typename M>
constexpr auto U32(uint16_t tag, uint32_t M::*member) {
  return FieldSpec<FieldKind::kU32, M, uint32_t>{tag, member};
}
template <typename M, typename T>
constexpr auto LowByte(uint16_t tag, T M::*member) {
  return FieldSpec<FieldKind::kLowByte, M, T>{tag, member};
}
template <typename M>
constexpr auto Bool(uint16_t tag, bool M::*member) {
  return FieldSpec<FieldKind::kBool, M, bool>{tag, member};
}
template <typename M>
constexpr auto Bytes(uint16_t tag, std::string M::*member) {
  return FieldSpec<FieldKind::kBytes, M, std::string>{tag, member};
}
template <typename M, typename Sub>
constexpr auto Message(uint16_t tag, Sub M::*member) {
  return FieldSpec<FieldKind::kMessage, M, Sub>{tag, member};
}
template <typename M>
constexpr auto RepeatedU64(uint16_t tag, std::vector<uint64_t> M::*member) {
  return FieldSpec<FieldKind::kRepeatedU64, M, std::vector<uint64_t>>{tag, member};
}
template <typename M, typename Sub>
constexpr auto RepeatedMessage(uint16_t tag, std::vector<Sub> M::*member) {
  return FieldSpec<FieldKind::kRepeatedMessage, M, std::vector<Sub>>{tag, member};
}
template <typename M>
constexpr auto U64IfSet(uint16_t tag, uint64_t M::*member) {
  return FieldSpec<FieldKind::kU64IfSet, M, uint64_t>{tag, member};
}
template <typename M, typename T>
constexpr auto LowByteIfSet(uint16_t tag, T M::*member) {
  return FieldSpec<FieldKind::kLowByteIfSet, M, T>{tag, member};
}
template <typename M>
constexpr auto BytesIfSet(uint16_t tag, std::string M::*member) {
  return FieldSpec<FieldKind::kBytesIfSet, M, std::string>{tag, member};
}

// Declares the field list of message M (found by argument-dependent lookup
// as FieldsOf(static_cast<const M*>(nullptr))) and its four functions:
//   std::string Encode(const M&);                    // the encoded bytes
//   void EncodeTo(const M&, std::string* out);       // appends them to *out
//   bool Decode(size_t size, const char* data, M*);  // whole input, or false
//   size_t EncodedSize(const M&);                    // == Encode(m).size()
// The functions are defined in a .cc file with KANDB_PDPB_DEFINE_CODEC.
#define KANDB_PDPB_FIELDS(M, ...)                                     \
  constexpr auto FieldsOf(const M*) { return std::make_tuple(__VA_ARGS__); } \
  void EncodeTo(const M& m, std::string* out);                       \
  std::string Encode(const M& m);                                    \
  bool Decode(size_t size, const char* data, M* out);                \
  size_t EncodedSize(const M& m);

}  // namespace kandb::pdpb

#endif  // KANDB_PDPB_FIELDS_H_
