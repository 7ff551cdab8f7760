#ifndef KANDB_PDPB_MESSAGES_H_
#define KANDB_PDPB_MESSAGES_H_

// The messages of the placement-driver protocol and the cluster records
// embedded in them. Each type M has
//   std::string Encode(const M&);                    // the encoded bytes
//   void EncodeTo(const M&, std::string* out);       // appends them to *out
//   bool Decode(size_t size, const char* data, M*);  // whole input, or false
//   size_t EncodedSize(const M&);                    // == Encode(m).size()
// Store and Region records are persisted in exactly their wire encoding.
//
// EncodeTo only appends; a caller building a larger buffer (a frame) can
// reserve EncodedSize(m) first. Encode reserves the exact size itself.
// Decode fills the fields present in the input and leaves the others as they
// were, so it is meant for a default-constructed *out; repeated fields append.
// A non-repeated field given twice ends with its last occurrence, a nested
// message included (it is replaced whole, not merged). On false, *out may
// hold part of the input.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kandb::pdpb {

struct RegionEpoch {
  uint64_t conf_version = 0;  // 1
  uint64_t version = 0;       // 2
  bool operator==(const RegionEpoch&) const = default;
};

struct Peer {
  uint64_t id = 0;        // 1
  uint64_t store_id = 0;  // 2
  uint8_t role = 0;       // 3, one byte carried in an 8-byte field
  bool operator==(const Peer&) const = default;
};

struct Store {
  uint64_t id = 0;       // 1
  std::string address;   // 2
  uint8_t state = 0;     // 3, one byte carried in an 8-byte field
  bool operator==(const Store&) const = default;
};

struct Region {
  uint64_t id = 0;          // 1
  std::string start_key;    // 2, inclusive; empty = unbounded below
  std::string end_key;      // 3, exclusive; empty = unbounded above
  RegionEpoch epoch;        // 4, always written
  std::vector<Peer> peers;  // 5, repeated
  bool operator==(const Region&) const = default;
};

struct TsoRequest {
  uint32_t count = 0;  // 1
  bool operator==(const TsoRequest&) const = default;
};

struct TsoResponse {
  uint64_t timestamp = 0;  // 1
  uint32_t count = 0;      // 2
  bool operator==(const TsoResponse&) const = default;
};

struct AllocIdRequest {
  uint32_t count = 0;  // 1
  bool operator==(const AllocIdRequest&) const = default;
};

struct AllocIdResponse {
  uint64_t first_id = 0;  // 1
  uint32_t count = 0;     // 2
  bool operator==(const AllocIdResponse&) const = default;
};

struct BootstrapRequest {
  Store store;                        // 1
  Region region;                      // 2
  std::vector<Region> extra_regions;  // 3, repeated
  bool operator==(const BootstrapRequest&) const = default;
};

struct BootstrapResponse {
  bool already_bootstrapped = false;  // 1
  bool operator==(const BootstrapResponse&) const = default;
};

struct GetRegionRequest {
  std::string key;  // 1
  bool operator==(const GetRegionRequest&) const = default;
};

struct GetRegionResponse {
  Region region;              // 1
  Peer leader;                // 2
  Store leader_store;         // 3
  std::vector<Store> stores;  // 4, repeated
  bool operator==(const GetRegionResponse&) const = default;
};

struct UpsertRegionRequest {
  std::vector<Region> regions;               // 1, repeated
  std::vector<uint64_t> removed_region_ids;  // 2, repeated
  bool operator==(const UpsertRegionRequest&) const = default;
};

struct UpsertRegionResponse {
  std::string message;  // 1, written only when not empty
  bool operator==(const UpsertRegionResponse&) const = default;
};

struct RegionHeartbeatEntry {
  uint64_t region_id = 0;                             // 1
  std::vector<uint64_t> member_store_ids;             // 2, repeated
  std::vector<uint64_t> caught_up_learner_store_ids;  // 3, repeated
  std::vector<uint64_t> candidate_store_ids;          // 4, repeated
  bool operator==(const RegionHeartbeatEntry&) const = default;
};

struct RegionHeartbeatRequest {
  uint64_t store_id = 0;                      // 1
  std::vector<RegionHeartbeatEntry> regions;  // 2, repeated
  std::vector<uint64_t> region_ids;           // 3, repeated
  bool operator==(const RegionHeartbeatRequest&) const = default;
};

// Kinds of ScheduleCommand.
inline constexpr uint32_t kPromoteLearner = 1;
inline constexpr uint32_t kAddPeer = 2;
inline constexpr uint32_t kRemovePeer = 3;
inline constexpr uint32_t kDestroyStaleReplica = 4;
inline constexpr uint32_t kTransferLeader = 5;

struct ScheduleCommand {
  uint32_t kind = 0;  // 1, only the lowest byte travels
  uint64_t region_id = 0;  // 2
  uint64_t store_id = 0;   // 3
  std::string address;     // 4, AddPeer only
  bool operator==(const ScheduleCommand&) const = default;
};

struct RegionHeartbeatResponse {
  std::vector<ScheduleCommand> commands;  // 1, repeated
  bool operator==(const RegionHeartbeatResponse&) const = default;
};

#define KANDB_PDPB_DECLARE_CODEC(M)                    \
  void EncodeTo(const M& m, std::string* out);         \
  std::string Encode(const M& m);                      \
  bool Decode(size_t size, const char* data, M* out);  \
  size_t EncodedSize(const M& m);

KANDB_PDPB_DECLARE_CODEC(RegionEpoch)
KANDB_PDPB_DECLARE_CODEC(Peer)
KANDB_PDPB_DECLARE_CODEC(Store)
KANDB_PDPB_DECLARE_CODEC(Region)
KANDB_PDPB_DECLARE_CODEC(TsoRequest)
KANDB_PDPB_DECLARE_CODEC(TsoResponse)
KANDB_PDPB_DECLARE_CODEC(AllocIdRequest)
KANDB_PDPB_DECLARE_CODEC(AllocIdResponse)
KANDB_PDPB_DECLARE_CODEC(BootstrapRequest)
KANDB_PDPB_DECLARE_CODEC(BootstrapResponse)
KANDB_PDPB_DECLARE_CODEC(GetRegionRequest)
KANDB_PDPB_DECLARE_CODEC(GetRegionResponse)
KANDB_PDPB_DECLARE_CODEC(UpsertRegionRequest)
KANDB_PDPB_DECLARE_CODEC(UpsertRegionResponse)
KANDB_PDPB_DECLARE_CODEC(RegionHeartbeatEntry)
KANDB_PDPB_DECLARE_CODEC(RegionHeartbeatRequest)
KANDB_PDPB_DECLARE_CODEC(ScheduleCommand)
KANDB_PDPB_DECLARE_CODEC(RegionHeartbeatResponse)

#undef KANDB_PDPB_DECLARE_CODEC

// The key range of an encoded Region, read in place without building the
// record: true exactly when Decode(Region) succeeds on the same bytes, and
// then *start_key and *end_key view the bytes Decode would copy (the last
// occurrence of each field). Routing walks every region record with it
// and decodes only the winner.
bool DecodeRegionBounds(size_t size, const char* data, std::string_view* start_key,
                        std::string_view* end_key);

}  // namespace kandb::pdpb

#endif  // KANDB_PDPB_MESSAGES_H_
