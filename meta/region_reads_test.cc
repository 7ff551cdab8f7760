// The region reads: scans over the corners of a key range (boundaries,
// open ends, limits and their cap, gaps, overlaps the index declines,
// damaged records), each checked against the walk over the records; a
// region by id from the index and from a read of its record alike; and the
// leader each presents, which GetRegion's answer must not follow.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "meta/keys.h"
#include "meta/pd_service.h"
#include "store/meta_store.h"

namespace kandb::meta {
namespace {

pdpb::Store MakeStore(uint64_t id) { return {id, "10.0.0." + std::to_string(id) + ":20160", 0}; }

// A region whose peers sit on `store_ids`, peer ids being 100 + store id.
pdpb::Region MakeRegion(uint64_t id, std::string start, std::string end, const std::vector<uint64_t>& store_ids = {}) {
  pdpb::Region r{id, std::move(start), std::move(end), {1, 1}, {}};
  for (uint64_t s : store_ids) r.peers.push_back({100 + s, s, 0});
  return r;
}

// A router that answers nothing, so that a service over it reads every
// answer from the records.
class DecliningRouter final : public RegionRouter {
 public:
  bool Route(const std::string&, pdpb::GetRegionResponse*, Status*) const override { return false; }
  size_t regions() const override { return 0; }
};

class RegionReadsTest : public ::testing::Test {
 protected:
  RegionReadsTest() : dir_(kandb::testing::MakeTempDir("kandb-reads")) {
    EXPECT_TRUE(store::MetaStore::Open(dir_, "", 0, &store_).ok());
    EXPECT_TRUE(PdService::Create(store_.get(), 0, &service_).ok());
    PdService::Options options;
    options.router = &declining_;
    EXPECT_TRUE(PdService::Create(store_.get(), std::move(options), &reader_).ok());
  }
  ~RegionReadsTest() override {
    reader_.reset();
    service_.reset();
    store_.reset();
    kandb::testing::RemoveTree(dir_);
  }
  void Put(uint64_t id, const pdpb::Region& region) { Put(RegionKey(id), pdpb::Encode(region)); }
  void Put(const std::string& key, const std::string& value) { ASSERT_TRUE(store_->Put({{key, value}}).ok()); }

  // The ids scanned, comma-separated, or the rendered failure. The walk
  // must answer the same, and the index must answer itself when
  // `by_index`.
  std::string Scan(const std::string& start, const std::string& end, uint32_t limit = 0, bool by_index = true) {
    const pdpb::ScanRegionsRequest req{start, end, limit};
    pdpb::ScanRegionsResponse resp, walked;
    const Status s = service_->ScanRegions(req, &resp);
    const Status w = service_->ScanRegionsByWalk(req, &walked);
    EXPECT_EQ(s.ToString(), w.ToString());
    if (s.ok()) {
      EXPECT_TRUE(resp == walked) << "scan [" << start << ", " << end << ")";
    }
    std::vector<pdpb::Region> indexed;
    Status index_status;
    EXPECT_EQ(service_->routing_index()->Scan(start, end, PdService::ScanLimit(limit), &indexed, &index_status),
              by_index)
        << "scan [" << start << ", " << end << ")";
    if (!s.ok()) return s.ToString();
    std::string ids;
    for (const pdpb::ScannedRegion& r : resp.regions) ids += (ids.empty() ? "" : ",") + std::to_string(r.region.id);
    return ids;
  }
  // GetRegionById through the index and through a read of the record:
  // both must answer alike. Returns the index's status.
  Status ById(uint64_t id, pdpb::GetRegionResponse* resp) {
    pdpb::GetRegionResponse read;
    const Status s = service_->GetRegionById({id}, resp);
    const Status r = reader_->GetRegionById({id}, &read);
    EXPECT_EQ(s.ToString(), r.ToString()) << "region " << id;
    if (s.ok()) {
      EXPECT_TRUE(*resp == read) << "region " << id;
    }
    return s;
  }
  void Heartbeat(PdService* service, uint64_t store_id, uint64_t region_id) {
    pdpb::RegionHeartbeatResponse resp;
    ASSERT_TRUE(service->RegionHeartbeat({store_id, {{region_id, {store_id}, {}, {}}}, {}}, &resp).ok());
  }

  const std::string dir_;
  DecliningRouter declining_;
  std::unique_ptr<store::MetaStore> store_;
  std::unique_ptr<PdService> service_;  // with its routing index
  std::unique_ptr<PdService> reader_;   // reading the records only
};

TEST_F(RegionReadsTest, ScansOverBoundariesOpenEndsAndGaps) {
  EXPECT_EQ(Scan("", ""), "NotFound: cluster not bootstrapped");
  pdpb::GetRegionResponse resp;
  EXPECT_EQ(ById(1, &resp).ToString(), "NotFound: cluster not bootstrapped");

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
      {"", "b", 0, "10"},                 //
      {"c", std::string("d\0", 2), 0, "9,100"},  // one byte past a boundary
      {"f\xff", "", 0, "2"},              // 0xFF compares above every other byte
      {"\xff", "", 0, "2"},               //
      {"d", "d", 0, ""},                  // an empty range meets nothing
      {"e", "c", 0, ""},                  // nor one whose end comes first
      {"", "", 1, "10"},                  // limits: one,
      {"c", "", 3, "9,100,2"},            // exactly what is left,
      {"c", "", 4, "9,100,2"},            // more than that
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Scan(c.start, c.end, c.limit), c.want) << "[" << c.start << ", " << c.end << ") limit " << c.limit;
  }

