#ifndef KANDB_META_SERVICE_TEST_UTIL_H_
#define KANDB_META_SERVICE_TEST_UTIL_H_

// The service in process, over a metadata store in a scratch directory and
// on a clock the test sets by hand.

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/coding.h"
#include "common/test_util.h"
#include "lsm/file_io.h"
#include "meta/pd_service.h"
#include "store/meta_store.h"

namespace kandb::meta {

inline pdpb::Store MakeStore(uint64_t id) { return {id, "10.0.0." + std::to_string(id) + ":20160", 0}; }

// A region whose peers sit on `store_ids`, peer ids being 100 + store id.
inline pdpb::Region MakeRegion(uint64_t id, std::string start, std::string end,
                               const std::vector<uint64_t>& store_ids = {}) {
  pdpb::Region r{id, std::move(start), std::move(end), {1, 1}, {}};
  for (uint64_t s : store_ids) r.peers.push_back({100 + s, s, 0});
  return r;
}

// An 8-byte mark as the service stores it.
inline std::string Fixed64(uint64_t value) {
  std::string s;
  PutFixed64(&s, value);
  return s;
}

class ServiceTest : public ::testing::Test {
 public:
  static constexpr uint64_t kStartMs = 1'700'000'000'000;

  ServiceTest() : dir_(kandb::testing::MakeTempDir("kandb-pd")) { Reopen(); }
  ~ServiceTest() override {
    service_.reset();
    store_.reset();
    kandb::testing::RemoveTree(dir_);
  }

  // Opens the store and a service over it again, as a restart does.
  void Reopen(uint32_t target_replicas = 0, lsm::FileIo* io = lsm::DefaultFileIo(),
              const std::string& passphrase = "") {
    ASSERT_TRUE(TryReopen(target_replicas, io, passphrase).ok());
  }
  Status TryReopen(uint32_t target_replicas = 0, lsm::FileIo* io = lsm::DefaultFileIo(),
                   const std::string& passphrase = "") {
    service_.reset();
    store_.reset();
    Status s = store::MetaStore::Open(dir_, passphrase, 0, io, &store_);
    EXPECT_TRUE(s.ok()) << s.ToString();
    return PdService::Create(store_.get(), target_replicas, [this] { return now_.load(); }, &service_);
  }
  void Put(const std::string& key, const std::string& value) { ASSERT_TRUE(store_->Put({{key, value}}).ok()); }
  // The stored value of `key`, or "<absent>".
  std::string Get(const std::string& key) {
    std::string value;
    bool found = false;
    EXPECT_TRUE(store_->Get(key, &value, &found).ok());
    return found ? value : "<absent>";
  }

  const std::string dir_;
  std::atomic<uint64_t> now_{kStartMs};
  std::unique_ptr<store::MetaStore> store_;
  std::unique_ptr<PdService> service_;
};

}  // namespace kandb::meta

#endif  // KANDB_META_SERVICE_TEST_UTIL_H_
