// The routing index against the walk over the region records it stands in
// for: after every step of a random sequence (bootstraps, overlapping or
// gapped upserts, splits, removals, damaged records, restarts) both answer
// every probe key alike, in every field and status (KANDB_ROUTING_STEPS,
// default 400). Then concurrent writers: the index follows the store's order.

#include "meta/region_index.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "meta/keys.h"
#include "meta/pd_service.h"
#include "meta/routing.h"
#include "store/meta_store.h"

namespace kandb::meta {
namespace {

class RoutingTest : public ::testing::Test {
 protected:
  RoutingTest() : dir_(kandb::testing::MakeTempDir("kandb-routing")) { Reopen(); }
  ~RoutingTest() override {
    service_.reset();
    store_.reset();
    kandb::testing::RemoveTree(dir_);
  }
  void Reopen() {
    service_.reset();
    store_.reset();
    ASSERT_TRUE(store::MetaStore::Open(dir_, "", 0, &store_).ok());
    ASSERT_TRUE(PdService::Create(store_.get(), 0, &service_).ok());
    ASSERT_NE(service_->routing_index(), nullptr);
  }
  // Routes `key` both ways; they must agree. Returns whether the index
  // answered itself.
  bool Agree(const std::string& key) {
    pdpb::GetRegionResponse by_index, by_walk;
    Status index_status;
    const bool answered = service_->routing_index()->Route(key, &by_index, &index_status);
    const Status walk_status = service_->RouteByWalk(pdpb::GetRegionRequest{key}, &by_walk);
    if (!answered) return false;
    EXPECT_EQ(index_status.ToString(), walk_status.ToString()) << "key " << ::testing::PrintToString(key);
    if (walk_status.ok()) {
      EXPECT_TRUE(by_index == by_walk) << "key " << ::testing::PrintToString(key);
    }
    return true;
  }
  // Scans [start, end) with the service (the index when it answers) and
  // with the walk; they must agree. Returns whether the index answered.
  bool AgreeScan(const std::string& start, const std::string& end, uint32_t limit) {
    std::vector<pdpb::Region> by_index;
    Status index_status;
    const bool answered =
        service_->routing_index()->Scan(start, end, PdService::ScanLimit(limit), &by_index, &index_status);
    const pdpb::ScanRegionsRequest req{start, end, limit};
    pdpb::ScanRegionsResponse served, walked;
    const Status s = service_->ScanRegions(req, &served);
    const Status w = service_->ScanRegionsByWalk(req, &walked);
    const std::string where = "scan " + ::testing::PrintToString(start) + " " + ::testing::PrintToString(end);
    EXPECT_EQ(s.ToString(), w.ToString()) << where;
    if (w.ok()) {
      EXPECT_TRUE(served == walked) << where;
    }
    return answered;
  }
  void Put(const std::string& key, const std::string& value) { ASSERT_TRUE(store_->Put({{key, value}}).ok()); }

