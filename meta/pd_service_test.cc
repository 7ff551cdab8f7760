// In-process tests of the timestamp oracle, identifier allocation,
// bootstrap and region routing, on a metadata store in a scratch directory.

#include "meta/pd_service.h"

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/coding.h"
#include "lsm/fault_injection.h"
#include "meta/service_test_util.h"

namespace kandb::meta {
namespace {

using testing::MakeRegion;
using testing::MakeStore;
using testing::ScratchStore;

constexpr uint64_t kLogicalMask = PdService::kMaxLogical;

std::string Mark(uint64_t value) {
  std::string s;
  PutFixed64(&s, value);
  return s;
}

// ---- Timestamps ----

class TsoTest : public ::testing::Test {
 protected:
  TsoTest() : service_(store_.get(), 0, [this] { return now_.load(); }) {}

  pdpb::TsoResponse Tso(uint32_t count) {
    pdpb::TsoRequest req;
    req.count = count;
    pdpb::TsoResponse resp;
    EXPECT_TRUE(service_.Tso(req, &resp).ok());
    return resp;
  }
  static uint64_t Physical(uint64_t ts) { return ts >> PdService::kLogicalBits; }
  static uint64_t Logical(uint64_t ts) { return ts & kLogicalMask; }

  ScratchStore store_;
  std::atomic<uint64_t> now_{1'700'000'000'000};
  PdService service_;
};

TEST_F(TsoTest, SameMillisecondCountsUpAndZeroCountMeansOne) {
  pdpb::TsoResponse a = Tso(1);
  pdpb::TsoResponse b = Tso(0);
  EXPECT_EQ(Physical(a.timestamp), now_.load());
  EXPECT_EQ(Logical(a.timestamp), 0u);
  EXPECT_EQ(b.timestamp, a.timestamp + 1);
  EXPECT_EQ(b.count, 1u);
  EXPECT_EQ(Logical(Tso(10).timestamp), 2u);
  EXPECT_EQ(Logical(Tso(1).timestamp), 12u);

  now_ += 5;  // a newer millisecond restarts the logical part
  pdpb::TsoResponse c = Tso(3);
  EXPECT_EQ(c.timestamp, now_.load() << 18);
  EXPECT_EQ(c.count, 3u);
}

TEST_F(TsoTest, LogicalOverflowMovesToNextMillisecondAndNeverUsesMaxLogical) {
  const uint64_t t0 = now_.load();
  // 0 + 262143 is not above 262143: the batch fits, ending at 262142.
  pdpb::TsoResponse full = Tso(262143);
  EXPECT_EQ(full.timestamp, t0 << 18);
  EXPECT_EQ(full.count, 262143u);
  pdpb::TsoResponse next = Tso(1);
  EXPECT_EQ(next.timestamp, (t0 + 1) << 18);

  // From logical 1, a batch of 262142 ends at 262142 and still fits; the next
  // single timestamp would be 262143 and so moves on.
  pdpb::TsoResponse fits = Tso(262142);
  EXPECT_EQ(fits.timestamp, ((t0 + 1) << 18) | 1);
  EXPECT_EQ(Tso(1).timestamp, (t0 + 2) << 18);

  // The clock has not reached t0 + 2 yet; it catching up keeps the state.
  now_ = t0 + 2;
  EXPECT_EQ(Tso(1).timestamp, ((t0 + 2) << 18) | 1);
}

TEST_F(TsoTest, ClockGoingBackwardsKeepsTimestampsGrowing) {
  const uint64_t first = Tso(5).timestamp;
  now_ -= 1000;
  const uint64_t second = Tso(1).timestamp;
  EXPECT_EQ(second, first + 5);
}

TEST(TsoConcurrencyTest, LargeBatchesFromManyThreadsNeverOverlapOrTouchMaxLogical) {
  ScratchStore store;
  PdService service(store.get(), 0);  // the wall clock
  constexpr int kThreads = 4;
  constexpr int kCalls = 300;
  struct Batch {
    uint64_t first;
    uint32_t count;
  };
  std::vector<std::vector<Batch>> batches(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kCalls; i++) {
        pdpb::TsoRequest req;
        // Big, uneven batches force the overflow rule many times per ms.
        req.count = static_cast<uint32_t>(1 + (i * 7919 + t * 104729) % 150000);
        pdpb::TsoResponse resp;
        ASSERT_TRUE(service.Tso(req, &resp).ok());
        ASSERT_EQ(resp.count, req.count);
        batches[t].push_back({resp.timestamp, resp.count});
      }
    });
  }
  for (std::thread& th : threads) th.join();

  std::vector<Batch> all;
  for (int t = 0; t < kThreads; t++) {
    for (size_t i = 1; i < batches[t].size(); i++) {
      EXPECT_GT(batches[t][i].first, batches[t][i - 1].first);  // each client sees them grow
    }
    all.insert(all.end(), batches[t].begin(), batches[t].end());
  }
  std::sort(all.begin(), all.end(), [](const Batch& a, const Batch& b) { return a.first < b.first; });
  for (size_t i = 0; i < all.size(); i++) {
    const uint64_t last = all[i].first + all[i].count - 1;
    // A whole batch lies within one millisecond and below logical 0x3FFFF.
    EXPECT_EQ(last >> 18, all[i].first >> 18);
    EXPECT_LT(last & kLogicalMask, kLogicalMask);
    if (i > 0) {
      EXPECT_LT(all[i - 1].first + all[i - 1].count - 1, all[i].first);
    }
  }
}

