#include "app/status_server.h"

#include <dirent.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <httplib.h>

#include <cinttypes>
#include <deque>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>
#include <vector>

#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "pdpb/messages.h"
#include "pdpb/stats.h"
#include "rpc/server.h"
#include "rpc/tls.h"
#include "tools/json_messages.h"
#include "tools/stats_view.h"
#include "tools/text.h"

namespace kandb::app {

namespace {

using nlohmann::json;

// HTTP threads: enough that a scrape, a health check and an operator's
// request never wait on one another, few enough to cost little while idle.
// Each connection holds one of them from its first byte to its close, in
// the order connections came (the library's design), so what a stalled
// client can hold is bounded by the time-outs below.
constexpr size_t kHttpThreads = 8;
// A request line and headers come in one packet from every real client: a
// client still sending them after this long is stalled or hostile.
constexpr time_t kReadTimeoutS = 2;
// The largest page, /metrics, takes a reader a few milliseconds.
constexpr time_t kWriteTimeoutS = 5;
// One request per connection: a kept-alive connection would hold its
// thread between requests (a scraper's, for its whole interval), and a
// client that sent a request and never reads would hold it for the wait.
// A new connection per scrape costs a fraction of a millisecond.
constexpr size_t kRequestsPerConnection = 1;
// Requests carry no body worth the name: GETs only.
constexpr size_t kMaxRequestBody = 4096;

// Connections accepted and waiting for a thread, at most. Beyond that the
// accept loop waits, and new connections wait in the kernel's listen
// queue, holding none of the process's descriptors, which the RPC port
// needs for its own clients.
constexpr size_t kWaitingConnections = 64;

// The library's task queue, bounded: `enqueue` (called by the accept loop
// with a connection to serve) waits while kWaitingConnections are queued.
class BoundedPool : public httplib::TaskQueue {
 public:
  BoundedPool() {
    for (size_t i = 0; i < kHttpThreads; ++i) threads_.emplace_back([this] { Work(); });
  }
  void enqueue(std::function<void()> fn) EXCLUDES(mu_) override {
    MutexLock lock(&mu_);
    while (jobs_.size() >= kWaitingConnections && !shutdown_) room_.Wait();
    jobs_.push_back(std::move(fn));
    ready_.Signal();
  }
  void shutdown() EXCLUDES(mu_) override {
    {
      MutexLock lock(&mu_);
      shutdown_ = true;
      ready_.SignalAll();
      room_.SignalAll();
    }
    for (std::thread& t : threads_) t.join();
  }

 private:
  void Work() EXCLUDES(mu_) {
    for (;;) {
      std::function<void()> fn;
      {
        MutexLock lock(&mu_);
        while (jobs_.empty() && !shutdown_) ready_.Wait();
        // Queued connections are still served at shutdown: each job closes
        // its socket.
        if (jobs_.empty()) return;
        fn = std::move(jobs_.front());
        jobs_.pop_front();
        room_.Signal();
      }
      fn();
    }
  }

