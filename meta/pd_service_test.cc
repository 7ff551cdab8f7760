// The service in process: a stopped clock, identifier marks and failed
// writes, damaged records, and the scheduling policies of heartbeats. The
// end-to-end test only shows each method answered over the wire.

#include "meta/pd_service.h"
#include "rpc/server.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/coding.h"
#include "common/test_util.h"
#include "lsm/fault_injection.h"
#include "lsm/filename.h"
#include "lsm/manifest.h"
#include "lsm/table.h"
#include "lsm/table_builder.h"
#include "meta/keys.h"
#include "meta/service_test_util.h"
#include "store/meta_store.h"

namespace kandb::pdpb {
static void PrintTo(const ScheduleCommand& c, std::ostream* os) {
  *os << "{kind " << c.kind << ", region " << c.region_id << ", store " << c.store_id
      << ", address \"" << c.address << "\"}";
}
}  // namespace kandb::pdpb

namespace kandb::meta {
namespace {

using pdpb::ScheduleCommand;
using Cmds = std::vector<ScheduleCommand>;

class PdTest : public ServiceTest {
 public:
  void PutStores(const std::vector<uint64_t>& ids) {
    for (uint64_t id : ids) Put(StoreKey(id), pdpb::Encode(MakeStore(id)));
  }

  uint64_t Tso(uint32_t count) {
    pdpb::TsoResponse resp;
    EXPECT_TRUE(service_->Tso(pdpb::TsoRequest{count}, &resp).ok());
    EXPECT_EQ(resp.count, std::max<uint32_t>(count, 1));
    return resp.timestamp;
  }
  uint64_t Alloc(uint32_t count) {
    pdpb::AllocIdResponse resp;
    Status s = service_->AllocId(pdpb::AllocIdRequest{count}, &resp);
    EXPECT_TRUE(s.ok()) << s.ToString();
    return resp.first_id;
  }
  // The id of the region routed to, or the rendered failure.
  std::string RouteId(const std::string& key) {
    pdpb::GetRegionRequest req;
    req.key = key;
    pdpb::GetRegionResponse resp;
    Status s = service_->GetRegion(req, &resp);
    return s.ok() ? std::to_string(resp.region.id) : s.ToString();
  }
  Cmds Heartbeat(uint64_t store_id, std::vector<pdpb::RegionHeartbeatEntry> regions,
                 std::vector<uint64_t> region_ids = {}, std::vector<uint64_t> known = {}) {
    pdpb::RegionHeartbeatResponse resp;
    EXPECT_TRUE(
        service_->RegionHeartbeat({store_id, std::move(regions), std::move(region_ids), std::move(known)}, &resp).ok());
    return resp.commands;
  }
};

pdpb::RegionHeartbeatEntry Entry(uint64_t region_id, std::vector<uint64_t> members,
                                 std::vector<uint64_t> candidates = {},
                                 std::vector<uint64_t> caught_up = {}) {
  return {region_id, std::move(members), std::move(caught_up), std::move(candidates)};
}

ScheduleCommand Cmd(uint32_t kind, uint64_t region, uint64_t store, std::string address = "") {
  return {kind, region, store, std::move(address)};
}

TEST_F(PdTest, StoppedClockOverflowsIntoNextMillisecondNeverUsingMaxLogical) {
  const uint64_t t0 = now_.load();
  EXPECT_EQ(Tso(262143), t0 << 18);  // ends at logical 262142: fits
  EXPECT_EQ(Tso(1), (t0 + 1) << 18);
  EXPECT_EQ(Tso(262142), ((t0 + 1) << 18) | 1);  // ends at 262142 again
  EXPECT_EQ(Tso(1), (t0 + 2) << 18);             // 262143 would be next: move on
  now_ = t0 + 2;  // the clock catching up keeps the state
  EXPECT_EQ(Tso(1), ((t0 + 2) << 18) | 1);
  now_ = t0 - 1000;  // going backwards still grows
  EXPECT_EQ(Tso(5), ((t0 + 2) << 18) | 2);
  now_ = t0 + 10;  // a newer millisecond restarts the logical part
  EXPECT_EQ(Tso(0), (t0 + 10) << 18);
  // A batch longer than a millisecond's logical part is refused and moves
  // nothing: it would run into the physical bits.
  for (const uint32_t count : {262144u, 600000u, 4294967295u}) {
    pdpb::TsoResponse resp{7, 7};
    EXPECT_EQ(service_->Tso(pdpb::TsoRequest{count}, &resp).ToString(),
              "InvalidArgument: tso count " + std::to_string(count) + " is over 262143");
    EXPECT_EQ(resp.timestamp, 7u);
  }
  EXPECT_EQ(Tso(1), ((t0 + 10) << 18) | 1);
}

TEST_F(PdTest, ConcurrentBatchesNeverOverlap) {
  constexpr int kThreads = 4;
  struct Batch {
    uint64_t first, count;
  };
  std::vector<std::vector<Batch>> ts(kThreads), ids(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 300; i++) {
        // Big, uneven batches force the overflow rule many times per ms; the
        // clock ticks now and then.
        const auto count = static_cast<uint32_t>(1 + (i * 7919 + t * 104729) % 262143);
        if (i % 50 == 0) now_++;
        ts[t].push_back({Tso(count), count});
        const auto n = static_cast<uint32_t>(1 + (i + t) % 13);
        ids[t].push_back({Alloc(n), n});
      }
    });
  }
  for (std::thread& th : threads) th.join();
  for (auto* per_thread : {&ts, &ids}) {
    std::vector<Batch> all;
    for (const auto& list : *per_thread) {
      for (size_t i = 1; i < list.size(); i++) EXPECT_GT(list[i].first, list[i - 1].first);
      all.insert(all.end(), list.begin(), list.end());
    }
    std::sort(all.begin(), all.end(), [](Batch a, Batch b) { return a.first < b.first; });
    for (size_t i = 1; i < all.size(); i++) {
      EXPECT_LT(all[i - 1].first + all[i - 1].count - 1, all[i].first);
    }
  }
  for (const auto& list : ts) {
    for (Batch b : list) {
      const uint64_t last = b.first + b.count - 1;
      EXPECT_EQ(last >> 18, b.first >> 18);  // one millisecond, below 0x3FFFF
      EXPECT_LT(last & PdService::kMaxLogical, PdService::kMaxLogical);
    }
  }
}