// ---- Identifiers ----

pdpb::AllocIdResponse Alloc(PdService* service, uint32_t count) {
  pdpb::AllocIdRequest req;
  req.count = count;
  pdpb::AllocIdResponse resp;
  Status s = service->AllocId(req, &resp);
  EXPECT_TRUE(s.ok()) << s.ToString();
  return resp;
}

TEST(AllocIdTest, FreshStoreStartsAt1024AndKeepsAMarginOf1000) {
  ScratchStore store;
  {
    PdService service(store.get(), 0);
    pdpb::AllocIdResponse first = Alloc(&service, 1);
    EXPECT_EQ(first.first_id, 1024u);
    EXPECT_EQ(first.count, 1u);
    EXPECT_EQ(store.Get(kIdAllocKey), Mark(2025));

    // The next 1000 single ids (1025 .. 2024) stay below the mark: no write.
    for (uint64_t want = 1025; want <= 2024; want++) {
      ASSERT_EQ(Alloc(&service, 0).first_id, want);
    }
    EXPECT_EQ(store.Get(kIdAllocKey), Mark(2025));
    EXPECT_EQ(Alloc(&service, 1).first_id, 2025u);
    EXPECT_EQ(store.Get(kIdAllocKey), Mark(3026));

    pdpb::AllocIdResponse batch = Alloc(&service, 5000);
    EXPECT_EQ(batch.first_id, 2026u);
    EXPECT_EQ(batch.count, 5000u);
    EXPECT_EQ(store.Get(kIdAllocKey), Mark(2026 + 5000 + 1000));
  }
  // A restart resumes at the mark, skipping the unused rest of the margin.
  store.Reopen();
  PdService restarted(store.get(), 0);
  EXPECT_EQ(Alloc(&restarted, 1).first_id, 8026u);
  EXPECT_EQ(store.Get(kIdAllocKey), Mark(9027));
}

TEST(AllocIdTest, DamagedMarkRestartsAtZeroButAbsentOneAt1024) {
  ScratchStore store;
  store.Put(kIdAllocKey, std::string("\x10\x00\x00\x00", 4));
  PdService service(store.get(), 0);
  EXPECT_EQ(Alloc(&service, 1).first_id, 0u);
  EXPECT_EQ(store.Get(kIdAllocKey), Mark(1001));

  // A mark damaged while running reads as 0 and is simply rewritten.
  store.Put(kIdAllocKey, "junk");
  EXPECT_EQ(Alloc(&service, 2).first_id, 1u);
  EXPECT_EQ(store.Get(kIdAllocKey), Mark(1003));

  // A persisted mark far ahead of memory is left alone.
  store.Put(kIdAllocKey, Mark(50000));
  EXPECT_EQ(Alloc(&service, 1).first_id, 3u);
  EXPECT_EQ(store.Get(kIdAllocKey), Mark(50000));
}

TEST(AllocIdTest, ConcurrentBatchesNeverShareAnId) {
  ScratchStore store;
  PdService service(store.get(), 0);
  constexpr int kThreads = 4;
  std::vector<std::vector<uint64_t>> ids(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 300; i++) {
        pdpb::AllocIdResponse r = Alloc(&service, static_cast<uint32_t>(1 + (i + t) % 13));
        for (uint64_t id = r.first_id; id < r.first_id + r.count; id++) ids[t].push_back(id);
      }
    });
  }
  for (std::thread& th : threads) th.join();
  std::set<uint64_t> all;
  size_t total = 0;
  for (const auto& list : ids) {
    total += list.size();
    all.insert(list.begin(), list.end());
  }
  EXPECT_EQ(all.size(), total);
  EXPECT_EQ(*all.begin(), 1024u);
  EXPECT_EQ(*all.rbegin(), 1024u + total - 1);  // no gaps within one process
}

