#include "meta/ha_server.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <utility>

#include "common/coding.h"
#include "meta/service_stats.h"
#include "rpc/server.h"
#include "store/etcd_backend.h"

namespace kandb::meta {

namespace {

constexpr char kCeilingKey[] = "tso_ceiling";
constexpr int64_t kNsPerMs = 1000000;
// Retry a failed renewal this soon, rather than a third of the lease later.
constexpr int64_t kRenewRetryNs = 100 * kNsPerMs;
// How often the leading thread wakes to renew, extend and check its term.
constexpr int kLeadTickMs = 50;

int64_t SteadyNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

uint64_t WallMs() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count());
}

// The term stops serving this long before its lease can run out by its own
// clock: room for a request already checked to finish, and for clock drift.
int64_t SafetyMarginNs(int64_t ttl_s) { return std::max<int64_t>(300 * kNsPerMs, ttl_s * 1000 * kNsPerMs / 10); }

}  // namespace

// One leadership term: its fenced store, its service and its timestamp
// ceiling. Requests hold it by shared pointer, so a term that ends stays
// alive until the last request on it has answered.
class HaServer::Term {
 public:
  Term(store::EtcdClient* etcd, const std::string& prefix, const std::string& leader_key,
       int64_t create_revision, int64_t deadline_ns)
      : create_revision_(create_revision),
        deadline_ns_(deadline_ns),
        raw_(etcd, prefix, store::EtcdFence{leader_key, create_revision}, [this] { Lose(); }) {
    // Without a passphrase the store cannot fail to open.
    Status s = store::OpenEtcdMetaStore(etcd, prefix, store::EtcdFence{leader_key, create_revision},
                                        "", [this] { Lose(); }, &store_);
    (void)s;
  }

  // Whether requests may still be answered in this term.
  bool Valid() const {
    return !lost_.load(std::memory_order_acquire) &&
           SteadyNs() < deadline_ns_.load(std::memory_order_acquire);
  }
  bool lost() const { return lost_.load(std::memory_order_acquire); }
  void Lose() { lost_.store(true, std::memory_order_release); }
  void ExtendTo(int64_t deadline_ns) { deadline_ns_.store(deadline_ns, std::memory_order_release); }
  int64_t create_revision() const { return create_revision_; }

  // Reads what the term starts from and builds its service. Fails, leaving
  // the term unusable, when etcd cannot tell where the previous term ended.
  Status Begin(uint32_t target_replicas) {
    std::string stored;
    bool found = false;
    Status s = raw_.Get(kCeilingKey, &stored, &found);
    if (!s.ok()) return s;
    uint64_t floor = 0;
    if (found) {
      if (stored.size() != 8) return Status::Corruption("bad timestamp ceiling record");
      floor = DecodeFixed64(stored.data());
    }
    s = RaiseCeiling(std::max(floor, WallMs()));
    if (!s.ok()) return s;
    // The service loads the identifier counter from etcd, and fails when
    // the mark cannot be read.
    s = PdService::Create(store_.get(), target_replicas, &service_);
    if (!s.ok()) return s;
    service_->SetTsoCeiling(floor, [this](uint64_t physical) { return Admit(physical); });
    return Status::OK();
  }

  PdService* service() { return service_.get(); }

  // Keeps the ceiling at least two thirds of a window ahead of the clock.
  Status KeepCeilingAhead() {
    const uint64_t now = WallMs();
    if (ceiling_.load(std::memory_order_acquire) > now + kTsoWindowMs * 2 / 3) return Status::OK();
    return RaiseCeiling(now + 1);
  }

 private:
  // Timestamps of physical part `physical` may be handed out once the
  // persisted ceiling is above it.
  Status Admit(uint64_t physical) {
    if (physical < ceiling_.load(std::memory_order_acquire)) return Status::OK();
    return RaiseCeiling(physical + 1);
  }

  // Persists (fenced) a ceiling of at least `at_least`, a window ahead of
  // the clock, before anything below it is handed out.
  Status RaiseCeiling(uint64_t at_least) EXCLUDES(ceiling_mu_) {
    MutexLock lock(&ceiling_mu_);
    if (ceiling_.load(std::memory_order_acquire) >= at_least) return Status::OK();
    const uint64_t ceiling = std::max(at_least, WallMs()) + kTsoWindowMs;
    std::string value;
    PutFixed64(&value, ceiling);
    Status s = raw_.Write({lsm::Entry{lsm::kOpPut, kCeilingKey, value}});
    if (!s.ok()) return s;
    ceiling_.store(ceiling, std::memory_order_release);
    return Status::OK();
  }

