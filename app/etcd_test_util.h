#ifndef KANDB_APP_ETCD_TEST_UTIL_H_
#define KANDB_APP_ETCD_TEST_UTIL_H_

// Real etcd members and real kandb-meta-ha servers on 127.0.0.1, on free
// ports, started, killed, paused and restarted by the tests; etcd's client
// URLs plain or over TLS with client certificates.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/test_certs.h"
#include "common/test_util.h"
#include "store/etcd_backend.h"
#include "store/etcd_client.h"

namespace kandb::testing {

// An etcd cluster of one or more members, each with its own data directory.
class EtcdCluster {
 public:
  // Debian's etcd-server.
  static constexpr char kEtcdBinary[] = "/usr/bin/etcd";
  // Large enough for the tests' bootstrap and upsert batches.
  static constexpr int kMaxTxnOps = 10000;

  // kClientCertAuth: client URLs are https:// and take only clients with
  // a certificate of the cluster's CA (etcd's --client-cert-auth); the
  // peers stay on http. Start makes the CA and certificates under `dir`.
  enum class Mode { kPlain, kClientCertAuth };

  explicit EtcdCluster(std::string dir, Mode mode = Mode::kPlain) : dir_(std::move(dir)), mode_(mode) {}

  bool Start(int members) {
    std::vector<std::string> tls_args;
    if (mode_ == Mode::kClientCertAuth) {
      TestPki pki(dir_, "etcd");
      const CertFiles server = pki.ok() ? pki.Server("etcd-server", "etcd") : CertFiles{};
      const CertFiles client = server.cert.empty() ? CertFiles{} : pki.Issue("client", "kandb-meta-ha", "");
      if (client.cert.empty()) {
        std::fprintf(stderr, "test certificates: %s\n", pki.error().c_str());
        return false;
      }
      client_tls_ = store::EtcdTls{pki.ca().cert, client.cert, client.key};
      tls_args = {"--client-cert-auth", "--trusted-ca-file", pki.ca().cert,
                  "--cert-file", server.cert, "--key-file", server.key};
    }
    const std::string scheme = mode_ == Mode::kClientCertAuth ? "https://" : "http://";
    std::string initial;
    for (int i = 0; i < members; ++i) {
      Member m;
      m.name = "m" + std::to_string(i);
      m.client = scheme + "127.0.0.1:" + std::to_string(PickFreePort());
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
      m.argv.insert(m.argv.end(), tls_args.begin(), tls_args.end());
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
    store::EtcdClient client(Endpoints(), 1000, client_tls_);
    store::EtcdTxnResult r;
    return RetryFor(timeout_ms, [&] {
             return client.Txn({}, {store::EtcdOp{store::EtcdOp::Kind::kPut, "health", "ok", 0}}, {}, &r);
           }).ok();
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
  // What a client needs to be let in: empty for a plain cluster; the
  // cluster's CA and a client certificate (CN kandb-meta-ha) of it once a
  // kClientCertAuth cluster started.
  const store::EtcdTls& client_tls() const { return client_tls_; }

 private:
  struct Member {
    std::string name, client, peer;
    std::vector<std::string> argv;
    std::unique_ptr<ChildProcess> process;
  };
  const std::string dir_;
  const Mode mode_;
  store::EtcdTls client_tls_;
  std::vector<Member> members_;
};

// A TCP proxy in front of one etcd member that forwards every request at
// once and can hold the answers back: etcd applies a write whose answer
// the client then gives up on, so its outcome is unknown to the client.
class AnswerDelayProxy {
 public:
  // `upstream` is an etcd client URL on 127.0.0.1 ("http://127.0.0.1:P").
  explicit AnswerDelayProxy(const std::string& upstream)
      : upstream_port_(std::stoi(upstream.substr(upstream.rfind(':') + 1))) {
    listen_fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    const int one = 1;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(listen_fd_, 64) != 0 ||
        getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
      std::abort();
    }
    port_ = ntohs(addr.sin_port);
    accept_thread_ = std::thread([this] { AcceptLoop(); });
  }
  ~AnswerDelayProxy() {
    stop_.store(true);
    shutdown(listen_fd_, SHUT_RDWR);
    accept_thread_.join();
    close(listen_fd_);
    std::vector<std::thread> pumps;
    {
      std::lock_guard<std::mutex> lock(mu_);
      for (int fd : sockets_) shutdown(fd, SHUT_RDWR);
      pumps.swap(pumps_);
    }
    for (std::thread& t : pumps) t.join();
    for (int fd : sockets_) close(fd);
  }

  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  // Answers to requests for `path` ("/v3/kv/txn": writes) that arrive
  // from etcd within the next `ms` are passed on only when that time is up.
  void HoldAnswers(int ms, const std::string& path) {
    std::lock_guard<std::mutex> lock(mu_);
    held_path_ = path;
    hold_until_ms_.store(SteadyMs() + ms);
  }

 private:
  void AcceptLoop() {
    while (!stop_.load()) {
      const int client = accept(listen_fd_, nullptr, nullptr);
      if (client < 0) continue;
      const int upstream = socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in addr{};
      addr.sin_family = AF_INET;
      addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      addr.sin_port = htons(static_cast<uint16_t>(upstream_port_));
      if (connect(upstream, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(client);
        close(upstream);
        continue;
      }
      std::lock_guard<std::mutex> lock(mu_);
      sockets_.push_back(client);
      sockets_.push_back(upstream);
      auto path = std::make_shared<std::string>();  // of the last request on this connection
      pumps_.emplace_back([this, client, upstream, path] { Pump(client, upstream, path, false); });
      pumps_.emplace_back([this, client, upstream, path] { Pump(upstream, client, path, true); });
    }
  }
  // Copies `from` to `to` until either side ends; answers to the held path
  // wait out a hold. HTTP/1.1 answers come in request order, so an answer
  // belongs to the last request line seen on its connection.
  void Pump(int from, int to, const std::shared_ptr<std::string>& path, bool answers) {
    char buffer[65536];
    for (;;) {
      const ssize_t n = read(from, buffer, sizeof(buffer));
      if (n <= 0) break;
      const std::string_view chunk(buffer, static_cast<size_t>(n));
      if (!answers && chunk.substr(0, 5) == "POST ") {
        std::lock_guard<std::mutex> lock(mu_);
        *path = std::string(chunk.substr(5, chunk.find(' ', 5) - 5));
      }
      while (answers && !stop_.load() && SteadyMs() < hold_until_ms_.load()) {
        {
          std::lock_guard<std::mutex> lock(mu_);
          if (*path != held_path_) break;
        }
        SleepMs(5);
      }
      if (send(to, buffer, static_cast<size_t>(n), MSG_NOSIGNAL) != n) break;
    }
    shutdown(from, SHUT_RDWR);
    shutdown(to, SHUT_RDWR);
  }

  const int upstream_port_;
  int listen_fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int64_t> hold_until_ms_{0};
  std::thread accept_thread_;
  std::mutex mu_;
  std::string held_path_;     // guarded by mu_, as the pumps' paths
  std::vector<int> sockets_;  // closed by the destructor, after the pumps
  std::vector<std::thread> pumps_;
};

// kandb-meta-ha servers of one cluster name, each on its own port, each
// given the TLS files of `tls` that are set.
class HaServers {
 public:
  HaServers(std::string binary, std::string etcd_urls, std::string cluster, int64_t lease_ms,
            store::EtcdTls tls = {})
      : binary_(std::move(binary)),
        etcd_urls_(std::move(etcd_urls)),
        cluster_(std::move(cluster)),
        lease_ms_(lease_ms),
        tls_(std::move(tls)) {}

  // Gives each server started after this an HTTP status port of its own.
  void WithStatusPorts() { with_status_ = true; }

  bool Start(int count) {
    for (int i = 0; i < count; ++i) {
      ports_.push_back(PickFreePort());
      status_ports_.push_back(with_status_ ? PickFreePort() : 0);
      processes_.emplace_back();
      if (!Restart(i)) return false;
    }
    return true;
  }
  bool Restart(int i) {
    processes_[i] = std::make_unique<ChildProcess>();
    const std::string port = std::to_string(ports_[i]);
    std::vector<std::string> argv = {binary_, "--bind_addr=127.0.0.1", "--port=" + port,
                                     "--etcd=" + etcd_urls_, "--cluster=" + cluster_,
                                     "--lease_ms=" + std::to_string(lease_ms_)};
    if (!tls_.ca_file.empty()) argv.push_back("--etcd_cacert=" + tls_.ca_file);
    if (!tls_.cert_file.empty()) argv.push_back("--etcd_cert=" + tls_.cert_file);
    if (!tls_.key_file.empty()) argv.push_back("--etcd_key=" + tls_.key_file);
    if (status_ports_[i] != 0) argv.push_back("--status_addr=127.0.0.1:" + std::to_string(status_ports_[i]));
    if (!processes_[i]->Start(argv)) return false;
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
    WaitFor(10000, [&stat] {
      std::ifstream in(stat);
      std::string pid, name, state;  // the name is in parentheses without spaces (kandb-meta-ha)
      return in >> pid >> name >> state && state == "T";
    }, 1);
  }
  void Kill(int i) {
    processes_[i]->Kill(SIGKILL);
    processes_[i]->Wait(10000);
  }

  std::string Address(int i) const { return "127.0.0.1:" + std::to_string(ports_[i]); }
  int StatusPort(int i) const { return status_ports_[i]; }
  std::string AddressList() const {
    std::string list;
    for (size_t i = 0; i < ports_.size(); ++i) list += (i > 0 ? "," : "") + Address(static_cast<int>(i));
    return list;
  }
  std::string Stderr(int i) const { return processes_[i]->Stderr(); }
  pid_t Pid(int i) const { return processes_[i]->pid(); }
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
  const store::EtcdTls tls_;
  std::vector<int> ports_;
  std::vector<int> status_ports_;  // 0: none
  bool with_status_ = false;
  std::vector<std::unique_ptr<ChildProcess>> processes_;
};

}  // namespace kandb::testing

#endif  // KANDB_APP_ETCD_TEST_UTIL_H_
