// GC safe points in process: the lowest live service, expiry by a clock the
// test sets, refusals that change nothing, a GC safe point that never moves
// backwards across expiry, removal and a reopen, what lies in the store,
// and two updates racing through the read-then-write window.

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/coding.h"
#include "common/test_util.h"
#include "meta/keys.h"
#include "meta/pd_service.h"
#include "meta/service_test_util.h"
#include "store/meta_store.h"

namespace kandb::meta {
namespace {

using pdpb::ServiceSafePoint;
using pdpb::UpdateServiceSafePointResponse;
using Answer = UpdateServiceSafePointResponse;  // service, its safe point and expiry, GC safe point, refused

class SafePointTest : public ServiceTest {
 public:
  UpdateServiceSafePointResponse Update(const std::string& id, uint64_t ttl_s, uint64_t safe_point) {
    UpdateServiceSafePointResponse resp;
    Status s = service_->UpdateServiceSafePoint({id, ttl_s, safe_point}, &resp);
    EXPECT_TRUE(s.ok()) << s.ToString();
    return resp;
  }
  pdpb::GetGcSafePointResponse Gc() {
    pdpb::GetGcSafePointResponse resp;
    Status s = service_->GetGcSafePoint({}, &resp);
    EXPECT_TRUE(s.ok()) << s.ToString();
    return resp;
  }
};

// The lowest live safe point, listed in service id order (bytes, not
// text: "\xff" after "b"); expired services stop counting, and the GC
// safe point they held down then stays up, also once nobody is left and
// when a newcomer asks for less.
TEST_F(SafePointTest, LowestLiveServiceAndExpiryNeverMoveItBack) {
  EXPECT_EQ(Gc(), pdpb::GetGcSafePointResponse{});  // never set: 0, nobody
  EXPECT_EQ(Update("gc_worker", 10, 100), (Answer{"gc_worker", 100, kStartMs + 10'000, 100, false}));
  EXPECT_EQ(Update("b", 30, 150), (Answer{"b", 150, kStartMs + 30'000, 100, false}));
  EXPECT_EQ(Update(std::string("\xff\x00", 2), 60, 300).min_safe_point, 100u);
  pdpb::GetGcSafePointResponse gc = Gc();
  EXPECT_EQ(gc.safe_point, 100u);
  const std::vector<ServiceSafePoint> listed = {{"b", 150, kStartMs + 30'000},
                                                {"gc_worker", 100, kStartMs + 10'000},
                                                {std::string("\xff\x00", 2), 300, kStartMs + 60'000}};
  EXPECT_EQ(gc.services, listed);

  now_ = kStartMs + 10'000;  // gc_worker's last millisecond is gone
  gc = Gc();
  EXPECT_EQ(gc.safe_point, 150u);
  EXPECT_EQ(gc.services.size(), 2u);
  EXPECT_EQ(Get(kGcSafePointKey), Fixed64(150));  // persisted before it was answered
  now_ = kStartMs + 60'000;  // everybody expired
  EXPECT_EQ(Gc(), (pdpb::GetGcSafePointResponse{150, {}}));
  // A newcomer below it, the expired service coming back low included, is refused.
  EXPECT_EQ(Update("gc_worker", 10, 100), (Answer{"gc_worker", 0, 0, 150, true}));
  EXPECT_EQ(Update("gc_worker", 10, 150), (Answer{"gc_worker", 150, kStartMs + 70'000, 150, false}));
  // Its entry is written, not deleted with the expired one it replaces in
  // the same batch: otherwise nothing would hold the GC safe point back.
  EXPECT_EQ(Get(ServiceSafePointKey("gc_worker")), pdpb::Encode(ServiceSafePoint{"gc_worker", 150, kStartMs + 70'000}));
  EXPECT_EQ(Gc().services, (std::vector<ServiceSafePoint>{{"gc_worker", 150, kStartMs + 70'000}}));
  // Removal of the only service leaves the GC safe point where it was.
  EXPECT_EQ(Update("gc_worker", 20, 400).min_safe_point, 400u);
  EXPECT_EQ(Update("gc_worker", 0, 0), (Answer{"gc_worker", 0, 0, 400, false}));
  EXPECT_EQ(Gc(), (pdpb::GetGcSafePointResponse{400, {}}));
}

// A lower update of a service is refused with what stands, and writes
// nothing; the same safe point again moves only the expiry (also nearer);
// a refusal still counts an expiry it sees.
TEST_F(SafePointTest, RefusalsAnswerCurrentValuesAndChangeNothing) {
  Update("a", 100, 500);
  Update("b", 200, 700);
  const std::string a_before = Get(ServiceSafePointKey("a"));
  EXPECT_EQ(Update("a", 100, 499), (Answer{"a", 500, kStartMs + 100'000, 500, true}));
  EXPECT_EQ(Get(ServiceSafePointKey("a")), a_before);
  EXPECT_EQ(Update("new", 100, 400), (Answer{"new", 0, 0, 500, true}));
  EXPECT_EQ(Get(ServiceSafePointKey("new")), "<absent>");

  now_ = kStartMs + 1'000;
  EXPECT_EQ(Update("a", 5, 500), (Answer{"a", 500, kStartMs + 6'000, 500, false}));
  EXPECT_EQ(Update("a", 100, 600), (Answer{"a", 600, kStartMs + 101'000, 600, false}));
  now_ = kStartMs + 101'000;  // a expired: b's 700 holds it now
  EXPECT_EQ(Update("b", 10, 650), (Answer{"b", 700, kStartMs + 200'000, 700, true}));
  EXPECT_EQ(Get(kGcSafePointKey), Fixed64(700));

  // Bad service ids are the caller's error, not a refusal.
  const std::pair<std::string, std::string> bad[] = {
      {"", "InvalidArgument: safe point: service id is empty"},
      {std::string(257, 'x'), "InvalidArgument: safe point: service id of 257 bytes is over 256"},
  };
  for (const auto& [id, text] : bad) {
    UpdateServiceSafePointResponse untouched{"keep", 1, 2, 3, true};
    EXPECT_EQ(service_->UpdateServiceSafePoint({id, 10, 800}, &untouched).ToString(), text);
    EXPECT_EQ(untouched, (Answer{"keep", 1, 2, 3, true}));
  }
  EXPECT_FALSE(Update(std::string(256, 'x'), 10, 800).refused);
}

// What lies in the store: one batch per update holding the entry, the
// deletions of expired entries and the raised GC safe point; keys in hex;
// a reopened service answers the same; a damaged GC safe point is an
// error, never read as 0.
TEST_F(SafePointTest, PersistedLayoutOneBatchAndReopen) {
  Update("old", 1, 10);
  now_ = kStartMs + 5'000;
  std::vector<lsm::WriteBatch> batches;
  store_->SetApplyObserver([&batches](const lsm::WriteBatch& batch) { batches.push_back(batch); });
  Update(std::string("a/\x01", 3), 3600, 20);
  store_->SetApplyObserver(nullptr);
  ASSERT_EQ(batches.size(), 1u);
  std::vector<std::pair<uint8_t, std::string>> ops;
  for (const lsm::Entry& e : batches[0]) ops.emplace_back(e.op, e.key);
  const std::vector<std::pair<uint8_t, std::string>> want = {
      {1, "pd/gc/service/612f01"}, {1, "pd/gc/safe_point"}, {2, "pd/gc/service/6f6c64"}};
  EXPECT_EQ(ops, want);
  EXPECT_EQ(Get("pd/gc/service/612f01"), pdpb::Encode(ServiceSafePoint{"a/\x01", 20, kStartMs + 5'000 + 3'600'000}));
  EXPECT_EQ(Get(kGcSafePointKey), Fixed64(20));
  // A TTL past the clock's end lives as long as the clock.
  EXPECT_EQ(Update("forever", UINT64_MAX, 30).expires_ms, UINT64_MAX);

  Reopen();
  pdpb::GetGcSafePointResponse gc = Gc();
  EXPECT_EQ(gc.safe_point, 20u);
  ASSERT_EQ(gc.services.size(), 2u);
  EXPECT_EQ(gc.services[0].service_id, "a/\x01");
  EXPECT_TRUE(Update("a/\x01", 60, 19).refused);

  ASSERT_TRUE(store_->Put({{kGcSafePointKey, "1234"}}).ok());
  pdpb::GetGcSafePointResponse resp;
  EXPECT_EQ(service_->GetGcSafePoint({}, &resp).ToString(),
            "Corruption: gc safe point pd/gc/safe_point has 4 bytes, not 8");
  ASSERT_TRUE(store_->Put({{kGcSafePointKey, Fixed64(20)}, {ServiceSafePointKey("x"), "\x01"}}).ok());
  EXPECT_EQ(service_->GetGcSafePoint({}, &resp).ToString(),
            "Corruption: bad service safe point record pd/gc/service/78");
}

// Two updates in the window between one's read and its write: the higher
// update of "a" has read the entries (a at 100) and not written yet when a
// lower one comes in, of "a" itself or of a new service. The second waits
// for the lock, then reads the first's write and is refused; had it
// decided on the entries before that write, a would move back to 150, or
// "b" would be accepted at 150 under the GC safe point of 200 the first
// answered.
TEST_F(SafePointTest, LowerUpdateRacingAHigherOneIsRefused) {
  uint64_t base = 0;
  for (const char* racer : {"a", "b"}) {
    SCOPED_TRACE(racer);
    base += 1000;
    Update("a", 60, base + 100);
    std::atomic<bool> raced{false};
    std::atomic<bool> waiting{false};
    std::atomic<bool> finished{false};  // without the lock, the second is not held up
    std::thread second;
    UpdateServiceSafePointResponse late;
    service_->SetSafePointHookForTesting([&](PdService::SafePointStep step) {
      if (step == PdService::SafePointStep::kLockBusy) {
        waiting = true;
        return;
      }
      if (raced.exchange(true)) return;  // the second call's own read
      second = std::thread([&] {
        late = Update(racer, 60, base + 150);
        finished = true;
      });
      while (!waiting.load() && !finished.load()) std::this_thread::yield();
    });
    EXPECT_EQ(Update("a", 60, base + 200).min_safe_point, base + 200);
    second.join();
    service_->SetSafePointHookForTesting(nullptr);
    EXPECT_TRUE(late.refused);
    EXPECT_EQ(late.min_safe_point, base + 200);
    pdpb::GetGcSafePointResponse gc = Gc();
    EXPECT_EQ(gc.safe_point, base + 200);
    ASSERT_EQ(gc.services.size(), 1u);
    EXPECT_EQ(gc.services[0], (ServiceSafePoint{"a", base + 200, kStartMs + 60'000}));
  }
}

}  // namespace
}  // namespace kandb::meta
