#ifndef KANDB_STORE_ETCD_BACKEND_H_
#define KANDB_STORE_ETCD_BACKEND_H_

// EtcdBackend: the metadata store's records in an etcd cluster, under a
// per-cluster key prefix ("kandb/" + cluster name + "/"), so that several
// placement servers share them and any of them can take over.
//
// Every write batch is one etcd transaction, so it stays atomic. A batch
// that etcd refuses as too large (too many operations, too many bytes)
// fails with etcd's own reason and is not split. A fenced backend adds to
// each transaction the condition that the leader key still has the
// creation revision that this server's leadership created: once another
// server has taken over, a late write of the old leader changes nothing
// and fails with code 4 "not leader; leadership lost".

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/status.h"
#include "store/etcd_client.h"
#include "store/meta_backend.h"
#include "store/meta_store.h"

namespace kandb::store {

// Writes are allowed only while `key` exists with this creation revision.
struct EtcdFence {
  std::string key;
  int64_t create_revision = 0;
};

class EtcdBackend final : public MetaBackend {
 public:
  // Scans read in pages of this many records, all at the revision of the
  // first page, so a long scan is still one moment's view.
  static constexpr int64_t kScanPage = 10000;

  // `client` is not owned and must outlive the backend. A `fence` with
  // create_revision 0 writes unfenced (tools and tests). `on_fenced_out`,
  // when set, is called each time a write fails its fence.
  EtcdBackend(EtcdClient* client, std::string prefix, EtcdFence fence,
              std::function<void()> on_fenced_out = nullptr);

  Status Get(const std::string& key, std::string* value, bool* found) override;
  Status Write(const lsm::WriteBatch& batch) override;
  Status Scan(const std::string& start, const std::string& end, uint32_t limit,
              std::vector<lsm::Entry>* out) override;

 private:
  EtcdClient* const client_;
  const std::string prefix_;
  const EtcdFence fence_;
  const std::function<void()> on_fenced_out_;
};

// The etcd key prefix of a cluster's records.
std::string EtcdClusterPrefix(const std::string& cluster);

// A MetaStore over etcd: the second factory beside MetaStore::Open.
std::unique_ptr<MetaStore> OpenEtcdMetaStore(EtcdClient* client, const std::string& prefix,
                                             EtcdFence fence, const std::string& passphrase,
                                             std::function<void()> on_fenced_out = nullptr);

}  // namespace kandb::store

#endif  // KANDB_STORE_ETCD_BACKEND_H_