TEST_F(PdTest, IdentifierMarkKeepsAMarginOf1000) {
  EXPECT_EQ(Alloc(1), 1024u);
  EXPECT_EQ(Get(kIdAllocKey), Fixed64(2025));
  for (uint64_t want = 1025; want <= 2024; want++) ASSERT_EQ(Alloc(0), want);
  EXPECT_EQ(Get(kIdAllocKey), Fixed64(2025));  // 1000 ids without a write
  EXPECT_EQ(Alloc(1), 2025u);
  EXPECT_EQ(Get(kIdAllocKey), Fixed64(3026));
  EXPECT_EQ(Alloc(5000), 2026u);
  EXPECT_EQ(Get(kIdAllocKey), Fixed64(8026));
  Reopen();  // a restart resumes at the mark
  EXPECT_EQ(Alloc(1), 8026u);

  // A mark far ahead of memory is left alone.
  Put(kIdAllocKey, Fixed64(50000));
  EXPECT_EQ(Alloc(1), 8027u);
  EXPECT_EQ(Get(kIdAllocKey), Fixed64(50000));

  // A damaged mark is never taken for "nothing handed out yet": it fails
  // the batch while running and the start after it, and so does a mark
  // that cannot be read (a store reopened with another passphrase).
  Put(kIdAllocKey, std::string("\x10\x00\x00\x00", 4));
  pdpb::AllocIdResponse resp;
  EXPECT_EQ(service_->AllocId(pdpb::AllocIdRequest{1}, &resp).ToString(),
            "Corruption: identifier mark pd/id_alloc has 4 bytes, not 8");
  EXPECT_EQ(TryReopen().ToString(), "Corruption: identifier mark pd/id_alloc has 4 bytes, not 8");
  Put(kIdAllocKey, Fixed64(9000));
  EXPECT_EQ(TryReopen(0, lsm::DefaultFileIo(), "secret").ToString(),
            "Corruption: identifier mark pd/id_alloc: tde: ciphertext too short");
  Put(kIdAllocKey, Fixed64(9000));  // sealed under "secret" now
  Put(kBootstrappedKey, "1");
  EXPECT_EQ(TryReopen(0, lsm::DefaultFileIo(), "other").ToString(),
            "InvalidArgument: identifier mark pd/id_alloc: sm4: bad padding");

  // An unreadable bootstrap marker fails the bootstrap instead of writing
  // a first cluster over a live one.
  Put(kIdAllocKey, Fixed64(9000));  // readable under "other"
  Reopen(0, lsm::DefaultFileIo(), "other");
  pdpb::BootstrapRequest boot;
  boot.region.id = 2;
  pdpb::BootstrapResponse boot_resp;
  EXPECT_EQ(service_->Bootstrap(boot, &boot_resp).ToString(), "InvalidArgument: sm4: bad padding");
  EXPECT_EQ(RouteId(""), "NotFound: cluster not bootstrapped");
}

