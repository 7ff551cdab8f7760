#include "pdpb/messages.h"

#include "pdpb/wire.h"

// Each message below has four functions in the same order: EncodedSize,
// EncodeTo, Encode and Decode. Encoders write every non-repeated field, zero
// and empty included, in ascending field number, so the size of a message
// without repeated elements or strings is fixed by its field list. Decoders
// state only what each known tag does; the shared loop in wire.h does the
// walking, the bounds checks and the skipping of unknown tags. Decoders of
// messages with repeated fields first count their records, so that each
// vector is allocated once.

namespace kandb::pdpb {

namespace {

// Only the lowest byte of a one-byte enumeration travels.
constexpr uint64_t kLowByte = 0xff;

size_t BytesFieldSize(const std::string& value) { return kFieldHeaderSize + value.size(); }

template <typename M>
size_t MessageFieldSize(const M& message) {
  return kFieldHeaderSize + EncodedSize(message);
}

template <typename M>
size_t RepeatedMessageFieldSize(const std::vector<M>& messages) {
  size_t size = 0;
  for (const M& message : messages) size += MessageFieldSize(message);
  return size;
}

size_t RepeatedU64FieldSize(const std::vector<uint64_t>& values) {
  return values.size() * kIntegerFieldSize;
}

template <typename M>
void AppendRepeatedMessageField(std::string* out, uint32_t tag, const std::vector<M>& messages) {
  for (const M& message : messages) AppendMessageField(out, tag, message);
}

void AppendRepeatedU64Field(std::string* out, uint32_t tag, const std::vector<uint64_t>& values) {
  for (uint64_t value : values) AppendU64Field(out, tag, value);
}

// Encode for every type: one allocation of exactly the final size.
template <typename M>
std::string EncodeReserved(const M& message) {
  std::string out;
  out.reserve(EncodedSize(message));
  EncodeTo(message, &out);
  return out;
}

}  // namespace

// ---- RegionEpoch ----

size_t EncodedSize(const RegionEpoch&) { return 2 * kIntegerFieldSize; }

void EncodeTo(const RegionEpoch& m, std::string* out) {
  AppendU64Field(out, 1, m.conf_version);
  AppendU64Field(out, 2, m.version);
}

std::string Encode(const RegionEpoch& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, RegionEpoch* out) {
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadU64(f, &out->conf_version);
      case 2: return ReadU64(f, &out->version);
      default: return true;
    }
  });
}

// ---- Peer ----

size_t EncodedSize(const Peer&) { return 3 * kIntegerFieldSize; }

void EncodeTo(const Peer& m, std::string* out) {
  AppendU64Field(out, 1, m.id);
  AppendU64Field(out, 2, m.store_id);
  AppendU64Field(out, 3, m.role);
}

std::string Encode(const Peer& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, Peer* out) {
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadU64(f, &out->id);
      case 2: return ReadU64(f, &out->store_id);
      case 3: return ReadLowByte(f, &out->role);
      default: return true;
    }
  });
}

// ---- Store ----

size_t EncodedSize(const Store& m) { return 2 * kIntegerFieldSize + BytesFieldSize(m.address); }

void EncodeTo(const Store& m, std::string* out) {
  AppendU64Field(out, 1, m.id);
  AppendBytesField(out, 2, m.address);
  AppendU64Field(out, 3, m.state);
}

std::string Encode(const Store& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, Store* out) {
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadU64(f, &out->id);
      case 2: ReadBytes(f, &out->address); return true;
      case 3: return ReadLowByte(f, &out->state);
      default: return true;
    }
  });
}

// ---- Region ----

size_t EncodedSize(const Region& m) {
  return kIntegerFieldSize + BytesFieldSize(m.start_key) + BytesFieldSize(m.end_key) +
         MessageFieldSize(m.epoch) + RepeatedMessageFieldSize(m.peers);
}

