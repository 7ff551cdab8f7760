// Crash torture of the real server: clients mix every request that writes
// or reads durable state while the server is SIGKILLed at random moments
// and restarted on the same state directory. After every restart the
// banner is its only output; every acknowledged upsert routes exactly as
// acknowledged and every acknowledged removal stays removed, the batch in
// flight at the kill whole or absent; every acknowledged store is listed;
// timestamps and identifiers continue above all handed out, and none is
// handed out twice. Records of several KiB make the engine switch, flush
// and compact; one kill in four lands while a table file or manifest is
// being published. KANDB_TORTURE_CYCLES (default 10), KANDB_TORTURE_MIB
// (mean volume between kills) and KANDB_TORTURE_FULL_CYCLES (the run on a
// small file system that fills up) choose longer runs.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "app/meta_server_test_util.h"
#include "app/stress_test_util.h"
#include "common/test_util.h"
#include "pdpb/messages.h"
#include "rpc/client.h"

namespace kandb::pdpb {
// Readable failure output for command lists.
static void PrintTo(const ScheduleCommand& c, std::ostream* os) {
  *os << "{kind " << c.kind << ", region " << c.region_id << ", store " << c.store_id << "}";
}
}  // namespace kandb::pdpb

namespace kandb {
namespace {

using kanrpc::RpcClient;
using testing::MetaServer;

constexpr int kWriters = 4;
constexpr int kSlotsPerWriter = 24;
// Store 1 comes with the bootstrap; writer w registers store 2 + w.
constexpr uint64_t kStores = kWriters + 1;
constexpr uint64_t kBootstrapRegionId = 1;
// Region ids of the writers' slots, far from the bootstrap region's.
constexpr uint64_t kSlotRegionBase = 1000000;
// Heartbeats report from stores that hold none of the regions' peers.
constexpr uint64_t kReportingStoreBase = 100;
// Size of a region record's filler: a few KiB, so memtables fill quickly.
constexpr size_t kMinFiller = 2 * 1024;
constexpr size_t kMaxFiller = 24 * 1024;
constexpr uint64_t kMiB = 1024 * 1024;
// A cycle that has not reached its volume by then is killed anyway.
constexpr auto kMaxCycleTime = std::chrono::seconds(120);

uint64_t SlotRegionId(int writer, int slot) {
  return kSlotRegionBase + static_cast<uint64_t>(writer) * 1000 + static_cast<uint64_t>(slot);
}

// The key that routes to a slot: the slot's region starts there and ends at
// the same prefix followed by "/" and its filler, so the regions of
// different slots never overlap, and none overlaps the bootstrap region,
// which ends at "t".
std::string SlotKey(int writer, int slot) {
  char key[16];
  std::snprintf(key, sizeof(key), "t%02d%04d", writer, slot);
  return key;
}

pdpb::Region BootstrapRegion() {
  pdpb::Region region{kBootstrapRegionId, "", "t", {1, 1}, {}};
  // A peer on every store, so that routing to it lists every registered store.
  for (uint64_t store = 1; store <= kStores; store++) region.peers.push_back({store, store, 0});
  return region;
}

pdpb::Store StoreRecord(uint64_t id, uint32_t generation) {
  return pdpb::Store{id, "10.0." + std::to_string(id) + "." + std::to_string(generation) + ":20160", 1};
}

// What a client last knows of one slot's region.
struct SlotState {
  bool present = false;
  pdpb::Region region;
  bool operator==(const SlotState&) const = default;
};

struct IdBatch {
  uint64_t first = 0;
  uint32_t count = 0;
};

// Figures of the whole run, for the closing line.
struct Figures {
  uint64_t routing_checks = 0;
  uint64_t in_flight_applied = 0;
  uint64_t in_flight_dropped = 0;
};

// One client. It owns a set of slots (no other client writes them), so it
// knows exactly what it last had acknowledged, plus the one request that a
// kill may have interrupted.
class Writer {
 public:
  Writer(int index, uint64_t seed) : index_(index), rng_(seed), slots_(kSlotsPerWriter) {}