TEST(PdFaultTest, FailedMarkWriteHandsOutNothing) {
  lsm::FaultInjectingFileIo io;
  struct Fixture : PdTest {
    void TestBody() override {}
  } f;
  f.Reopen(0, &io);
  EXPECT_EQ(f.Alloc(1), 1024u);
  io.FailFrom(lsm::FileOp::kWrite, 1, "wal-");
  pdpb::AllocIdResponse resp;
  resp.first_id = 77;
  EXPECT_FALSE(f.service_->AllocId(pdpb::AllocIdRequest{2000}, &resp).ok());  // passes 2025
  EXPECT_EQ(resp.first_id, 77u);
  io.ClearAll();
  f.Reopen();
  EXPECT_EQ(f.Alloc(1), 2025u);
}

// A state directory whose only table was written before tables carried
// run checksums, with a damaged record (op 3) among the region records:
// the service starts, every method serves, and only the lookups that must
// read past the damage fail, with the read's own text.
TEST(PdDamageTest, DamagedTableRecordFailsOnlyTheReadsThatMeetIt) {
  const kandb::testing::ScratchDir scratch("kandb-pd-damage");
  const std::string& dir = scratch.path();
  std::vector<lsm::Entry> entries = {
      {lsm::kOpPut, kBootstrappedKey, "1"},
      {lsm::kOpPut, RegionKey(2), pdpb::Encode(MakeRegion(2, "", "m", {1}))},
      {lsm::kOpPut, RegionKey(3), pdpb::Encode(MakeRegion(3, "m", "", {1}))},
  };
  // A point read of such a table walks its run of 16 records from the
  // start: the store record goes into the next run, past the damage.
  for (char i = 'a'; entries.size() < lsm::kTableIndexInterval; ++i) {
    entries.push_back({lsm::kOpPut, std::string("pd/rz") + i, "x"});
  }
  entries.push_back({lsm::kOpPut, StoreKey(1), pdpb::Encode(MakeStore(1))});
  const std::string path = lsm::TableFileName(dir, 1);
  std::unique_ptr<lsm::TableBuilder> builder;
  ASSERT_TRUE(lsm::TableBuilder::Open(lsm::DefaultFileIo(), path, entries.size(), &builder).ok());
  size_t damaged_at = 0;
  for (const lsm::Entry& e : entries) {
    if (e.key == RegionKey(3)) damaged_at = builder->file_size();
    ASSERT_TRUE(builder->Add(e.op, e.key, e.value).ok());
  }
  ASSERT_TRUE(builder->Finish().ok());
  std::shared_ptr<lsm::SstReader> reader;
  ASSERT_TRUE(lsm::SstReader::Open(lsm::DefaultFileIo(), path, &reader).ok());
  const lsm::SstReader::Layout layout = reader->layout();
  reader.reset();
  // Without the checksum block (the footer's offsets stay right), as every
  // table written before it existed.
  std::string file = kandb::testing::ReadFileOrEmpty(path);
  file = file.substr(0, layout.filter_offset + layout.filter_size) + file.substr(file.size() - lsm::kTableFooterSize);
  file[damaged_at] = 3;
  kandb::testing::WriteFileOrDie(path, file);
  lsm::ManifestState manifest;
  manifest.next_file = 2;
  manifest.sst_files = {1};
  bool published = false;
  ASSERT_TRUE(lsm::WriteManifest(lsm::DefaultFileIo(), dir, manifest, &published).ok());

  std::unique_ptr<store::MetaStore> store;
  ASSERT_TRUE(store::MetaStore::Open(dir, "", 0, &store).ok());
  std::unique_ptr<PdService> service;
  const Status created = PdService::Create(store.get(), 0, &service);
  ASSERT_TRUE(created.ok()) << created.ToString();
  pdpb::TsoResponse tso;
  EXPECT_TRUE(service->Tso({1}, &tso).ok());
  pdpb::AllocIdResponse ids;
  EXPECT_TRUE(service->AllocId({1}, &ids).ok());
  EXPECT_EQ(ids.first_id, PdService::kFirstId);
  pdpb::BootstrapResponse boot;
  EXPECT_TRUE(service->Bootstrap({MakeStore(4), MakeRegion(9, "", ""), {}}, &boot).ok());
  EXPECT_TRUE(boot.already_bootstrapped);
  pdpb::GetRegionResponse route;
  const Status routed = service->GetRegion({"a"}, &route);  // region 2 comes before the damage
  ASSERT_TRUE(routed.ok()) << routed.ToString();
  EXPECT_EQ(route.region.id, 2u);
  EXPECT_EQ(route.leader_store, MakeStore(1));
  EXPECT_EQ(service->GetRegion({"z"}, &route).ToString(), "Corruption: sst bad record op");
  // The region reads too: a record before the damage is read, a scan
  // that must walk past it fails with the read's text.
  ASSERT_TRUE(service->GetRegionById({2}, &route).ok());
  EXPECT_EQ(route.region.id, 2u);
  EXPECT_EQ(service->GetRegionById({3}, &route).ToString(), "Corruption: sst bad record op");
  pdpb::ScanRegionsResponse scan;
  EXPECT_EQ(service->ScanRegions({"", "", 1}, &scan).ToString(), "Corruption: sst bad record op");
}