void EncodeTo(const Region& m, std::string* out) {
  AppendU64Field(out, 1, m.id);
  AppendBytesField(out, 2, m.start_key);
  AppendBytesField(out, 3, m.end_key);
  AppendMessageField(out, 4, m.epoch);
  AppendRepeatedMessageField(out, 5, m.peers);
}

std::string Encode(const Region& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, Region* out) {
  ReserveMore(&out->peers, CountFields<6>(size, data)[5]);
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadU64(f, &out->id);
      case 2: ReadBytes(f, &out->start_key); return true;
      case 3: ReadBytes(f, &out->end_key); return true;
      case 4: return ReadMessage(f, &out->epoch);
      case 5: return ReadRepeatedMessage(f, &out->peers);
      default: return true;
    }
  });
}

// ---- TsoRequest ----

size_t EncodedSize(const TsoRequest&) { return kIntegerFieldSize; }

void EncodeTo(const TsoRequest& m, std::string* out) { AppendU64Field(out, 1, m.count); }

std::string Encode(const TsoRequest& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, TsoRequest* out) {
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadU32(f, &out->count);
      default: return true;
    }
  });
}

// ---- TsoResponse ----

size_t EncodedSize(const TsoResponse&) { return 2 * kIntegerFieldSize; }

void EncodeTo(const TsoResponse& m, std::string* out) {
  AppendU64Field(out, 1, m.timestamp);
  AppendU64Field(out, 2, m.count);
}

std::string Encode(const TsoResponse& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, TsoResponse* out) {
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadU64(f, &out->timestamp);
      case 2: return ReadU32(f, &out->count);
      default: return true;
    }
  });
}

// ---- AllocIdRequest ----

size_t EncodedSize(const AllocIdRequest&) { return kIntegerFieldSize; }

void EncodeTo(const AllocIdRequest& m, std::string* out) { AppendU64Field(out, 1, m.count); }

std::string Encode(const AllocIdRequest& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, AllocIdRequest* out) {
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadU32(f, &out->count);
      default: return true;
    }
  });
}

// ---- AllocIdResponse ----

size_t EncodedSize(const AllocIdResponse&) { return 2 * kIntegerFieldSize; }

void EncodeTo(const AllocIdResponse& m, std::string* out) {
  AppendU64Field(out, 1, m.first_id);
  AppendU64Field(out, 2, m.count);
}

std::string Encode(const AllocIdResponse& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, AllocIdResponse* out) {
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadU64(f, &out->first_id);
      case 2: return ReadU32(f, &out->count);
      default: return true;
    }
  });
}

// ---- BootstrapRequest ----

size_t EncodedSize(const BootstrapRequest& m) {
  return MessageFieldSize(m.store) + MessageFieldSize(m.region) +
         RepeatedMessageFieldSize(m.extra_regions);
}

void EncodeTo(const BootstrapRequest& m, std::string* out) {
  AppendMessageField(out, 1, m.store);
  AppendMessageField(out, 2, m.region);
  AppendRepeatedMessageField(out, 3, m.extra_regions);
}

std::string Encode(const BootstrapRequest& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, BootstrapRequest* out) {
  ReserveMore(&out->extra_regions, CountFields<4>(size, data)[3]);
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadMessage(f, &out->store);
      case 2: return ReadMessage(f, &out->region);
      case 3: return ReadRepeatedMessage(f, &out->extra_regions);
      default: return true;
    }
  });
}

// ---- BootstrapResponse ----

size_t EncodedSize(const BootstrapResponse&) { return kBoolFieldSize; }

void EncodeTo(const BootstrapResponse& m, std::string* out) {
  AppendBoolField(out, 1, m.already_bootstrapped);
}

std::string Encode(const BootstrapResponse& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, BootstrapResponse* out) {
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadBool(f, &out->already_bootstrapped);
      default: return true;
    }
  });
}

// ---- GetRegionRequest ----

size_t EncodedSize(const GetRegionRequest& m) { return BytesFieldSize(m.key); }

