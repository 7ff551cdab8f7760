#ifndef KANDB_APP_STATUS_SERVER_H_
#define KANDB_APP_STATUS_SERVER_H_

// The HTTP status port of both servers (--status_addr): what Prometheus
// scrapes, what a load balancer asks before it sends traffic, and read-only
// JSON views of the cluster for operators.
//
//   GET /metrics          the statistics in Prometheus text format, as
//                         `kandb-meta-ctl stats --prometheus` prints them,
//                         with the process's own figures
//   GET /health           200 {"status":"ok",...} while the server answers
//                         calls, else 503 {"status":"unavailable",
//                         "reason":...}
//   GET /api/v1/cluster   the cluster at a glance
//   GET /api/v1/stores    every store (as `kandb-meta-ctl stores --json`)
//   GET /api/v1/regions?key=K | ?id=N | ?start=K&end=K&limit=N
//   GET /api/v1/members   the servers, the leader, the lease
//
// Every view is answered by calling the RPC methods in process (the same
// handlers a client reaches, RpcServer::CallLocal), so each holds what the
// command-line client shows. The HTTP server runs on threads of its own: a
// slow or idle HTTP client holds one of them, never an RPC loop or worker.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <nlohmann/json.hpp>
#include <thread>

#include "common/status.h"

namespace httplib {
class Server;
}  // namespace httplib

namespace kandb::kanrpc {
class RpcServer;
class TlsServerContext;
}  // namespace kandb::kanrpc

namespace kandb::app {

// Whether the server answers calls now, and in what role.
struct Health {
  bool serving = false;
  std::string role;    // "standalone", "leader", "follower"; empty when not serving
  std::string leader;  // a follower's leader, HOST:PORT
  std::string reason;  // why it does not serve
};

// The flag both servers define, last of their flags.
inline constexpr char kStatusAddrFlag[] = "status_addr";
inline constexpr char kStatusAddrHelp[] =
    "HOST:PORT of the HTTP status port (/metrics, /health, /api/v1/...); over TLS with the --tls_* "
    "flags; empty: none";

struct StatusOptions {
  std::string addr;     // HOST:PORT; port 0 picks a free one
  std::string program;  // "kandb-meta" or "kandb-meta-ha"
  // With TLS settings the port speaks only HTTPS, with the RPC port's
  // certificate, client CAs and names let in.
  std::shared_ptr<kanrpc::TlsServerContext> tls;
  // The data directory whose filesystem is reported (empty: none).
  std::string data_dir;
  // Where the answers come from. `rpc` must outlive the status server.
  const kanrpc::RpcServer* rpc = nullptr;
  std::function<Health()> health;
  // The members view; null: the server is its own only member.
  std::function<std::string()> members_json;
};

class StatusServer {
 public:
  // Binds and starts serving. Fails with InvalidArgument for an address
  // that is not HOST:PORT, with Corruption when the port cannot be bound.
  static Status Start(StatusOptions options, std::unique_ptr<StatusServer>* out);
  // Stops listening, ends the open HTTP connections and joins the threads.
  ~StatusServer();
  StatusServer(const StatusServer&) = delete;
  StatusServer& operator=(const StatusServer&) = delete;

  int port() const { return port_; }

  // HOST:PORT split; false when either is missing or the port is no number
  // in [0, 65535].
  static bool SplitHostPort(const std::string& addr, std::string* host, int* port);

 private:
  explicit StatusServer(StatusOptions options);
  void Route();
  std::string Metrics() const;
  std::string ProcessMetrics() const;

  const StatusOptions options_;
  // Set once by Start, before the listening thread exists.
  std::unique_ptr<httplib::Server> http_;
  int port_ = 0;
  std::thread thread_;
  std::atomic<bool> listening_ended_{false};  // set by thread_ as it ends
};

// JSON as the status port writes it: indented, and bytes that are not
// UTF-8 replaced rather than thrown about.
std::string JsonText(const nlohmann::json& value);

// The process's own figures in Prometheus text (resident and virtual
// memory, descriptors open and allowed, threads, CPU seconds, start time),
// under the names Prometheus clients use.
std::string ProcessMetricsText();

}  // namespace kandb::app

#endif  // KANDB_APP_STATUS_SERVER_H_
