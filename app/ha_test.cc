// The replicated server against real etcd members and real kandb-meta-ha
// processes: leader kills under load (also with etcd over TLS with client
// certificates, and the servers etcd refuses there), a leader paused past
// its lease, a leader whose lease was revoked, and the loss of etcd
// members. KANDB_HA_KILLS (default 5) sets the number of leader kills on
// plain etcd.

#include <signal.h>

#include <gtest/gtest.h>
#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "app/etcd_test_util.h"
#include "app/stress_test_util.h"
#include "meta/ha_server.h"
#include "pdpb/messages.h"
#include "rpc/client.h"
#include "rpc/server.h"

namespace kandb {
namespace {

// The live pairs of a range, collected from the backend's walk.
Status ScanAll(store::MetaBackend* backend, const std::string& start, const std::string& end, uint32_t limit,
               std::vector<lsm::Entry>* out) {
  out->clear();
  return backend->ForEach(start, end, limit, [out](std::string_view key, std::string_view value) {
    out->push_back(lsm::Entry{lsm::kOpPut, std::string(key), std::string(value)});
    return true;
  });
}

using testing::RetryFor;
using testing::SleepMs;
using testing::SteadyMs;
using testing::WaitFor;

// Load threads that are stopped and joined however the test body ends: a
// failed assertion returns early, and a thread still joinable at its
// destruction would end the whole test program.
class LoadThreads {
 public:
  explicit LoadThreads(std::atomic<bool>* stop) : stop_(stop) {}
  ~LoadThreads() { Join(); }
  template <class F>
  void Add(F f) {
    threads_.emplace_back(std::move(f));
  }
  void Join() {
    stop_->store(true);
    for (std::thread& t : threads_) {
      if (t.joinable()) t.join();
    }
  }

 private:
  std::atomic<bool>* const stop_;
  std::vector<std::thread> threads_;
};

constexpr int64_t kLeaseMs = 3000;

pdpb::Region RegionAt(uint64_t id, const std::string& key) {
  return pdpb::Region{id, key, key + '\0', {1, 1}, {pdpb::Peer{id + 1, 1, 0}}};
}

pdpb::UpsertRegionRequest UpsertAt(uint64_t id, const std::string& key) { return {{RegionAt(id, key)}, {}}; }

// The stored region records of the cluster, by region id.
std::map<uint64_t, std::string> StoredRegions(store::EtcdClient* etcd, const std::string& prefix) {
  std::map<uint64_t, std::string> out;
  std::vector<store::EtcdKv> kvs;
  bool more = false;
  int64_t revision = 0;
  const std::string from = prefix + "pd/region/";
  EXPECT_TRUE(etcd->Range(from, store::PrefixEnd(from), 0, 0, &kvs, &more, &revision).ok());
  for (const store::EtcdKv& kv : kvs) out[std::stoull(kv.key.substr(from.size()))] = kv.value;
  return out;
}

class HaTest : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = testing::MakeTempDir("kandb-ha"); }
  void TearDown() override { testing::RemoveTree(dir_); }

  static kanrpc::RpcClientOptions Options(int32_t attempts, int32_t timeout_ms = 1000) {
    return kanrpc::RpcClientOptions{timeout_ms, attempts};
  }

  // Bootstraps through any server of the list once a leader serves; the
  // tests' own regions lie above "a".
  static void Bootstrap(const std::string& targets) {
    kanrpc::RpcClient client(targets, Options(3));
    const pdpb::BootstrapRequest req{{1, "127.0.0.1:20160", 0}, {2, "", "a", {}, {}}, {}};
    pdpb::BootstrapResponse resp;
    const Status s = RetryFor(20000, [&] { return client.Call("Pd.Bootstrap", req, &resp); });
    ASSERT_TRUE(s.ok()) << s.ToString();
  }

  // The failover run, on etcd of either mode (below, with its load).
  void LeaderKillsUnderLoad(testing::EtcdCluster::Mode mode, int kills, int64_t lease_ms);

  std::string dir_;
};

// The etcd client and backend on their own, on a scratch directory.
using EtcdBackendTest = HaTest;
using EtcdClientTest = HaTest;
using EtcdWatchTest = HaTest;

// No default for --etcd: etcd's own client port is this server's port too.
TEST(HaMainTest, EtcdIsRequired) {
  const testing::ProgramResult r = testing::RunProgram({KANDB_META_HA_BINARY, "--port=0"});
  EXPECT_EQ(testing::ExitCode(r), 2);
  EXPECT_EQ(r.err, "--etcd is required (comma-separated etcd client URLs)\n");
  EXPECT_EQ(r.out, "");
}

// The etcd backend keeps the engine's meaning: batches apply in order (the
// last operation on a key wins, also across batches grouped into one
// transaction), and a scan is [start, end) in key order up to its limit,
// across pages, without the cluster prefix.
TEST_F(EtcdBackendTest, BatchOrderAndScanPages) {
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  store::EtcdClient client(etcd.Endpoints(), 2000);
  store::EtcdBackend backend(&client, "kandb/t/", store::EtcdFence{});
  const auto put = [](const std::string& k, const std::string& v) { return lsm::Entry{lsm::kOpPut, k, v}; };
  const auto del = [](const std::string& k) { return lsm::Entry{lsm::kOpDelete, k, ""}; };
  // Concurrent writers land in one group; each thread's batches in order.
  std::vector<std::thread> writers;
  for (int t = 0; t < 8; ++t) {
    writers.emplace_back([&backend, &put, &del, t] {
      const std::string k = "w/" + std::to_string(t);
      EXPECT_TRUE(backend.Write({put(k, "1"), del(k), put(k, "2")}).ok());
      EXPECT_TRUE(backend.Write({put(k + "x", "gone")}).ok());
      EXPECT_TRUE(backend.Write({del(k + "x")}).ok());
    });
  }
  for (std::thread& w : writers) w.join();
  std::vector<lsm::Entry> got;
  ASSERT_TRUE(ScanAll(&backend, "w/", "w0", 100, &got).ok());
  ASSERT_EQ(got.size(), 8u);
  for (int t = 0; t < 8; ++t) EXPECT_EQ(got[t], put("w/" + std::to_string(t), "2"));

  // More records than one page holds, written in two transactions.
  const int64_t total = store::EtcdBackend::kScanPage + 5;
  for (int64_t from = 0; from < total; from += testing::EtcdCluster::kMaxTxnOps) {
    lsm::WriteBatch batch;
    for (int64_t i = from; i < std::min(total, from + testing::EtcdCluster::kMaxTxnOps); ++i) {
      char key[16];
      std::snprintf(key, sizeof(key), "p/%06lld", static_cast<long long>(i));
      batch.push_back(put(key, std::to_string(i)));
    }
    ASSERT_TRUE(backend.Write(batch).ok());
  }
  ASSERT_TRUE(ScanAll(&backend, "p/", "p0", static_cast<uint32_t>(total + 100), &got).ok());
  ASSERT_EQ(got.size(), static_cast<size_t>(total));
  for (int64_t i = 0; i < total; ++i) ASSERT_EQ(got[i].value, std::to_string(i));
  const struct {
    const char *start, *end;
    uint32_t limit;
    size_t size;
    const char *first, *last;
  } scans[] = {{"p/000003", "p/010003", static_cast<uint32_t>(total), 10000, "p/000003", "p/010002"},
               {"p/", "", 10001, 10001, "p/000000", "p/010000"},
               {"", "", 100000, static_cast<size_t>(total) + 8, "p/000000", "w/7"},  // the whole cluster
               {"p/", "", 0, 0, "", ""}};
  for (const auto& c : scans) {
    ASSERT_TRUE(ScanAll(&backend, c.start, c.end, c.limit, &got).ok());
    ASSERT_EQ(got.size(), c.size) << c.start << " " << c.limit;
    EXPECT_EQ(got.empty() ? "" : got.front().key + " " + got.back().key,
              got.empty() ? "" : std::string(c.first) + " " + c.last);
  }
  std::string value = "kept";
  bool found = true;
  ASSERT_TRUE(backend.Get("w/0x", &value, &found).ok());
  EXPECT_FALSE(found);
  EXPECT_EQ(value, "kept");
}

// A mark written with a compare on its revision: a late copy of an earlier
// write (same compare, lower value) changes nothing once a later write
// landed; a write whose fence fails says so; an empty fenced write leaves
// an event of its own (the fence key put again) at its revision.
TEST_F(EtcdBackendTest, MarksNeverGoBackAndEveryFencedWriteLeavesAnEvent) {
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  store::EtcdClient client(etcd.Endpoints(), 2000);
  store::EtcdTxnResult created;
  ASSERT_TRUE(client.Txn({}, {store::EtcdOp{store::EtcdOp::Kind::kPut, "m/leader", "me", 0}}, {}, &created).ok());
  int64_t last_committed = 0;
  store::EtcdWriteObserver observer;
  observer.committed = [&last_committed](int64_t revision, int64_t) { last_committed = revision; };
  store::EtcdBackend backend(&client, "m/", store::EtcdFence{"m/leader", created.revision, "me", 0}, observer);

  std::string value;
  bool found = true;
  int64_t at = -1;
  ASSERT_TRUE(backend.GetWithRevision("mark", &value, &found, &at).ok());
  EXPECT_FALSE(found);
  EXPECT_EQ(at, 0);
  bool written = false;
  int64_t first = 0, second = 0;
  ASSERT_TRUE(backend.PutIfUnchanged("mark", "1000", 0, &written, &first).ok());
  EXPECT_TRUE(written);
  ASSERT_TRUE(backend.PutIfUnchanged("mark", "2000", first, &written, &second).ok());
  EXPECT_TRUE(written);
  EXPECT_EQ(last_committed, second);
  // The late copy of the first write.
  int64_t ignored = 0;
  ASSERT_TRUE(backend.PutIfUnchanged("mark", "1000", 0, &written, &ignored).ok());
  EXPECT_FALSE(written);
  ASSERT_TRUE(backend.GetWithRevision("mark", &value, &found, &at).ok());
  EXPECT_EQ(value, "2000");
  EXPECT_EQ(at, second);

  // An empty write proves the fence with an event at its own revision.
  ASSERT_TRUE(backend.Write({}).ok());
  std::vector<store::EtcdKv> kvs;
  bool more = false;
  int64_t now = 0;
  ASSERT_TRUE(client.Range("m/leader", "", 0, 0, &kvs, &more, &now).ok());
  EXPECT_EQ(kvs[0].mod_revision, last_committed);
  EXPECT_EQ(kvs[0].value, "me");

  // Another holder of the key: both kinds of write fail their fence.
  store::EtcdTxnResult taken;
  ASSERT_TRUE(client.Txn({}, {store::EtcdOp{store::EtcdOp::Kind::kDelete, "m/leader", "", 0}}, {}, &taken).ok());
  ASSERT_TRUE(client.Txn({}, {store::EtcdOp{store::EtcdOp::Kind::kPut, "m/leader", "other", 0}}, {}, &taken).ok());
  EXPECT_EQ(backend.PutIfUnchanged("mark", "3000", second, &written, &ignored).ToString(),
            "Unavailable: not leader; leadership lost");
  EXPECT_EQ(backend.Write({}).ToString(), "Unavailable: not leader; leadership lost");
}

