#ifndef KANDB_APP_ETCD_TEST_UTIL_H_
#define KANDB_APP_ETCD_TEST_UTIL_H_

// Real etcd members and real kandb-meta-ha servers on 127.0.0.1, on free
// ports, started, killed, paused and restarted by the tests.

#include <signal.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/test_util.h"
#include "store/etcd_backend.h"
#include "store/etcd_client.h"

namespace kandb::testing {

inline int64_t SteadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

inline void SleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// An etcd cluster of one or more members, each with its own data directory.
class EtcdCluster {
 public:
  // Debian's etcd-server.
  static constexpr char kEtcdBinary[] = "/usr/bin/etcd";
  // Large enough for the tests' bootstrap and upsert batches.
  static constexpr int kMaxTxnOps = 10000;

  explicit EtcdCluster(std::string dir) : dir_(std::move(dir)) {}

  bool Start(int members) {
    std::string initial;
    for (int i = 0; i < members; ++i) {
      Member m;
      m.name = "m" + std::to_string(i);
      m.client = "http://127.0.0.1:" + std::to_string(PickFreePort());
      m.peer = "http://127.0.0.1:" + std::to_string(PickFreePort());
      initial += (i > 0 ? "," : "") + m.name + "=" + m.peer;
      members_.push_back(std::move(m));
    }
    for (Member& m : members_) {
      m.argv = {kEtcdBinary, "--name", m.name, "--data-dir", dir_ + "/" + m.name,
                "--listen-client-urls", m.client, "--advertise-client-urls", m.client,
                "--listen-peer-urls", m.peer, "--initial-advertise-peer-urls", m.peer,
                "--initial-cluster", initial, "--initial-cluster-state", "new",
                "--initial-cluster-token", "kandb-test", "--max-txn-ops",
                std::to_string(kMaxTxnOps), "--heartbeat-interval", "100",
                "--election-timeout", "1000", "--log-level", "warn"};
      if (!Restart(static_cast<int>(&m - members_.data()))) return false;
    }
    return WaitHealthy(30000);
  }

  // SIGKILLs member i.
  void Kill(int i) {
    members_[i].process->Kill(SIGKILL);
    members_[i].process->Wait(10000);
    members_[i].process.reset();
  }
  // Starts member i (again) on its data directory.
  bool Restart(int i) {
    members_[i].process = std::make_unique<ChildProcess>();
    return members_[i].process->Start(members_[i].argv);
  }

  // True once a write through the cluster succeeds.
  bool WaitHealthy(int timeout_ms) {
    store::EtcdClient client(Endpoints(), 1000);
    for (const int64_t end = SteadyMs() + timeout_ms; SteadyMs() < end; SleepMs(100)) {
      store::EtcdTxnResult r;
      if (client.Txn({}, {store::EtcdOp{store::EtcdOp::Kind::kPut, "health", "ok", 0}}, {}, &r).ok()) {
        return true;
      }
    }
    return false;
  }

  std::vector<std::string> Endpoints() const {
    std::vector<std::string> urls;
    for (const Member& m : members_) urls.push_back(m.client);
    return urls;
  }
  std::string UrlList() const {
    std::string list;
    for (const Member& m : members_) list += (list.empty() ? "" : ",") + m.client;
    return list;
  }

 private:
  struct Member {
    std::string name, client, peer;
    std::vector<std::string> argv;
    std::unique_ptr<ChildProcess> process;
  };
  const std::string dir_;
  std::vector<Member> members_;
};

// kandb-meta-ha servers of one cluster name, each on its own port.
class HaServers {
 public:
  HaServers(std::string binary, std::string etcd_urls, std::string cluster, int64_t lease_ms)
      : binary_(std::move(binary)),
        etcd_urls_(std::move(etcd_urls)),
        cluster_(std::move(cluster)),
        lease_ms_(lease_ms) {}

  bool Start(int count) {
    for (int i = 0; i < count; ++i) {
      ports_.push_back(PickFreePort());
      processes_.emplace_back();
      if (!Restart(i)) return false;
    }
    return true;
  }
  bool Restart(int i) {
    processes_[i] = std::make_unique<ChildProcess>();
    const std::string port = std::to_string(ports_[i]);
    if (!processes_[i]->Start({binary_, "--bind_addr=127.0.0.1", "--port=" + port,
                               "--etcd=" + etcd_urls_, "--cluster=" + cluster_,
                               "--lease_ms=" + std::to_string(lease_ms_)})) {
      return false;
    }
    return processes_[i]->WaitForOutput(
        "kandb-meta-ha listening on 127.0.0.1:" + port + ", cluster " + cluster_ + "\n", 30000);
  }
  void Signal(int i, int signal) { processes_[i]->Kill(signal); }
  // SIGSTOP, returning once the process is seen stopped: the signal is
  // delivered asynchronously, and a request sent in between would still be
  // answered by a running server.
  void Pause(int i) {
    Signal(i, SIGSTOP);
    const std::string stat = "/proc/" + std::to_string(processes_[i]->pid()) + "/stat";
    for (int tries = 0; tries < 10000; ++tries) {
      std::ifstream in(stat);
      std::string pid, name, state;
      // The name is in parentheses without spaces (kandb-meta-ha).
      if (in >> pid >> name >> state && state == "T") return;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  void Kill(int i) {
    processes_[i]->Kill(SIGKILL);
    processes_[i]->Wait(10000);
  }

  std::string Address(int i) const { return "127.0.0.1:" + std::to_string(ports_[i]); }
  std::string AddressList() const {
    std::string list;
    for (size_t i = 0; i < ports_.size(); ++i) list += (i > 0 ? "," : "") + Address(static_cast<int>(i));
    return list;
  }
  std::string Stderr(int i) const { return processes_[i]->Stderr(); }
  std::string prefix() const { return store::EtcdClusterPrefix(cluster_); }

  // The leader key's record, if there is one.
  std::vector<store::EtcdKv> LeaderKey(store::EtcdClient* etcd) const {
    std::vector<store::EtcdKv> kvs;
    bool more = false;
    int64_t revision = 0;
    if (!etcd->Range(prefix() + "leader", "", 0, 0, &kvs, &more, &revision).ok()) kvs.clear();
    return kvs;
  }
  // The index of the server that the leader key names, or -1 (none yet)
  // after `timeout_ms`.
  int WaitLeader(store::EtcdClient* etcd, int timeout_ms) const {
    for (const int64_t end = SteadyMs() + timeout_ms; SteadyMs() < end; SleepMs(20)) {
      const std::vector<store::EtcdKv> kvs = LeaderKey(etcd);
      for (size_t i = 0; i < ports_.size() && !kvs.empty(); ++i) {
        if (kvs[0].value == Address(static_cast<int>(i))) return static_cast<int>(i);
      }
    }
    return -1;
  }

 private:
  const std::string binary_, etcd_urls_, cluster_;
  const int64_t lease_ms_;
  std::vector<int> ports_;
  std::vector<std::unique_ptr<ChildProcess>> processes_;
};

}  // namespace kandb::testing

#endif  // KANDB_APP_ETCD_TEST_UTIL_H_