  // Guards the queue; held only to queue or take a job, never while one
  // runs.
  Mutex mu_;
  CondVar ready_{&mu_};  // a job, or shutdown: for the workers
  CondVar room_{&mu_};   // room in the queue: for the accept loop
  std::deque<std::function<void()>> jobs_ GUARDED_BY(mu_);
  bool shutdown_ GUARDED_BY(mu_) = false;
  std::vector<std::thread> threads_;  // written by the constructor only
};

const char kJsonType[] = "application/json";
const char kPrometheusType[] = "text/plain; version=0.0.4; charset=utf-8";

void Reply(httplib::Response& res, int code, const json& body) {
  res.status = code;
  res.set_content(JsonText(body), kJsonType);
}

// A failed call as the client would have seen it: 404 for what does not
// exist, 503 while the server does not serve (a follower, or no leader),
// 400 for a bad request, 500 for the rest.
void ReplyFailure(httplib::Response& res, const Status& s) {
  int code = 500;
  if (s.IsNotFound()) {
    code = 404;
  } else if (s.IsInvalidArgument()) {
    code = 400;
  } else if (s.IsUnavailable()) {
    code = 503;
  }
  Reply(res, code, json{{"error", s.ToString()}});
}

bool ParseU64(const std::string& text, uint64_t* out) {
  if (text.empty() || text.size() > 20) return false;
  uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (v > (UINT64_MAX - digit) / 10) return false;
    v = v * 10 + digit;
  }
  *out = v;
  return true;
}

// /proc/self/stat's fields after the command name, which may hold spaces
// and parentheses of its own.
std::vector<std::string> ProcStatFields() {
  std::ifstream in("/proc/self/stat");
  std::string line;
  std::getline(in, line);
  std::vector<std::string> fields;
  const size_t close = line.rfind(')');
  if (close == std::string::npos) return fields;
  std::istringstream rest(line.substr(close + 1));
  std::string field;
  while (rest >> field) fields.push_back(field);
  return fields;
}

uint64_t BootTimeSeconds() {
  std::ifstream in("/proc/stat");
  std::string key;
  uint64_t value = 0;
  while (in >> key) {
    if (key == "btime") {
      in >> value;
      return value;
    }
    in.ignore(1 << 20, '\n');
  }
  return 0;
}

// -1 when the directory cannot be read (descriptors ran out, say): the
// sample is then left out rather than shown as 0.
int64_t OpenDescriptors() {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  int64_t n = 0;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++n;
  }
  closedir(dir);
  // The directory's own descriptor was one of them.
  return n > 0 ? n - 1 : 0;
}

void Gauge(std::string* out, const char* name, const char* type, const char* help, double value) {
  char line[256];
  std::snprintf(line, sizeof(line), "# HELP %s %s\n# TYPE %s %s\n%s %.17g\n", name, help, name, type, name, value);
  *out += line;
}

}  // namespace

std::string JsonText(const nlohmann::json& value) {
  return value.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string ProcessMetricsText() {
  std::string out;
  // Figures whose source cannot be read now are left out: a 0 would read
  // as a fact (no descriptors open, a start at boot).
  const std::vector<std::string> f = ProcStatFields();
  if (f.size() > 21) {
    // Field numbers of proc(5), counted from the state (field 3) as index 0.
    auto field = [&f](size_t number) { return std::strtod(f[number - 3].c_str(), nullptr); };
    const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    const double page = static_cast<double>(sysconf(_SC_PAGESIZE));
    Gauge(&out, "process_cpu_seconds_total", "counter", "User and system CPU time spent, in seconds.",
          (field(14) + field(15)) / ticks);
    Gauge(&out, "process_resident_memory_bytes", "gauge", "Resident memory size in bytes.", field(24) * page);
    Gauge(&out, "process_virtual_memory_bytes", "gauge", "Virtual memory size in bytes.", field(23));
    Gauge(&out, "process_threads", "gauge", "Threads of the process.", field(20));
    if (const uint64_t boot = BootTimeSeconds(); boot > 0) {
      Gauge(&out, "process_start_time_seconds", "gauge", "Start time of the process since the epoch, in seconds.",
            static_cast<double>(boot) + field(22) / ticks);
    }
  }
  if (const int64_t open = OpenDescriptors(); open >= 0) {
    Gauge(&out, "process_open_fds", "gauge", "Open file descriptors.", static_cast<double>(open));
  }
  struct rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
    Gauge(&out, "process_max_fds", "gauge", "The limit on open file descriptors.",
          static_cast<double>(limit.rlim_cur));
  }
  return out;
}

bool StatusServer::SplitHostPort(const std::string& addr, std::string* host, int* port) {
  const size_t colon = addr.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  uint64_t value = 0;
  if (!ParseU64(addr.substr(colon + 1), &value) || value > 65535) return false;
  *host = addr.substr(0, colon);
  *port = static_cast<int>(value);
  return true;
}

StatusServer::StatusServer(StatusOptions options) : options_(std::move(options)) {}

StatusServer::~StatusServer() {
  if (http_ != nullptr) http_->stop();
  if (thread_.joinable()) thread_.join();
}

