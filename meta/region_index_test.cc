// The routing index against the walk over the region records it stands in
// for: after every step of a random sequence (bootstraps, overlapping or
// gapped upserts, splits, removals, damaged records, restarts) both answer
// every probe key alike, in every field and status (KANDB_ROUTING_STEPS,
// default 400), and scan every range alike. Then concurrent writers: the
// index follows the store's order. Then the region reads' corners.

#include "meta/region_index.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "meta/keys.h"
#include "meta/pd_service.h"
#include "meta/routing.h"
#include "meta/service_test_util.h"
#include "store/meta_store.h"

namespace kandb::meta {
namespace {

class RoutingTest : public ServiceTest {
 protected:
  RoutingTest() { EXPECT_NE(service_->routing_index(), nullptr); }
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
  // with the walk; they must agree. Returns the ids scanned, or the
  // failure, and sets *answered when the index answered itself.
  std::string Scan(const std::string& start, const std::string& end, uint32_t limit, bool* answered) {
    std::vector<pdpb::Region> by_index;
    Status index_status;
    *answered = service_->routing_index()->Scan(start, end, PdService::ScanLimit(limit), &by_index, &index_status);
    const pdpb::ScanRegionsRequest req{start, end, limit};
    pdpb::ScanRegionsResponse served, walked;
    const Status s = service_->ScanRegions(req, &served);
    const std::string where = "scan " + ::testing::PrintToString(start) + " " + ::testing::PrintToString(end);
    EXPECT_EQ(s.ToString(), service_->ScanRegionsByWalk(req, &walked).ToString()) << where;
    EXPECT_TRUE(served == walked) << where;
    if (!s.ok()) return s.ToString();
    std::string ids;
    for (const pdpb::ScannedRegion& r : served.regions) ids += (ids.empty() ? "" : ",") + std::to_string(r.region.id);
    return ids;
  }
  // The same, the index answering itself exactly when `by_index`.
  std::string Scan(const std::string& start, const std::string& end, uint32_t limit = 0, bool by_index = true) {
    bool answered = false;
    std::string ids = Scan(start, end, limit, &answered);
    EXPECT_EQ(answered, by_index) << "scan " << ::testing::PrintToString(start) << " " << ::testing::PrintToString(end);
    return ids;
  }
  using ServiceTest::Put;
  void Put(uint64_t id, const pdpb::Region& region) { Put(RegionKey(id), pdpb::Encode(region)); }
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

pdpb::Region RandomRegion(uint64_t id, std::string start, std::string end, std::mt19937_64* rng) {
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
          puts.push_back(RandomRegion(rng() % 40, start, end, &rng));
          start = end;
        }
        break;
      }
      case 1:
      case 2:
      case 9:  // any range, overlapping or inverted
        puts.push_back(RandomRegion(rng() % 40, RandomKey(&rng), RandomKey(&rng), &rng));
        break;
      case 3:
        deletes.push_back(RegionKey(rng() % 40));
        break;
      case 4:  // a record that does not decode, under an id or any key of the range
        if (rng() % 2) {
          Put(RegionKey(rng() % 40), "\x01\x00");
        } else {
          odd_keys.push_back(std::string(kRegionPrefix) + RandomKey(&rng));
          Put(odd_keys.back(), rng() % 2 ? "\x01\x00" : pdpb::Encode(RandomRegion(99, RandomKey(&rng), "", &rng)));
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
        req.region = RandomRegion(rng() % 40, "", RandomKey(&rng), &rng);
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
      bool scanned = false;
      Scan(start, end, static_cast<uint32_t>(rng() % 4), &scanned);
      (scanned ? scans_answered : scans_declined)++;
    }
  }
  std::printf("%lld steps: %llu probes answered by the index, %llu by the walk; scans %llu and %llu\n",
              static_cast<long long>(steps), static_cast<unsigned long long>(answered),
              static_cast<unsigned long long>(declined), static_cast<unsigned long long>(scans_answered),
              static_cast<unsigned long long>(scans_declined));
  EXPECT_GT(answered, declined / 10);  // the clean states are common enough to matter
  EXPECT_GT(scans_answered, scans_declined / 10);
}

