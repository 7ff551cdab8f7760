#ifndef KANDB_META_SERVICE_TEST_UTIL_H_
#define KANDB_META_SERVICE_TEST_UTIL_H_

// Builders of cluster records and a scratch metadata store for the
// in-process tests of the service.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "meta/keys.h"
#include "pdpb/messages.h"
#include "store/meta_store.h"

namespace kandb::meta::testing {

inline pdpb::Store MakeStore(uint64_t id, std::string address = "") {
  pdpb::Store s;
  s.id = id;
  s.address = address.empty() ? "10.0.0." + std::to_string(id) + ":20160" : std::move(address);
  return s;
}

// A region whose peers sit on `store_ids`, peer ids being 100 + store id.
inline pdpb::Region MakeRegion(uint64_t id, std::string start, std::string end,
                               const std::vector<uint64_t>& store_ids = {}) {
  pdpb::Region r;
  r.id = id;
  r.start_key = std::move(start);
  r.end_key = std::move(end);
  r.epoch.conf_version = 1;
  r.epoch.version = 1;
  for (uint64_t store_id : store_ids) {
    pdpb::Peer p;
    p.id = 100 + store_id;
    p.store_id = store_id;
    r.peers.push_back(p);
  }
  return r;
}

// A metadata store in a fresh scratch directory, without sync (the tests
// never crash the machine), removed at the end.
class ScratchStore {
 public:
  ScratchStore() : dir_(kandb::testing::MakeTempDir("kandb-pd")) { Reopen(); }
  ~ScratchStore() {
    store_.reset();
    kandb::testing::RemoveTree(dir_);
  }
  ScratchStore(const ScratchStore&) = delete;
  ScratchStore& operator=(const ScratchStore&) = delete;

  store::MetaStore* get() { return store_.get(); }
  const std::string& dir() const { return dir_; }

  void Reopen() {
    store_.reset();
    Status s = store::MetaStore::Open(dir_, "", 0, &store_);
    ASSERT_TRUE(s.ok()) << s.ToString();
  }

  void Put(const std::string& key, const std::string& value) {
    Status s = store_->Put({{key, value}});
    ASSERT_TRUE(s.ok()) << s.ToString();
  }
  void PutStore(const pdpb::Store& st) { Put(StoreKey(st.id), pdpb::Encode(st)); }
  void PutRegion(const pdpb::Region& r) { Put(RegionKey(r.id), pdpb::Encode(r)); }

  // The value under `key`, or "<absent>".
  std::string Get(const std::string& key) {
    std::string value;
    bool found = false;
    Status s = store_->Get(key, &value, &found);
    EXPECT_TRUE(s.ok()) << s.ToString();
    return found ? value : "<absent>";
  }

 private:
  const std::string dir_;
  std::unique_ptr<store::MetaStore> store_;
};

}  // namespace kandb::meta::testing

#endif  // KANDB_META_SERVICE_TEST_UTIL_H_