  // Runs requests until the first failure, which is the kill.
  void RunUntilKilled(const MetaServer& server, std::atomic<uint64_t>* acknowledged_bytes) {
    auto client = server.NewClient();
    last_timestamp_ = 0;
    for (;;) {
      const uint64_t pick = rng_() % 100;
      Status s;
      if (pick < 50) {
        s = Upsert(client.get(), acknowledged_bytes);
      } else if (pick < 65) {
        s = AllocIds(client.get());
      } else if (pick < 80) {
        s = Timestamps(client.get());
      } else if (pick < 92) {
        s = Heartbeat(client.get());
      } else {
        s = Register(client.get());
      }
      if (!s.ok()) return;
    }
  }

  // After a restart: reads back every slot and the writer's store through
  // `client`, checks them against what was acknowledged, and settles what
  // was in flight.
  void Verify(RpcClient* client, const std::map<uint64_t, pdpb::Store>& routed_stores,
              Figures* figures) {
    SCOPED_TRACE("writer " + std::to_string(index_));
    VerifyStore(routed_stores);

    int applied = 0, dropped = 0;
    for (int slot = 0; slot < kSlotsPerWriter; slot++) {
      SlotState seen;
      if (!Route(client, SlotKey(index_, slot), &seen)) continue;
      figures->routing_checks++;
      auto in_flight = in_flight_.find(slot);
      if (seen == slots_[slot]) {
        if (in_flight != in_flight_.end()) dropped++;
      } else if (in_flight != in_flight_.end() && seen == in_flight->second) {
        applied++;
      } else {
        ADD_FAILURE() << "slot " << slot << " (region " << SlotRegionId(index_, slot) << ") routes to "
                      << (seen.present ? "version " + std::to_string(seen.region.epoch.version) : "nothing")
                      << ", acknowledged version " << slots_[slot].region.epoch.version;
      }
      slots_[slot] = seen;
    }
    if (!in_flight_.empty()) {
      // One batch is one write: all of it or none of it.
      EXPECT_FALSE(applied > 0 && dropped > 0)
          << "the batch in flight at the kill is applied to " << applied << " slots and missing from " << dropped;
      (applied > 0 ? figures->in_flight_applied : figures->in_flight_dropped)++;
    }
    in_flight_.clear();
  }

  // Moves this cycle's identifier batches and last timestamp out.
  void Harvest(std::vector<IdBatch>* ids, uint64_t* max_timestamp) {
    ids->insert(ids->end(), ids_.begin(), ids_.end());
    ids_.clear();
    *max_timestamp = std::max(*max_timestamp, last_timestamp_);
  }

  // Routes `key`; false (with a failure recorded) when the answer is neither
  // a region nor "no region covers key".
  static bool Route(RpcClient* client, const std::string& key, SlotState* seen) {
    pdpb::GetRegionResponse resp;
    Status s = client->Call("Pd.GetRegion", pdpb::GetRegionRequest{key}, &resp);
    if (!s.ok()) {
      if (s.message().find("no region covers key") != std::string::npos) {
        *seen = SlotState{};
        return true;
      }
      ADD_FAILURE() << "routing " << key << ": " << s.ToString();
      return false;
    }
    if (!resp.region.peers.empty()) {
      EXPECT_EQ(resp.leader, resp.region.peers[0]);
    }
    *seen = SlotState{true, resp.region};
    return true;
  }

 private:
  pdpb::Region MakeRegion(int slot) {
    const uint64_t version = next_version_++;
    const size_t filler = kMinFiller + rng_() % (kMaxFiller - kMinFiller);
    pdpb::Region region{SlotRegionId(index_, slot), SlotKey(index_, slot),
                        SlotKey(index_, slot) + "/" + std::to_string(version) + "/" +
                            std::string(filler, static_cast<char>('a' + version % 26)),
                        {version, version}, {}};
    // Three peers on distinct stores, with identifiers this client was handed.
    uint64_t store = 1 + rng_() % kStores;
    for (int p = 0; p < 3; p++) {
      const uint64_t peer_id = peer_ids_.empty() ? 0 : peer_ids_[rng_() % peer_ids_.size()];
      region.peers.push_back({peer_id, store, static_cast<uint8_t>(p == 2)});
      store = store % kStores + 1;
    }
    return region;
  }