TEST(AllocIdTest, FailedMarkWriteAnswersNothingAndConsumesNothing) {
  lsm::FaultInjectingFileIo io;
  lsm::ScopedFileIo install(&io);
  ScratchStore store;
  PdService service(store.get(), 0);
  EXPECT_EQ(Alloc(&service, 1).first_id, 1024u);

  io.FailFrom(lsm::FileOp::kWrite, 1, "wal-");
  pdpb::AllocIdRequest req;
  req.count = 2000;  // passes the mark of 2025, so it must write
  pdpb::AllocIdResponse resp;
  resp.first_id = 77;
  Status s = service.AllocId(req, &resp);
  EXPECT_FALSE(s.ok());
  EXPECT_EQ(resp.first_id, 77u);
  io.ClearAll();

  // Nothing was handed out, so a restart still starts at the old mark and
  // every id handed out before the failure stays below it.
  store.Reopen();
  PdService restarted(store.get(), 0);
  EXPECT_EQ(Alloc(&restarted, 1).first_id, 2025u);
}

// ---- Bootstrap and routing ----

class RoutingTest : public ::testing::Test {
 protected:
  RoutingTest() : service_(store_.get(), 0) {}

  Status Bootstrap(const pdpb::Store& st, const pdpb::Region& region,
                   std::vector<pdpb::Region> extra = {}, bool* already = nullptr) {
    pdpb::BootstrapRequest req;
    req.store = st;
    req.region = region;
    req.extra_regions = std::move(extra);
    pdpb::BootstrapResponse resp;
    Status s = service_.Bootstrap(req, &resp);
    if (already != nullptr) *already = resp.already_bootstrapped;
    return s;
  }

  Status Route(const std::string& key, pdpb::GetRegionResponse* resp) {
    pdpb::GetRegionRequest req;
    req.key = key;
    return service_.GetRegion(req, resp);
  }
  // The id of the region routed to, or the rendered failure.
  std::string RouteId(const std::string& key) {
    pdpb::GetRegionResponse resp;
    Status s = Route(key, &resp);
    return s.ok() ? std::to_string(resp.region.id) : s.ToString();
  }

  Status Upsert(std::vector<pdpb::Region> regions, std::vector<uint64_t> removed) {
    pdpb::UpsertRegionRequest req;
    req.regions = std::move(regions);
    req.removed_region_ids = std::move(removed);
    pdpb::UpsertRegionResponse resp;
    resp.message = "junk";
    Status s = service_.UpsertRegion(req, &resp);
    if (s.ok()) {
      EXPECT_EQ(resp.message, "");
    }
    return s;
  }

  ScratchStore store_;
  PdService service_;
};

TEST_F(RoutingTest, FirstBootstrapWritesEverythingLaterOnesOnlyTheStore) {
  EXPECT_EQ(RouteId("any"), "NotFound: cluster not bootstrapped");
  bool already = true;
  ASSERT_TRUE(Bootstrap(MakeStore(1), MakeRegion(2, "", "", {1}),
                        {MakeRegion(10, "zz", "zzz"), MakeRegion(9, "zzz", "")}, &already)
                  .ok());
  EXPECT_FALSE(already);
  EXPECT_EQ(store_.Get(kBootstrappedKey), "1");
  EXPECT_EQ(store_.Get("pd/store/1"), pdpb::Encode(MakeStore(1)));
  EXPECT_EQ(store_.Get("pd/region/2"), pdpb::Encode(MakeRegion(2, "", "", {1})));
  EXPECT_EQ(store_.Get("pd/region/10"), pdpb::Encode(MakeRegion(10, "zz", "zzz")));
  EXPECT_EQ(store_.Get("pd/region/9"), pdpb::Encode(MakeRegion(9, "zzz", "")));
  EXPECT_EQ(RouteId(""), "2");  // "pd/region/10" sorts first but does not cover ""

  // On an existing cluster only the caller's store record is written.
  ASSERT_TRUE(Bootstrap(MakeStore(3), MakeRegion(2, "a", "b"), {MakeRegion(11, "", "")}, &already)
                  .ok());
  EXPECT_TRUE(already);
  EXPECT_EQ(store_.Get("pd/store/3"), pdpb::Encode(MakeStore(3)));
  EXPECT_EQ(store_.Get("pd/region/2"), pdpb::Encode(MakeRegion(2, "", "", {1})));
  EXPECT_EQ(store_.Get("pd/region/11"), "<absent>");

  // A marker with any value counts; ids of 0 are taken as given.
  ScratchStore other;
  other.Put(kBootstrappedKey, "");
  PdService second(other.get(), 0);
  pdpb::BootstrapRequest req;
  pdpb::BootstrapResponse resp;
  ASSERT_TRUE(second.Bootstrap(req, &resp).ok());
  EXPECT_TRUE(resp.already_bootstrapped);
  EXPECT_EQ(other.Get("pd/store/0"), pdpb::Encode(pdpb::Store()));
  EXPECT_EQ(other.Get("pd/region/0"), "<absent>");
}