// Writes that queue behind a transaction in flight go out together (up to
// the group's operation limit, the rest in the next group), in arrival
// order, and each is answered on its own: one that etcd refuses alone
// (over its operation limit) spoils none of the others. After a takeover
// the fence refuses a whole group, and none of it is stored.
TEST_F(EtcdBackendTest, GroupsAnsweredEachOnItsOwn) {
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  store::EtcdClient client(etcd.Endpoints(), 2000);
  store::EtcdTxnResult created;
  ASSERT_TRUE(client.Txn({}, {store::EtcdOp{store::EtcdOp::Kind::kPut, "g/leader", "me", 0}}, {}, &created).ok());
  store::EtcdBackend backend(&client, "g/", store::EtcdFence{"g/leader", created.revision, "me", 0});
  // The first group's leader waits in the hook until the others queued.
  std::mutex mu;
  std::condition_variable cv;
  bool hold = true;
  std::vector<size_t> groups;
  backend.SetGroupHookForTesting([&](size_t batches) {
    std::unique_lock<std::mutex> lock(mu);
    groups.push_back(batches);
    cv.wait(lock, [&] { return !hold; });
  });
  const auto batch_of = [](const std::string& key, size_t ops) {
    lsm::WriteBatch batch;
    for (size_t i = 0; i < ops; ++i) batch.push_back(lsm::Entry{lsm::kOpPut, key + "/" + std::to_string(i), key});
    return batch;
  };
  // Writes each started once the one before is in line; their results.
  const auto run = [&](const std::vector<lsm::WriteBatch>& batches) {
    std::vector<Status> results(batches.size());
    std::vector<std::thread> writers;
    {
      std::lock_guard<std::mutex> lock(mu);
      hold = true;
      groups.clear();
    }
    for (size_t i = 0; i < batches.size(); ++i) {
      writers.emplace_back([&, i] { results[i] = backend.Write(batches[i]); });
      EXPECT_TRUE(WaitFor(10000, [&] { return backend.QueuedForTesting() == i + 1; }));
    }
    {
      std::lock_guard<std::mutex> lock(mu);
      hold = false;
    }
    cv.notify_all();
    for (std::thread& w : writers) w.join();
    return results;
  };
  const auto stored = [&](const std::string& key) {
    std::string value;
    bool found = false;
    EXPECT_TRUE(backend.Get(key, &value, &found).ok());
    return found ? value : "-";
  };

  // The last in line wins "same"; the oversized batch is cut from the
  // group before it and refused on its own.
  const auto same = [&](lsm::WriteBatch batch, const std::string& value) {
    batch.push_back(lsm::Entry{lsm::kOpPut, "same", value});
    return batch;
  };
  std::vector<lsm::WriteBatch> batches = {batch_of("first", 1), same({}, "a"), same({}, "b"),
                                          same(batch_of("big", testing::EtcdCluster::kMaxTxnOps + 1), "big"),
                                          same({}, "c")};
  std::vector<Status> results = run(batches);
  for (size_t i = 0; i < results.size(); ++i) {
    EXPECT_EQ(results[i].ToString(),
              i == 3 ? "InvalidArgument: etcd: etcdserver: too many operations in txn request" : "OK")
        << i;
  }
  EXPECT_EQ(groups, (std::vector<size_t>{1, 2, 1, 1}));
  EXPECT_EQ(stored("same"), "c");
  EXPECT_EQ(stored("big/0"), "-");

  // Batches share groups up to the operation limit, in order.
  batches.assign({batch_of("h", 1)});
  for (int i = 0; i < 4; ++i) batches.push_back(same(batch_of("s" + std::to_string(i), 50), std::to_string(i)));
  results = run(batches);
  for (const Status& r : results) EXPECT_TRUE(r.ok()) << r.ToString();
  EXPECT_EQ(groups, (std::vector<size_t>{1, 2, 2}));
  EXPECT_EQ(stored("same") + stored("s1/49"), "3s1");

  // Another server holds the key: every batch of the group is refused.
  store::EtcdTxnResult taken;
  ASSERT_TRUE(client.Txn({}, {store::EtcdOp{store::EtcdOp::Kind::kDelete, "g/leader", "", 0}}, {}, &taken).ok());
  ASSERT_TRUE(client.Txn({}, {store::EtcdOp{store::EtcdOp::Kind::kPut, "g/leader", "other", 0}}, {}, &taken).ok());
  batches.assign({batch_of("x0", 1), batch_of("x1", 1), batch_of("x2", 1), batch_of("x3", 1)});
  results = run(batches);
  for (const Status& r : results) EXPECT_EQ(r.ToString(), "Unavailable: not leader; leadership lost");
  EXPECT_EQ(groups, (std::vector<size_t>{1, 3}));
  EXPECT_EQ(stored("x0/0") + stored("x3/0"), "--");
}

// Asynchronous writes share the line with Write calls: answered in queue
// order whoever leads the group (the sender thread, or a Write call),
// each with its own result (one over etcd's limit refused alone); a
// backend destroyed with writes queued answers each of them.
TEST_F(EtcdBackendTest, AsyncWritesAnsweredInOrderAndNoneLost) {
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  store::EtcdClient client(etcd.Endpoints(), 2000);
  std::mutex mu;
  std::condition_variable cv;
  bool hold = true;
  size_t groups_sent = 0;
  std::vector<size_t> groups;
  std::vector<std::pair<int, std::string>> answers;  // in the order given
  std::unique_ptr<store::EtcdBackend> backend;
  const auto open = [&] {
    backend = std::make_unique<store::EtcdBackend>(&client, "a/", store::EtcdFence{});
    backend->SetGroupHookForTesting([&](size_t batches) {  // holds the first group
      std::unique_lock<std::mutex> lock(mu);
      groups.push_back(batches);
      ++groups_sent;
      cv.notify_all();
      cv.wait(lock, [&] { return !hold; });
    });
  };
  const auto queue = [&](int i, const std::string& key, size_t ops) {
    lsm::WriteBatch batch;
    for (size_t op = 0; op < ops; ++op) batch.push_back(lsm::Entry{lsm::kOpPut, key + std::to_string(op), key});
    backend->WriteAsync(std::move(batch), [&, i](const Status& s) {
      std::lock_guard<std::mutex> lock(mu);
      answers.emplace_back(i, s.ToString());
    });
  };
  const auto first_group_held = [&] {
    std::unique_lock<std::mutex> lock(mu);
    return cv.wait_for(lock, std::chrono::seconds(10), [&] { return groups_sent == 1; });
  };
  const auto release = [&] {
    std::lock_guard<std::mutex> lock(mu);
    hold = false;
    cv.notify_all();
  };

  // The oversized write is cut from the groups beside it; the Write call
  // leads the last group and answers the write queued behind it.
  open();
  queue(0, "k", 1);
  ASSERT_TRUE(first_group_held());
  queue(1, "same", 1);
  queue(2, "big", testing::EtcdCluster::kMaxTxnOps + 1);
  Status sync_result;
  std::thread sync([&] { sync_result = backend->Write({lsm::Entry{lsm::kOpPut, "sync", "s"}}); });
  ASSERT_TRUE(WaitFor(10000, [&] { return backend->QueuedForTesting() == 4; }));
  queue(3, "last", 1);
  release();
  sync.join();
  EXPECT_TRUE(sync_result.ok()) << sync_result.ToString();
  ASSERT_TRUE(WaitFor(10000, [&] { return backend->QueuedForTesting() == 0; }));
  const std::vector<std::pair<int, std::string>> expected = {
      {0, "OK"}, {1, "OK"}, {2, "InvalidArgument: etcd: etcdserver: too many operations in txn request"}, {3, "OK"}};
  EXPECT_EQ(answers, expected);
  EXPECT_EQ(groups, (std::vector<size_t>{1, 1, 1, 2}));

  // Destroyed with its first group held: that group is answered by etcd,
  // each write behind it once, sent or not.
  hold = true;
  groups_sent = 0;
  answers.clear();
  open();
  queue(0, "closing", 1);
  ASSERT_TRUE(first_group_held());
  for (int i = 1; i < 6; ++i) queue(i, "closing", 1);
  std::thread destroy([&] { backend.reset(); });
  release();
  destroy.join();
  ASSERT_EQ(answers.size(), 6u);
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(answers[i].first, i);
    EXPECT_TRUE(answers[i].second == "OK" || (i > 0 && answers[i].second == "Unavailable: not written; the store closed"))
        << answers[i].second;
  }
}