void EncodeTo(const GetRegionRequest& m, std::string* out) { AppendBytesField(out, 1, m.key); }

std::string Encode(const GetRegionRequest& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, GetRegionRequest* out) {
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: ReadBytes(f, &out->key); return true;
      default: return true;
    }
  });
}

// ---- GetRegionResponse ----

size_t EncodedSize(const GetRegionResponse& m) {
  return MessageFieldSize(m.region) + MessageFieldSize(m.leader) +
         MessageFieldSize(m.leader_store) + RepeatedMessageFieldSize(m.stores);
}

void EncodeTo(const GetRegionResponse& m, std::string* out) {
  AppendMessageField(out, 1, m.region);
  AppendMessageField(out, 2, m.leader);
  AppendMessageField(out, 3, m.leader_store);
  AppendRepeatedMessageField(out, 4, m.stores);
}

std::string Encode(const GetRegionResponse& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, GetRegionResponse* out) {
  ReserveMore(&out->stores, CountFields<5>(size, data)[4]);
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadMessage(f, &out->region);
      case 2: return ReadMessage(f, &out->leader);
      case 3: return ReadMessage(f, &out->leader_store);
      case 4: return ReadRepeatedMessage(f, &out->stores);
      default: return true;
    }
  });
}

// ---- UpsertRegionRequest ----

size_t EncodedSize(const UpsertRegionRequest& m) {
  return RepeatedMessageFieldSize(m.regions) + RepeatedU64FieldSize(m.removed_region_ids);
}

void EncodeTo(const UpsertRegionRequest& m, std::string* out) {
  AppendRepeatedMessageField(out, 1, m.regions);
  AppendRepeatedU64Field(out, 2, m.removed_region_ids);
}

std::string Encode(const UpsertRegionRequest& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, UpsertRegionRequest* out) {
  const auto counts = CountFields<3>(size, data);
  ReserveMore(&out->regions, counts[1]);
  ReserveMore(&out->removed_region_ids, counts[2]);
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadRepeatedMessage(f, &out->regions);
      case 2: return ReadRepeatedU64(f, &out->removed_region_ids);
      default: return true;
    }
  });
}

// ---- UpsertRegionResponse ----
// The one field written only when non-empty: a plain success answers with an
// empty payload.

size_t EncodedSize(const UpsertRegionResponse& m) {
  return m.message.empty() ? 0 : BytesFieldSize(m.message);
}

void EncodeTo(const UpsertRegionResponse& m, std::string* out) {
  if (!m.message.empty()) AppendBytesField(out, 1, m.message);
}

std::string Encode(const UpsertRegionResponse& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, UpsertRegionResponse* out) {
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: ReadBytes(f, &out->message); return true;
      default: return true;
    }
  });
}

// ---- RegionHeartbeatEntry ----

size_t EncodedSize(const RegionHeartbeatEntry& m) {
  return kIntegerFieldSize + RepeatedU64FieldSize(m.member_store_ids) +
         RepeatedU64FieldSize(m.caught_up_learner_store_ids) +
         RepeatedU64FieldSize(m.candidate_store_ids);
}

void EncodeTo(const RegionHeartbeatEntry& m, std::string* out) {
  AppendU64Field(out, 1, m.region_id);
  AppendRepeatedU64Field(out, 2, m.member_store_ids);
  AppendRepeatedU64Field(out, 3, m.caught_up_learner_store_ids);
  AppendRepeatedU64Field(out, 4, m.candidate_store_ids);
}

std::string Encode(const RegionHeartbeatEntry& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, RegionHeartbeatEntry* out) {
  const auto counts = CountFields<5>(size, data);
  ReserveMore(&out->member_store_ids, counts[2]);
  ReserveMore(&out->caught_up_learner_store_ids, counts[3]);
  ReserveMore(&out->candidate_store_ids, counts[4]);
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadU64(f, &out->region_id);
      case 2: return ReadRepeatedU64(f, &out->member_store_ids);
      case 3: return ReadRepeatedU64(f, &out->caught_up_learner_store_ids);
      case 4: return ReadRepeatedU64(f, &out->candidate_store_ids);
      default: return true;
    }
  });
}