  // Replaces or removes one to four slots in one batch.
  Status Upsert(RpcClient* client, std::atomic<uint64_t>* acknowledged_bytes) {
    std::vector<int> order(kSlotsPerWriter);
    for (int i = 0; i < kSlotsPerWriter; i++) order[i] = i;
    std::shuffle(order.begin(), order.end(), rng_);
    const int n = 1 + static_cast<int>(rng_() % 4);
    pdpb::UpsertRegionRequest req;
    in_flight_.clear();
    for (int i = 0; i < n; i++) {
      const int slot = order[i];
      if (slots_[slot].present && rng_() % 8 == 0) {
        req.removed_region_ids.push_back(SlotRegionId(index_, slot));
        in_flight_[slot] = SlotState{};
      } else {
        req.regions.push_back(MakeRegion(slot));
        in_flight_[slot] = SlotState{true, req.regions.back()};
      }
    }
    pdpb::UpsertRegionResponse resp;
    Status s = client->Call("Pd.UpsertRegion", req, &resp);
    if (!s.ok()) return s;  // in_flight_ stays: the kill may or may not have kept it
    for (const auto& [slot, state] : in_flight_) slots_[slot] = state;
    in_flight_.clear();
    acknowledged_bytes->fetch_add(pdpb::EncodedSize(req));
    return s;
  }

  Status AllocIds(RpcClient* client) {
    const pdpb::AllocIdRequest req{static_cast<uint32_t>(1 + rng_() % 64)};
    pdpb::AllocIdResponse resp;
    Status s = client->Call("Pd.AllocId", req, &resp);
    if (!s.ok()) return s;
    EXPECT_EQ(resp.count, req.count);
    ids_.push_back({resp.first_id, resp.count});
    if (peer_ids_.size() < 64) peer_ids_.push_back(resp.first_id);
    return s;
  }

  Status Timestamps(RpcClient* client) {
    const pdpb::TsoRequest req{static_cast<uint32_t>(1 + rng_() % 100)};
    pdpb::TsoResponse resp;
    Status s = client->Call("Pd.Tso", req, &resp);
    if (!s.ok()) return s;
    EXPECT_EQ(resp.count, req.count);
    EXPECT_GT(resp.timestamp, last_timestamp_);
    last_timestamp_ = resp.timestamp + resp.count - 1;
    return s;
  }

  // Reports some of this client's regions from a store that holds none of
  // their peers, with a caught-up learner each. The answer depends on the
  // region records as stored: a promotion per entry, then a stale-replica
  // command per listed region that exists.
  Status Heartbeat(RpcClient* client) {
    std::vector<int> present;
    for (int slot = 0; slot < kSlotsPerWriter; slot++) {
      if (slots_[slot].present) present.push_back(slot);
    }
    if (present.empty()) return Status::OK();
    std::shuffle(present.begin(), present.end(), rng_);

    const uint64_t reporter = kReportingStoreBase + static_cast<uint64_t>(index_);
    pdpb::RegionHeartbeatRequest req{reporter, {}, {}, {}};
    std::vector<pdpb::ScheduleCommand> expected;
    for (size_t i = 0; i < present.size() && i < 3; i++) {
      const pdpb::Region& region = slots_[present[i]].region;
      pdpb::RegionHeartbeatEntry entry{region.id, {}, {region.peers.back().store_id}, {}};
      for (const pdpb::Peer& peer : region.peers) entry.member_store_ids.push_back(peer.store_id);
      req.regions.push_back(entry);
      expected.push_back({pdpb::kPromoteLearner, region.id, region.peers.back().store_id, ""});
    }
    for (size_t i = 0; i < present.size() && i < 4; i++) {
      const uint64_t id = slots_[present[present.size() - 1 - i]].region.id;
      req.region_ids.push_back(id);
      expected.push_back({pdpb::kDestroyStaleReplica, id, reporter, ""});
    }
    pdpb::RegionHeartbeatResponse resp;
    Status s = client->Call("Pd.RegionHeartbeat", req, &resp);
    if (!s.ok()) return s;
    EXPECT_EQ(resp.commands, expected);
    return s;
  }