// A call that one member may have received (its answer never came) and
// the next one refused is of unknown outcome, not a refusal: the first may
// still apply it.
TEST_F(EtcdClientTest, RefusalAfterAnUnansweredAttemptIsUnknown) {
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  testing::AnswerDelayProxy proxy(etcd.UrlList());
  store::EtcdClient client({proxy.Url(), etcd.UrlList()}, 500);
  std::vector<store::EtcdOp> ops;
  for (int i = 0; i <= testing::EtcdCluster::kMaxTxnOps; ++i) {
    ops.push_back(store::EtcdOp{store::EtcdOp::Kind::kPut, "u/" + std::to_string(i), "x", 0});
  }
  store::EtcdTxnResult result;
  proxy.HoldAnswers(2000, "/v3/kv/txn");
  const Status s = client.Txn({}, ops, {}, &result);
  EXPECT_TRUE(s.IsUnavailable()) << s.ToString();
  EXPECT_NE(s.message().find("too many operations"), std::string::npos) << s.ToString();
  // Refused by the only member asked: a refusal.
  store::EtcdClient direct(etcd.Endpoints(), 500);
  EXPECT_EQ(direct.Txn({}, ops, {}, &result).ToString(),
            "InvalidArgument: etcd: etcdserver: too many operations in txn request");
}

// A watch hands over the changes of its range in revision order, puts and
// deletions, from the revision asked for; a stop from another thread ends
// a stream that has nothing to say at once; a start revision compacted
// away comes back as a cancellation that names the compaction.
TEST_F(EtcdWatchTest, OrderStopAndCompaction) {
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  store::EtcdClient client(etcd.Endpoints(), 2000);
  store::EtcdBackend backend(&client, "w/", store::EtcdFence{});
  ASSERT_TRUE(backend.Write({{lsm::kOpPut, "a", "1"}, {lsm::kOpPut, "b", "2"}}).ok());
  ASSERT_TRUE(backend.Write({{lsm::kOpDelete, "a", ""}}).ok());
  ASSERT_TRUE(backend.Write({{lsm::kOpPut, "outside", "x"}}).ok());  // "w/outside" is past "w/c"
  std::vector<store::EtcdKv> kvs;
  bool more = false;
  int64_t now = 0;
  ASSERT_TRUE(client.Range("w/b", "", 0, 0, &kvs, &more, &now).ok());
  const int64_t first = kvs[0].mod_revision;  // the batch of a and b

  std::vector<std::string> seen;
  store::EtcdWatchStop stop;
  Status s = client.Watch("w/", "w/c", first,
                          [&](const store::EtcdWatchAnswer& answer) {
                            for (const store::EtcdEvent& e : answer.events) {
                              seen.push_back((e.type == store::EtcdEvent::Type::kDelete ? "-" : "+") + e.kv.key +
                                             "@" + std::to_string(e.kv.mod_revision - first));
                            }
                            return seen.size() < 3;
                          },
                          &stop);
  EXPECT_TRUE(s.ok()) << s.ToString();
  EXPECT_EQ(seen, (std::vector<std::string>{"+w/a@0", "+w/b@0", "-w/a@1"}));

  // Nothing more will come: only the stop ends it (the stream has no
  // time-out of its own).
  std::thread stopper([&stop] {
    SleepMs(300);
    stop.Stop();
  });
  s = client.Watch("w/", "w/c", now + 1, [](const store::EtcdWatchAnswer&) { return true; }, &stop);
  stopper.join();
  EXPECT_TRUE(s.ok()) << s.ToString();

  // Compacted away: the stream is cancelled and says to where.
  const testing::ProgramResult compacted = testing::RunProgram(
      {"/usr/bin/etcdctl", "--endpoints=" + etcd.UrlList(), "compaction", std::to_string(now)});
  ASSERT_EQ(testing::ExitCode(compacted), 0) << compacted.err;
  store::EtcdWatchAnswer cancelled;
  store::EtcdWatchStop stop2;
  s = client.Watch("w/", "w/c", first,
                   [&](const store::EtcdWatchAnswer& answer) {
                     cancelled = answer;
                     return !answer.canceled;
                   },
                   &stop2);
  EXPECT_TRUE(s.ok()) << s.ToString();
  EXPECT_TRUE(cancelled.canceled);
  EXPECT_EQ(cancelled.compact_revision, now);
}

// What the load threads of the failover run saw.
struct Observed {
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> tso_high{0};       // largest timestamp any client received
  std::atomic<uint64_t> below{0};          // answers not above an earlier one
  std::atomic<int64_t> last_success_ms{0};  // steady clock
  // When the most recently sent call that succeeded was sent. Only a call
  // sent after a leader is dead proves that another one serves: an answer
  // the dead leader wrote just before the kill can still arrive after it.
  std::atomic<int64_t> last_success_sent_ms{0};
  std::atomic<uint64_t> failures{0};
  std::mutex mu;
  std::vector<uint64_t> timestamps;
  std::vector<std::pair<uint64_t, uint64_t>> id_ranges;  // first, count
  std::map<uint64_t, std::string> acked;                 // region id -> encoding
};

void LoadThread(const std::string& targets, int index, Observed* seen) {
  kanrpc::RpcClient client(targets, kanrpc::RpcClientOptions{1000, 3});
  std::vector<uint64_t> timestamps;
  std::vector<std::pair<uint64_t, uint64_t>> ids;
  std::map<uint64_t, std::string> acked;
  for (uint64_t n = 0; !seen->stop.load(); ++n) {
    const int64_t sent_ms = SteadyMs();
    Status s;
    switch (n % 3) {
      case 0: {
        // Any answer to a request sent after a timestamp was seen must lie
        // above it, whichever server gave either.
        const uint64_t before = seen->tso_high.load();
        pdpb::TsoResponse resp;
        s = client.Call("Pd.Tso", pdpb::TsoRequest{4}, &resp);
        if (!s.ok()) break;
        if (resp.timestamp <= before) seen->below.fetch_add(1);
        for (uint32_t i = 0; i < resp.count; ++i) timestamps.push_back(resp.timestamp + i);
        uint64_t high = seen->tso_high.load();
        const uint64_t last = resp.timestamp + resp.count - 1;
        while (high < last && !seen->tso_high.compare_exchange_weak(high, last)) {
        }
        break;
      }
      case 1: {
        pdpb::AllocIdResponse resp;
        s = client.Call("Pd.AllocId", pdpb::AllocIdRequest{3}, &resp);
        if (s.ok()) ids.emplace_back(resp.first_id, resp.count);
        break;
      }
      default: {
        const uint64_t id = 1000000 * (index + 1) + n;
        char key[32];
        std::snprintf(key, sizeof(key), "u/%d/%08llu", index, static_cast<unsigned long long>(n));
        const pdpb::UpsertRegionRequest req = UpsertAt(id, key);
        pdpb::UpsertRegionResponse resp;
        s = client.Call("Pd.UpsertRegion", req, &resp);
        if (s.ok()) acked[id] = pdpb::Encode(req.regions[0]);
      }
    }
    if (s.ok()) {
      seen->last_success_ms.store(SteadyMs());
      int64_t latest = seen->last_success_sent_ms.load();
      while (latest < sent_ms && !seen->last_success_sent_ms.compare_exchange_weak(latest, sent_ms)) {
      }
    } else {
      seen->failures.fetch_add(1);
      SleepMs(20);
    }
  }
  std::lock_guard<std::mutex> lock(seen->mu);
  seen->timestamps.insert(seen->timestamps.end(), timestamps.begin(), timestamps.end());
  seen->id_ranges.insert(seen->id_ranges.end(), ids.begin(), ids.end());
  seen->acked.insert(acked.begin(), acked.end());
}

// Three etcd members, three servers, clients on the list of all three; the
// leader is SIGKILLed `kills` times (and restarted as a follower). Nothing
// handed out twice or out of order, nothing acknowledged lost.
void HaTest::LeaderKillsUnderLoad(testing::EtcdCluster::Mode mode, int kills, int64_t lease_ms) {
  testing::EtcdCluster etcd(dir_, mode);
  ASSERT_TRUE(etcd.Start(3));
  testing::HaServers servers(KANDB_META_HA_BINARY, etcd.UrlList(), "kills", lease_ms, etcd.client_tls());
  ASSERT_TRUE(servers.Start(3));
  const std::string targets = servers.AddressList();
  Bootstrap(targets);
  store::EtcdClient client(etcd.Endpoints(), 1000, etcd.client_tls());

  Observed seen;
  LoadThreads threads(&seen.stop);
  for (int i = 0; i < 4; ++i) threads.Add([&targets, i, &seen] { LoadThread(targets, i, &seen); });
  int64_t longest_ms = 0;
  for (int k = 0; k < kills; ++k) {
    // Let the new leader serve a while before it is killed in turn.
    SleepMs(1000);
    const int leader = servers.WaitLeader(&client, 10000);
    ASSERT_GE(leader, 0);
    servers.Kill(leader);  // returns once the process is gone
    const int64_t killed_at = SteadyMs();
    ASSERT_TRUE(servers.Restart(leader));
    while (seen.last_success_sent_ms.load() <= killed_at && SteadyMs() < killed_at + 30000) SleepMs(5);
    ASSERT_GT(seen.last_success_sent_ms.load(), killed_at) << "no leader took over";
    longest_ms = std::max(longest_ms, seen.last_success_ms.load() - killed_at);
  }
  SleepMs(500);
  threads.Join();

  std::vector<uint64_t>& ts = seen.timestamps;
  std::sort(ts.begin(), ts.end());
  EXPECT_EQ(std::adjacent_find(ts.begin(), ts.end()), ts.end()) << "a timestamp handed out twice";
  EXPECT_EQ(seen.below.load(), 0u);
  std::vector<std::pair<uint64_t, uint64_t>>& ids = seen.id_ranges;
  std::sort(ids.begin(), ids.end());
  for (size_t i = 1; i < ids.size(); ++i) EXPECT_LE(ids[i - 1].first + ids[i - 1].second, ids[i].first);
  const std::map<uint64_t, std::string> stored = StoredRegions(&client, servers.prefix());
  size_t lost = 0;
  for (const auto& [id, encoding] : seen.acked) lost += stored.count(id) == 0 || stored.at(id) != encoding;
  EXPECT_EQ(lost, 0u);
  EXPECT_GT(seen.acked.size(), 0u);
  std::printf("failover%s: %d kills, %zu answers checked, longest time without a leader %lld ms (lease %lld ms)\n",
              mode == testing::EtcdCluster::Mode::kClientCertAuth ? " (etcd over TLS, client certificates)" : "",
              kills, ts.size() + ids.size() + seen.acked.size(), static_cast<long long>(longest_ms),
              static_cast<long long>(lease_ms));

  // Acknowledged upserts route through the last leader too. The first
  // route of a new term may walk every record in etcd: on a loaded machine
  // that takes longer than the load's one-second calls. Enough attempts to
  // outlast a lease, should leadership be changing hands.
  kanrpc::RpcClient router(targets, Options(20, 10000));
  size_t routed = 0;
  for (const auto& [id, encoding] : seen.acked) {
    if (routed++ % 97 != 0) continue;
    pdpb::Region region;
    ASSERT_TRUE(pdpb::Decode(encoding.size(), encoding.data(), &region));
    pdpb::GetRegionResponse resp;
    const Status routed_status = router.Call("Pd.GetRegion", pdpb::GetRegionRequest{region.start_key}, &resp);
    ASSERT_TRUE(routed_status.ok()) << routed_status.ToString();
    EXPECT_EQ(resp.region.id, id);
  }
}