// A term of a replicated server hands out identifiers only below a mark
// it wrote itself: a mark raised by someone else is neither trusted nor
// lowered by a write of its own, and a write that failed (it may still have
// landed) is never followed by a lower one.
TEST(PdOwnMarksTest, IdentifiersOnlyBelowMarksItWrote) {
  lsm::FaultInjectingFileIo io;
  const kandb::testing::ScratchDir dir("kandb-pd-own");
  std::unique_ptr<store::MetaStore> store;
  ASSERT_TRUE(store::MetaStore::Open(dir.path(), "", 0, &io, &store).ok());
  PdService::Options options;
  options.own_id_marks = true;
  std::unique_ptr<PdService> service;
  ASSERT_TRUE(PdService::Create(store.get(), options, &service).ok());
  const auto alloc = [&](uint32_t n) {
    pdpb::AllocIdResponse resp;
    const Status s = service->AllocId({n}, &resp);
    return s.ok() ? std::to_string(resp.first_id) : s.ToString();
  };
  const auto mark = [&] {
    std::string value;
    bool found = false;
    EXPECT_TRUE(store->Get(kIdAllocKey, &value, &found).ok());
    return found && value.size() == 8 ? DecodeFixed64(value.data()) : 0;
  };
  EXPECT_EQ(alloc(1), "1024");
  EXPECT_EQ(mark(), 2025u);
  // Another writer raises the mark: what lies below this service's own
  // mark is still its own, and needs no write.
  ASSERT_TRUE(store->Put({{kIdAllocKey, Fixed64(9000)}}).ok());
  EXPECT_EQ(alloc(1000), "1025");
  EXPECT_EQ(mark(), 9000u);
  // Past it, a mark of its own is written (fenced, on etcd) rather than
  // the raised one trusted.
  EXPECT_EQ(alloc(1), "2025");
  EXPECT_EQ(mark(), 3026u);
  io.FailFrom(lsm::FileOp::kWrite, 1, "wal-");
  EXPECT_NE(alloc(5000).find("wal write"), std::string::npos);
  io.ClearAll();
  EXPECT_EQ(alloc(1001), "2026");  // 3027 is enough, but 8026 was tried
  EXPECT_EQ(mark(), 8026u);
}

