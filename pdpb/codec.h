#ifndef KANDB_PDPB_CODEC_H_
#define KANDB_PDPB_CODEC_H_

// The one encoder, size function and decoder of every message, driven by
// the field list its header declares (fields.h). Included only by the .cc
// files that define the codecs, with KANDB_PDPB_DEFINE_CODEC(M) per message.
//
// Encoding writes the fields in the order of the list, which is ascending
// tag order: every non-repeated field, zero and empty included, except the
// *IfSet ones, which are written only when set; repeated fields once per
// element. Decoding walks the records with the shared loop of wire.h; a
// known tag is read by its kind, an unknown one skipped. Messages with
// repeated fields count their records first, so that each vector is
// allocated once.

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <tuple>
#include <utility>

#include "pdpb/fields.h"
#include "pdpb/wire.h"

namespace kandb::pdpb::codec {

template <typename M>
constexpr auto kFields = FieldsOf(static_cast<const M*>(nullptr));

template <typename Spec>
constexpr bool IsRepeated() {
  return Spec::kKind == FieldKind::kRepeatedU64 || Spec::kKind == FieldKind::kRepeatedMessage;
}

// One past the highest tag of M's repeated fields; 0 when it has none.
template <typename M>
constexpr size_t RepeatedTagLimit() {
  return std::apply(
      [](const auto&... spec) {
        size_t limit = 0;
        ((limit = IsRepeated<std::decay_t<decltype(spec)>>() ? std::max<size_t>(limit, spec.tag + 1) : limit),
         ...);
        return limit;
      },
      kFields<M>);
}

template <typename Spec, typename M>
size_t FieldSize(const Spec& spec, const M& m) {
  const auto& value = m.*spec.member;
  constexpr FieldKind kind = Spec::kKind;
  if constexpr (kind == FieldKind::kU64 || kind == FieldKind::kU32 || kind == FieldKind::kLowByte) {
    return kIntegerFieldSize;
  } else if constexpr (kind == FieldKind::kU64IfSet || kind == FieldKind::kLowByteIfSet) {
    return value != 0 ? kIntegerFieldSize : 0;
  } else if constexpr (kind == FieldKind::kBool) {
    return kBoolFieldSize;
  } else if constexpr (kind == FieldKind::kBytes) {
    return kFieldHeaderSize + value.size();
  } else if constexpr (kind == FieldKind::kBytesIfSet) {
    return value.empty() ? 0 : kFieldHeaderSize + value.size();
  } else if constexpr (kind == FieldKind::kMessage) {
    return kFieldHeaderSize + EncodedSize(value);
  } else if constexpr (kind == FieldKind::kRepeatedU64) {
    return value.size() * kIntegerFieldSize;
  } else {
    static_assert(kind == FieldKind::kRepeatedMessage);
    size_t size = 0;
    for (const auto& element : value) size += kFieldHeaderSize + EncodedSize(element);
    return size;
  }
}

template <typename Spec, typename M>
void AppendFieldOf(const Spec& spec, const M& m, std::string* out) {
  const auto& value = m.*spec.member;
  constexpr FieldKind kind = Spec::kKind;
  if constexpr (kind == FieldKind::kU64 || kind == FieldKind::kU32) {
    AppendU64Field(out, spec.tag, value);
  } else if constexpr (kind == FieldKind::kLowByte) {
    // The value may be wider in memory; only its lowest byte travels.
    AppendU64Field(out, spec.tag, static_cast<uint8_t>(value));
  } else if constexpr (kind == FieldKind::kU64IfSet) {
    if (value != 0) AppendU64Field(out, spec.tag, value);
  } else if constexpr (kind == FieldKind::kLowByteIfSet) {
    if (value != 0) AppendU64Field(out, spec.tag, static_cast<uint8_t>(value));
  } else if constexpr (kind == FieldKind::kBool) {
    AppendBoolField(out, spec.tag, value);
  } else if constexpr (kind == FieldKind::kBytes) {
    AppendBytesField(out, spec.tag, value);
  } else if constexpr (kind == FieldKind::kBytesIfSet) {
    if (!value.empty()) AppendBytesField(out, spec.tag, value);
  } else if constexpr (kind == FieldKind::kMessage) {
    AppendMessageField(out, spec.tag, value);
  } else if constexpr (kind == FieldKind::kRepeatedU64) {
    for (uint64_t element : value) AppendU64Field(out, spec.tag, element);
  } else {
    static_assert(kind == FieldKind::kRepeatedMessage);
    for (const auto& element : value) AppendMessageField(out, spec.tag, element);
  }
}

template <typename Spec, typename M>
bool ReadFieldOf(const Spec& spec, const Field& field, M* out) {
  auto* value = &(out->*spec.member);
  constexpr FieldKind kind = Spec::kKind;
  if constexpr (kind == FieldKind::kU64 || kind == FieldKind::kU64IfSet) {
    return ReadU64(field, value);
  } else if constexpr (kind == FieldKind::kU32) {
    return ReadU32(field, value);
  } else if constexpr (kind == FieldKind::kLowByte || kind == FieldKind::kLowByteIfSet) {
    return ReadLowByte(field, value);
  } else if constexpr (kind == FieldKind::kBool) {
    return ReadBool(field, value);
  } else if constexpr (kind == FieldKind::kBytes || kind == FieldKind::kBytesIfSet) {
    ReadBytes(field, value);
    return true;
  } else if constexpr (kind == FieldKind::kMessage) {
    return ReadMessage(field, value);
  } else if constexpr (kind == FieldKind::kRepeatedU64) {
    return ReadRepeatedU64(field, value);
  } else {
    static_assert(kind == FieldKind::kRepeatedMessage);
    return ReadRepeatedMessage(field, value);
  }
}

template <typename M>
size_t Size(const M& m) {
  return std::apply([&m](const auto&... spec) { return (size_t{0} + ... + FieldSize(spec, m)); },
                    kFields<M>);
}

template <typename M>
void EncodeInto(const M& m, std::string* out) {
  std::apply([&](const auto&... spec) { (AppendFieldOf(spec, m, out), ...); }, kFields<M>);
}

template <typename M>
std::string EncodeReserved(const M& m) {
  std::string out;
  out.reserve(Size(m));
  EncodeInto(m, &out);
  return out;
}

template <typename M>
bool DecodeInto(size_t size, const char* data, M* out) {
  constexpr size_t kRepeatedLimit = RepeatedTagLimit<M>();
  if constexpr (kRepeatedLimit > 0) {
    const std::array<uint32_t, kRepeatedLimit> counts = CountFields<kRepeatedLimit>(size, data);
    std::apply(
        [&](const auto&... spec) {
          auto reserve = [&](const auto& s) {
            if constexpr (IsRepeated<std::decay_t<decltype(s)>>()) ReserveMore(&(out->*s.member), counts[s.tag]);
          };
          (reserve(spec), ...);
        },
        kFields<M>);
  }
  return DecodeFields(size, data, [out](const Field& field) {
    bool ok = true;
    // The first spec whose tag matches reads the record; none: skipped.
    std::apply(
        [&](const auto&... spec) {
          (void)((field.tag == spec.tag ? (ok = ReadFieldOf(spec, field, out), true) : false) || ...);
        },
        kFields<M>);
    return ok;
  });
}

}  // namespace kandb::pdpb::codec

// Defines the four functions KANDB_PDPB_FIELDS declared for M.
#define KANDB_PDPB_DEFINE_CODEC(M)                                                               \
  size_t EncodedSize(const M& m) { return ::kandb::pdpb::codec::Size(m); }                        \
  void EncodeTo(const M& m, std::string* out) { ::kandb::pdpb::codec::EncodeInto(m, out); }       \
  std::string Encode(const M& m) { return ::kandb::pdpb::codec::EncodeReserved(m); }              \
  bool Decode(size_t size, const char* data, M* out) {                                           \
    return ::kandb::pdpb::codec::DecodeInto(size, data, out);                                    \
  }

#endif  // KANDB_PDPB_CODEC_H_
