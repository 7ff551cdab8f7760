// The simulated safe point services: a run against the service in
// process on a clock the test steps, and the checks catching a server that
// breaks its promises.

#include "tools/sim_safe_points.h"

#include <atomic>
#include <deque>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "meta/pd_service.h"
#include "pdpb/messages.h"
#include "store/meta_store.h"

namespace kandb::tools::sim {
namespace {

constexpr int64_t kStart = 1'700'000'000'000;

// Dispatches an encoded request to the service's handler, as the server's
// registration does.
template <class Req, class Resp>
Status Dispatch(Status (meta::PdService::*handler)(const Req&, Resp*), meta::PdService* service,
                const std::string& request, std::string* response) {
  Req req;
  if (!pdpb::Decode(request.size(), request.data(), &req)) return Status::InvalidArgument("bad request payload");
  Resp resp;
  Status s = (service->*handler)(req, &resp);
  if (s.ok()) *response = pdpb::Encode(resp);
  return s;
}

// Service 0, the slowest, holds the GC safe point until it falls silent
// past its TTL; the GC safe point then jumps to service 1's, and service 0
// is refused once when it comes back, and retries at once at the GC safe
// point it was answered. Nothing went backwards or passed a live service.
TEST(SimSafePointsTest, RunAgainstTheServiceWithAnExpiry) {
  const kandb::testing::ScratchDir dir("kandb-sim-gc");
  std::atomic<int64_t> now{kStart};
  std::unique_ptr<store::MetaStore> store;
  ASSERT_TRUE(store::MetaStore::Open(dir.path(), "", 0, &store).ok());
  std::unique_ptr<meta::PdService> service;
  ASSERT_TRUE(meta::PdService::Create(store.get(), 0, [&now] { return static_cast<uint64_t>(now.load()); }, &service)
                  .ok());
  RawCall call = [&service](const std::string& method, const std::string& request, std::string* response) {
    if (method == "Pd.UpdateServiceSafePoint") {
      return Dispatch(&meta::PdService::UpdateServiceSafePoint, service.get(), request, response);
    }
    if (method == "Pd.GetGcSafePoint") return Dispatch(&meta::PdService::GetGcSafePoint, service.get(), request, response);
    return Status::NotFound("unknown method: " + method);
  };
  SafePointOptions options;  // 3 services, TTL 10 s, service 0 silent from 5 s to 30 s
  SafePointLoad load(options, call);
  uint64_t gc_at_silence_end = 0;
  for (int64_t t = 0; t <= 60'000; t += 500) {
    now = kStart + t;
    load.Tick(kStart + t);
    if (t == 29'500) gc_at_silence_end = load.figures().gc_safe_point;
  }
  const SafePointFigures& f = load.figures();
  EXPECT_EQ(f.went_backwards, 0u);
  EXPECT_EQ(f.above_live_service, 0u);
  EXPECT_EQ(f.failed_calls, 0u);
  EXPECT_EQ(f.reads, 121u);
  EXPECT_EQ(f.refused, 1u);
  EXPECT_EQ(f.updates, 61u * 3 - 25 + 1);  // service 0 skipped 25 of its updates, retried once
  // While service 0 was expired, service 1 (2/3 ms a ms) held it: at 29.5 s.
  EXPECT_EQ(gc_at_silence_end, static_cast<uint64_t>(kStart - 60'000 + 29'000 * 2 / 3) << 18);
}

// A server that answers scripted GC safe points: a drop, a listed service
// below the answer, a failed call and an undecodable answer are each
// counted; an update's answer counts as a GC safe point seen too.
TEST(SimSafePointsTest, ChecksCatchAServerBreakingItsPromises) {
  std::deque<std::pair<Status, std::string>> answers;
  auto gc = [](uint64_t safe_point, std::vector<pdpb::ServiceSafePoint> services = {}) {
    return pdpb::Encode(pdpb::GetGcSafePointResponse{safe_point, std::move(services)});
  };
  answers.emplace_back(Status::OK(), pdpb::Encode(pdpb::UpdateServiceSafePointResponse{"sim-gc-0", 1, 2, 50, false}));
  answers.emplace_back(Status::OK(), gc(50));
  answers.emplace_back(Status::OK(), pdpb::Encode(pdpb::UpdateServiceSafePointResponse{"sim-gc-0", 60, 2, 60, true}));
  answers.emplace_back(Status::OK(), gc(40, {{"a", 45, 1}, {"b", 30, 1}}));
  answers.emplace_back(Status::Corruption("down"), "");
  answers.emplace_back(Status::OK(), "\x01");
  RawCall call = [&answers](const std::string&, const std::string&, std::string* response) {
    auto [status, bytes] = answers.front();
    answers.pop_front();
    *response = bytes;
    return status;
  };
  SafePointOptions options;
  options.services = 1;
  options.silent_from_ms = -1;
  SafePointLoad load(options, call);
  load.Tick(kStart);
  load.Tick(kStart + 1000);
  load.Tick(kStart + 2000);
  // 2 updates (1 refused), 2 reads, 2 failed, at 60 after 2 advances, 1 backwards, 1 above a service.
  const SafePointFigures want{2, 1, 2, 2, 60, 2, 1, 1};
  EXPECT_EQ(load.figures(), want);
  EXPECT_EQ(load.Summary(),
            "safe points: 2 updates (1 refused), 2 reads, gc safe point 60, advanced 2 times, 1 backwards, 1 above a "
            "live service, 2 failed calls");
}

}  // namespace
}  // namespace kandb::tools::sim