TEST_F(PdTest, RoutingCorners) {
  PutStores({1, 3});
  Put(kBootstrappedKey, "");  // a marker with any value counts
  Put(RegionKey(5), pdpb::Encode(MakeRegion(5, "b", "\xff", {3, 7, 1})));
  Put(RegionKey(6), pdpb::Encode(MakeRegion(6, "\xff\xff", "")));
  struct Case {
    std::string key, want;
  } cases[] = {
      {"b", "5"}, {"\xfe\xff\xff", "5"}, {"\xff", "NotFound: no region covers key"},
      {"\xff\xfe", "NotFound: no region covers key"}, {"\xff\xff", "6"}, {"\xff\xff\xff", "6"},
      {"", "NotFound: no region covers key"},
  };
  for (const Case& c : cases) EXPECT_EQ(RouteId(c.key), c.want) << c.key;

  // Overlaps are not checked: the first record in key order wins, so 10
  // beats 5 and 9 where they overlap.
  Put(RegionKey(9), pdpb::Encode(MakeRegion(9, "", "c")));
  Put(RegionKey(10), pdpb::Encode(MakeRegion(10, "bb", "\xff")));
  EXPECT_EQ(RouteId("a"), "9");
  EXPECT_EQ(RouteId("b"), "5");
  EXPECT_EQ(RouteId("bb"), "10");

  // Unregistered peer stores are left out; a peerless region answers alone.
  pdpb::GetRegionResponse resp;
  ASSERT_TRUE(service_->GetRegion({"\xff\xff"}, &resp).ok());
  EXPECT_EQ(resp.leader, pdpb::Peer());
  EXPECT_TRUE(resp.stores.empty());
  Put(RegionKey(10), "garbage");  // covers nothing now
  const pdpb::GetRegionRequest req{"c"};
  ASSERT_TRUE(service_->GetRegion(req, &resp).ok());
  EXPECT_EQ(resp.region.id, 5u);
  EXPECT_EQ(resp.stores, (std::vector<pdpb::Store>{MakeStore(3), MakeStore(1)}));

  // An undecodable follower store is left out; an undecodable leader store
  // fails and leaves the response alone.
  Put(StoreKey(1), "\x01");
  ASSERT_TRUE(service_->GetRegion(req, &resp).ok());
  EXPECT_EQ(resp.stores, (std::vector<pdpb::Store>{MakeStore(3)}));
  Put(StoreKey(3), "\x01");
  resp.region.id = 99;
  EXPECT_EQ(service_->GetRegion(req, &resp).ToString(), "Corruption: bad store record");
  EXPECT_EQ(resp.region.id, 99u);
  // A key nothing covers names the damaged region record.
  EXPECT_EQ(RouteId("\xff"), "Corruption: bad region record");

  // Puts then deletes in one batch: written and removed ends removed.
  pdpb::UpsertRegionResponse up_resp;
  ASSERT_TRUE(service_->UpsertRegion({{MakeRegion(2, "", "b"), MakeRegion(2, "", "a"), MakeRegion(4, "x", "")},
                                      {4, 10, 42}},
                                     &up_resp)
                  .ok());
  EXPECT_EQ(Get(RegionKey(2)), pdpb::Encode(MakeRegion(2, "", "a")));  // later one wins
  EXPECT_EQ(Get(RegionKey(4)), "<absent>");
  EXPECT_EQ(Get(RegionKey(10)), "<absent>");
}

