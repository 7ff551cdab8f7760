// Encode and decode rates of the messages on the hot paths: a region record
// with five peers (every routing answer and every stored region) and a
// heartbeat request from a store holding many regions.

#include <benchmark/benchmark.h>

#include <string>

#include "pdpb/messages.h"

namespace kandb::pdpb {
namespace {

Region FivePeerRegion() {
  Region region;
  region.id = 1000;
  // Keys shaped like a table prefix: "t", a big-endian table id, "_r".
  region.start_key = std::string("t\x80\x00\x00\x00\x00\x00\x10_r", 11);
  region.end_key = std::string("t\x80\x00\x00\x00\x00\x00\x20_r", 11);
  region.epoch = {5, 12};
  for (uint64_t i = 0; i < 5; ++i) {
    region.peers.push_back({1001 + i, 1 + i, static_cast<uint8_t>(i < 3 ? 0 : 1)});
  }
  return region;
}

RegionHeartbeatRequest Heartbeat(int regions) {
  RegionHeartbeatRequest request;
  request.store_id = 1;
  for (int i = 0; i < regions; ++i) {
    const uint64_t id = 1000 + i;
    request.regions.push_back({id, {1, 2, 3}, {4}, {5, 6}});
    request.region_ids.push_back(id);
  }
  return request;
}

template <typename M>
void EncodeLoop(benchmark::State& state, const M& message) {
  size_t bytes = 0;
  for (auto _ : state) {
    std::string out = Encode(message);
    bytes += out.size();
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
  state.SetItemsProcessed(state.iterations());
}

template <typename M>
void DecodeLoop(benchmark::State& state, const M& message) {
  const std::string bytes = Encode(message);
  for (auto _ : state) {
    M out;
    bool ok = Decode(bytes.size(), bytes.data(), &out);
    benchmark::DoNotOptimize(ok);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes.size() * state.iterations()));
  state.SetItemsProcessed(state.iterations());
}

void BM_EncodeRegion(benchmark::State& state) { EncodeLoop(state, FivePeerRegion()); }
void BM_DecodeRegion(benchmark::State& state) { DecodeLoop(state, FivePeerRegion()); }
void BM_EncodeHeartbeat(benchmark::State& state) {
  EncodeLoop(state, Heartbeat(static_cast<int>(state.range(0))));
}
void BM_DecodeHeartbeat(benchmark::State& state) {
  DecodeLoop(state, Heartbeat(static_cast<int>(state.range(0))));
}

BENCHMARK(BM_EncodeRegion);
BENCHMARK(BM_DecodeRegion);
BENCHMARK(BM_EncodeHeartbeat)->Arg(100);
BENCHMARK(BM_DecodeHeartbeat)->Arg(100);

}  // namespace
}  // namespace kandb::pdpb

BENCHMARK_MAIN();