  const int64_t create_revision_;
  std::atomic<bool> lost_{false};
  std::atomic<int64_t> deadline_ns_;  // steady clock; serving stops there
  // The term's own records beside the service's (the timestamp ceiling),
  // written with the same fence, without the service's key space.
  store::EtcdBackend raw_;
  std::unique_ptr<store::MetaStore> store_;  // set by the constructor
  std::unique_ptr<PdService> service_;  // set by Begin, before the term is published

  // Serialises ceiling writes; the persisted ceiling only grows. Taken
  // under the service's tso_mutex (from Admit) and alone (from the
  // leading thread), never the other way round.
  Mutex ceiling_mu_;
  std::atomic<uint64_t> ceiling_{0};  // persisted; written under ceiling_mu_
};

int64_t HaServer::LeaseSeconds(int64_t lease_ms) {
  return std::max<int64_t>(2, (lease_ms + 999) / 1000);
}

HaServer::HaServer(store::EtcdClient* etcd, HaOptions options)
    : etcd_(etcd),
      options_(std::move(options)),
      leader_key_(options_.prefix + "leader") {}

HaServer::~HaServer() {
  stop_.store(true);
  if (thread_.joinable()) thread_.join();
  bool leading = false;
  {
    MutexLock lock(&mu_);
    leading = term_ != nullptr;
  }
  if (leading) EndTerm("shutting down");
}

void HaServer::Start() {
  thread_ = std::thread([this] { Run(); });
}

void HaServer::Log(const std::string& event) {
  const auto now = std::chrono::system_clock::now();
  const time_t seconds = std::chrono::system_clock::to_time_t(now);
  const int millis = static_cast<int>(
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000);
  struct tm utc;
  gmtime_r(&seconds, &utc);
  char stamp[32];
  std::strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S", &utc);
  std::fprintf(stderr, "%s.%03dZ %s %s\n", stamp, millis, options_.advertise.c_str(), event.c_str());
  std::fflush(stderr);
}

Status HaServer::NotLeader() {
  MutexLock lock(&mu_);
  if (leader_.empty() || leader_ == options_.advertise) {
    return Status::Unavailable("not leader; no leader yet");
  }
  return Status::Unavailable("not leader; leader at " + leader_);
}

HaServer::Term* HaServer::Serving(Status* refusal) {
  struct Kept {
    const HaServer* server = nullptr;
    uint64_t generation = 0;
    std::shared_ptr<Term> term;
  };
  thread_local Kept kept;
  if (kept.server != this || kept.generation != generation_.load(std::memory_order_acquire)) {
    MutexLock lock(&mu_);
    kept.server = this;
    kept.generation = generation_.load(std::memory_order_relaxed);
    kept.term = term_;
  }
  Term* term = kept.term.get();
  if (term != nullptr && term->Valid()) return term;
  *refusal = NotLeader();
  return nullptr;
}

template <class Req, class Resp>
void HaServer::Bind(kanrpc::RpcServer* server, const char* method,
                    Status (PdService::*handler)(const Req&, Resp*)) {
  server->Register<Req, Resp>(method, [this, handler](const Req& req, Resp* resp) {
    Status refusal;
    Term* const term = Serving(&refusal);
    if (term == nullptr) return refusal;
    Resp answer;
    Status s = (term->service()->*handler)(req, &answer);
    // Checked again: a leader that was paused past its lease while the
    // handler ran must not answer; another leader may have served since.
    if (!term->Valid()) return NotLeader();
    if (!s.ok()) return s;
    *resp = std::move(answer);
    return Status::OK();
  });
}

void HaServer::RegisterTo(kanrpc::RpcServer* server) {
  Bind(server, "Pd.Tso", &PdService::Tso);
  Bind(server, "Pd.AllocId", &PdService::AllocId);
  Bind(server, "Pd.Bootstrap", &PdService::Bootstrap);
  Bind(server, "Pd.GetRegion", &PdService::GetRegion);
  Bind(server, "Pd.UpsertRegion", &PdService::UpsertRegion);
  Bind(server, "Pd.RegionHeartbeat", &PdService::RegionHeartbeat);
  // Every member answers with its own counters, leading or not. The store
  // lies on etcd, so the engine part is always absent; routing counts only
  // while a term's service exists.
  server->Register<pdpb::StatsRequest, pdpb::StatsResponse>(
      "Pd.Stats", [this, server](const pdpb::StatsRequest&, pdpb::StatsResponse* resp) {
        std::shared_ptr<Term> term;
        {
          MutexLock lock(&mu_);
          term = term_;
        }
        if (term != nullptr && term->service() != nullptr) {
          term->service()->GetStats(*server, resp);
        } else {
          SetServerStats(server->Stats(), resp);
        }
        return Status::OK();
      });
}