Status StatusServer::Start(StatusOptions options, std::unique_ptr<StatusServer>* out) {
  std::string host;
  int port = 0;
  if (!SplitHostPort(options.addr, &host, &port)) {
    return Status::InvalidArgument("status: --status_addr must be HOST:PORT, not '" + options.addr + "'");
  }
  std::unique_ptr<StatusServer> server(new StatusServer(std::move(options)));
  if (server->options_.tls != nullptr) {
    kanrpc::TlsServerContext* tls = server->options_.tls.get();
    server->http_ = std::make_unique<httplib::SSLServer>([tls](SSL_CTX& ctx) {
      tls->Attach(&ctx);
      return true;
    });
  } else {
    server->http_ = std::make_unique<httplib::Server>();
  }
  httplib::Server& http = *server->http_;
  http.new_task_queue = [] { return new BoundedPool(); };
  http.set_read_timeout(kReadTimeoutS);
  http.set_write_timeout(kWriteTimeoutS);
  http.set_keep_alive_max_count(kRequestsPerConnection);
  http.set_payload_max_length(kMaxRequestBody);
  server->Route();
  const int bound = port == 0 ? http.bind_to_any_port(host) : (http.bind_to_port(host, port) ? port : -1);
  if (bound <= 0) {
    return Status::Corruption("status: cannot listen on " + server->options_.addr);
  }
  server->port_ = bound;
  server->thread_ = std::thread([s = server.get()] {
    // OpenSSL writes to the socket with write(2): a client that leaves
    // while its answer is written must not end the process with SIGPIPE,
    // whatever the HTTP library does about the signal. The HTTP threads,
    // all started from this one, inherit the blocked signal and see EPIPE.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    s->http_->listen_after_bind();
    s->listening_ended_.store(true);
  });
  // The library's stop does nothing before its loop runs: a server
  // destroyed before then would wait for that loop for ever.
  while (!http.is_running() && !server->listening_ended_.load()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!http.is_running()) return Status::Corruption("status: cannot serve on " + server->options_.addr);
  *out = std::move(server);
  return Status::OK();
}

std::string StatusServer::Metrics() const {
  pdpb::StatsResponse stats;
  std::string out;
  if (options_.rpc->CallLocal("Pd.Stats", pdpb::StatsRequest{}, &stats).ok()) {
    out = tools::StatsPrometheus(stats);
  }
  if (!options_.data_dir.empty()) {
    struct statvfs fs = {};
    if (statvfs(options_.data_dir.c_str(), &fs) == 0) {
      const double unit = static_cast<double>(fs.f_frsize);
      Gauge(&out, "kandb_meta_data_dir_available_bytes", "gauge",
            "Bytes free to the server on the filesystem of its state directory.",
            static_cast<double>(fs.f_bavail) * unit);
      Gauge(&out, "kandb_meta_data_dir_size_bytes", "gauge", "Size of the filesystem of the state directory.",
            static_cast<double>(fs.f_blocks) * unit);
    }
  }
  if (options_.members_json) {
    const Health health = options_.health();
    Gauge(&out, "kandb_meta_leader", "gauge", "1 while this server leads and serves, else 0.",
          health.role == "leader" ? 1 : 0);
    Gauge(&out, "kandb_meta_leader_known", "gauge", "1 while this server leads or follows a known leader, else 0.",
          health.serving ? 1 : 0);
  }
  out += ProcessMetricsText();
  return out;
}