  // A gap: a scan from inside it starts with the first region after it.
  ASSERT_TRUE(store_->Delete({RegionKey(100)}).ok());
  EXPECT_EQ(Scan("e", ""), "2");
  EXPECT_EQ(Scan("c", "f"), "9");
  EXPECT_EQ(Scan("d", "f"), "");
  // A range whose end is not above its start covers nothing: left out,
  // and it does not keep the index from answering.
  Put(7, MakeRegion(7, "e", "d"));
  EXPECT_EQ(Scan("", ""), "10,9,2");
}

TEST_F(RegionReadsTest, LimitsDefaultToAThousandAndStopAtTenThousand) {
  constexpr uint64_t kRegions = pdpb::kScanRegionsMaxLimit + 50;
  std::vector<store::KeyValue> batch;
  auto key = [](uint64_t i) {
    char text[16];
    std::snprintf(text, sizeof(text), "k%06llu", static_cast<unsigned long long>(i));
    return std::string(text);
  };
  for (uint64_t i = 0; i < kRegions; i++) {
    batch.emplace_back(RegionKey(i + 1), pdpb::Encode(MakeRegion(i + 1, i == 0 ? "" : key(i),
                                                                 i + 1 == kRegions ? "" : key(i + 1), {1})));
  }
  ASSERT_TRUE(store_->Put(std::move(batch)).ok());
  const struct {
    uint32_t limit;
    size_t want;
  } cases[] = {{0, 1000}, {pdpb::kScanRegionsMaxLimit, 10000}, {pdpb::kScanRegionsMaxLimit + 1, 10000},
               {UINT32_MAX, 10000}};
  for (const auto& c : cases) {
    pdpb::ScanRegionsResponse resp, walked;
    ASSERT_TRUE(service_->ScanRegions({"", "", c.limit}, &resp).ok());
    ASSERT_TRUE(service_->ScanRegionsByWalk({"", "", c.limit}, &walked).ok());
    ASSERT_EQ(resp.regions.size(), c.want) << "limit " << c.limit;
    EXPECT_TRUE(resp == walked) << "limit " << c.limit;
    EXPECT_EQ(resp.regions.back().region.id, c.want);  // the first ones in key order
  }
  // Near the end, fewer than the limit are left.
  pdpb::ScanRegionsResponse resp;
  ASSERT_TRUE(service_->ScanRegions({key(kRegions - 3) + "x", "", 0}, &resp).ok());
  EXPECT_EQ(resp.regions.size(), 3u);
}

// Where ranges overlap or a record does not decode, the index declines
// and the walk answers: every region meeting the range, by start key, ties
// by record key; undecodable records left out.
TEST_F(RegionReadsTest, WalkAnswersWhereTheIndexDeclines) {
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

TEST_F(RegionReadsTest, RegionByIdAndTheLeadersPresented) {
  for (uint64_t id : {1, 2, 3}) Put(StoreKey(id), pdpb::Encode(MakeStore(id)));
  Put(9, MakeRegion(9, "", "m", {1, 2, 3}));
  Put(10, MakeRegion(10, "m", "", {3, 4}));  // store 4 has no record
  Put(11, MakeRegion(11, "x", "w"));        // covers nothing, but is a record

  pdpb::GetRegionResponse resp;
  ASSERT_TRUE(ById(9, &resp).ok());
  EXPECT_EQ(resp.region, MakeRegion(9, "", "m", {1, 2, 3}));
  EXPECT_EQ(resp.leader, resp.region.peers[0]);
  EXPECT_EQ(resp.leader_store, MakeStore(1));
  EXPECT_EQ(resp.stores, (std::vector<pdpb::Store>{MakeStore(1), MakeStore(2), MakeStore(3)}));
  ASSERT_TRUE(ById(11, &resp).ok());
  EXPECT_EQ(resp.region.id, 11u);
  EXPECT_EQ(ById(12, &resp).ToString(), "NotFound: no region with id 12");
  Put(RegionKey(12), "garbage");
  EXPECT_EQ(ById(12, &resp).ToString(), "Corruption: bad region record");
  EXPECT_EQ(resp.region.id, 11u);  // untouched on failure

  // Store 2 reported region 9 last: its peer is presented as leader by
  // both reads, with the stores still in peer order; GetRegion keeps the
  // first peer. A reporter that is no member (store 7) is passed over.
  Heartbeat(service_.get(), 2, 9);
  Heartbeat(reader_.get(), 2, 9);
  Heartbeat(service_.get(), 7, 10);
  Heartbeat(reader_.get(), 7, 10);
  ASSERT_TRUE(ById(9, &resp).ok());
  EXPECT_EQ(resp.leader, (pdpb::Peer{102, 2, 0}));
  EXPECT_EQ(resp.leader_store, MakeStore(2));
  EXPECT_EQ(resp.stores, (std::vector<pdpb::Store>{MakeStore(1), MakeStore(2), MakeStore(3)}));
  pdpb::ScanRegionsResponse scan;
  ASSERT_TRUE(service_->ScanRegions({"", "", 0}, &scan).ok());
  ASSERT_EQ(scan.regions.size(), 2u);
  EXPECT_EQ(scan.regions[0].leader, (pdpb::Peer{102, 2, 0}));
  EXPECT_EQ(scan.regions[1].leader, (pdpb::Peer{103, 3, 0}));
  pdpb::GetRegionResponse routed;
  ASSERT_TRUE(service_->GetRegion({"a"}, &routed).ok());
  EXPECT_EQ(routed.leader, (pdpb::Peer{101, 1, 0}));
  EXPECT_EQ(routed.leader_store, MakeStore(1));

  // A leader whose store record does not decode fails as routing does.
  Put(StoreKey(2), "\x01");
  EXPECT_EQ(ById(9, &resp).ToString(), "Corruption: bad store record");
}

}  // namespace
}  // namespace kandb::meta