TEST_F(HaTest, LeaderKillsUnderLoad) {
  LeaderKillsUnderLoad(testing::EtcdCluster::Mode::kPlain, static_cast<int>(testing::EnvInt("KANDB_HA_KILLS", 5)),
                       kLeaseMs);
}

// The same with every etcd call over TLS with the client certificate:
// campaigns, renewals, the term's writes and the records' watch. Shorter:
// the plain run holds the count of kills, and the shortest lease etcd
// grants makes each takeover quicker.
TEST_F(HaTest, LeaderKillsUnderLoadOnEtcdWithClientCertificates) {
  LeaderKillsUnderLoad(testing::EtcdCluster::Mode::kClientCertAuth, 2, 2000);
}

// TLS settings a server must not start with, and servers that etcd with
// client-certificate authentication lets in on nothing less than the
// certificates both ways: each says it cannot reach etcd, answers "not
// leader" and never writes the leader key.
TEST_F(HaTest, TlsRefusals) {
  testing::EtcdCluster etcd(dir_, testing::EtcdCluster::Mode::kClientCertAuth);
  ASSERT_TRUE(etcd.Start(1));
  const store::EtcdTls& good = etcd.client_tls();

  // Refused before etcd is contacted, with the file named.
  const std::string missing = dir_ + "/missing.pem";
  const struct {
    std::vector<std::string> flags;
    std::string err;
  } starts[] = {
      {{"--etcd_cacert=" + missing}, "cannot read --etcd_cacert file " + missing + ": No such file or directory\n"},
      {{"--etcd_cert=" + good.cert_file, "--etcd_key=" + dir_},
       "cannot read --etcd_key file " + dir_ + ": Is a directory\n"},
      {{"--etcd_cert=" + good.cert_file}, "--etcd_cert and --etcd_key go together: give both or neither\n"},
  };
  for (const auto& c : starts) {
    std::vector<std::string> argv = {KANDB_META_HA_BINARY, "--port=0", "--etcd=" + etcd.UrlList()};
    argv.insert(argv.end(), c.flags.begin(), c.flags.end());
    const testing::ProgramResult r = testing::RunProgram(argv);
    EXPECT_EQ(testing::ExitCode(r), 1) << c.flags[0];
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.out, "");
  }

  // A CA that etcd does not know, and a client certificate of it.
  testing::TestPki other(dir_, "other");
  const testing::CertFiles stranger = other.ok() ? other.Issue("stranger", "kandb-meta-ha", "") : testing::CertFiles{};
  ASSERT_FALSE(stranger.cert.empty()) << other.error();
  const struct {
    const char* what;
    store::EtcdTls tls;
  } refused[] = {
      {"no client certificate", {good.ca_file, "", ""}},
      {"a client certificate of another CA", {good.ca_file, stranger.cert, stranger.key}},
      {"etcd's certificate checked against another CA", {other.ca().cert, good.cert_file, good.key_file}},
  };
  std::vector<std::unique_ptr<testing::HaServers>> servers;
  for (const auto& c : refused) {
    servers.push_back(std::make_unique<testing::HaServers>(KANDB_META_HA_BINARY, etcd.UrlList(), "refused",
                                                           kLeaseMs, c.tls));
    ASSERT_TRUE(servers.back()->Start(1)) << c.what;
  }
  const std::string report = "cannot reach etcd: Unavailable: etcd unreachable: " + etcd.UrlList() + ": ";
  for (size_t i = 0; i < servers.size(); ++i) {
    WaitFor(30000, [&] { return servers[i]->Stderr(0).find(report) != std::string::npos; });
    const std::string err = servers[i]->Stderr(0);
    const size_t at = err.find(report);
    ASSERT_NE(at, std::string::npos) << refused[i].what << ": " << err;
    const size_t from = at + report.size();
    std::printf("refused, %s: %s\n", refused[i].what, err.substr(from, err.find('\n', from) - from).c_str());
    kanrpc::RpcClient c(servers[i]->Address(0), Options(1));
    pdpb::TsoResponse tso;
    const Status s = c.Call("Pd.Tso", pdpb::TsoRequest{1}, &tso);
    EXPECT_NE(s.message().find("Unavailable: not leader; no leader yet"), std::string::npos)
        << refused[i].what << ": " << s.ToString();
  }
  store::EtcdClient client(etcd.Endpoints(), 1000, good);
  EXPECT_TRUE(servers[0]->LeaderKey(&client).empty());
  // The test's own client is let in, on calls and watch streams alike
  // (a server whose stream was refused would still lead, only slowly):
  // the refusals were the certificates'.
  std::vector<store::EtcdKv> kvs;
  bool more = false;
  int64_t revision = 0;
  ASSERT_TRUE(client.Range("health", "", 0, 0, &kvs, &more, &revision).ok());
  ASSERT_EQ(kvs.size(), 1u);
  std::vector<store::EtcdEvent> events;
  store::EtcdWatchStop stop;
  const Status watched = client.Watch("health", "", kvs[0].mod_revision,
                                      [&events](const store::EtcdWatchAnswer& answer) {
                                        events.insert(events.end(), answer.events.begin(), answer.events.end());
                                        return events.empty();
                                      },
                                      &stop);
  EXPECT_TRUE(watched.ok()) << watched.ToString();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kv.value, "ok");
}

// A leader paused past its lease: another server takes over and serves;
// the requests that waited on the paused leader's connection get no
// successful answer when it resumes, and none of its writes lands.
TEST_F(HaTest, PausedLeaderAnswersNothingAndWritesNothing) {
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  testing::HaServers servers(KANDB_META_HA_BINARY, etcd.UrlList(), "pause", kLeaseMs);
  ASSERT_TRUE(servers.Start(2));
  Bootstrap(servers.AddressList());
  store::EtcdClient client(etcd.Endpoints(), 1000);
  const int old = servers.WaitLeader(&client, 10000);
  ASSERT_GE(old, 0);
  const int other = 1 - old;

  servers.Pause(old);
  // Each request waits on its own connection to the paused leader.
  const std::pair<const char*, std::string> requests[] = {{"Pd.UpsertRegion", pdpb::Encode(UpsertAt(777, "u/paused"))},
                                                          {"Pd.Tso", pdpb::Encode(pdpb::TsoRequest{1})},
                                                          {"Pd.AllocId", pdpb::Encode(pdpb::AllocIdRequest{5000})}};
  std::vector<Status> queued(std::size(requests));
  std::vector<std::thread> waiting;
  for (size_t i = 0; i < std::size(requests); ++i) {
    waiting.emplace_back([&, i] {
      std::string out;
      queued[i] = kanrpc::RpcClient(servers.Address(old), Options(1, 30000))
                      .CallRaw(requests[i].first, requests[i].second, &out);
    });
  }

  // The other server takes over once the lease ran out, and serves.
  kanrpc::RpcClient next(servers.Address(other), Options(1));
  pdpb::TsoResponse tso;
  const Status s = RetryFor(kLeaseMs + 10000, [&] { return next.Call("Pd.Tso", pdpb::TsoRequest{1}, &tso); });
  ASSERT_TRUE(s.ok()) << s.ToString();
  pdpb::UpsertRegionResponse upserted;
  ASSERT_TRUE(next.Call("Pd.UpsertRegion", UpsertAt(778, "u/new"), &upserted).ok());

  servers.Signal(old, SIGCONT);
  for (std::thread& t : waiting) t.join();
  for (const Status& q : queued) {
    EXPECT_FALSE(q.ok());
    EXPECT_NE(q.message().find("Unavailable: not leader"), std::string::npos) << q.ToString();
  }
  const std::map<uint64_t, std::string> stored = StoredRegions(&client, servers.prefix());
  EXPECT_EQ(stored.count(777), 0u);
  EXPECT_EQ(stored.count(778), 1u);
  // The paused leader stepped down on its own once it ran again.
  EXPECT_TRUE(WaitFor(5000, [&] { return servers.Stderr(old).find("stepped down") != std::string::npos; }))
      << servers.Stderr(old);
}

// Holds the first call that reaches it (timestamps or identifiers taken
// on an event loop, not yet answered) until released.
std::mutex hold_mu;
std::condition_variable hold_cv;
int hold_entered = 0;
bool hold_released = false;
void HoldFirstCall() {
  std::unique_lock<std::mutex> lock(hold_mu);
  if (hold_entered++ > 0) return;
  hold_cv.notify_all();
  hold_cv.wait(lock, [] { return hold_released; });
}

