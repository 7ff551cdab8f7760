// Fuzz target: every message decoder of the placement-driver protocol,
// the live statistics of "Pd.Stats" included.
//
// The first input byte picks the message type (modulo the number of types),
// the rest is the encoded message. Whatever decodes must survive a round
// trip: its encoding has the size EncodedSize announces, decodes again, and
// decodes to the same value. Region records are also read in place, as
// routing reads them, which must agree with the decoder.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/fuzz_util.h"
#include "pdpb/messages.h"
#include "pdpb/stats.h"

namespace {

using namespace kandb::pdpb;

template <class M>
void CheckMessage(const char* data, size_t size) {
  M decoded;
  if (!Decode(size, data, &decoded)) return;
  const std::string encoded = Encode(decoded);
  KANDB_FUZZ_CHECK(encoded.size() == EncodedSize(decoded));
  std::string appended = "x";
  EncodeTo(decoded, &appended);
  KANDB_FUZZ_CHECK(appended.compare(1, std::string::npos, encoded) == 0);
  M again;
  KANDB_FUZZ_CHECK(Decode(encoded.size(), encoded.data(), &again));
  KANDB_FUZZ_CHECK(again == decoded);
  // A message is canonical once re-encoded: unknown fields are gone, every
  // field is written once, in order.
  KANDB_FUZZ_CHECK(Encode(again) == encoded);
}

// Routing reads a region record's bounds in place; it must accept exactly
// what the decoder accepts and see the same bounds.
void CheckRegionBounds(const char* data, size_t size) {
  CheckMessage<Region>(data, size);
  Region decoded;
  std::string_view start = "unset";
  std::string_view end = "unset";
  const bool decodes = Decode(size, data, &decoded);
  KANDB_FUZZ_CHECK(DecodeRegionBounds(size, data, &start, &end) == decodes);
  if (decodes) {
    KANDB_FUZZ_CHECK(start == decoded.start_key);
    KANDB_FUZZ_CHECK(end == decoded.end_key);
  }
}

using Checker = void (*)(const char*, size_t);

// The requests first, in method order, then the responses and the records
// they embed. Seeds are tagged with the index into this table.
constexpr Checker kCheckers[] = {
    CheckMessage<TsoRequest>,           CheckMessage<AllocIdRequest>,
    CheckMessage<BootstrapRequest>,     CheckMessage<GetRegionRequest>,
    CheckMessage<UpsertRegionRequest>,  CheckMessage<RegionHeartbeatRequest>,
    CheckMessage<TsoResponse>,          CheckMessage<AllocIdResponse>,
    CheckMessage<BootstrapResponse>,    CheckMessage<GetRegionResponse>,
    CheckMessage<UpsertRegionResponse>, CheckMessage<RegionHeartbeatResponse>,
    CheckMessage<RegionEpoch>,          CheckMessage<Peer>,
    CheckMessage<Store>,                CheckRegionBounds,
    CheckMessage<RegionHeartbeatEntry>, CheckMessage<ScheduleCommand>,
    CheckMessage<StatsRequest>,         CheckMessage<StatsResponse>,
    CheckMessage<StoreHeartbeatRequest>, CheckMessage<StoreHeartbeatResponse>,
    CheckMessage<GetStoreRequest>,      CheckMessage<GetStoreResponse>,
    CheckMessage<GetAllStoresRequest>,  CheckMessage<GetAllStoresResponse>,
    CheckMessage<RemoveStoreRequest>,   CheckMessage<RemoveStoreResponse>,
    // Region reads.
    CheckMessage<GetRegionByIdRequest>, CheckMessage<ScanRegionsRequest>,
    CheckMessage<ScanRegionsResponse>,
    CheckMessage<ServiceSafePoint>,     CheckMessage<UpdateServiceSafePointRequest>,
    CheckMessage<UpdateServiceSafePointResponse>, CheckMessage<GetGcSafePointRequest>,
    CheckMessage<GetGcSafePointResponse>,
};
constexpr size_t kTypes = sizeof(kCheckers) / sizeof(kCheckers[0]);

template <class M>
std::string Tagged(uint8_t type, const M& message) {
  return std::string(1, static_cast<char>(type)) + Encode(message);
}

std::vector<std::string> MakeSeeds() {
  Region region;
  region.id = 2;
  region.start_key = "a";
  region.end_key = "m";
  region.epoch = {1, 3};
  region.peers = {{3, 1, 0}, {4, 2, 1}};
  const Store store{1, "127.0.0.1:20160", 1};
  BootstrapRequest bootstrap;
  bootstrap.store = store;
  bootstrap.region = region;
  bootstrap.extra_regions = {Region{}, region};
  UpsertRegionRequest upsert;
  upsert.regions = {region, region};
  upsert.removed_region_ids = {9, 10};
  const RegionHeartbeatEntry entry{2, {1, 2, 3}, {3}, {2}};
  RegionHeartbeatRequest heartbeat;
  heartbeat.store_id = 1;
  heartbeat.regions = {entry, RegionHeartbeatEntry{}};
  heartbeat.region_ids = {7};
  GetRegionResponse routed;
  routed.region = region;
  routed.leader = region.peers[0];
  routed.leader_store = store;
  routed.stores = {store, Store{2, "", 0}};
  const ScheduleCommand add{kAddPeer, 2, 10, "10.0.0.1:20160"};
  RegionHeartbeatResponse commands;
  commands.commands = {add, ScheduleCommand{kTransferLeader, 2, 3, ""}};
  StatsResponse stats;
  stats.uptime_ms = 61000;
  stats.methods = {MethodStats{"Pd.Tso", 40, {}, LatencyHistogram{{1, 2, 4}, {10, 20, 9, 1}, 40, 90000}},
                   MethodStats{"Pd.GetRegion", 5, {ErrorCount{3, 2}}, LatencyHistogram{}}};
  stats.connections = {2, 9, 0};
  stats.has_engine = true;
  stats.engine.write_groups = 7;
  stats.engine.sync_latency = LatencyHistogram{{512}, {6, 1}, 7, 4000000};
  stats.engine.last_fault = "write failed: Corruption: wal fdatasync: No space left on device";
  stats.routing = {3, 5, 0};
  stats.scheduling.stores_up = 5;
  stats.scheduling.add_peer = 12;
  StoreHeartbeatRequest store_heartbeat;
  store_heartbeat.store = store;
  store_heartbeat.store.labels = {{"zone", "z1"}, {"host", "h3"}};
  store_heartbeat.stats = {1 << 30, 1 << 29, 1 << 28, 40, 12, 1, 2};
  StoreInfo info{store_heartbeat.store, kStoreUp, store_heartbeat.stats, 1700000000000, 40};
  info.store.node_state = kNodeOffline;
  info.store.first_heartbeat_ms = 1600000000000;
  GetAllStoresResponse all;
  all.stores = {info, StoreInfo{}};

  return {
      Tagged(0, TsoRequest{3}),
      Tagged(1, AllocIdRequest{5}),
      Tagged(2, bootstrap),
      Tagged(3, GetRegionRequest{"key"}),
      Tagged(4, upsert),
      Tagged(5, heartbeat),
      Tagged(6, TsoResponse{(uint64_t{1} << 40) | 7, 3}),
      Tagged(7, AllocIdResponse{1024, 5}),
      Tagged(8, BootstrapResponse{true}),
      Tagged(9, routed),
      Tagged(10, UpsertRegionResponse{"done"}),
      Tagged(11, commands),
      Tagged(12, RegionEpoch{4, 5}),
      Tagged(13, region.peers[1]),
      Tagged(14, store),
      Tagged(15, region),
      Tagged(16, entry),
      Tagged(17, add),
      Tagged(18, StatsRequest{}),
      Tagged(19, stats),
      Tagged(20, store_heartbeat),
      Tagged(21, StoreHeartbeatResponse{kStoreDisconnected}),
      Tagged(22, GetStoreRequest{4}),
      Tagged(23, GetStoreResponse{info}),
      Tagged(24, GetAllStoresRequest{true}),
      Tagged(25, all),
      Tagged(26, RemoveStoreRequest{4}),
      Tagged(27, RemoveStoreResponse{kStoreOffline}),
      // Region reads.
      Tagged(28, GetRegionByIdRequest{2}),
      Tagged(29, ScanRegionsRequest{"a", "z", 100}),
      Tagged(30, ScanRegionsResponse{{ScannedRegion{region, region.peers[1]}, ScannedRegion{}}}),
      // The empty message decodes for every type.
      std::string(1, '\0'),
  };
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  kandb::fuzzing::MaybeWriteSeeds(*argc, *argv, MakeSeeds);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  kCheckers[data[0] % kTypes](reinterpret_cast<const char*>(data) + 1, size - 1);
  return 0;
}
