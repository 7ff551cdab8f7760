// kandb-meta-ha: one of several placement servers that share an etcd
// cluster. One of them leads and serves; the others answer "not leader"
// with the leader's address and take over when its lease runs out. Prints
// one banner line once it listens, and each change of leadership on
// standard error; runs until it is killed.

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "app/descriptors.h"
#include "app/scheduling_flags.h"
#include "app/status_server.h"
#include "app/tls_flags.h"
#include "common/flags.h"
#include "common/status.h"
#include "meta/ha_server.h"
#include "rpc/server.h"
#include "store/etcd_backend.h"
#include "store/etcd_client.h"

namespace {

int64_t* const FLAGS_port = kandb::DefineInt64Flag("port", 2379, "pd service listen port");
std::string* const FLAGS_bind_addr =
    kandb::DefineStringFlag("bind_addr", "0.0.0.0", "pd service IPv4 listen address");
std::string* const FLAGS_advertise_addr = kandb::DefineStringFlag(
    "advertise_addr", "",
    "HOST:PORT that clients and the other servers use to reach this one; empty means "
    "bind_addr:port, or this machine's host name:port when bind_addr is 0.0.0.0");
std::string* const FLAGS_etcd = kandb::DefineStringFlag(
    "etcd", "", "comma-separated client URLs of the etcd cluster (required)");
std::string* const FLAGS_cluster = kandb::DefineStringFlag(
    "cluster", "default", "cluster name; its records live under the etcd prefix kandb/NAME/");
int64_t* const FLAGS_target_replicas = kandb::DefineInt64Flag(
    "target_replicas", 0,
    "auto-heal: schedule adding replicas until each region reaches this member count "
    "(0 = off; promotion of caught-up learners is always on)");
int64_t* const FLAGS_lease_ms = kandb::DefineInt64Flag(
    "lease_ms", 3000,
    "leader lease in ms; etcd grants whole seconds, at least 2, so it is rounded up");
// Extension flags, after the designed ones.
const kandb::app::SchedulingFlags kSchedulingFlags = kandb::app::DefineSchedulingFlags();
const kandb::app::TlsFlags kTlsFlags = kandb::app::DefineTlsFlags();
// TLS towards etcd (the RPC port's own is --tls_*), named as etcdctl
// names them.
std::string* const FLAGS_etcd_cacert = kandb::DefineStringFlag(
    "etcd_cacert", "",
    "PEM file of the CAs that the etcd members' certificates must chain to, for https:// "
    "--etcd URLs (empty: the system's CAs)");
std::string* const FLAGS_etcd_cert = kandb::DefineStringFlag(
    "etcd_cert", "",
    "PEM client certificate for etcd members run with --client-cert-auth (needs --etcd_key)");
std::string* const FLAGS_etcd_key = kandb::DefineStringFlag(
    "etcd_key", "", "PEM private key of --etcd_cert, unencrypted (needs --etcd_cert)");
std::string* const FLAGS_status_addr =
    kandb::DefineStringFlag(kandb::app::kStatusAddrFlag, "", kandb::app::kStatusAddrHelp);

// Every etcd call on one endpoint is bounded by this, well inside a third
// of the shortest lease, so a dead endpoint cannot stall a renewal.
constexpr int kEtcdTimeoutMs = 500;

std::string DefaultAdvertise(const std::string& bind_addr, int64_t port) {
  std::string host = bind_addr;
  if (bind_addr == "0.0.0.0") {
    // A redirect to 0.0.0.0 would be useless to a client on another machine.
    char name[HOST_NAME_MAX + 1] = {};
    host = gethostname(name, sizeof(name) - 1) == 0 && name[0] != '\0' ? name : "localhost";
  }
  return host + ":" + std::to_string(port);
}

// libcurl reads the TLS files only when it connects, and a file it cannot
// read there looks like an etcd that cannot be reached, over and over: a
// start with such a file fails at once and names it.
kandb::Status CheckReadable(const char* flag, const std::string& path) {
  if (path.empty()) return kandb::Status::OK();
  std::FILE* file = std::fopen(path.c_str(), "rb");
  // A directory opens; reading it fails.
  if (file != nullptr && (std::fgetc(file) != EOF || !std::ferror(file))) {
    std::fclose(file);
    return kandb::Status::OK();
  }
  const std::string why = std::strerror(errno);
  if (file != nullptr) std::fclose(file);
  return kandb::Status::InvalidArgument("cannot read --" + std::string(flag) + " file " + path + ": " + why);
}

// The status port of a replicated server: healthy while it leads or
// follows a known leader (a follower answers every call with the leader's
// address), and its members view is what it knows of the election.
kandb::Status StartStatus(const std::string& addr, std::shared_ptr<kandb::kanrpc::TlsServerContext> tls,
                          const kandb::kanrpc::RpcServer* rpc, const kandb::meta::HaServer* ha,
                          const std::string& cluster, std::unique_ptr<kandb::app::StatusServer>* out) {
  kandb::app::StatusOptions options;
  options.addr = addr;
  options.program = "kandb-meta-ha";
  options.tls = std::move(tls);
  options.rpc = rpc;
  options.health = [ha] {
    const kandb::meta::HaServer::Role role = ha->CurrentRole();
    kandb::app::Health health;
    if (role.leading) {
      health.serving = true;
      health.role = "leader";
    } else if (!role.leader.empty() && role.etcd_error.empty()) {
      health.serving = true;
      health.role = "follower";
      health.leader = role.leader;
    } else if (!role.etcd_error.empty()) {
      health.reason = "cannot reach etcd: " + role.etcd_error;
    } else {
      health.reason = "no leader known";
    }
    return health;
  };
  options.members_json = [ha, cluster] {
    const kandb::meta::HaServer::Role role = ha->CurrentRole();
    std::vector<kandb::meta::HaServer::Member> members;
    nlohmann::json body{{"cluster", cluster}, {"self", ha->advertise()}};
    body["leader"] = role.leader.empty() ? nlohmann::json(nullptr) : nlohmann::json(role.leader);
    // The servers as etcd knows them; without etcd, none is known.
    const kandb::Status s = ha->Members(&members);
    nlohmann::json servers = nlohmann::json::array();
    for (const kandb::meta::HaServer::Member& m : members) {
      servers.push_back(nlohmann::json{
          {"address", m.address}, {"status_addr", m.status_addr}, {"leading", m.address == role.leader}});
    }
    body["servers"] = servers;
    if (!s.ok()) body["etcd_error"] = s.ToString();
    if (role.leading) {
      body["lease"] = nlohmann::json{{"id", role.lease_id},
                                     {"ttl_s", role.lease_ttl_s},
                                     {"left_ms", role.lease_left_ms},
                                     {"term_revision", role.term_revision}};
    }
    return kandb::app::JsonText(body);
  };
  return kandb::app::StatusServer::Start(std::move(options), out);
}

}  // namespace