TEST_F(RoutingTest, RangesAreHalfOpenAndTheFirstRecordInKeyOrderWins) {
  ASSERT_TRUE(Bootstrap(MakeStore(1), MakeRegion(5, "b", "d")).ok());
  EXPECT_EQ(RouteId("b"), "5");
  EXPECT_EQ(RouteId(std::string("c\xff")), "5");
  EXPECT_EQ(RouteId("d"), "NotFound: no region covers key");
  EXPECT_EQ(RouteId("a"), "NotFound: no region covers key");
  EXPECT_EQ(RouteId(""), "NotFound: no region covers key");

  // Overlapping records are not checked: 10 sorts before 9 and before 5 as
  // text, so it wins where they overlap.
  ASSERT_TRUE(Upsert({MakeRegion(9, "", "c"), MakeRegion(10, "bb", "")}, {}).ok());
  EXPECT_EQ(RouteId("a"), "9");
  EXPECT_EQ(RouteId("b"), "5");    // 10 starts after b; 5 sorts before 9
  EXPECT_EQ(RouteId("bb"), "10");  // 10 < 5 < 9 in key order
  EXPECT_EQ(RouteId("zz"), "10");
}

TEST_F(RoutingTest, PeerlessRegionsAndUnregisteredLeaders) {
  ASSERT_TRUE(Bootstrap(MakeStore(3), MakeRegion(2, "", "m", {3, 7, 1})).ok());
  store_.PutStore(MakeStore(1));
  pdpb::GetRegionResponse resp;
  ASSERT_TRUE(Route("a", &resp).ok());
  EXPECT_EQ(resp.leader_store, MakeStore(3));
  EXPECT_EQ(resp.stores, (std::vector<pdpb::Store>{MakeStore(3), MakeStore(1)}));

  // A region without peers answers the region alone.
  ASSERT_TRUE(Upsert({MakeRegion(4, "m", "")}, {}).ok());
  ASSERT_TRUE(Route("x", &resp).ok());
  EXPECT_EQ(resp.region, MakeRegion(4, "m", ""));
  EXPECT_EQ(resp.leader, pdpb::Peer());
  EXPECT_EQ(resp.leader_store, pdpb::Store());
  EXPECT_TRUE(resp.stores.empty());

  // An unregistered leader store leaves leader_store empty without error.
  ASSERT_TRUE(Upsert({MakeRegion(4, "m", "", {8, 1})}, {}).ok());
  ASSERT_TRUE(Route("x", &resp).ok());
  EXPECT_EQ(resp.leader.store_id, 8u);
  EXPECT_EQ(resp.leader_store, pdpb::Store());
  EXPECT_EQ(resp.stores, (std::vector<pdpb::Store>{MakeStore(1)}));
}

TEST_F(RoutingTest, UndecodableRecords) {
  ASSERT_TRUE(Bootstrap(MakeStore(3), MakeRegion(2, "", "m", {3, 1})).ok());
  // A peer's store record that does not decode is left out...
  store_.Put("pd/store/1", "\x01");
  pdpb::GetRegionResponse resp;
  ASSERT_TRUE(Route("a", &resp).ok());
  EXPECT_EQ(resp.stores, (std::vector<pdpb::Store>{MakeStore(3)}));
  // ...but the leader's store record is needed, and the response untouched.
  store_.Put("pd/store/3", "\x01");
  resp.region.id = 99;
  EXPECT_EQ(Route("a", &resp).ToString(), "Corruption: bad store record");
  EXPECT_EQ(resp.region.id, 99u);

  // An undecodable region record covers nothing; the others still route,
  // and a key that nothing covers then names the damage.
  store_.PutStore(MakeStore(3));
  store_.Put("pd/region/1", "garbage");
  EXPECT_EQ(RouteId("a"), "2");
  EXPECT_EQ(RouteId("z"), "Corruption: bad region record");
}

TEST_F(RoutingTest, UpsertPutsThenDeletesInOneBatch) {
  ASSERT_TRUE(Upsert({}, {}).ok());
  ASSERT_TRUE(Upsert({MakeRegion(1, "", "k"), MakeRegion(1, "", "f")}, {}).ok());
  EXPECT_EQ(store_.Get("pd/region/1"), pdpb::Encode(MakeRegion(1, "", "f")));  // later one wins
  // A region both written and removed in one request ends removed.
  ASSERT_TRUE(Upsert({MakeRegion(2, "", ""), MakeRegion(3, "x", "")}, {1, 3, 42}).ok());
  EXPECT_EQ(store_.Get("pd/region/1"), "<absent>");
  EXPECT_EQ(store_.Get("pd/region/3"), "<absent>");
  EXPECT_EQ(RouteId("a"), "2");
}

}  // namespace
}  // namespace kandb::meta