  // Registers this client's store again under a new address. The cluster
  // exists, so the region in the request must be ignored: it would take
  // over every key if it were written.
  Status Register(RpcClient* client) {
    pdpb::BootstrapRequest req{StoreRecord(2 + static_cast<uint64_t>(index_), ++store_generation_),
                               {kBootstrapRegionId, "", "", {999, 999}, {}}, {}};
    store_in_flight_ = req.store;
    pdpb::BootstrapResponse resp;
    Status s = client->Call("Pd.Bootstrap", req, &resp);
    if (!s.ok()) return s;
    EXPECT_TRUE(resp.already_bootstrapped);
    store_ = store_in_flight_;
    store_in_flight_.reset();
    return s;
  }

  void VerifyStore(const std::map<uint64_t, pdpb::Store>& routed_stores) {
    const uint64_t id = 2 + static_cast<uint64_t>(index_);
    auto it = routed_stores.find(id);
    std::optional<pdpb::Store> seen;
    if (it != routed_stores.end()) seen = it->second;
    EXPECT_TRUE(seen == store_ || (store_in_flight_.has_value() && seen == store_in_flight_))
        << "store " << id << " is listed as " << (seen ? seen->address : std::string("nothing"))
        << ", acknowledged " << (store_ ? store_->address : std::string("nothing"));
    store_ = seen;
    store_in_flight_.reset();
  }

  const int index_;
  std::mt19937_64 rng_;
  // Acknowledged state of the slots, and the batch a kill interrupted.
  std::vector<SlotState> slots_;
  std::map<int, SlotState> in_flight_;
  std::optional<pdpb::Store> store_;
  std::optional<pdpb::Store> store_in_flight_;
  uint64_t next_version_ = 1;
  uint32_t store_generation_ = 0;
  std::vector<uint64_t> peer_ids_;