// Timestamps answered on the event loop, with the term checked after they
// were taken: a loop held right there while its term ends (its key
// deleted) and another server takes over and answers, answers "not
// leader" when it goes on, and hands out nothing it took.
TEST_F(HaTest, LoopHeldPastItsTermAnswersNothing) {
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  store::EtcdClient client(etcd.Endpoints(), 2000);
  struct Server {
    std::unique_ptr<meta::HaServer> ha;
    std::unique_ptr<kanrpc::RpcServer> rpc;
    ~Server() {
      if (rpc != nullptr) rpc->Stop();
    }
  };
  const auto start = [&](Server* server, const std::string& advertise) {
    meta::HaOptions options;
    options.prefix = "kandb/loop/";
    options.advertise = advertise;
    options.lease_ms = kLeaseMs;
    server->ha = std::make_unique<meta::HaServer>(&client, options);
    server->rpc = std::make_unique<kanrpc::RpcServer>(1);
    server->ha->RegisterTo(server->rpc.get());
    ASSERT_TRUE(server->rpc->Start(0, "127.0.0.1").ok());
    server->ha->Start();
  };
  Server a, b;
  start(&a, "127.0.0.1:1");
  ASSERT_TRUE(WaitFor(15000, [&] { return a.ha->CurrentRole().leading; }));
  kanrpc::RpcClient to_a("127.0.0.1:" + std::to_string(a.rpc->port()), Options(1, 30000));
  pdpb::TsoResponse before;
  ASSERT_TRUE(to_a.Call("Pd.Tso", pdpb::TsoRequest{1}, &before).ok());

  meta::HaServer::SetFromMemoryHookForTesting(&HoldFirstCall);
  Status held;
  std::thread caller([&] {
    pdpb::TsoResponse ignored;
    held = to_a.Call("Pd.Tso", pdpb::TsoRequest{1}, &ignored);
  });
  {
    std::unique_lock<std::mutex> lock(hold_mu);
    EXPECT_TRUE(hold_cv.wait_for(lock, std::chrono::seconds(10), [] { return hold_entered > 0; }));
  }
  store::EtcdTxnResult deleted;
  EXPECT_TRUE(
      client.Txn({}, {store::EtcdOp{store::EtcdOp::Kind::kDelete, "kandb/loop/leader", "", 0}}, {}, &deleted).ok());
  start(&b, "127.0.0.1:2");
  kanrpc::RpcClient to_b("127.0.0.1:" + std::to_string(b.rpc->port()), Options(1));
  pdpb::TsoResponse after;
  const Status served = RetryFor(kLeaseMs + 10000, [&] { return to_b.Call("Pd.Tso", pdpb::TsoRequest{1}, &after); });
  EXPECT_TRUE(served.ok()) << served.ToString();
  EXPECT_GT(after.timestamp, before.timestamp);
  {
    std::lock_guard<std::mutex> lock(hold_mu);
    hold_released = true;
  }
  hold_cv.notify_all();
  caller.join();
  meta::HaServer::SetFromMemoryHookForTesting(nullptr);
  EXPECT_NE(held.message().find("Unavailable: not leader"), std::string::npos) << held.ToString();
  // Identifiers from the new term's own mark, on its loop.
  pdpb::AllocIdResponse ids[2];
  for (pdpb::AllocIdResponse& id : ids) ASSERT_TRUE(to_b.Call("Pd.AllocId", pdpb::AllocIdRequest{3}, &id).ok());
  EXPECT_EQ(ids[1].first_id, ids[0].first_id + 3);
}

// A replicated server in this process, on one loop of its own, under
// `prefix`; Start returns once it leads.
struct LocalServer {
  LocalServer(store::EtcdClient* etcd, const std::string& prefix) : ha(etcd, OptionsFor(prefix)), rpc(1) {}
  static meta::HaOptions OptionsFor(const std::string& prefix) {
    meta::HaOptions options;
    options.prefix = prefix;
    options.advertise = "127.0.0.1:1";
    options.lease_ms = kLeaseMs;
    return options;
  }
  bool Start() {
    ha.RegisterTo(&rpc);
    if (!rpc.Start(0, "127.0.0.1").ok()) return false;
    ha.Start();
    return WaitFor(15000, [&] { return ha.CurrentRole().leading; });
  }
  std::string Address() const { return "127.0.0.1:" + std::to_string(rpc.port()); }
  meta::HaServer ha;
  kanrpc::RpcServer rpc;
};