// Each case runs on its own service, with stores 1, 2, 3 and 10 registered,
// store 4 undecodable and store 5 without an address.
TEST_F(PdTest, AutoHealAndPromotion) {
  const std::string kS10 = MakeStore(10).address;
  const struct {
    uint32_t target;
    uint64_t reporter;
    std::vector<pdpb::RegionHeartbeatEntry> entries;
    Cmds want;
  } cases[] = {
      // Add on the first usable store in key order ("pd/store/10" sorts
      // before "pd/store/3"), one per region per heartbeat.
      {3, 1, {Entry(1, {1, 2}), Entry(5, {1})}, {Cmd(pdpb::kAddPeer, 1, 10, kS10), Cmd(pdpb::kAddPeer, 5, 10, kS10)}},
      {4, 1, {Entry(1, {1, 2, 10})}, {Cmd(pdpb::kAddPeer, 1, 3, MakeStore(3).address)}},
      // Every usable store holds a member: no add, but learners are promoted.
      {6, 1, {Entry(7, {1, 2, 3, 10}, {}, {9, 8})}, {Cmd(pdpb::kPromoteLearner, 7, 9), Cmd(pdpb::kPromoteLearner, 7, 8)}},
      // Remove a member the reporter marks as a candidate, else the first
      // member; never the reporter, nor a store 0; a candidate that is not
      // a member does not count.
      {1, 4, {Entry(1, {4, 6, 7}, {7})}, {Cmd(pdpb::kRemovePeer, 1, 7)}},
      {1, 4, {Entry(1, {4, 6}, {4})}, {Cmd(pdpb::kRemovePeer, 1, 6)}},
      {1, 4, {Entry(1, {6, 4, 7}, {9})}, {Cmd(pdpb::kRemovePeer, 1, 6)}},
      {1, 4, {Entry(1, {4, 4})}, {}},
      {1, 4, {Entry(1, {0, 4})}, {}},
      {1, 4, {Entry(1, {4, 0, 6}, {0})}, {}},
  };
  for (const auto& c : cases) {
    Reopen();
    Put(StoreKey(4), "\x01");
    PutStores({1, 2, 3, 10});
    Put(StoreKey(5), pdpb::Encode(pdpb::Store{5, "", 0}));
    Reopen(c.target);
    EXPECT_EQ(Heartbeat(c.reporter, c.entries), c.want) << "target " << c.target;
  }
}

TEST_F(PdTest, StaleReplicasAndLeaderBalancing) {
  PutStores({1, 2, 3});
  // Stale replicas only on a record that decodes and omits the reporter,
  // once per listed id, duplicates included.
  Put(RegionKey(20), pdpb::Encode(MakeRegion(20, "", "m", {1, 2})));
  Put(RegionKey(21), pdpb::Encode(MakeRegion(21, "m", "", {2, 3})));
  Put(RegionKey(23), "garbage");
  EXPECT_EQ(Heartbeat(1, {}, {20, 21, 23, 24, 21}),
            (Cmds{Cmd(pdpb::kDestroyStaleReplica, 21, 1), Cmd(pdpb::kDestroyStaleReplica, 21, 1)}));
  // With the membership versions the replicas know (one per id), a record
  // behind the replica's (conf_version 1 here) keeps it; not one per id,
  // they are ignored.
  EXPECT_EQ(Heartbeat(1, {}, {21, 21, 21}, {0, 1, 2}),
            (Cmds{Cmd(pdpb::kDestroyStaleReplica, 21, 1), Cmd(pdpb::kDestroyStaleReplica, 21, 1)}));
  EXPECT_EQ(Heartbeat(1, {}, {21}, {2, 2}), Cmds{Cmd(pdpb::kDestroyStaleReplica, 21, 1)});

  // A transfer needs the target to lead fewer than the reporter's count
  // less one: store 2 leads 2 against store 1's 5, then 4 against 5.
  Heartbeat(2, {Entry(100, {2, 1}), Entry(101, {2, 1})});
  std::vector<pdpb::RegionHeartbeatEntry> five;
  Cmds transfers;
  for (uint64_t r = 1; r <= 5; r++) {
    five.push_back(Entry(r, {1, 2}, {2}));
    transfers.push_back(Cmd(pdpb::kTransferLeader, r, 2));
  }
  EXPECT_EQ(Heartbeat(1, five), transfers);
  Heartbeat(2, {Entry(102, {2, 1}), Entry(103, {2, 1})});
  EXPECT_TRUE(Heartbeat(1, five).empty());

  // The least loaded candidate, the earlier member on ties (store 5, never
  // registered, leads none); counts move with regions.
  Reopen();
  PutStores({4});
  Heartbeat(2, {Entry(100, {2})});
  Heartbeat(3, {Entry(200, {3})});
  EXPECT_EQ(Heartbeat(1, {Entry(1, {1, 2, 3, 4}, {2, 3, 4}), Entry(2, {1, 5, 4}, {4, 5})}),
            (Cmds{Cmd(pdpb::kTransferLeader, 1, 4), Cmd(pdpb::kTransferLeader, 2, 5)}));
  Heartbeat(4, {Entry(1, {4}), Entry(2, {4})});
  EXPECT_TRUE(Heartbeat(1, {Entry(9, {1, 4}, {4})}).empty());  // store 1 leads 1 now
}