void HaServer::Run() {
  while (!stop_.load()) {
    std::shared_ptr<Term> term;
    {
      MutexLock lock(&mu_);
      term = term_;
    }
    int pause_ms = kCampaignIntervalMs;
    if (term != nullptr) {
      Lead(term);
      pause_ms = kLeadTickMs;
    } else {
      Campaign();
    }
    for (int slept = 0; slept < pause_ms && !stop_.load(); slept += 10) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
}

void HaServer::Campaign() {
  // A cheap read first: while a leader exists there is nothing to try.
  std::vector<store::EtcdKv> kvs;
  bool more = false;
  int64_t revision = 0;
  Status s = etcd_->Range(leader_key_, "", 0, 0, &kvs, &more, &revision);
  std::string seen;
  if (s.ok() && !kvs.empty()) seen = kvs.front().value;
  if (!s.ok() || !seen.empty()) {
    {
      MutexLock lock(&mu_);
      leader_ = seen;
    }
    if (seen != last_leader_seen_) {
      if (!seen.empty()) Log("follows " + seen);
      last_leader_seen_ = seen;
    }
    return;
  }

  // A fresh lease for each attempt, so the term's deadline counts from a
  // grant that etcd just made.
  const int64_t sent = SteadyNs();
  int64_t lease = 0, ttl = 0;
  s = etcd_->LeaseGrant(LeaseSeconds(options_.lease_ms), &lease, &ttl);
  if (!s.ok()) return;
  store::EtcdOp put{store::EtcdOp::Kind::kPut, leader_key_, options_.advertise, lease};
  store::EtcdOp get{store::EtcdOp::Kind::kGet, leader_key_, "", 0};
  store::EtcdTxnResult result;
  s = etcd_->Txn({store::EtcdCompare{leader_key_, store::EtcdCompare::Target::kCreate, 0}}, {put},
                 {get}, &result);
  int64_t create_revision = 0;
  if (s.ok() && result.succeeded) {
    create_revision = result.revision;
  } else if (s.ok() && !result.gets.empty() && !result.gets[0].empty()) {
    const store::EtcdKv& holder = result.gets[0][0];
    // A retried transaction may find its own earlier success.
    if (holder.lease == lease) {
      create_revision = holder.create_revision;
    } else {
      MutexLock lock(&mu_);
      leader_ = holder.value;
    }
  }
  if (create_revision == 0) {
    (void)etcd_->LeaseRevoke(lease);
    return;
  }
  lease_id_ = lease;
  lease_ttl_s_ = ttl;
  next_renew_ns_ = sent + ttl * 1000 * kNsPerMs / 3;
  auto term = std::make_shared<Term>(etcd_, options_.prefix, leader_key_, create_revision,
                                     sent + ttl * 1000 * kNsPerMs - SafetyMarginNs(ttl));
  s = term->Begin(options_.target_replicas);
  if (!s.ok()) {
    Log("could not begin a term: " + s.ToString());
    (void)etcd_->LeaseRevoke(lease_id_);
    lease_id_ = 0;
    return;
  }
  {
    MutexLock lock(&mu_);
    term_ = term;
    generation_.fetch_add(1, std::memory_order_release);
    leader_ = options_.advertise;
  }
  last_leader_seen_ = options_.advertise;
  Log("leader (lease " + std::to_string(ttl) + " s)");
}

void HaServer::Lead(const std::shared_ptr<Term>& term) {
  if (term->lost()) {
    EndTerm("fenced out: another server leads");
    return;
  }
  const int64_t now = SteadyNs();
  if (now >= next_renew_ns_) {
    // The lease runs from when etcd received the renewal, which is after
    // `now`: timing the term from `now` errs on the safe side.
    int64_t ttl = 0;
    Status s = etcd_->LeaseKeepAlive(lease_id_, &ttl);
    if (s.ok() && ttl > 0) {
      lease_ttl_s_ = ttl;
      next_renew_ns_ = now + ttl * 1000 * kNsPerMs / 3;
      term->ExtendTo(now + ttl * 1000 * kNsPerMs - SafetyMarginNs(ttl));
    } else if (s.ok()) {
      EndTerm("lease expired");
      return;
    } else {
      // Try again soon; the term ends by itself when its deadline passes.
      next_renew_ns_ = now + kRenewRetryNs;
    }
  }
  if (!term->Valid()) {
    EndTerm(term->lost() ? "fenced out: another server leads" : "lease not renewed in time");
    return;
  }
  (void)term->KeepCeilingAhead();
}

void HaServer::EndTerm(const char* why) {
  {
    MutexLock lock(&mu_);
    if (term_ != nullptr) term_->Lose();
    term_.reset();
    generation_.fetch_add(1, std::memory_order_release);
    leader_.clear();
  }
  last_leader_seen_.clear();
  Log(std::string("stepped down: ") + why);
  // Best effort: a revoked lease frees the leader key at once, so another
  // server need not wait for it to expire.
  if (lease_id_ != 0) (void)etcd_->LeaseRevoke(lease_id_);
  lease_id_ = 0;
}

}  // namespace kandb::meta