// Holds the first upsert answer that reaches it, on the term store's
// sender thread, while armed (1); 2 while held, until set to 3.
std::atomic<int> answer_hold{0};
void HoldUpsertAnswer() {
  int armed = 1;
  if (!answer_hold.compare_exchange_strong(armed, 2)) return;
  while (answer_hold.load() == 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// The last hold on an ended term may be a loop's, let go of at its next
// call; the term's teardown waits for its store's sender, which may be
// busy for long (held here in an answer; in practice in an etcd call that
// runs to its time-out while etcd is out of reach). The loop hands the
// term on and answers meanwhile. Here the server leads again before the
// loop's next call, so the campaign thread has let go of the old term and
// the loop holds it last.
TEST_F(HaTest, LoopLettingGoOfAnEndedTermAnswersOn) {
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  store::EtcdClient client(etcd.Endpoints(), 2000);
  LocalServer server(&client, "kandb/retire/");
  ASSERT_TRUE(server.Start());
  meta::HaServer& ha = server.ha;
  const std::string address = server.Address();
  answer_hold.store(1);
  meta::HaServer::SetUpsertAnswerHookForTesting(&HoldUpsertAnswer);
  Status upserted;
  std::thread caller([&] {
    pdpb::UpsertRegionResponse ignored;
    upserted = kanrpc::RpcClient(address, Options(1, 30000)).Call("Pd.UpsertRegion", UpsertAt(1, "r/"), &ignored);
  });
  Status tso_status = Status::Corruption("not asked");
  if (WaitFor(10000, [] { return answer_hold.load() == 2; })) {
    store::EtcdTxnResult deleted;
    EXPECT_TRUE(
        client.Txn({}, {store::EtcdOp{store::EtcdOp::Kind::kDelete, "kandb/retire/leader", "", 0}}, {}, &deleted).ok());
    if (WaitFor(10000, [&] { return !ha.CurrentRole().leading; }) &&
        WaitFor(15000, [&] { return ha.CurrentRole().leading; })) {
      pdpb::TsoResponse tso;
      tso_status = kanrpc::RpcClient(address, Options(1, 5000)).Call("Pd.Tso", pdpb::TsoRequest{1}, &tso);
    }
  }
  answer_hold.store(3);
  caller.join();
  meta::HaServer::SetUpsertAnswerHookForTesting(nullptr);
  EXPECT_TRUE(tso_status.ok()) << tso_status.ToString();
  EXPECT_NE(upserted.message().find("not leader"), std::string::npos) << upserted.ToString();
  server.rpc.Stop();
}

// Upserts queued on the loop while the transaction carrying the first of
// them waits for its answer, and the term ends meanwhile (its key
// deleted): every one is answered, and none OK, not even the one etcd
// applied before the key went.
TEST_F(HaTest, UpsertsQueuedAsTheTermEndsAreAllRefused) {
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  testing::AnswerDelayProxy proxy(etcd.UrlList());
  store::EtcdClient via_proxy({proxy.Url()}, 10000);
  store::EtcdClient direct(etcd.Endpoints(), 2000);
  LocalServer server(&via_proxy, "kandb/queued/");
  ASSERT_TRUE(server.Start());
  const std::string address = server.Address();
  pdpb::UpsertRegionResponse upserted;
  ASSERT_TRUE(kanrpc::RpcClient(address, Options(1)).Call("Pd.UpsertRegion", UpsertAt(1, "q/"), &upserted).ok());

  proxy.HoldAnswers(2000, "/v3/kv/txn");
  constexpr int kCallers = 8;
  std::vector<Status> results(kCallers);
  std::vector<std::thread> callers;
  for (int i = 0; i < kCallers; ++i) {
    callers.emplace_back([&, i] {
      pdpb::UpsertRegionResponse ignored;
      results[i] = kanrpc::RpcClient(address, Options(1, 30000))
                       .Call("Pd.UpsertRegion", UpsertAt(100 + i, "q/" + std::to_string(i)), &ignored);
    });
  }
  // The first group is applied, its answer held, the rest queued behind.
  ASSERT_TRUE(WaitFor(10000, [&] { return StoredRegions(&direct, "kandb/queued/").size() > 1; }));
  store::EtcdTxnResult deleted;
  EXPECT_TRUE(
      direct.Txn({}, {store::EtcdOp{store::EtcdOp::Kind::kDelete, "kandb/queued/leader", "", 0}}, {}, &deleted).ok());
  for (std::thread& t : callers) t.join();
  for (const Status& r : results) EXPECT_NE(r.message().find("not leader"), std::string::npos) << r.ToString();
  EXPECT_GT(StoredRegions(&direct, "kandb/queued/").size(), 1u);
  server.rpc.Stop();
}

// A batch over etcd's operation limit fails whole with etcd's own reason.
// Then the leader's lease is revoked in etcd (etcdctl lease revoke): an
// upsert sent at once fails its fence, and nothing of it is stored.
TEST_F(HaTest, OversizedBatchAndRevokedLease) {
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  testing::HaServers servers(KANDB_META_HA_BINARY, etcd.UrlList(), "revoke", kLeaseMs);
  ASSERT_TRUE(servers.Start(1));
  Bootstrap(servers.AddressList());
  store::EtcdClient client(etcd.Endpoints(), 1000);
  const std::vector<store::EtcdKv> kvs = servers.LeaderKey(&client);
  ASSERT_EQ(kvs.size(), 1u);
  char lease[32];
  std::snprintf(lease, sizeof(lease), "%llx", static_cast<unsigned long long>(kvs[0].lease));
  // The connection is open before the revocation, so the upsert follows it
  // within a few milliseconds.
  kanrpc::RpcClient c(servers.Address(0), Options(1));
  pdpb::UpsertRegionRequest oversized;
  for (uint64_t i = 0; i <= testing::EtcdCluster::kMaxTxnOps; ++i) {
    oversized.regions.push_back(RegionAt(100000 + i, "u/o/" + std::to_string(i)));
  }
  pdpb::UpsertRegionResponse ignored;
  EXPECT_EQ(c.Call("Pd.UpsertRegion", oversized, &ignored).message(),
            "remote: InvalidArgument: etcd: etcdserver: too many operations in txn request");
  EXPECT_EQ(StoredRegions(&client, servers.prefix()).count(100000), 0u);
  pdpb::TsoResponse tso;
  ASSERT_TRUE(c.Call("Pd.Tso", pdpb::TsoRequest{1}, &tso).ok());
  const testing::ProgramResult revoked =
      testing::RunProgram({"/usr/bin/etcdctl", "--endpoints=" + etcd.UrlList(), "lease", "revoke", lease});
  ASSERT_EQ(testing::ExitCode(revoked), 0) << revoked.err;
  const Status s = c.Call("Pd.UpsertRegion", UpsertAt(779, "u/fenced"), &ignored);
  EXPECT_NE(s.message().find("Unavailable: not leader"), std::string::npos) << s.ToString();
  EXPECT_EQ(StoredRegions(&client, servers.prefix()).count(779), 0u);
}

int64_t NowNs() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

// One answer as a client pinned to one server saw it (steady clock, ns).
struct Answer {
  int server;
  int64_t sent, received;
  uint64_t first, count;
};

// What the answers of all servers show about leaders that overlap: answers
// given after another server's answer had arrived, yet with a lower
// timestamp (so from an older term), and the longest time by which one
// such answer followed (a lower bound on how long two leaders answered at
// once). Zero and zero when leaders never overlap.
struct Overlap {
  size_t decreasing = 0;
  int64_t longest_ns = 0;
};
Overlap FindOverlap(std::vector<Answer> answers) {
  std::sort(answers.begin(), answers.end(), [](const Answer& a, const Answer& b) { return a.received < b.received; });
  // highest[i]: the highest timestamp among the first i answers to arrive.
  std::vector<uint64_t> highest(answers.size() + 1, 0);
  for (size_t i = 0; i < answers.size(); ++i) {
    highest[i + 1] = std::max(highest[i], answers[i].first + answers[i].count - 1);
  }
  Overlap out;
  for (const Answer& a : answers) {
    const size_t before = std::lower_bound(answers.begin(), answers.end(), a.sent,
                                           [](const Answer& b, int64_t t) { return b.received < t; }) -
                          answers.begin();
    if (highest[before] < a.first) continue;
    ++out.decreasing;
    // The first answer to arrive with a higher timestamp.
    const size_t j = std::upper_bound(highest.begin(), highest.begin() + before + 1, a.first) - highest.begin();
    out.longest_ns = std::max(out.longest_ns, a.sent - answers[j - 1].received);
  }
  return out;
}

// Leases revoked again and again (etcd's "lease revoke") while clients
// pinned to each server take timestamps and identifiers: a revoked leader
// stops answering before its successor starts, so no timestamp goes back
// as any client sees it, none repeats, and no identifier is handed out
// twice, also when the old leader is asked for more identifiers right
// after the new one raised the mark. KANDB_HA_REVOKES (default 5) sets how
// many.
TEST_F(HaTest, RevokedLeasesNeverLeaveTwoLeaders) {
  const int revokes = static_cast<int>(testing::EnvInt("KANDB_HA_REVOKES", 5));
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  testing::HaServers servers(KANDB_META_HA_BINARY, etcd.UrlList(), "revokes", kLeaseMs);
  ASSERT_TRUE(servers.Start(2));
  Bootstrap(servers.AddressList());
  store::EtcdClient client(etcd.Endpoints(), 1000);

  std::atomic<bool> stop{false};
  std::mutex mu;
  std::vector<Answer> timestamps, ids;
  LoadThreads threads(&stop);
  for (int t = 0; t < 6; ++t) {
    threads.Add([&, t] {
      const int server = t % 2;
      kanrpc::RpcClient c(servers.Address(server), Options(1));
      std::vector<Answer> ts, id;
      for (uint64_t n = 0; !stop.load(); ++n) {
        const int64_t sent = NowNs();
        Status s;
        if (t < 4) {
          pdpb::TsoResponse resp;
          s = c.Call("Pd.Tso", pdpb::TsoRequest{3}, &resp);
          if (s.ok()) ts.push_back({server, sent, NowNs(), resp.timestamp, resp.count});
        } else {
          pdpb::AllocIdResponse resp;
          s = c.Call("Pd.AllocId", pdpb::AllocIdRequest{7}, &resp);
          if (s.ok()) id.push_back({server, sent, 0, resp.first_id, resp.count});
        }
        if (!s.ok()) SleepMs(2);
      }
      std::lock_guard<std::mutex> lock(mu);
      timestamps.insert(timestamps.end(), ts.begin(), ts.end());
      ids.insert(ids.end(), id.begin(), id.end());
    });
  }

  int64_t longest_takeover_ms = 0;
  for (int r = 0; r < revokes; ++r) {
    SleepMs(300);
    const int old = servers.WaitLeader(&client, 10000);
    ASSERT_GE(old, 0);
    kanrpc::RpcClient on_old(servers.Address(old), Options(1));
    kanrpc::RpcClient on_new(servers.Address(1 - old), Options(1));
    pdpb::AllocIdResponse before;
    Status s = RetryFor(20000, [&] { return on_old.Call("Pd.AllocId", pdpb::AllocIdRequest{1}, &before); }, 5);
    ASSERT_TRUE(s.ok()) << s.ToString();
    ids.push_back({old, 0, 0, before.first_id, before.count});
    const std::vector<store::EtcdKv> key = servers.LeaderKey(&client);
    ASSERT_EQ(key.size(), 1u);
    const int64_t revoked_at = SteadyMs();
    ASSERT_TRUE(client.LeaseRevoke(key[0].lease).ok());
    // The new leader raises the mark; the old one, asked for more than its
    // margin right after, must not hand out what lies under the new mark.
    pdpb::AllocIdResponse raised;
    s = RetryFor(20000, [&] { return on_new.Call("Pd.AllocId", pdpb::AllocIdRequest{500}, &raised); }, 5);
    ASSERT_TRUE(s.ok()) << s.ToString();
    longest_takeover_ms = std::max(longest_takeover_ms, SteadyMs() - revoked_at);
    ids.push_back({1 - old, 0, 0, raised.first_id, raised.count});
    pdpb::AllocIdResponse late;
    const Status late_status = on_old.Call("Pd.AllocId", pdpb::AllocIdRequest{1500}, &late);
    if (late_status.ok()) ids.push_back({old, 0, 0, late.first_id, late.count});
  }
  SleepMs(300);
  threads.Join();

  std::vector<uint64_t> all;
  for (const Answer& a : timestamps) {
    for (uint64_t i = 0; i < a.count; ++i) all.push_back(a.first + i);
  }
  std::sort(all.begin(), all.end());
  EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "a timestamp handed out twice";
  const Overlap overlap = FindOverlap(timestamps);
  EXPECT_EQ(overlap.decreasing, 0u) << "timestamps went back, two leaders answered for "
                                    << overlap.longest_ns / 1000000.0 << " ms";
  std::sort(ids.begin(), ids.end(), [](const Answer& a, const Answer& b) { return a.first < b.first; });
  size_t repeated_ids = 0;
  for (size_t i = 1; i < ids.size(); ++i) repeated_ids += ids[i - 1].first + ids[i - 1].count > ids[i].first;
  EXPECT_EQ(repeated_ids, 0u) << "identifiers handed out twice";
  EXPECT_GT(timestamps.size(), 0u);
  std::printf("revokes: %d, %zu timestamp and %zu identifier answers: %zu repeated, %zu decreasing, %zu identifier "
              "ranges overlapping; longest time with two leaders answering %.1f ms; longest revoke to new "
              "leader's first identifiers %lld ms\n",
              revokes, timestamps.size(), ids.size(), all.size() - static_cast<size_t>(std::unique(all.begin(), all.end()) - all.begin()),
              overlap.decreasing, repeated_ids, overlap.longest_ns / 1000000.0, static_cast<long long>(longest_takeover_ms));
}

// What routing must answer for `key` given the records etcd holds: the id
// of the first region record in key order that covers it, or the failure.
std::string RouteInEtcd(store::EtcdClient* etcd, const std::string& prefix, const std::string& key) {
  std::vector<store::EtcdKv> kvs;
  bool more = false;
  int64_t revision = 0;
  const std::string from = prefix + "pd/region/";
  EXPECT_TRUE(etcd->Range(from, store::PrefixEnd(from), 0, 0, &kvs, &more, &revision).ok());
  if (kvs.empty()) return "remote: NotFound: cluster not bootstrapped";
  for (const store::EtcdKv& kv : kvs) {
    pdpb::Region region;
    if (!pdpb::Decode(kv.value.size(), kv.value.data(), &region)) continue;
    if ((region.start_key.empty() || region.start_key <= key) && (region.end_key.empty() || key < region.end_key)) {
      return std::to_string(region.id);
    }
  }
  return "remote: NotFound: no region covers key";
}

// etcd applies a bootstrap and a split, but their answers come back only
// after the server gave up on them (a proxy holds them 1.5 s): the client
// is told "etcd unreachable". From then on routing must answer what etcd
// holds, never what the term last knew: the retried bootstrap finds the
// cluster, and routes find the split, also after later upserts.
TEST_F(HaTest, LateAnswersNeverLeaveRoutingBehind) {
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  testing::AnswerDelayProxy proxy(etcd.UrlList());
  testing::HaServers servers(KANDB_META_HA_BINARY, proxy.Url(), "late", kLeaseMs);
  ASSERT_TRUE(servers.Start(1));
  store::EtcdClient direct(etcd.Endpoints(), 2000);
  ASSERT_GE(servers.WaitLeader(&direct, 20000), 0);
  kanrpc::RpcClient once(servers.Address(0), Options(1, 5000));
  const std::string keys[] = {"", "a", "l", "m", "n", "z\xff"};
  // Routes every key, retrying while the server cannot answer (its term
  // paused by the held answers), and compares each answer with etcd.
  size_t compared = 0;
  auto expect_routes_as_etcd = [&] {
    for (const std::string& key : keys) {
      pdpb::GetRegionResponse resp;
      Status s;
      WaitFor(20000, [&] {
        s = once.Call("Pd.GetRegion", pdpb::GetRegionRequest{key}, &resp);
        return s.message().find("Unavailable") == std::string::npos;
      });
      EXPECT_EQ(s.ok() ? std::to_string(resp.region.id) : s.message(), RouteInEtcd(&direct, servers.prefix(), key))
          << "key '" << key << "'";
      ++compared;
    }
  };
  expect_routes_as_etcd();

  // A bootstrap that lands but is answered late.
  const pdpb::BootstrapRequest boot{{1, "127.0.0.1:20160", 0}, {2, "", "", {}, {pdpb::Peer{3, 1, 0}}}, {}};
  pdpb::BootstrapResponse booted;
  proxy.HoldAnswers(1500, "/v3/kv/txn");
  const Status late = once.Call("Pd.Bootstrap", boot, &booted);
  EXPECT_NE(late.message().find("Unavailable"), std::string::npos) << late.ToString();
  SleepMs(1600);
  Status s = RetryFor(20000, [&] { return once.Call("Pd.Bootstrap", boot, &booted); });
  ASSERT_TRUE(s.ok()) << s.ToString();
  EXPECT_TRUE(booted.already_bootstrapped);
  expect_routes_as_etcd();

  // A split that lands but is answered late, then upserts that succeed.
  pdpb::UpsertRegionRequest split;
  split.regions = {{2, "", "m", {1, 2}, {pdpb::Peer{3, 1, 0}}}, {4, "m", "", {1, 2}, {pdpb::Peer{5, 1, 0}}}};
  pdpb::UpsertRegionResponse upserted;
  proxy.HoldAnswers(1500, "/v3/kv/txn");
  const Status late_split = once.Call("Pd.UpsertRegion", split, &upserted);
  EXPECT_NE(late_split.message().find("Unavailable"), std::string::npos) << late_split.ToString();
  SleepMs(1600);
  expect_routes_as_etcd();
  const pdpb::UpsertRegionRequest later{{{6, "z", "", {1, 3}, {pdpb::Peer{7, 1, 0}}},
                                         {4, "m", "z", {1, 3}, {pdpb::Peer{5, 1, 0}}}},
                                        {}};
  s = RetryFor(20000, [&] { return once.Call("Pd.UpsertRegion", later, &upserted); });
  ASSERT_TRUE(s.ok()) << s.ToString();
  expect_routes_as_etcd();

  // The watch stalls (its answers held): routes after an acknowledged
  // upsert cannot wait for the copy, and answer by the walk over etcd.
  proxy.HoldAnswers(3000, "/v3/watch");
  const pdpb::UpsertRegionRequest merged{{{4, "m", "", {1, 4}, {pdpb::Peer{5, 1, 0}}}}, {6}};
  ASSERT_TRUE(once.Call("Pd.UpsertRegion", merged, &upserted).ok());
  expect_routes_as_etcd();
  std::printf("late answers: %zu routes compared with etcd\n", compared);
}

// A cluster of many regions (KANDB_HA_REGIONS, default 200,000) on the
// shortest lease (KANDB_HA_LEASE_MS for another): every server reads the
// records once and follows etcd from there, so when the leader is killed
// the next one serves routing as soon as the lease has run out, instead of
// reading every record first while its own lease runs out in turn, again
// and again.
TEST_F(HaTest, TakeoverAtScaleServesOnceTheLeaseRunsOut) {
  const int64_t regions = testing::EnvInt("KANDB_HA_REGIONS", 200000);
  const int64_t kShortLeaseMs = testing::EnvInt("KANDB_HA_LEASE_MS", 2000);
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  testing::HaServers servers(KANDB_META_HA_BINARY, etcd.UrlList(), "scale", kShortLeaseMs);
  store::EtcdClient client(etcd.Endpoints(), 10000);
  {
    store::EtcdBackend backend(&client, servers.prefix(), store::EtcdFence{});
    ASSERT_TRUE(backend.Write({{lsm::kOpPut, "pd/bootstrapped", "1"},
                               {lsm::kOpPut, "pd/store/1", pdpb::Encode(pdpb::Store{1, "127.0.0.1:20160", 0})}})
                    .ok());
    lsm::WriteBatch batch;
    for (int64_t i = 0; i < regions; ++i) {
      char start[32], end[32];
      std::snprintf(start, sizeof(start), "k%09lld", static_cast<long long>(i));
      std::snprintf(end, sizeof(end), "k%09lld", static_cast<long long>(i + 1));
      const pdpb::Region region{static_cast<uint64_t>(10 + i), i == 0 ? "" : start, i + 1 == regions ? "" : end,
                                {1, 1}, {pdpb::Peer{static_cast<uint64_t>(10 + regions + i), 1, 0}}};
      batch.push_back({lsm::kOpPut, "pd/region/" + std::to_string(region.id), pdpb::Encode(region)});
      if (batch.size() == 5000 || i + 1 == regions) {
        ASSERT_TRUE(backend.Write(batch).ok());
        batch.clear();
      }
    }
  }
  ASSERT_TRUE(servers.Start(2));
  const std::string loaded = "read " + std::to_string(regions) + " regions";
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(WaitFor(300000, [&] { return servers.Stderr(i).find(loaded) != std::string::npos; }, 100))
        << servers.Stderr(i);
  }
  const int leader = servers.WaitLeader(&client, 20000);
  ASSERT_GE(leader, 0);
  const double follower_mib = testing::ReadProcessStatus(servers.Pid(1 - leader)).rss_kib / 1024.0;
  const std::string& line = servers.Stderr(1 - leader);
  const size_t in = line.find(" ms; following", line.find(loaded));
  const std::string read_ms = line.substr(line.rfind(' ', in - 1) + 1, in - line.rfind(' ', in - 1) - 1);

  kanrpc::RpcClient router(servers.AddressList(), Options(2, 5000));
  char middle[32];
  std::snprintf(middle, sizeof(middle), "k%09lld", static_cast<long long>(regions / 2));
  const auto routed = [&] {
    pdpb::GetRegionResponse resp;
    const Status s = router.Call("Pd.GetRegion", pdpb::GetRegionRequest{middle}, &resp);
    return s.ok() && resp.region.id == static_cast<uint64_t>(10 + regions / 2);
  };
  ASSERT_TRUE(WaitFor(60000, routed));
  const int64_t killed_at = SteadyMs();
  servers.Kill(leader);
  while (!routed() && SteadyMs() < killed_at + 60000) SleepMs(20);
  const int64_t took = SteadyMs() - killed_at;
  ASSERT_TRUE(routed()) << servers.Stderr(1 - leader);
  // The new leader keeps serving: its term does not end while it catches up.
  SleepMs(kShortLeaseMs);
  EXPECT_TRUE(routed()) << servers.Stderr(1 - leader);
  EXPECT_EQ(servers.Stderr(1 - leader).find("stepped down"), std::string::npos) << servers.Stderr(1 - leader);
  // The region reads answer from the new leader's copy alike.
  pdpb::ScanRegionsResponse scanned;
  ASSERT_TRUE(router.Call("Pd.ScanRegions", pdpb::ScanRegionsRequest{middle, "", 3}, &scanned).ok());
  ASSERT_EQ(scanned.regions.size(), 3u);
  EXPECT_EQ(scanned.regions[2].region.id, static_cast<uint64_t>(10 + regions / 2 + 2));
  pdpb::GetRegionResponse by_id;
  ASSERT_TRUE(router.Call("Pd.GetRegionById", pdpb::GetRegionByIdRequest{10}, &by_id).ok());
  EXPECT_EQ(by_id.leader_store.id, 1u);
  std::printf("takeover at %lld regions: routed by the new leader %lld ms after the kill (lease %lld ms); "
              "follower resident memory %.0f MiB, records read in %s ms\n",
              static_cast<long long>(regions), static_cast<long long>(took), static_cast<long long>(kShortLeaseMs),
              follower_mib, read_ms.c_str());
}

// The status port of each part an HA server can play: the leader and a
// follower answer /health with 200 and say which they are, and a server
// cut off from etcd (its only way there, a proxy, closed) answers 503 with
// etcd's error, as soon as its next campaign read fails.
TEST_F(HaTest, StatusPortsOfLeaderFollowerAndServerCutOff) {
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  testing::HaServers servers(KANDB_META_HA_BINARY, etcd.UrlList(), "status", kLeaseMs);
  servers.WithStatusPorts();
  ASSERT_TRUE(servers.Start(2));
  store::EtcdClient client(etcd.Endpoints(), 1000);
  const int leader = servers.WaitLeader(&client, 20000);
  ASSERT_GE(leader, 0);
  const int follower = 1 - leader;
  auto proxy = std::make_unique<testing::AnswerDelayProxy>(etcd.UrlList());
  testing::HaServers cut_off(KANDB_META_HA_BINARY, proxy->Url(), "status", kLeaseMs);
  cut_off.WithStatusPorts();
  ASSERT_TRUE(cut_off.Start(1));

  auto get = [](int port, const std::string& path) -> std::pair<int, nlohmann::json> {
    httplib::Client http("127.0.0.1", port);
    http.set_read_timeout(5);
    auto res = http.Get(path);
    if (!res) return {0, nullptr};
    return {res->status, nlohmann::json::parse(res->body, nullptr, false)};
  };
  // Polled, up to a generous deadline: the leader serves once its term
  // began, a follower once its campaign read the leader key, and each
  // server writes its member key from a thread of its own.
  auto poll = [&](int port, const std::string& path, const std::function<bool(const nlohmann::json&)>& done) {
    nlohmann::json last;
    WaitFor(20000, [&] { return done(last = get(port, path).second); });
    return last;
  };
  auto role_is = [](const char* role) {
    return [role](const nlohmann::json& h) { return h.is_object() && h.value("role", "") == role; };
  };
  const std::string leader_address = servers.Address(leader);
  EXPECT_EQ(poll(servers.StatusPort(leader), "/health", role_is("leader")),
            (nlohmann::json{{"status", "ok"}, {"server", "kandb-meta-ha"}, {"role", "leader"}}));
  EXPECT_EQ(poll(servers.StatusPort(follower), "/health", role_is("follower")),
            (nlohmann::json{{"status", "ok"}, {"server", "kandb-meta-ha"}, {"role", "follower"},
                            {"leader", leader_address}}));
  EXPECT_EQ(poll(cut_off.StatusPort(0), "/health", role_is("follower")).value("leader", ""), leader_address);

  // Members: every live server with its status address, the leader marked;
  // the leader shows its lease, a follower whom it follows.
  auto member = [](const testing::HaServers& group, int i, bool leading) {
    return nlohmann::json{{"address", group.Address(i)},
                          {"status_addr", "127.0.0.1:" + std::to_string(group.StatusPort(i))},
                          {"leading", leading}};
  };
  std::vector<nlohmann::json> all = {member(servers, 0, leader == 0), member(servers, 1, leader == 1),
                                     member(cut_off, 0, false)};
  std::sort(all.begin(), all.end(), [](const nlohmann::json& a, const nlohmann::json& b) {
    return a["address"].get<std::string>() < b["address"].get<std::string>();
  });
  auto servers_are = [&all](const nlohmann::json& m) { return m.is_object() && m["servers"] == nlohmann::json(all); };
  nlohmann::json members = poll(servers.StatusPort(leader), "/api/v1/members", servers_are);
  EXPECT_EQ(members["servers"], nlohmann::json(all)) << members;
  EXPECT_EQ(members["leader"], leader_address);
  EXPECT_EQ(members["lease"]["ttl_s"], (kLeaseMs + 999) / 1000) << members;
  members = get(servers.StatusPort(follower), "/api/v1/members").second;
  EXPECT_EQ(members["leader"], leader_address);
  EXPECT_EQ(members["self"], servers.Address(follower));
  EXPECT_FALSE(members.contains("lease"));
  // A follower's data views say where the leader is, as its RPC port does.
  auto [stores_status, stores] = get(servers.StatusPort(follower), "/api/v1/stores");
  EXPECT_EQ(stores_status, 503);
  EXPECT_EQ(stores["error"], "Unavailable: not leader; leader at " + leader_address);

  proxy.reset();
  const nlohmann::json health = poll(cut_off.StatusPort(0), "/health", [](const nlohmann::json& h) {
    return h.is_object() && h.value("status", "") == "unavailable";
  });
  EXPECT_EQ(health.value("reason", "").rfind("cannot reach etcd: Unavailable: etcd unreachable: ", 0), 0u) << health;
  EXPECT_EQ(get(cut_off.StatusPort(0), "/health").first, 503);
  // The others go on as they were, and see it leave once its lease ran out.
  EXPECT_EQ(get(servers.StatusPort(leader), "/health").first, 200);
  all.erase(std::find(all.begin(), all.end(), member(cut_off, 0, false)));
  members = poll(servers.StatusPort(follower), "/api/v1/members", servers_are);
  EXPECT_EQ(members["servers"], nlohmann::json(all));
}

// Store heartbeats on the replicated server: what a store heartbeat and a
// removal persist (labels, the removal) is in etcd and outlives a
// takeover; the statistics are learned again from the stores by the new
// leader, which counts every store silent only from its own start. Service
// safe points and the GC safe point are in etcd too.
TEST_F(HaTest, StoresAndSafePointsAcrossATakeover) {
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(1));
  testing::HaServers servers(KANDB_META_HA_BINARY, etcd.UrlList(), "stores", kLeaseMs);
  ASSERT_TRUE(servers.Start(2));
  const std::string targets = servers.AddressList();
  Bootstrap(targets);
  store::EtcdClient client(etcd.Endpoints(), 1000);
  kanrpc::RpcClient c(targets, Options(5));
  // Retried across the takeover: the client follows the leader.
  auto call = [&c](const std::string& method, const auto& req, auto* resp) {
    Status s;
    WaitFor(20000,
            [&] { return (s = c.Call(method, req, resp)).ok() || s.message().find("not found") != std::string::npos; });
    return s;
  };

  pdpb::StoreHeartbeatRequest hb;
  hb.store.id = 7;
  hb.store.address = "127.0.0.1:20167";
  hb.store.labels = {{"zone", "z2"}, {"host", "h7"}};
  hb.stats.capacity = 1000;
  hb.stats.available = 600;
  hb.stats.region_count = 3;
  pdpb::StoreHeartbeatResponse state;
  ASSERT_TRUE(call("Pd.StoreHeartbeat", hb, &state).ok());
  pdpb::RemoveStoreResponse removed;  // Tombstone at once: its bootstrap region has no peers
  ASSERT_TRUE(call("Pd.RemoveStore", pdpb::RemoveStoreRequest{1}, &removed).ok());

  // Service safe points, with expiries far off: the new leader reads them
  // and the GC safe point they give from etcd, and refuses what the old
  // one would have.
  pdpb::UpdateServiceSafePointResponse sp;
  ASSERT_TRUE(call("Pd.UpdateServiceSafePoint", pdpb::UpdateServiceSafePointRequest{"backup", 3600, 500}, &sp).ok());
  ASSERT_TRUE(call("Pd.UpdateServiceSafePoint", pdpb::UpdateServiceSafePointRequest{"gc_worker", 3600, 1000}, &sp).ok());

  const int leader = servers.WaitLeader(&client, 10000);
  ASSERT_GE(leader, 0);
  servers.Kill(leader);
  pdpb::GetGcSafePointResponse gc;
  ASSERT_TRUE(call("Pd.GetGcSafePoint", pdpb::GetGcSafePointRequest{}, &gc).ok());
  EXPECT_EQ(gc.safe_point, 500u);
  ASSERT_EQ(gc.services.size(), 2u);
  EXPECT_EQ(gc.services[0].service_id, "backup");
  ASSERT_TRUE(call("Pd.UpdateServiceSafePoint", pdpb::UpdateServiceSafePointRequest{"backup", 3600, 400}, &sp).ok());
  EXPECT_TRUE(sp.refused);
  EXPECT_EQ(sp.safe_point, 500u);
  pdpb::GetStoreResponse got;
  ASSERT_TRUE(call("Pd.GetStore", pdpb::GetStoreRequest{7}, &got).ok());
  EXPECT_EQ(got.store.store.labels, hb.store.labels);
  EXPECT_EQ(got.store.store.address, hb.store.address);
  EXPECT_EQ(got.store.state, pdpb::kStoreUp);
  EXPECT_EQ(got.store.stats, pdpb::StoreStats{});
  EXPECT_EQ(got.store.last_heartbeat_ms, 0u);
  pdpb::GetAllStoresResponse all;
  ASSERT_TRUE(call("Pd.GetAllStores", pdpb::GetAllStoresRequest{}, &all).ok());
  ASSERT_EQ(all.stores.size(), 2u);
  EXPECT_EQ(all.stores[0].state, pdpb::kStoreTombstone);
  ASSERT_TRUE(call("Pd.StoreHeartbeat", hb, &state).ok());
  ASSERT_TRUE(call("Pd.GetStore", pdpb::GetStoreRequest{7}, &got).ok());
  EXPECT_EQ(got.store.stats, hb.stats);
}