TEST_F(RoutingTest, ConcurrentWritersAndReadersEndInAgreement) {
  // Ten regions in a clean partition; writers rewrite them (same ranges,
  // new peers and epochs) and readers route meanwhile.
  constexpr int kRegions = 10;
  auto range = [](int i, std::mt19937_64* rng) {
    return RandomRegion(static_cast<uint64_t>(i), i == 0 ? "" : std::string(1, static_cast<char>('a' + i)),
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

// The replicated server's copy of the records is an index fed by its
// owner, batch by batch: it scans and finds as the index over a store
// does, follows deletions, and declines scans over overlapping ranges.
TEST(RegionIndexFedTest, ScansAndFindsWhatItWasFed) {
  RegionIndex index;
  std::vector<pdpb::Region> regions;
  Status status;
  pdpb::GetRegionResponse found;
  std::mt19937_64 rng(1);
  const pdpb::Region a = RandomRegion(3, "", "k", &rng), b = RandomRegion(20, "k", "", &rng);
  const pdpb::Region led{7, "x", "", {1, 1}, {{70, 5, 0}, {71, 1, 0}}};  // overlaps b
  const pdpb::Store store{1, "s1", 0};
  index.Apply({{lsm::kOpPut, RegionKey(3), pdpb::Encode(a)},
               {lsm::kOpPut, RegionKey(20), pdpb::Encode(b)},
               {lsm::kOpPut, StoreKey(1), pdpb::Encode(store)}});
  ASSERT_TRUE(index.Scan("j", "", 10, &regions, &status));
  EXPECT_EQ(regions, (std::vector<pdpb::Region>{a, b}));
  index.Apply({{lsm::kOpPut, RegionKey(7), pdpb::Encode(led)}, {lsm::kOpDelete, RegionKey(3), ""}});
  EXPECT_FALSE(index.Scan("", "", 10, &regions, &status));
  ASSERT_TRUE(index.FindRegion(7, 1, &found, &status));
  EXPECT_EQ(found.leader, led.peers[1]);
  EXPECT_EQ(found.leader_store, store);
  EXPECT_FALSE(index.FindRegion(3, std::nullopt, &found, &status));  // a read of the record answers
}

// ---- Region reads: scans over the corners of a key range, each checked
// against the walk; a region by id; and the leader each presents, which
// GetRegion's answer must not follow.

std::string GetById(PdService* service, uint64_t id, pdpb::GetRegionResponse* resp) {
  return service->GetRegionById({id}, resp).ToString();
}

TEST_F(RoutingTest, ScansOverBoundariesOpenEndsAndGaps) {
  EXPECT_EQ(Scan("", ""), "NotFound: cluster not bootstrapped");
  pdpb::GetRegionResponse resp;
  EXPECT_EQ(GetById(service_.get(), 1, &resp), "NotFound: cluster not bootstrapped");

  // Ids whose key order ("pd/region/10" first) is not the ranges' order.
  Put(10, MakeRegion(10, "", "b"));
  Put(9, MakeRegion(9, "b", "d"));
  Put(100, MakeRegion(100, "d", "f\xff"));
  Put(2, MakeRegion(2, "f\xff", ""));
  const struct {
    std::string start, end;
    uint32_t limit;
    std::string want;
  } cases[] = {
      {"", "", 0, "10,9,100,2"},          // both ends open
      {"c", "", 0, "9,100,2"},            // from inside a region
      {"d", "", 0, "100,2"},              // from a boundary
      {"c", "e", 0, "9,100"},             // to inside a region
      {"c", "d", 0, "9"},                 // to a boundary: exclusive
      {"c", std::string("d\0", 2), 0, "9,100"},  // one byte past a boundary
      {"f\xff", "", 0, "2"},              // 0xFF compares above every other byte
      {"d", "d", 0, ""},                  // an empty range meets nothing
      {"e", "c", 0, ""},                  // nor one whose end comes first
      {"", "", 1, "10"},                  // limits: one,
      {"c", "", 3, "9,100,2"},            // exactly what is left,
      {"c", "", 4, "9,100,2"},            // more than that
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Scan(c.start, c.end, c.limit), c.want) << "[" << c.start << ", " << c.end << ") limit " << c.limit;
  }

  // From inside a gap: the first region after it. A range whose end is
  // not above its start covers nothing, and keeps no one from answering.
  ASSERT_TRUE(store_->Delete({RegionKey(100)}).ok());
  Put(7, MakeRegion(7, "e", "d"));
  EXPECT_EQ(Scan("e", ""), "2");
  EXPECT_EQ(Scan("d", "f"), "");
}

TEST_F(RoutingTest, LimitsDefaultToAThousandAndStopAtTenThousand) {
  std::vector<store::KeyValue> batch;
  for (uint64_t i = 1; i <= pdpb::kScanRegionsMaxLimit + 50; i++) {
    char start[16], end[16];
    std::snprintf(start, sizeof(start), "k%06llu", static_cast<unsigned long long>(i));
    std::snprintf(end, sizeof(end), "k%06llu", static_cast<unsigned long long>(i + 1));
    batch.emplace_back(RegionKey(i), pdpb::Encode(MakeRegion(i, i == 1 ? "" : start, end, {1})));
  }
  ASSERT_TRUE(store_->Put(std::move(batch)).ok());
  auto first = [](uint64_t n) {  // ids 1..n, in key order
    std::string ids = "1";
    for (uint64_t i = 2; i <= n; i++) ids += "," + std::to_string(i);
    return ids;
  };
  EXPECT_EQ(Scan("", "", 0), first(1000));
  EXPECT_EQ(Scan("", "", pdpb::kScanRegionsMaxLimit), first(10000));
  EXPECT_EQ(Scan("", "", pdpb::kScanRegionsMaxLimit + 1), first(10000));
  EXPECT_EQ(Scan("", "", UINT32_MAX), first(10000));
}

// Where ranges overlap or a record does not decode, the index declines
// and the walk answers: every region meeting the range, by start key, ties
// by record key; undecodable records left out.
TEST_F(RoutingTest, WalkAnswersWhereTheIndexDeclines) {
  Put(1, MakeRegion(1, "", "m"));
  Put(2, MakeRegion(2, "m", ""));
  EXPECT_EQ(Scan("a", ""), "1,2");
  Put(30, MakeRegion(30, "c", "p"));  // overlaps both
  Put(4, MakeRegion(4, "c", "d"));    // same start: "pd/region/30" sorts first
  EXPECT_EQ(Scan("a", "", 0, false), "1,30,4,2");
  EXPECT_EQ(Scan("n", "", 0, false), "30,2");  // 30 starts before n and covers it
  EXPECT_EQ(Scan("d", "m", 0, false), "1,30");
  EXPECT_EQ(Scan("a", "", 2, false), "1,30");
  ASSERT_TRUE(store_->Delete({RegionKey(30), RegionKey(4)}).ok());
  EXPECT_EQ(Scan("a", ""), "1,2");
  Put(RegionKey(5), "\x01\x00");
  EXPECT_EQ(Scan("a", "", 0, false), "1,2");
  // Nothing but damage is still a bootstrapped cluster with nothing to scan.
  ASSERT_TRUE(store_->Delete({RegionKey(1), RegionKey(2)}).ok());
  EXPECT_EQ(Scan("", "", 0, false), "");
}

// A region by id is answered from the index when it holds the record (a
// read of it otherwise: see the damaged-table test of the service). The
// leader presented is the peer of the store that last reported the region
// when it is a member; GetRegion keeps presenting the first peer.
TEST_F(RoutingTest, RegionByIdAndTheLeadersPresented) {
  for (uint64_t id : {1, 2, 3}) Put(StoreKey(id), pdpb::Encode(MakeStore(id)));
  Put(9, MakeRegion(9, "", "m", {1, 2, 3}));
  Put(10, MakeRegion(10, "m", "", {3, 4}));  // store 4 has no record
  pdpb::GetRegionResponse resp;
  ASSERT_EQ(GetById(service_.get(), 9, &resp), "OK");
  EXPECT_EQ(resp.region, MakeRegion(9, "", "m", {1, 2, 3}));
  EXPECT_EQ(resp.leader_store, MakeStore(1));
  EXPECT_EQ(GetById(service_.get(), 12, &resp), "NotFound: no region with id 12");
  Put(RegionKey(12), "garbage");
  EXPECT_EQ(GetById(service_.get(), 12, &resp), "Corruption: bad region record");
  EXPECT_EQ(resp.region.id, 9u);  // untouched on failure

  for (uint64_t reporter : {2, 7}) {  // 7 is no member of region 10
    pdpb::RegionHeartbeatResponse beat;
    ASSERT_TRUE(service_->RegionHeartbeat({reporter, {{reporter == 2 ? 9u : 10u, {reporter}, {}, {}}}, {}, {}}, &beat).ok());
  }
  ASSERT_EQ(GetById(service_.get(), 9, &resp), "OK");
  EXPECT_EQ(resp.leader, (pdpb::Peer{102, 2, 0}));
  EXPECT_EQ(resp.leader_store, MakeStore(2));
  EXPECT_EQ(resp.stores, (std::vector<pdpb::Store>{MakeStore(1), MakeStore(2), MakeStore(3)}));
  pdpb::ScanRegionsResponse scan;
  ASSERT_TRUE(service_->ScanRegions({"", "", 0}, &scan).ok());
  ASSERT_EQ(scan.regions.size(), 2u);
  EXPECT_EQ(scan.regions[0].leader, (pdpb::Peer{102, 2, 0}));
  EXPECT_EQ(scan.regions[1].leader, (pdpb::Peer{103, 3, 0}));
  ASSERT_TRUE(service_->GetRegion({"a"}, &resp).ok());
  EXPECT_EQ(resp.leader, (pdpb::Peer{101, 1, 0}));
  Put(StoreKey(2), "\x01");  // the leader's store record, undecodable
  EXPECT_EQ(GetById(service_.get(), 9, &resp), "Corruption: bad store record");
}

}  // namespace
}  // namespace kandb::meta