void StatusServer::Route() {
  httplib::Server& http = *http_;
  const kanrpc::RpcServer* rpc = options_.rpc;

  http.Get("/metrics", [this](const httplib::Request&, httplib::Response& res) {
    res.set_content(Metrics(), kPrometheusType);
  });

  http.Get("/health", [this](const httplib::Request&, httplib::Response& res) {
    const Health h = options_.health();
    json body{{"status", h.serving ? "ok" : "unavailable"}, {"server", options_.program}};
    if (!h.role.empty()) body["role"] = h.role;
    if (!h.leader.empty()) body["leader"] = h.leader;
    if (!h.serving) body["reason"] = h.reason;
    Reply(res, h.serving ? 200 : 503, body);
  });

  http.Get("/api/v1/cluster", [this, rpc](const httplib::Request&, httplib::Response& res) {
    // Not the GC safe point: reading it may persist it, and every page here
    // only reads.
    pdpb::StatsResponse stats;
    Status s = rpc->CallLocal("Pd.Stats", pdpb::StatsRequest{}, &stats);
    if (!s.ok()) return ReplyFailure(res, s);
    const pdpb::SchedulingStats& g = stats.scheduling;
    Reply(res, 200,
          json{{"server", options_.program},
               {"uptime_ms", stats.uptime_ms},
               {"regions", stats.routing.index_regions},
               {"stores",
                {{"unknown", g.stores_unknown},
                 {"up", g.stores_up},
                 {"disconnected", g.stores_disconnected},
                 {"down", g.stores_down},
                 {"offline", g.stores_offline},
                 {"tombstone", g.stores_tombstone}}},
               {"regions_missing_replica", g.regions_missing_replica},
               {"regions_on_down_store", g.regions_on_down_store},
               {"regions_on_offline_store", g.regions_on_offline_store}});
  });

  http.Get("/api/v1/stores", [rpc](const httplib::Request&, httplib::Response& res) {
    pdpb::GetAllStoresResponse stores;
    Status s = rpc->CallLocal("Pd.GetAllStores", pdpb::GetAllStoresRequest{}, &stores);
    if (!s.ok()) return ReplyFailure(res, s);
    Reply(res, 200, tools::ToJson(stores));
  });

  http.Get("/api/v1/regions", [rpc](const httplib::Request& req, httplib::Response& res) {
    // Keys are written as the command-line client writes them: printable
    // bytes as they are, others escaped.
    auto key = [&req](const char* name, std::string* out) {
      return req.has_param(name) ? tools::UnescapeBytes(req.get_param_value(name), out) : Status::OK();
    };
    if (req.has_param("key")) {
      pdpb::GetRegionRequest request;
      Status s = key("key", &request.key);
      pdpb::GetRegionResponse region;
      if (s.ok()) s = rpc->CallLocal("Pd.GetRegion", request, &region);
      if (!s.ok()) return ReplyFailure(res, s);
      return Reply(res, 200, tools::ToJson(region));
    }
    if (req.has_param("id")) {
      pdpb::GetRegionByIdRequest request;
      if (!ParseU64(req.get_param_value("id"), &request.region_id)) {
        return ReplyFailure(res, Status::InvalidArgument("id must be a decimal region id"));
      }
      pdpb::GetRegionResponse region;
      Status s = rpc->CallLocal("Pd.GetRegionById", request, &region);
      if (!s.ok()) return ReplyFailure(res, s);
      return Reply(res, 200, tools::ToJson(region));
    }
    pdpb::ScanRegionsRequest request;
    Status s = key("start", &request.start_key);
    if (s.ok()) s = key("end", &request.end_key);
    if (s.ok() && req.has_param("limit")) {
      uint64_t limit = 0;
      if (!ParseU64(req.get_param_value("limit"), &limit) || limit > UINT32_MAX) {
        s = Status::InvalidArgument("limit must be a decimal count");
      }
      request.limit = static_cast<uint32_t>(limit);
    }
    pdpb::ScanRegionsResponse regions;
    if (s.ok()) s = rpc->CallLocal("Pd.ScanRegions", request, &regions);
    if (!s.ok()) return ReplyFailure(res, s);
    Reply(res, 200, tools::ToJson(regions));
  });

  http.Get("/api/v1/members", [this](const httplib::Request&, httplib::Response& res) {
    if (options_.members_json) {
      res.status = 200;
      res.set_content(options_.members_json(), kJsonType);
      return;
    }
    Reply(res, 200, json{{"servers", json::array({json{{"program", options_.program}}})}});
  });

  // The path as it came, escaped: it may hold any bytes, and JSON text
  // only UTF-8.
  http.set_error_handler([](const httplib::Request& req, httplib::Response& res) {
    if (res.status == 404 && res.body.empty()) {
      Reply(res, 404, json{{"error", "no such page: " + tools::EscapeBytes(req.path)}});
    }
  });
  // Whatever a view throws (it should throw nothing) ends that request, not
  // the process.
  http.set_exception_handler([](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
    Reply(res, 500, json{{"error", "internal error"}});
  });
}

}  // namespace kandb::app