// One etcd member lost: service goes on. Two lost: requests fail with a
// clear status. Both back: service resumes and nothing acknowledged is lost.
TEST_F(HaTest, LossOfEtcdMembers) {
  testing::EtcdCluster etcd(dir_);
  ASSERT_TRUE(etcd.Start(3));
  testing::HaServers servers(KANDB_META_HA_BINARY, etcd.UrlList(), "members", kLeaseMs);
  ASSERT_TRUE(servers.Start(2));
  const std::string targets = servers.AddressList();
  Bootstrap(targets);
  kanrpc::RpcClient c(targets, Options(3));
  uint64_t next_id = 800;
  std::map<uint64_t, std::string> acked;
  // Upserts until one succeeds or `ms` passed; the last status.
  auto upsert = [&](int ms) {
    Status s;
    for (const int64_t end = SteadyMs() + ms; SteadyMs() < end; SleepMs(50)) {
      const pdpb::UpsertRegionRequest req = UpsertAt(next_id, "u/m/" + std::to_string(next_id));
      pdpb::UpsertRegionResponse resp;
      s = c.Call("Pd.UpsertRegion", req, &resp);
      if (s.ok()) acked[next_id] = pdpb::Encode(req.regions[0]);
      ++next_id;
      if (s.ok()) break;
    }
    return s;
  };
  ASSERT_TRUE(upsert(10000).ok());

  etcd.Kill(0);
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(upsert(kLeaseMs + 5000).ok()) << "one member lost";
  pdpb::TsoResponse tso;
  EXPECT_TRUE(c.Call("Pd.Tso", pdpb::TsoRequest{1}, &tso).ok());

  etcd.Kill(1);
  // Without a quorum the leader cannot renew and steps down; every answer
  // is then a failure that says why.
  const Status down = upsert(kLeaseMs + 3000);
  ASSERT_FALSE(down.ok());
  EXPECT_NE(down.message().find("Unavailable: "), std::string::npos) << down.ToString();
  const Status tso_down = c.Call("Pd.Tso", pdpb::TsoRequest{1}, &tso);
  EXPECT_FALSE(tso_down.ok());
  EXPECT_NE(tso_down.message().find("Unavailable: "), std::string::npos) << tso_down.ToString();

  ASSERT_TRUE(etcd.Restart(0));
  ASSERT_TRUE(etcd.Restart(1));
  ASSERT_TRUE(etcd.WaitHealthy(30000));
  ASSERT_TRUE(upsert(20000).ok()) << "service did not resume";
  store::EtcdClient client(etcd.Endpoints(), 1000);
  std::map<uint64_t, std::string> stored = StoredRegions(&client, servers.prefix());
  for (const auto& [id, encoding] : acked) EXPECT_EQ(stored[id], encoding) << "region " << id;
}

}  // namespace
}  // namespace kandb