// ---- RegionHeartbeatRequest ----

size_t EncodedSize(const RegionHeartbeatRequest& m) {
  return kIntegerFieldSize + RepeatedMessageFieldSize(m.regions) +
         RepeatedU64FieldSize(m.region_ids);
}

void EncodeTo(const RegionHeartbeatRequest& m, std::string* out) {
  AppendU64Field(out, 1, m.store_id);
  AppendRepeatedMessageField(out, 2, m.regions);
  AppendRepeatedU64Field(out, 3, m.region_ids);
}

std::string Encode(const RegionHeartbeatRequest& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, RegionHeartbeatRequest* out) {
  const auto counts = CountFields<4>(size, data);
  ReserveMore(&out->regions, counts[2]);
  ReserveMore(&out->region_ids, counts[3]);
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadU64(f, &out->store_id);
      case 2: return ReadRepeatedMessage(f, &out->regions);
      case 3: return ReadRepeatedU64(f, &out->region_ids);
      default: return true;
    }
  });
}

// ---- ScheduleCommand ----

size_t EncodedSize(const ScheduleCommand& m) {
  return 3 * kIntegerFieldSize + BytesFieldSize(m.address);
}

void EncodeTo(const ScheduleCommand& m, std::string* out) {
  // The kind is 32 bits wide in memory but only its lowest byte travels.
  AppendU64Field(out, 1, m.kind & kLowByte);
  AppendU64Field(out, 2, m.region_id);
  AppendU64Field(out, 3, m.store_id);
  AppendBytesField(out, 4, m.address);
}

std::string Encode(const ScheduleCommand& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, ScheduleCommand* out) {
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadLowByte(f, &out->kind);
      case 2: return ReadU64(f, &out->region_id);
      case 3: return ReadU64(f, &out->store_id);
      case 4: ReadBytes(f, &out->address); return true;
      default: return true;
    }
  });
}

// ---- RegionHeartbeatResponse ----

size_t EncodedSize(const RegionHeartbeatResponse& m) {
  return RepeatedMessageFieldSize(m.commands);
}

void EncodeTo(const RegionHeartbeatResponse& m, std::string* out) {
  AppendRepeatedMessageField(out, 1, m.commands);
}

std::string Encode(const RegionHeartbeatResponse& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, RegionHeartbeatResponse* out) {
  ReserveMore(&out->commands, CountFields<2>(size, data)[1]);
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadRepeatedMessage(f, &out->commands);
      default: return true;
    }
  });
}

// ---- Region bounds, in place ----

namespace {

// Whether a nested record of only integer fields (RegionEpoch, Peer)
// decodes: every known tag, 1 to `known_tags`, must carry 8 bytes.
bool IntegerFieldsDecode(const Field& field, uint16_t known_tags) {
  return DecodeFields(field.size, field.data, [known_tags](const Field& f) {
    return f.tag < 1 || f.tag > known_tags || f.size == 8;
  });
}

}  // namespace

bool DecodeRegionBounds(size_t size, const char* data, std::string_view* start_key,
                        std::string_view* end_key) {
  std::string_view start;
  std::string_view end;
  const bool ok = DecodeFields(size, data, [&start, &end](const Field& f) {
    switch (f.tag) {
      case 1: return f.size == 8;
      case 2: start = std::string_view(f.data, f.size); return true;
      case 3: end = std::string_view(f.data, f.size); return true;
      case 4: return IntegerFieldsDecode(f, 2);  // RegionEpoch
      case 5: return IntegerFieldsDecode(f, 3);  // Peer
      default: return true;
    }
  });
  if (!ok) return false;
  *start_key = start;
  *end_key = end;
  return true;
}

}  // namespace kandb::pdpb
