// kandb-meta: the metadata and placement server of the cluster. Opens the
// state directory, serves the placement-driver methods over RPC, prints one
// banner line and runs until it is killed. There is no orderly shutdown
// command: every change is durable before it is answered, so a kill at any
// moment loses nothing that was acknowledged.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "app/descriptors.h"
#include "app/scheduling_flags.h"
#include "app/status_server.h"
#include "app/tls_flags.h"
#include "common/flags.h"
#include "common/status.h"
#include "meta/pd_service.h"
#include "rpc/server.h"
#include "store/meta_store.h"

namespace {

int64_t* const FLAGS_port = kandb::DefineInt64Flag("port", 2379, "pd service listen port");
std::string* const FLAGS_bind_addr =
    kandb::DefineStringFlag("bind_addr", "0.0.0.0", "pd service IPv4 listen address");
std::string* const FLAGS_data_dir =
    kandb::DefineStringFlag("data_dir", "./pd-data", "pd state directory");
int64_t* const FLAGS_target_replicas = kandb::DefineInt64Flag(
    "target_replicas", 0,
    "auto-heal: schedule adding replicas until each region reaches this member count "
    "(0 = off; promotion of caught-up learners is always on)");
// Extension flags, after the designed ones.
const kandb::app::SchedulingFlags kSchedulingFlags = kandb::app::DefineSchedulingFlags();
const kandb::app::TlsFlags kTlsFlags = kandb::app::DefineTlsFlags();
std::string* const FLAGS_status_addr =
    kandb::DefineStringFlag(kandb::app::kStatusAddrFlag, "", kandb::app::kStatusAddrHelp);

// The state is opened without a passphrase (values in plain) and with every
// write group synced before it is acknowledged.
constexpr char kNoPassphrase[] = "";
constexpr int kSyncEveryWrite = 1;

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
  if (tls != nullptr) kandb::app::ReloadOnHangup(tls, "kandb-meta");
  kandb::app::RaiseDescriptorLimit("kandb-meta");
  const std::string& data_dir = *FLAGS_data_dir;
  const std::string& bind_addr = *FLAGS_bind_addr;

  kandb::meta::PdService::Options options;
  options.target_replicas = static_cast<uint32_t>(*FLAGS_target_replicas);
  if (!kandb::app::SchedulingOptionsFromFlags(kSchedulingFlags, &options.scheduling)) return 1;

  std::unique_ptr<kandb::store::MetaStore> store;
  kandb::Status s = kandb::store::MetaStore::Open(data_dir, kNoPassphrase, kSyncEveryWrite, &store);
  if (!s.ok()) {
    std::fprintf(stderr, "failed to open pd state at %s: %s\n", data_dir.c_str(),
                 s.ToString().c_str());
    return 1;
  }
  // The service loads the identifier mark; a mark that cannot be read or
  // is damaged is part of a state that cannot be opened.
  std::unique_ptr<kandb::meta::PdService> service;
  s = kandb::meta::PdService::Create(store.get(), std::move(options), &service);
  if (!s.ok()) {
    std::fprintf(stderr, "failed to open pd state at %s: %s\n", data_dir.c_str(), s.ToString().c_str());
    return 1;
  }
  auto server = std::make_unique<kandb::kanrpc::RpcServer>();
  service->RegisterTo(server.get());
  if (tls != nullptr) server->SetTls(tls);

  // The server goes first in every teardown: its handlers point into the
  // service, and the service into the store.
  s = server->Start(static_cast<int32_t>(*FLAGS_port), bind_addr);
  // The status port reads through the server's handlers, so it starts
  // after the server and goes before it in every teardown.
  std::unique_ptr<kandb::app::StatusServer> status;
  if (s.ok() && !FLAGS_status_addr->empty()) {
    kandb::app::StatusOptions status_options;
    status_options.addr = *FLAGS_status_addr;
    status_options.program = "kandb-meta";
    status_options.tls = tls;
    status_options.data_dir = data_dir;
    status_options.rpc = server.get();
    status_options.health = [] { return kandb::app::Health{true, "standalone", "", ""}; };
    s = kandb::app::StatusServer::Start(std::move(status_options), &status);
  }
  if (!s.ok()) {
    std::fprintf(stderr, "failed to start pd: %s\n", s.ToString().c_str());
    server.reset();
    service.reset();
    store.reset();
    return 1;
  }
  // Flushed at once: whoever started us waits for this line, and standard
  // output is fully buffered when it is not a terminal.
  std::printf("kandb-meta listening on %s:%lld, state at %s\n", bind_addr.c_str(),
              static_cast<long long>(*FLAGS_port), data_dir.c_str());
  std::fflush(stdout);

  // Nothing stops the accept loop in normal operation: the process runs
  // until it is killed. Should the wait ever return, the server stopped
  // serving without being asked to, and a supervisor must see a failure.
  server->Wait();
  std::fprintf(stderr, "kandb-meta: the server stopped accepting connections\n");
  status.reset();
  server.reset();
  service.reset();
  store.reset();
  return 1;
}