  const std::string dir_;
  std::unique_ptr<store::MetaStore> store_;
  std::unique_ptr<PdService> service_;
};

// Short keys over few bytes, the empty key and 0xFF included, so that
// boundaries meet, ranges overlap and gaps open often; now and then behind
// a long common prefix, so that keys agree on all the bytes the index
// keeps inline.
std::string RandomKey(std::mt19937_64* rng) {
  static const char kBytes[] = {'\0', 'a', 'b', '\xff'};
  std::string key((*rng)() % 4, ' ');
  for (char& c : key) c = kBytes[(*rng)() % 4];
  if ((*rng)() % 4 == 0) key = std::string(15 + (*rng)() % 3, 'p') + key;
  return key;
}

pdpb::Region MakeRegion(uint64_t id, std::string start, std::string end, std::mt19937_64* rng) {
  pdpb::Region r{id, std::move(start), std::move(end), {(*rng)() % 5, (*rng)() % 5}, {}};
  for (uint64_t n = (*rng)() % 4; n > 0; n--) r.peers.push_back({(*rng)() % 100, (*rng)() % 6, 0});
  return r;
}

TEST_F(RoutingTest, IndexAnswersAsTheWalkInEveryState) {
  const char* env = std::getenv("KANDB_ROUTING_STEPS");
  const int64_t steps = env != nullptr ? std::max<int64_t>(1, std::atoll(env)) : 400;
  const uint64_t seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 rng(seed);
  uint64_t answered = 0, declined = 0, scans_answered = 0, scans_declined = 0;
  std::vector<std::string> boundaries;
  std::vector<std::string> odd_keys;  // written under the region range, not by id
  for (int64_t step = 0; step < steps && !HasFailure(); step++) {
    std::vector<pdpb::Region> puts;
    std::vector<std::string> deletes;
    switch (rng() % 10) {
      case 0: {  // a clean partition over fresh ids, replacing every record
        for (uint64_t id = 0; id < 40; id++) deletes.push_back(RegionKey(id));
        deletes.insert(deletes.end(), odd_keys.begin(), odd_keys.end());
        odd_keys.clear();
        std::vector<std::string> cuts;
        for (int n = 1 + static_cast<int>(rng() % 6); n > 0; n--) cuts.push_back(RandomKey(&rng));
        std::sort(cuts.begin(), cuts.end());
        cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
        if (!cuts.empty() && cuts[0].empty()) cuts.erase(cuts.begin());
        std::string start;
        for (size_t i = 0; i <= cuts.size(); i++) {
          const std::string end = i < cuts.size() ? cuts[i] : "";
          puts.push_back(MakeRegion(rng() % 40, start, end, &rng));
          start = end;
        }
        break;
      }
      case 1:
      case 2:
      case 9:  // any range, overlapping or inverted
        puts.push_back(MakeRegion(rng() % 40, RandomKey(&rng), RandomKey(&rng), &rng));
        break;
      case 3:
        deletes.push_back(RegionKey(rng() % 40));
        break;
      case 4:  // a record that does not decode, under an id or any key of the range
        if (rng() % 2) {
          Put(RegionKey(rng() % 40), "\x01\x00");
        } else {
          odd_keys.push_back(std::string(kRegionPrefix) + RandomKey(&rng));
          Put(odd_keys.back(), rng() % 2 ? "\x01\x00" : pdpb::Encode(MakeRegion(99, RandomKey(&rng), "", &rng)));
        }
        break;
      case 5:
        if (rng() % 2) {
          Put(StoreKey(rng() % 6), pdpb::Encode(pdpb::Store{rng() % 6, "s:" + std::to_string(rng() % 9), 0}));
        } else {
          Put(StoreKey(rng() % 6), rng() % 2 ? "\x01" : "");  // undecodable, or empty and decodable
        }
        break;
      case 6:
        ASSERT_TRUE(store_->Delete({StoreKey(rng() % 6)}).ok());
        break;
      case 7:
        Reopen();
        break;
      default: {  // a bootstrap, first or again
        pdpb::BootstrapRequest req;
        req.store = {rng() % 6, "b", 0};
        req.region = MakeRegion(rng() % 40, "", RandomKey(&rng), &rng);
        pdpb::BootstrapResponse resp;
        ASSERT_TRUE(service_->Bootstrap(req, &resp).ok());
      }
    }
    std::vector<store::KeyValue> encoded;
    for (const pdpb::Region& r : puts) {
      encoded.emplace_back(RegionKey(r.id), pdpb::Encode(r));
      boundaries.push_back(r.start_key);
      boundaries.push_back(r.end_key);
    }
    if (!encoded.empty() || !deletes.empty()) {
      ASSERT_TRUE(store_->Write(std::move(encoded), std::move(deletes)).ok());
    }
    if (boundaries.size() > 200) boundaries.erase(boundaries.begin(), boundaries.begin() + 100);

    // Probe the boundaries, their neighbours and random keys.
    std::vector<std::string> probes = {"", "\xff\xff\xff\xff"};
    for (const std::string& b : boundaries) {
      probes.push_back(b);
      probes.push_back(b + '\0');
      if (!b.empty()) probes.push_back(b.substr(0, b.size() - 1));
    }
    for (int i = 0; i < 20; i++) probes.push_back(RandomKey(&rng));
    for (const std::string& key : probes) (Agree(key) ? answered : declined)++;
    // Scans between probe keys, open-ended too, with small limits.
    for (int i = 0; i < 6; i++) {
      const std::string& start = probes[rng() % probes.size()];
      const std::string end = rng() % 3 == 0 ? "" : probes[rng() % probes.size()];
      (AgreeScan(start, end, static_cast<uint32_t>(rng() % 4)) ? scans_answered : scans_declined)++;
    }
  }
  std::printf("%lld steps: %llu probes answered by the index, %llu by the walk; scans %llu and %llu\n",
              static_cast<long long>(steps), static_cast<unsigned long long>(answered),
              static_cast<unsigned long long>(declined), static_cast<unsigned long long>(scans_answered),
              static_cast<unsigned long long>(scans_declined));
  EXPECT_GT(answered, declined / 10);  // the clean states are common enough to matter
  EXPECT_GT(scans_answered, scans_declined / 10);
}

// The replicated server's copy of the records is an index fed by its
// owner, batch by batch, as etcd's watch brings them: it scans and finds
// regions as the index over a store does, and follows deletions.
TEST(RegionIndexFedTest, ScansAndFindsWhatItWasFed) {
  RegionIndex index;
  std::vector<pdpb::Region> regions;
  Status status;
  ASSERT_TRUE(index.Scan("", "", 10, &regions, &status));
  EXPECT_EQ(status.ToString(), "NotFound: cluster not bootstrapped");
  std::mt19937_64 rng(1);
  const pdpb::Region a = MakeRegion(3, "", "k", &rng), b = MakeRegion(20, "k", "", &rng);
  const pdpb::Store store{1, "s1", 0};
  index.Apply({{lsm::kOpPut, RegionKey(3), pdpb::Encode(a)},
               {lsm::kOpPut, RegionKey(20), pdpb::Encode(b)},
               {lsm::kOpPut, StoreKey(1), pdpb::Encode(store)}});
  ASSERT_TRUE(index.Scan("j", "", 10, &regions, &status));
  ASSERT_TRUE(status.ok());
  EXPECT_EQ(regions, (std::vector<pdpb::Region>{a, b}));
  ASSERT_TRUE(index.Scan("k", "", 1, &regions, &status));
  EXPECT_EQ(regions, (std::vector<pdpb::Region>{b}));

  const pdpb::Region led{7, "x", "", {1, 1}, {{70, 5, 0}, {71, 1, 0}}};
  index.Apply({{lsm::kOpPut, RegionKey(7), pdpb::Encode(led)}});  // overlaps 20
  EXPECT_FALSE(index.Scan("", "", 10, &regions, &status));
  pdpb::GetRegionResponse found;
  ASSERT_TRUE(index.FindRegion(7, 1, &found, &status));
  ASSERT_TRUE(status.ok());
  EXPECT_EQ(found.leader, led.peers[1]);
  EXPECT_EQ(found.leader_store, store);
  EXPECT_EQ(found.stores, std::vector<pdpb::Store>{store});
  EXPECT_FALSE(index.FindRegion(8, std::nullopt, &found, &status));  // a read of the record answers

  index.Apply({{lsm::kOpDelete, RegionKey(7), ""}, {lsm::kOpDelete, RegionKey(3), ""}});
  ASSERT_TRUE(index.Scan("", "", 10, &regions, &status));
  EXPECT_EQ(regions, (std::vector<pdpb::Region>{b}));
  EXPECT_FALSE(index.FindRegion(7, std::nullopt, &found, &status));
}

TEST_F(RoutingTest, ConcurrentWritersAndReadersEndInAgreement) {
  // Ten regions in a clean partition; writers rewrite them (same ranges,
  // new peers and epochs) and readers route meanwhile.
  constexpr int kRegions = 10;
  auto range = [](int i, std::mt19937_64* rng) {
    return MakeRegion(static_cast<uint64_t>(i), i == 0 ? "" : std::string(1, static_cast<char>('a' + i)),
                      i + 1 == kRegions ? "" : std::string(1, static_cast<char>('a' + i + 1)), rng);
  };
  std::mt19937_64 seed_rng(7);
  for (int i = 0; i < kRegions; i++) Put(RegionKey(static_cast<uint64_t>(i)), pdpb::Encode(range(i, &seed_rng)));
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int w = 0; w < 3; w++) {
    threads.emplace_back([&, w] {
      std::mt19937_64 rng(static_cast<uint64_t>(w));
      for (int n = 0; n < 300; n++) {
        const int i = static_cast<int>(rng() % kRegions);
        ASSERT_TRUE(store_->Put({{RegionKey(static_cast<uint64_t>(i)), pdpb::Encode(range(i, &rng))}}).ok());
      }
    });
  }
  for (int r = 0; r < 2; r++) {
    threads.emplace_back([&] {
      while (!stop) {
        for (char c = 'a'; c < 'a' + kRegions + 1; c++) {
          pdpb::GetRegionResponse resp;
          ASSERT_TRUE(service_->GetRegion(pdpb::GetRegionRequest{std::string(1, c)}, &resp).ok());
          ASSERT_TRUE(RangeCovers(resp.region.start_key, resp.region.end_key, std::string(1, c)));
        }
      }
    });
  }
  for (int w = 0; w < 3; w++) threads[w].join();
  stop = true;
  for (size_t t = 3; t < threads.size(); t++) threads[t].join();
  // What the index followed is what the store holds.
  for (char c = 'a' - 1; c <= 'a' + kRegions + 1; c++) EXPECT_TRUE(Agree(std::string(1, c)));
}

}  // namespace
}  // namespace kandb::meta
