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

#include "pdpb/fields.h"

namespace kandb::pdpb {

struct RegionEpoch {
  uint64_t conf_version = 0;
  uint64_t version = 0;
  bool operator==(const RegionEpoch&) const = default;
};
KANDB_PDPB_FIELDS(RegionEpoch, U64(1, &RegionEpoch::conf_version), U64(2, &RegionEpoch::version))

struct Peer {
  uint64_t id = 0;
  uint64_t store_id = 0;
  uint8_t role = 0;       // one byte carried in an 8-byte field
  bool operator==(const Peer&) const = default;
};
KANDB_PDPB_FIELDS(Peer, U64(1, &Peer::id), U64(2, &Peer::store_id), LowByte(3, &Peer::role))

// A label of a store: where it stands in the failure domains (zone, rack,
// host) or anything else the operator tags it with.
struct StoreLabel {
  std::string key;
  std::string value;
  bool operator==(const StoreLabel&) const = default;
};
KANDB_PDPB_FIELDS(StoreLabel, Bytes(1, &StoreLabel::key), Bytes(2, &StoreLabel::value))

// Values of Store.node_state: what the operator decided about a store.
inline constexpr uint8_t kNodeServing = 0;
inline constexpr uint8_t kNodeOffline = 1;    // being removed: its replicas move away
inline constexpr uint8_t kNodeTombstone = 2;  // removed: holds no replica, refused

struct Store {
  uint64_t id = 0;
  std::string address;
  uint8_t state = 0;  // as the store reported it at bootstrap; not interpreted
  // Fields of stores that send store heartbeats, each written only when set,
  // so that the record of a store that never sent one encodes as before.
  std::vector<StoreLabel> labels = {};
  uint8_t node_state = kNodeServing;
  // Wall-clock ms of the first store heartbeat a server took from it: from
  // then on the store is scheduled by its liveness and load.
  uint64_t first_heartbeat_ms = 0;
  bool operator==(const Store&) const = default;
};
KANDB_PDPB_FIELDS(Store, U64(1, &Store::id), Bytes(2, &Store::address), LowByte(3, &Store::state),
                  RepeatedMessage(4, &Store::labels), LowByteIfSet(5, &Store::node_state),
                  U64IfSet(6, &Store::first_heartbeat_ms))

struct Region {
  uint64_t id = 0;
  std::string start_key;    // inclusive; empty = unbounded below
  std::string end_key;      // exclusive; empty = unbounded above
  RegionEpoch epoch;        // always written
  std::vector<Peer> peers;  // repeated
  bool operator==(const Region&) const = default;
};
KANDB_PDPB_FIELDS(Region, U64(1, &Region::id), Bytes(2, &Region::start_key), Bytes(3, &Region::end_key),
                  Message(4, &Region::epoch), RepeatedMessage(5, &Region::peers))

struct TsoRequest {
  uint32_t count = 0;
  bool operator==(const TsoRequest&) const = default;
};
KANDB_PDPB_FIELDS(TsoRequest, U32(1, &TsoRequest::count))

struct TsoResponse {
  uint64_t timestamp = 0;
  uint32_t count = 0;
  bool operator==(const TsoResponse&) const = default;
};
KANDB_PDPB_FIELDS(TsoResponse, U64(1, &TsoResponse::timestamp), U32(2, &TsoResponse::count))

struct AllocIdRequest {
  uint32_t count = 0;
  bool operator==(const AllocIdRequest&) const = default;
};
KANDB_PDPB_FIELDS(AllocIdRequest, U32(1, &AllocIdRequest::count))

struct AllocIdResponse {
  uint64_t first_id = 0;
  uint32_t count = 0;
  bool operator==(const AllocIdResponse&) const = default;
};
KANDB_PDPB_FIELDS(AllocIdResponse, U64(1, &AllocIdResponse::first_id), U32(2, &AllocIdResponse::count))

struct BootstrapRequest {
  Store store;
  Region region;
  std::vector<Region> extra_regions;  // repeated
  bool operator==(const BootstrapRequest&) const = default;
};
KANDB_PDPB_FIELDS(BootstrapRequest, Message(1, &BootstrapRequest::store),
                  Message(2, &BootstrapRequest::region),
                  RepeatedMessage(3, &BootstrapRequest::extra_regions))

struct BootstrapResponse {
  bool already_bootstrapped = false;
  bool operator==(const BootstrapResponse&) const = default;
};
KANDB_PDPB_FIELDS(BootstrapResponse, Bool(1, &BootstrapResponse::already_bootstrapped))

struct GetRegionRequest {
  std::string key;
  bool operator==(const GetRegionRequest&) const = default;
};
KANDB_PDPB_FIELDS(GetRegionRequest, Bytes(1, &GetRegionRequest::key))

struct GetRegionResponse {
  Region region;
  Peer leader;
  Store leader_store;
  std::vector<Store> stores;  // repeated
  bool operator==(const GetRegionResponse&) const = default;
};
KANDB_PDPB_FIELDS(GetRegionResponse, Message(1, &GetRegionResponse::region),
                  Message(2, &GetRegionResponse::leader),
                  Message(3, &GetRegionResponse::leader_store), RepeatedMessage(4, &GetRegionResponse::stores))

struct UpsertRegionRequest {
  std::vector<Region> regions;               // repeated
  std::vector<uint64_t> removed_region_ids;  // repeated
  bool operator==(const UpsertRegionRequest&) const = default;
};
KANDB_PDPB_FIELDS(UpsertRegionRequest, RepeatedMessage(1, &UpsertRegionRequest::regions),
                  RepeatedU64(2, &UpsertRegionRequest::removed_region_ids))

struct UpsertRegionResponse {
  std::string message;  // written only when not empty
  bool operator==(const UpsertRegionResponse&) const = default;
};
// The one designed field written only when set: an empty answer is zero bytes.
KANDB_PDPB_FIELDS(UpsertRegionResponse, BytesIfSet(1, &UpsertRegionResponse::message))

struct RegionHeartbeatEntry {
  uint64_t region_id = 0;
  std::vector<uint64_t> member_store_ids;             // repeated
  std::vector<uint64_t> caught_up_learner_store_ids;  // repeated
  std::vector<uint64_t> candidate_store_ids;          // repeated
  bool operator==(const RegionHeartbeatEntry&) const = default;
};
KANDB_PDPB_FIELDS(RegionHeartbeatEntry, U64(1, &RegionHeartbeatEntry::region_id),
                  RepeatedU64(2, &RegionHeartbeatEntry::member_store_ids),
                  RepeatedU64(3, &RegionHeartbeatEntry::caught_up_learner_store_ids),
                  RepeatedU64(4, &RegionHeartbeatEntry::candidate_store_ids))

struct RegionHeartbeatRequest {
  uint64_t store_id = 0;
  std::vector<RegionHeartbeatEntry> regions;  // repeated
  std::vector<uint64_t> region_ids;           // repeated
  // Extension (sent only when given): for each of region_ids, the
  // membership version (conf_version) the store's replica knows. Given one
  // per id, a replica is taken for stale only when its region's record is
  // at least that new: a record that has not caught up with a membership
  // change (its write lost with a server that died, say) does not make the
  // new member drop its replica.
  std::vector<uint64_t> region_conf_versions;  // repeated
  bool operator==(const RegionHeartbeatRequest&) const = default;
};
KANDB_PDPB_FIELDS(RegionHeartbeatRequest, U64(1, &RegionHeartbeatRequest::store_id),
                  RepeatedMessage(2, &RegionHeartbeatRequest::regions), RepeatedU64(3, &RegionHeartbeatRequest::region_ids),
                  RepeatedU64(4, &RegionHeartbeatRequest::region_conf_versions))

// Kinds of ScheduleCommand.
inline constexpr uint32_t kPromoteLearner = 1;
inline constexpr uint32_t kAddPeer = 2;
inline constexpr uint32_t kRemovePeer = 3;
inline constexpr uint32_t kDestroyStaleReplica = 4;
inline constexpr uint32_t kTransferLeader = 5;

struct ScheduleCommand {
  uint32_t kind = 0;  // only the lowest byte travels
  uint64_t region_id = 0;
  uint64_t store_id = 0;
  std::string address;     // AddPeer only
  bool operator==(const ScheduleCommand&) const = default;
};
KANDB_PDPB_FIELDS(ScheduleCommand, LowByte(1, &ScheduleCommand::kind), U64(2, &ScheduleCommand::region_id),
                  U64(3, &ScheduleCommand::store_id), Bytes(4, &ScheduleCommand::address))

struct RegionHeartbeatResponse {
  std::vector<ScheduleCommand> commands;  // repeated
  bool operator==(const RegionHeartbeatResponse&) const = default;
};
KANDB_PDPB_FIELDS(RegionHeartbeatResponse, RepeatedMessage(1, &RegionHeartbeatResponse::commands))

// ---- Store heartbeats and store records: an extension of the protocol.
// A cluster whose stores never call "Pd.StoreHeartbeat" is scheduled as if
// these did not exist.

// Values of StoreInfo.state and StoreHeartbeatResponse.state: the store's
// state as the service sees it.
inline constexpr uint8_t kStoreUnknown = 0;       // has never sent a store heartbeat
inline constexpr uint8_t kStoreUp = 1;
inline constexpr uint8_t kStoreDisconnected = 2;  // silent for a while: no new replicas
inline constexpr uint8_t kStoreDown = 3;          // silent too long: its replicas are replaced
inline constexpr uint8_t kStoreOffline = 4;       // being removed: its replicas move away
inline constexpr uint8_t kStoreTombstone = 5;     // removed

// What a store reports of its load; kept in memory only.
struct StoreStats {
  uint64_t capacity = 0;   // bytes
  uint64_t available = 0;  // bytes
  uint64_t used_size = 0;  // bytes
  uint64_t region_count = 0;
  uint64_t leader_count = 0;
  uint64_t sending_snap_count = 0;
  uint64_t receiving_snap_count = 0;
  bool operator==(const StoreStats&) const = default;
};
KANDB_PDPB_FIELDS(StoreStats, U64(1, &StoreStats::capacity), U64(2, &StoreStats::available),
                  U64(3, &StoreStats::used_size), U64(4, &StoreStats::region_count),
                  U64(5, &StoreStats::leader_count), U64(6, &StoreStats::sending_snap_count),
                  U64(7, &StoreStats::receiving_snap_count))

// "Pd.StoreHeartbeat". Of `store` only the id, the address and the labels
// count; they are persisted when they change.
struct StoreHeartbeatRequest {
  Store store;
  StoreStats stats;
  bool operator==(const StoreHeartbeatRequest&) const = default;
};
KANDB_PDPB_FIELDS(StoreHeartbeatRequest, Message(1, &StoreHeartbeatRequest::store),
                  Message(2, &StoreHeartbeatRequest::stats))

struct StoreHeartbeatResponse {
  uint8_t state = kStoreUnknown;
  bool operator==(const StoreHeartbeatResponse&) const = default;
};
KANDB_PDPB_FIELDS(StoreHeartbeatResponse, LowByte(1, &StoreHeartbeatResponse::state))

// One store as the service knows it.
struct StoreInfo {
  Store store;  // the persisted record
  uint8_t state = kStoreUnknown;
  StoreStats stats;                // as last reported; zero before the first report
  uint64_t last_heartbeat_ms = 0;  // wall-clock ms; 0: none since this server took over
  uint64_t replicas = 0;           // region records that place a replica on it
  bool operator==(const StoreInfo&) const = default;
};
KANDB_PDPB_FIELDS(StoreInfo, Message(1, &StoreInfo::store), LowByte(2, &StoreInfo::state),
                  Message(3, &StoreInfo::stats), U64(4, &StoreInfo::last_heartbeat_ms),
                  U64(5, &StoreInfo::replicas))

struct GetStoreRequest {
  uint64_t store_id = 0;
  bool operator==(const GetStoreRequest&) const = default;
};
KANDB_PDPB_FIELDS(GetStoreRequest, U64(1, &GetStoreRequest::store_id))

struct GetStoreResponse {
  StoreInfo store;
  bool operator==(const GetStoreResponse&) const = default;
};
KANDB_PDPB_FIELDS(GetStoreResponse, Message(1, &GetStoreResponse::store))

struct GetAllStoresRequest {
  bool exclude_tombstones = false;
  bool operator==(const GetAllStoresRequest&) const = default;
};
KANDB_PDPB_FIELDS(GetAllStoresRequest, Bool(1, &GetAllStoresRequest::exclude_tombstones))

struct GetAllStoresResponse {
  std::vector<StoreInfo> stores;  // in store id order
  bool operator==(const GetAllStoresResponse&) const = default;
};
KANDB_PDPB_FIELDS(GetAllStoresResponse, RepeatedMessage(1, &GetAllStoresResponse::stores))

// "Pd.RemoveStore": the operator takes a store out of the cluster.
struct RemoveStoreRequest {
  uint64_t store_id = 0;
  bool operator==(const RemoveStoreRequest&) const = default;
};
KANDB_PDPB_FIELDS(RemoveStoreRequest, U64(1, &RemoveStoreRequest::store_id))

struct RemoveStoreResponse {
  uint8_t state = kStoreUnknown;  // Offline, or Tombstone when it held nothing
  bool operator==(const RemoveStoreResponse&) const = default;
};
KANDB_PDPB_FIELDS(RemoveStoreResponse, LowByte(1, &RemoveStoreResponse::state))

// ---- Region reads for clients that warm a route cache: an extension of
// the protocol. "Pd.GetRegionById" takes a GetRegionByIdRequest and
// answers with GetRegionResponse, as "Pd.GetRegion" does, so that a client
// reads both answers alike.

struct GetRegionByIdRequest {
  uint64_t region_id = 0;
  bool operator==(const GetRegionByIdRequest&) const = default;
};
KANDB_PDPB_FIELDS(GetRegionByIdRequest, U64(1, &GetRegionByIdRequest::region_id))

// Regions a scan answers when it names no limit, and the most it answers
// whatever it names: at about 150 bytes a region, 10,000 stay near 1.5 MiB
// a frame, and a scan holds up the writes it waits behind for well under a
// millisecond per thousand regions.
inline constexpr uint32_t kScanRegionsDefaultLimit = 1000;
inline constexpr uint32_t kScanRegionsMaxLimit = 10000;

// "Pd.ScanRegions": the regions whose ranges meet [start_key, end_key), in
// the order of their start keys, beginning with the one that covers
// start_key (or the first after it).
struct ScanRegionsRequest {
  std::string start_key;
  std::string end_key;  // empty: no upper bound
  uint32_t limit = 0;   // 0: kScanRegionsDefaultLimit; capped at kScanRegionsMaxLimit
  bool operator==(const ScanRegionsRequest&) const = default;
};
KANDB_PDPB_FIELDS(ScanRegionsRequest, Bytes(1, &ScanRegionsRequest::start_key),
                  Bytes(2, &ScanRegionsRequest::end_key), U32(3, &ScanRegionsRequest::limit))

struct ScannedRegion {
  Region region;
  Peer leader;  // all zero for a region without peers
  bool operator==(const ScannedRegion&) const = default;
};
KANDB_PDPB_FIELDS(ScannedRegion, Message(1, &ScannedRegion::region), Message(2, &ScannedRegion::leader))

struct ScanRegionsResponse {
  std::vector<ScannedRegion> regions;  // repeated, in key order
  bool operator==(const ScanRegionsResponse&) const = default;
};
KANDB_PDPB_FIELDS(ScanRegionsResponse, RepeatedMessage(1, &ScanRegionsResponse::regions))
// ---- GC safe points: an extension of the protocol. Each service that reads
// old versions (a GC worker, a backup, a change feed) holds the GC safe
// point back with a safe point of its own that lives for a time; a cluster
// whose clients never call these is served exactly as without them.

// One service's safe point, as persisted under its key and as listed.
struct ServiceSafePoint {
  std::string service_id;
  uint64_t safe_point = 0;  // a timestamp
  uint64_t expires_ms = 0;  // wall-clock ms at which it stops counting
  bool operator==(const ServiceSafePoint&) const = default;
};
KANDB_PDPB_FIELDS(ServiceSafePoint, Bytes(1, &ServiceSafePoint::service_id),
                  U64(2, &ServiceSafePoint::safe_point), U64(3, &ServiceSafePoint::expires_ms))

// "Pd.UpdateServiceSafePoint": sets the service's safe point for `ttl_s`
// seconds from now; ttl_s 0 removes the service's entry.
struct UpdateServiceSafePointRequest {
  std::string service_id;
  uint64_t ttl_s = 0;
  uint64_t safe_point = 0;
  bool operator==(const UpdateServiceSafePointRequest&) const = default;
};
KANDB_PDPB_FIELDS(UpdateServiceSafePointRequest, Bytes(1, &UpdateServiceSafePointRequest::service_id),
                  U64(2, &UpdateServiceSafePointRequest::ttl_s),
                  U64(3, &UpdateServiceSafePointRequest::safe_point))

// The service's entry after the call (0 and 0 when it has none) and the GC
// safe point then. A refused update changed nothing of the entry.
struct UpdateServiceSafePointResponse {
  std::string service_id;
  uint64_t safe_point = 0;
  uint64_t expires_ms = 0;
  uint64_t min_safe_point = 0;
  bool refused = false;
  bool operator==(const UpdateServiceSafePointResponse&) const = default;
};
KANDB_PDPB_FIELDS(UpdateServiceSafePointResponse, Bytes(1, &UpdateServiceSafePointResponse::service_id),
                  U64(2, &UpdateServiceSafePointResponse::safe_point),
                  U64(3, &UpdateServiceSafePointResponse::expires_ms),
                  U64(4, &UpdateServiceSafePointResponse::min_safe_point),
                  Bool(5, &UpdateServiceSafePointResponse::refused))

// "Pd.GetGcSafePoint": an empty request.
struct GetGcSafePointRequest {
  bool operator==(const GetGcSafePointRequest&) const = default;
};
constexpr auto FieldsOf(const GetGcSafePointRequest*) { return std::tuple<>(); }
void EncodeTo(const GetGcSafePointRequest& m, std::string* out);
std::string Encode(const GetGcSafePointRequest& m);
bool Decode(size_t size, const char* data, GetGcSafePointRequest* out);
size_t EncodedSize(const GetGcSafePointRequest& m);

struct GetGcSafePointResponse {
  uint64_t safe_point = 0;                 // the GC safe point
  std::vector<ServiceSafePoint> services;  // the live ones, in service id order
  bool operator==(const GetGcSafePointResponse&) const = default;
};
KANDB_PDPB_FIELDS(GetGcSafePointResponse, U64(1, &GetGcSafePointResponse::safe_point),
                  RepeatedMessage(2, &GetGcSafePointResponse::services))

// The key range of an encoded Region, read in place without building the
// record: true exactly when Decode(Region) succeeds on the same bytes, and
// then *start_key and *end_key view the bytes Decode would copy (the last
// occurrence of each field). Routing walks every region record with it
// and decodes only the winner.
bool DecodeRegionBounds(size_t size, const char* data, std::string_view* start_key,
                        std::string_view* end_key);

}  // namespace kandb::pdpb

#endif  // KANDB_PDPB_MESSAGES_H_