  // Handed out during the current cycle.
  std::vector<IdBatch> ids_;
  uint64_t last_timestamp_ = 0;
};

// Starts the server on `state` and checks that it came up cleanly.
void StartCleanly(MetaServer* server, const std::string& state) {
  ASSERT_TRUE(server->Start(state));
  EXPECT_EQ(server->child()->Stdout(), testing::MetaBanner("127.0.0.1", server->port(), state));
  EXPECT_EQ(server->child()->Stderr(), "");
}

// Every line a server wrote on standard error is a fault report: a UTC
// timestamp, then the source.
void ExpectOnlyFaultReports(const std::string& err) {
  static const std::regex kReport("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z storage: .*");
  std::istringstream lines(err);
  std::string line;
  while (std::getline(lines, line)) EXPECT_TRUE(std::regex_match(line, kReport)) << line;
}

// The torture itself. With `fill_disks`, the state lies on a small file
// system and one cycle in two fills it at a random moment instead of
// killing at once: the clients then meet write failures (and stop at the
// first, which stays in flight), the server must stay up and keep reading,
// and only after the space is freed is it killed and checked as always.
void RunTorture(const std::string& state, const std::string& filler, int64_t cycles, int64_t mean_mib) {
  const bool fill_disks = !filler.empty();
  const uint64_t seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 rng(seed);
  int64_t disk_fills = 0;

  auto server = std::make_unique<MetaServer>();
  StartCleanly(server.get(), state);
  if (::testing::Test::HasFatalFailure()) return;
  pdpb::BootstrapResponse booted;
  ASSERT_TRUE(server->NewClient()->Call("Pd.Bootstrap", pdpb::BootstrapRequest{StoreRecord(1, 0), BootstrapRegion(), {}},
                                        &booted).ok());
  ASSERT_FALSE(booted.already_bootstrapped);

  std::vector<std::unique_ptr<Writer>> writers;
  for (int w = 0; w < kWriters; w++) writers.push_back(std::make_unique<Writer>(w, rng()));
  std::vector<IdBatch> ids;
  uint64_t max_timestamp = 0;
  uint64_t id_end = 0;  // one past the highest identifier handed out
  Figures figures;
  uint64_t acknowledged_bytes = 0;
  std::set<uint64_t> tables_written;
  int kills_during_publication = 0;

  for (int64_t cycle = 0; cycle < cycles; cycle++) {
    SCOPED_TRACE("cycle " + std::to_string(cycle));
    // A kill in four lands while the engine publishes a file; of the others,
    // one in five comes right after a restart, the rest after about the mean.
    const uint64_t mean = static_cast<uint64_t>(mean_mib) * kMiB;
    const bool at_publication = rng() % 4 == 0;
    const uint64_t budget = at_publication ? 3 * mean
                            : rng() % 5 == 0 ? rng() % (2 * kMiB)
                                             : mean / 2 + rng() % (mean + 1);
    const bool fill_disk = fill_disks && rng() % 2 == 0;
    // A temporary file that was not there before: a publication under way.
    const std::set<std::string> old_temporary = testing::ListStateFiles(state).temporary;
    auto publishing = [&] {
      for (const std::string& name : testing::ListStateFiles(state).temporary) {
        if (old_temporary.count(name) == 0) return true;
      }
      return false;
    };
    std::atomic<uint64_t> acknowledged{0};
    std::atomic<int> running{kWriters};
    std::vector<std::thread> threads;
    for (auto& writer : writers) {
      threads.emplace_back([&, w = writer.get()] {
        w->RunUntilKilled(*server, &acknowledged);
        running--;
      });
    }
    const auto deadline = std::chrono::steady_clock::now() + kMaxCycleTime;
    while (acknowledged.load() < budget && running.load() == kWriters &&
           std::chrono::steady_clock::now() < deadline) {
      if (at_publication && publishing()) break;
      std::this_thread::sleep_for(std::chrono::microseconds(at_publication ? 200 : 1000));
    }
    if (!at_publication) std::this_thread::sleep_for(std::chrono::microseconds(rng() % 5000));
    EXPECT_EQ(running.load(), kWriters) << "a client failed before the kill";
    if (fill_disk) {
      // Every client stops at its first failed write; the server stays up,
      // keeps reading, and says what failed.
      ASSERT_GT(testing::FillFileSystem(filler), 0u);
      const auto stop_deadline = std::chrono::steady_clock::now() + kMaxCycleTime;
      while (running.load() > 0 && std::chrono::steady_clock::now() < stop_deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      EXPECT_EQ(running.load(), 0) << "a client kept writing on a full disk";
      EXPECT_EQ(server->child()->Wait(0), -1) << "the server ended on a full disk";
      pdpb::TsoResponse tso;
      pdpb::GetRegionResponse root;
      EXPECT_TRUE(server->NewClient()->Call("Pd.Tso", pdpb::TsoRequest{1}, &tso).ok());
      EXPECT_TRUE(server->NewClient()->Call("Pd.GetRegion", pdpb::GetRegionRequest{""}, &root).ok());
      ExpectOnlyFaultReports(server->child()->Stderr());
      ASSERT_EQ(unlink(filler.c_str()), 0);
      disk_fills++;
    } else {
      EXPECT_EQ(server->child()->Stderr(), "");
    }
    server->Kill();
    for (std::thread& t : threads) t.join();
    acknowledged_bytes += acknowledged.load();
    for (auto& writer : writers) writer->Harvest(&ids, &max_timestamp);
    kills_during_publication += publishing();
    const std::set<uint64_t> tables = testing::ListStateFiles(state).tables;
    tables_written.insert(tables.begin(), tables.end());

    server = std::make_unique<MetaServer>();
    StartCleanly(server.get(), state);
    if (::testing::Test::HasFatalFailure()) break;
    auto client = server->NewClient();

    // Timestamps and identifiers continue above everything handed out.
    pdpb::TsoResponse tso;
    ASSERT_TRUE(client->Call("Pd.Tso", pdpb::TsoRequest{1}, &tso).ok());
    EXPECT_GT(tso.timestamp, max_timestamp);
    max_timestamp = tso.timestamp;
    for (const IdBatch& b : ids) id_end = std::max(id_end, b.first + b.count);
    pdpb::AllocIdResponse first_id;
    ASSERT_TRUE(client->Call("Pd.AllocId", pdpb::AllocIdRequest{1}, &first_id).ok());
    EXPECT_GE(first_id.first_id, id_end);
    ids.push_back({first_id.first_id, first_id.count});

    // The bootstrap region, with every store registered so far.
    pdpb::GetRegionResponse root;
    Status s = client->Call("Pd.GetRegion", pdpb::GetRegionRequest{}, &root);
    ASSERT_TRUE(s.ok()) << s.ToString();
    EXPECT_EQ(root.region, BootstrapRegion());
    EXPECT_EQ(root.leader_store, StoreRecord(1, 0));
    std::map<uint64_t, pdpb::Store> stores;
    for (const pdpb::Store& store : root.stores) {
      EXPECT_TRUE(stores.emplace(store.id, store).second) << "store " << store.id << " twice";
    }
    EXPECT_EQ(stores[1], StoreRecord(1, 0));

    for (auto& writer : writers) writer->Verify(client.get(), stores, &figures);
  }

  // No identifier twice over the whole run.
  std::sort(ids.begin(), ids.end(), [](const IdBatch& a, const IdBatch& b) { return a.first < b.first; });
  for (size_t i = 0; i + 1 < ids.size(); i++) {
    EXPECT_LE(ids[i].first + ids[i].count, ids[i + 1].first)
        << "identifiers " << ids[i].first << "+" << ids[i].count << " and " << ids[i + 1].first << " overlap";
  }
  EXPECT_EQ(server->child()->Stderr(), "");
  std::printf("crash torture%s: %lld kills (%lld on a full disk, %d during a publication), %.0f MiB acknowledged, "
              "%llu routing checks, in-flight batches %llu whole and %llu absent, %zu table files written\n",
              fill_disks ? " with full disks" : "", static_cast<long long>(cycles), static_cast<long long>(disk_fills),
              kills_during_publication, static_cast<double>(acknowledged_bytes) / kMiB,
              static_cast<unsigned long long>(figures.routing_checks),
              static_cast<unsigned long long>(figures.in_flight_applied),
              static_cast<unsigned long long>(figures.in_flight_dropped), tables_written.size());
  // Enough volume to switch the memtable must have flushed at least once;
  // otherwise the run tortured less than it claims.
  if (acknowledged_bytes > 3 * 64 * kMiB) {
    EXPECT_FALSE(tables_written.empty());
  }
  server->Kill();
}

TEST(CrashTortureTest, AcknowledgedStateSurvivesKillsAtRandomMoments) {
  const testing::ScratchDir dir("kandb-torture");
  RunTorture(dir.File("state"), "", testing::EnvInt("KANDB_TORTURE_CYCLES", 10),
             testing::EnvInt("KANDB_TORTURE_MIB", testing::kSanitizedBuild ? 24 : 80));
}

// The same on a 320 MiB file system that fills up now and then. Mounting
// needs root, which CI has; elsewhere the test is skipped.
TEST(CrashTortureTest, AcknowledgedStateSurvivesKillsAndFullDisks) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
  testing::Tmpfs fs(320);
  ASSERT_TRUE(fs.mounted()) << fs.error();
  RunTorture(fs.path() + "/state", fs.path() + "/filler", testing::EnvInt("KANDB_TORTURE_FULL_CYCLES", 8),
             testing::EnvInt("KANDB_TORTURE_MIB", testing::kSanitizedBuild ? 24 : 48));
}

}  // namespace
}  // namespace kandb