// Store heartbeats: the first one registers the store and makes the cluster
// scheduled by what stores report; the record keeps the address, labels and
// the operator's removal across a restart, the statistics stay in memory;
// a removed store is Offline while it holds replicas, Tombstone once it
// holds none, and refused from then on.
TEST_F(PdTest, StoreHeartbeatsStatesAndRemoval) {
  Put(kBootstrappedKey, "1");
  PutStores({1, 2, 3});
  Put(RegionKey(50), pdpb::Encode(MakeRegion(50, "", "", {1, 3})));
  Reopen(3);
  // No store takes part yet: the first store in key order, as always.
  EXPECT_EQ(Heartbeat(1, {Entry(50, {1, 3})}), (Cmds{Cmd(pdpb::kAddPeer, 50, 2, MakeStore(2).address)}));

  pdpb::StoreHeartbeatRequest hb;
  hb.store.id = 4;
  hb.store.address = "10.0.0.4:20160";
  hb.store.labels = {{"zone", "z3"}};
  hb.stats.capacity = 100;
  hb.stats.available = 90;
  pdpb::StoreHeartbeatResponse state;
  ASSERT_TRUE(service_->StoreHeartbeat(hb, &state).ok());
  EXPECT_EQ(state.state, pdpb::kStoreUp);
  pdpb::Store record;
  const std::string stored = Get(StoreKey(4));
  ASSERT_TRUE(pdpb::Decode(stored.size(), stored.data(), &record));
  EXPECT_EQ(record.labels, hb.store.labels);
  EXPECT_NE(record.first_heartbeat_ms, 0u);
  EXPECT_EQ(Get(StoreKey(1)), pdpb::Encode(MakeStore(1)));  // the others untouched

  // Now by score: store 2 holds nothing and never reported, store 4 has
  // room; 3 holds a replica. The change in flight is repeated, not redone.
  Cmds first = Heartbeat(1, {Entry(60, {1})});
  ASSERT_EQ(first.size(), 1u);
  EXPECT_EQ(first[0].kind, pdpb::kAddPeer);
  EXPECT_NE(first[0].store_id, 3u);
  EXPECT_EQ(Heartbeat(1, {Entry(60, {1})}), first);

  pdpb::GetStoreResponse one;
  ASSERT_TRUE(service_->GetStore(pdpb::GetStoreRequest{4}, &one).ok());
  EXPECT_EQ(one.store.state, pdpb::kStoreUp);
  EXPECT_EQ(one.store.stats, hb.stats);
  EXPECT_NE(one.store.last_heartbeat_ms, 0u);
  EXPECT_EQ(service_->GetStore(pdpb::GetStoreRequest{9}, &one).ToString(), "NotFound: store 9 not found");
  pdpb::GetAllStoresResponse all;
  ASSERT_TRUE(service_->GetAllStores(pdpb::GetAllStoresRequest{}, &all).ok());
  ASSERT_EQ(all.stores.size(), 4u);
  EXPECT_EQ(all.stores[2].store.id, 3u);
  EXPECT_EQ(all.stores[2].state, pdpb::kStoreUnknown);
  EXPECT_EQ(all.stores[2].replicas, 1u);

  // Removal: store 3 still holds region 50's replica, store 4 nothing.
  pdpb::RemoveStoreResponse removed;
  ASSERT_TRUE(service_->RemoveStore(pdpb::RemoveStoreRequest{3}, &removed).ok());
  EXPECT_EQ(removed.state, pdpb::kStoreOffline);
  ASSERT_TRUE(service_->RemoveStore(pdpb::RemoveStoreRequest{4}, &removed).ok());
  EXPECT_EQ(removed.state, pdpb::kStoreTombstone);
  EXPECT_EQ(service_->StoreHeartbeat(hb, &state).ToString(), "InvalidArgument: store 4 is removed (tombstone)");
  EXPECT_EQ(service_->RemoveStore(pdpb::RemoveStoreRequest{8}, &removed).ToString(), "NotFound: store 8 not found");

  // The removal and the labels outlive a restart, and a store registering
  // again on its own restart; the statistics do not.
  Reopen(3);
  pdpb::BootstrapResponse registered;
  ASSERT_TRUE(service_->Bootstrap(pdpb::BootstrapRequest{MakeStore(3), MakeRegion(1, "", "", {3}), {}}, &registered).ok());
  ASSERT_TRUE(registered.already_bootstrapped);
  ASSERT_TRUE(service_->GetStore(pdpb::GetStoreRequest{3}, &one).ok());
  EXPECT_EQ(one.store.state, pdpb::kStoreOffline);
  // Store 3's replica moves away: once the record no longer lists it, its
  // next heartbeat finds it empty and makes it Tombstone.
  Put(RegionKey(50), pdpb::Encode(MakeRegion(50, "", "", {1, 2})));
  hb.store = MakeStore(3);
  ASSERT_TRUE(service_->StoreHeartbeat(hb, &state).ok());
  EXPECT_EQ(state.state, pdpb::kStoreTombstone);
  ASSERT_TRUE(service_->GetAllStores(pdpb::GetAllStoresRequest{true}, &all).ok());
  EXPECT_EQ(all.stores.size(), 2u);  // 1 and 2; 3 and 4 are gone
}

