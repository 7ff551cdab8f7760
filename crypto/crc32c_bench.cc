// Throughput of the two CRC-32C paths on the buffer sizes the system
// checksums most: table blocks (4 KiB) and large frames or log records
// (64 KiB).

#include <benchmark/benchmark.h>

#include <random>
#include <string>

#include "crypto/crc32c.h"

namespace {

std::string RandomBuffer(size_t n) {
  std::mt19937 rng(42);
  std::string s(n, '\0');
  for (char& c : s) {
    c = static_cast<char>(rng());
  }
  return s;
}

template <uint32_t (*Extend)(uint32_t, const char*, size_t)>
void BM_Crc32c(benchmark::State& state) {
  std::string buf = RandomBuffer(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    uint32_t crc = Extend(0, buf.data(), buf.size());
    benchmark::DoNotOptimize(crc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(buf.size()));
}

void BM_Crc32cHardware(benchmark::State& state) {
  if (!kandb::crypto::Crc32cHardwareEnabled()) {
    state.SkipWithError("processor without SSE4.2");
    return;
  }
  BM_Crc32c<kandb::crypto::Crc32cExtendHardware>(state);
}

void BM_Crc32cTable(benchmark::State& state) { BM_Crc32c<kandb::crypto::Crc32cExtendTable>(state); }

// The dispatching entry point every caller uses.
void BM_Crc32cDispatch(benchmark::State& state) { BM_Crc32c<kandb::crypto::Crc32cExtend>(state); }

BENCHMARK(BM_Crc32cHardware)->Arg(4 << 10)->Arg(64 << 10);
BENCHMARK(BM_Crc32cTable)->Arg(4 << 10)->Arg(64 << 10);
BENCHMARK(BM_Crc32cDispatch)->Arg(4 << 10)->Arg(64 << 10);

}  // namespace

BENCHMARK_MAIN();