int main(int argc, char** argv) {
  kandb::ParseFlags(argc, argv);
  // Certificates are read before anything else is opened: a bad file
  // fails the start at once, and the reload thread exists before any
  // other, so that SIGHUP reaches only it.
  std::shared_ptr<kandb::kanrpc::TlsServerContext> tls;
  if (const kandb::Status tls_status = kandb::app::TlsFromFlags(kTlsFlags, &tls); !tls_status.ok()) {
    std::fprintf(stderr, "failed to start pd: %s\n", tls_status.ToString().c_str());
    return 1;
  }
  if (tls != nullptr) kandb::app::ReloadOnHangup(tls, "kandb-meta-ha");
  kandb::app::RaiseDescriptorLimit("kandb-meta-ha");
  if (FLAGS_etcd->empty()) {
    // No default: etcd's own client port is 2379 too, and a silent default
    // would collide with this server's port on one machine.
    std::fprintf(stderr, "--etcd is required (comma-separated etcd client URLs)\n");
    return 2;
  }
  std::vector<std::string> endpoints;
  // With certificates for etcd, a bare host:port means TLS.
  const bool etcd_over_tls = !FLAGS_etcd_cacert->empty() || !FLAGS_etcd_cert->empty();
  kandb::Status s = kandb::store::EtcdClient::ParseEndpoints(*FLAGS_etcd, &endpoints, etcd_over_tls);
  if (!s.ok()) {
    std::fprintf(stderr, "bad --etcd: %s\n", s.ToString().c_str());
    return 2;
  }
  kandb::store::EtcdTls etcd_tls{*FLAGS_etcd_cacert, *FLAGS_etcd_cert, *FLAGS_etcd_key};
  if (etcd_tls.cert_file.empty() != etcd_tls.key_file.empty()) {
    // A certificate alone would make libcurl look for the key inside it;
    // a key alone would be ignored.
    std::fprintf(stderr, "--etcd_cert and --etcd_key go together: give both or neither\n");
    return 1;
  }
  for (const auto& [flag, path] : {std::pair<const char*, const std::string*>{"etcd_cacert", &etcd_tls.ca_file},
                                   {"etcd_cert", &etcd_tls.cert_file},
                                   {"etcd_key", &etcd_tls.key_file}}) {
    s = CheckReadable(flag, *path);
    if (!s.ok()) {
      std::fprintf(stderr, "%s\n", s.message().c_str());
      return 1;
    }
  }
  const std::string& bind_addr = *FLAGS_bind_addr;
  kandb::meta::HaOptions options;
  options.prefix = kandb::store::EtcdClusterPrefix(*FLAGS_cluster);
  options.advertise = FLAGS_advertise_addr->empty() ? DefaultAdvertise(bind_addr, *FLAGS_port)
                                                    : *FLAGS_advertise_addr;
  options.lease_ms = *FLAGS_lease_ms;
  options.target_replicas = static_cast<uint32_t>(*FLAGS_target_replicas);
  if (!kandb::app::SchedulingOptionsFromFlags(kSchedulingFlags, &options.scheduling)) return 1;

  kandb::store::EtcdClient etcd(endpoints, kEtcdTimeoutMs, std::move(etcd_tls));
  auto ha = std::make_unique<kandb::meta::HaServer>(&etcd, options);
  auto server = std::make_unique<kandb::kanrpc::RpcServer>();
  ha->RegisterTo(server.get());
  if (tls != nullptr) server->SetTls(tls);
  s = server->Start(static_cast<int32_t>(*FLAGS_port), bind_addr);
  if (!s.ok()) {
    std::fprintf(stderr, "failed to start pd: %s\n", s.ToString().c_str());
    server.reset();
    ha.reset();
    return 1;
  }
  // The status port reads through the server's handlers: it starts after
  // the server and goes before it.
  std::unique_ptr<kandb::app::StatusServer> status;
  if (!FLAGS_status_addr->empty()) {
    s = StartStatus(*FLAGS_status_addr, tls, server.get(), ha.get(), *FLAGS_cluster, &status);
    if (!s.ok()) {
      std::fprintf(stderr, "failed to start pd: %s\n", s.ToString().c_str());
      server.reset();
      ha.reset();
      return 1;
    }
    // Written in the member key for operators and scrapers: the port bound,
    // on a host they can reach.
    std::string host;
    int port = 0;
    kandb::app::StatusServer::SplitHostPort(*FLAGS_status_addr, &host, &port);
    if (host == "0.0.0.0") host = options.advertise.substr(0, options.advertise.rfind(':'));
    ha->SetStatusAddr(host + ":" + std::to_string(status->port()));
  }
  std::printf("kandb-meta-ha listening on %s:%lld, cluster %s\n", bind_addr.c_str(),
              static_cast<long long>(*FLAGS_port), FLAGS_cluster->c_str());
  std::fflush(stdout);
  ha->Start();

  server->Wait();
  status.reset();
  server.reset();
  ha.reset();
  return 0;
}