// Once stores send store heartbeats, leader balancing compares the leader
// counts they report, and moves one region's count with each transfer it
// chooses until the stores report again, so that a heartbeat evens the
// load out instead of sending every region it reports to the least loaded
// store (which the next heartbeat would send back). A store's next report
// replaces what was counted for it.
TEST_F(PdTest, InformedLeaderBalancingStopsAtEven) {
  PutStores({1, 2});
  pdpb::StoreHeartbeatRequest hb;
  pdpb::StoreHeartbeatResponse state;
  for (uint64_t id : {1, 2}) {
    hb.store = MakeStore(id);
    hb.stats.leader_count = id == 1 ? 5 : 0;
    ASSERT_TRUE(service_->StoreHeartbeat(hb, &state).ok());
  }
  std::vector<pdpb::RegionHeartbeatEntry> five;
  for (uint64_t r = 1; r <= 5; r++) five.push_back(Entry(r, {1, 2}, {2}));
  EXPECT_EQ(Heartbeat(1, five), (Cmds{Cmd(pdpb::kTransferLeader, 1, 2), Cmd(pdpb::kTransferLeader, 2, 2)}));
  // Until store 2 reports, the transfers stand: nothing more moves.
  EXPECT_EQ(Heartbeat(1, {five[2], five[3], five[4]}), Cmds{});
  pdpb::StatsResponse stats;
  kanrpc::RpcServer unused;
  service_->GetStats(unused, &stats);
  EXPECT_EQ(stats.scheduling.stores_up, 2u);
  EXPECT_EQ(stats.scheduling.transfer_leader, 2u);
}

// The window between a store heartbeat's read of its record and its
// write: a removal that lands there is kept, not overwritten by the record
// as the heartbeat first read it.
TEST_F(PdTest, StoreHeartbeatNeverUndoesARemoval) {
  Put(kBootstrappedKey, "1");
  PutStores({1, 5});
  Put(RegionKey(50), pdpb::Encode(MakeRegion(50, "", "", {1, 5})));
  Reopen(3);
  std::atomic<int> stage{0};
  service_->SetStoreRecordHookForTesting([&stage] {
    stage = 1;
    while (stage.load() != 2) std::this_thread::yield();
  });
  std::thread heartbeat([this] {
    pdpb::StoreHeartbeatRequest hb;
    hb.store = MakeStore(5);
    hb.store.labels = {{"zone", "z1"}};  // a change: the record is written
    pdpb::StoreHeartbeatResponse state;
    EXPECT_TRUE(service_->StoreHeartbeat(hb, &state).ok());
    EXPECT_EQ(state.state, pdpb::kStoreOffline);
  });
  while (stage.load() != 1) std::this_thread::yield();
  pdpb::RemoveStoreResponse resp;
  ASSERT_TRUE(service_->RemoveStore(pdpb::RemoveStoreRequest{5}, &resp).ok());
  EXPECT_EQ(resp.state, pdpb::kStoreOffline);  // it still holds region 50's replica
  stage = 2;
  heartbeat.join();
  pdpb::Store record;
  const std::string stored = Get(StoreKey(5));
  ASSERT_TRUE(pdpb::Decode(stored.size(), stored.data(), &record));
  EXPECT_EQ(record.node_state, pdpb::kNodeOffline);
  EXPECT_EQ(record.labels.size(), 1u);
}

}  // namespace
}  // namespace kandb::meta
