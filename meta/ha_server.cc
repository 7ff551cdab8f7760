#include "meta/ha_server.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string_view>
#include <utility>

#include "common/clock.h"
#include "common/coding.h"
#include "meta/keys.h"
#include "meta/service_stats.h"
#include "rpc/server.h"
#include "store/etcd_backend.h"

namespace kandb::meta {

namespace {

constexpr char kCeilingKey[] = "tso_ceiling";
// "<prefix>member/<advertise>": one key per live server (see Members).
constexpr char kMemberPrefix[] = "member/";
constexpr int64_t kNsPerMs = 1000000;
// Retry a failed renewal this soon, rather than a third of the lease later.
constexpr int64_t kRenewRetryNs = 100 * kNsPerMs;
// How often the leading thread wakes to renew, extend and check its term.
constexpr int kLeadTickMs = 50;
// A server that stepped down campaigns again only after this long.
constexpr int kStepDownPauseMs = 3 * HaServer::kCampaignIntervalMs;
// A follower whose copy lags the leader key this long starts its watch
// again.
constexpr int64_t kWatchStuckNs = 2000 * kNsPerMs;

// Term generations, unique in the process: a worker thread's kept term is
// told apart from the current one by (server, generation), also when a
// server is built where another one was.
uint64_t NextGeneration() {
  static std::atomic<uint64_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
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

// One leadership term: its fenced store, its service, its timestamp
// ceiling, and what bounds its answers (the lease, the proofs that its key
// is still its own, and the revision its copy of the records must reach).
// Requests hold it by shared pointer, so a term that ends stays alive
// until the last request on it has answered.
//
// Upserts are answered by the store's sender thread, after the request's
// thread has let go of the term: their callbacks hold the term by plain
// pointer, and the term's teardown waits for them instead. Its store goes
// last but for the records it writes beside it (after the service, whose
// region index stops observing it), and the store's backend, as it goes,
// waits for the transaction in flight and answers every write still
// queued; each answer reads only the term's own flags and the server's
// leader address. So whichever thread drops the last hold on a term (the
// campaign thread ending it, the loop or a worker moving on to the next
// term) may wait there for one etcd transaction, and must not hold mu_,
// which the answers take.
class HaServer::Term {
 public:
  Term(store::EtcdClient* etcd, const HaOptions& options, const std::string& leader_key, int64_t create_revision,
       int64_t lease, int64_t sent_ns, int64_t ttl_s)
      : create_revision_(create_revision),
        lease_(lease),
        ttl_s_(ttl_s),
        window_ns_(kConfirmWindowMs * kNsPerMs),
        lease_deadline_ns_(sent_ns + ttl_s * 1000 * kNsPerMs - SafetyMarginNs(ttl_s)),
        // The create transaction is the term's first proof.
        confirmed_until_ns_(sent_ns + window_ns_ - kConfirmMarginMs * kNsPerMs),
        last_proof_ns_(sent_ns),
        barrier_(create_revision),
        raw_(etcd, options.prefix, Fence(leader_key, create_revision, options.advertise, lease), Observer()) {
    // Without a passphrase the store cannot fail to open.
    Status s = store::OpenEtcdMetaStore(etcd, options.prefix,
                                        Fence(leader_key, create_revision, options.advertise, lease), "",
                                        Observer(), &store_);
    (void)s;
  }

  // Whether requests may be answered in this term now.
  bool Valid() const {
    const int64_t now = SteadyNs();
    return !lost() && now >= serve_from_ns_.load(std::memory_order_acquire) &&
           now < lease_deadline_ns_.load(std::memory_order_acquire) &&
           now < confirmed_until_ns_.load(std::memory_order_acquire) && !ClockStoodStill(now);
  }
  // Whether the wall clock ran ahead of the term's clock since the leading
  // thread last looked: a machine frozen whole (a virtual machine stopped
  // and resumed) may not advance the term's clock meanwhile, and would
  // otherwise wake up believing its window still open.
  bool ClockStoodStill(int64_t now) const {
    return WallNs() - now > clock_offset_ns_.load(std::memory_order_acquire) + kConfirmMarginMs * kNsPerMs;
  }
  // From the leading thread on each tick: where the wall clock stands
  // against the term's clock now.
  void NoteClocks() { clock_offset_ns_.store(WallNs() - SteadyNs(), std::memory_order_release); }
  // Whether the lease may have run out by this server's clock: the term
  // is over.
  bool LeaseRanOut() const { return SteadyNs() >= lease_deadline_ns_.load(std::memory_order_acquire); }
  bool lost() const { return lost_.load(std::memory_order_acquire); }
  // Ends the term for `why`; the first reason given is kept.
  void Lose(const char* why) {
    const char* expected = nullptr;
    lost_why_.compare_exchange_strong(expected, why, std::memory_order_acq_rel);
    lost_.store(true, std::memory_order_release);
  }
  const char* lost_why() const {
    const char* why = lost_why_.load(std::memory_order_acquire);
    return why != nullptr ? why : "term ended";
  }
  void ExtendLeaseTo(int64_t deadline_ns) { lease_deadline_ns_.store(deadline_ns, std::memory_order_release); }
  void ServeFrom(int64_t ns) { serve_from_ns_.store(ns, std::memory_order_release); }
  int64_t create_revision() const { return create_revision_; }
  int64_t lease() const { return lease_; }
  int64_t ttl_s() const { return ttl_s_; }
  // Until the lease may run out by this server's clock.
  int64_t lease_left_ms() const {
    return std::max<int64_t>(0, (lease_deadline_ns_.load(std::memory_order_acquire) - SteadyNs()) / kNsPerMs);
  }
  // The newest revision the copy of the records must hold before routing
  // may answer from it: the term's start (which follows every write of the
  // terms before it) and every write this term acknowledged.
  int64_t barrier() const { return barrier_.load(std::memory_order_acquire); }
  // Whether a quarter of the window has passed since the last proof.
  bool ProofDue() const {
    return SteadyNs() - last_proof_ns_.load(std::memory_order_acquire) >= window_ns_ / 4;
  }

  // Reads what the term starts from and builds its service. Fails, leaving
  // the term unusable, when etcd cannot tell where the previous term ended.
  Status Begin(uint32_t target_replicas, const Scheduler::Options& scheduling, std::unique_ptr<RegionRouter> router) {
    router_ = std::move(router);
    uint64_t floor = 0;
    {
      MutexLock lock(&ceiling_mu_);
      Status s = ReadMark(kCeilingKey, &floor, &ceiling_revision_);
      if (!s.ok()) return s;
    }
    Status s = RaiseCeiling(std::max(floor, WallMs()));
    if (!s.ok()) return s;
    // Where the identifier mark stands now; the service reads its value
    // itself, and fails when it cannot be read. Its writes are raised
    // marks of this term's own (see RaiseMark).
    uint64_t ignored = 0;
    s = ReadMark(kIdAllocKey, &ignored, &id_mark_revision_);
    if (!s.ok()) return s;
    PdService::Options service_options;
    service_options.target_replicas = target_replicas;
    // Store statistics are learned again from the stores' heartbeats: a
    // term starts with none, and counts every store silent from its start.
    service_options.scheduling = scheduling;
    service_options.router = router_.get();
    service_options.own_id_marks = true;
    service_options.write_id_mark = [this](uint64_t mark) { return RaiseMark(kIdAllocKey, mark, &id_mark_revision_); };
    s = PdService::Create(store_.get(), service_options, &service_);
    if (!s.ok()) return s;
    service_->SetTsoCeiling(
        floor, [this](uint64_t physical) { return Admit(physical); },
        [this](uint64_t physical) { return physical < ceiling_.load(std::memory_order_acquire); });
    return Status::OK();
  }

  PdService* service() { return service_.get(); }

  // Keeps the ceiling at least two thirds of a window ahead of the clock.
  Status KeepCeilingAhead() {
    const uint64_t now = WallMs();
    if (ceiling_.load(std::memory_order_acquire) > now + kTsoWindowMs * 2 / 3) return Status::OK();
    return RaiseCeiling(now + 1);
  }

  // A write of nothing but the proof: extends the window and raises the
  // barrier to a revision of its own.
  Status Prove() { return raw_.Write({}); }

  // Before a route is answered from the copy: after a write whose outcome
  // is unknown, writes again, so that the barrier passes whatever etcd had
  // applied of it by then. Fails when that write fails.
  Status CatchUp() EXCLUDES(catch_up_mu_) {
    const uint64_t unknown = unknown_writes_.load(std::memory_order_acquire);
    if (unknown == resolved_unknown_.load(std::memory_order_acquire)) return Status::OK();
    const uint64_t attempts = catch_up_attempts_.load(std::memory_order_acquire);
    // One proof at a time; those who waited find it done, or take its
    // failure rather than each waiting for etcd's time-out in turn.
    MutexLock lock(&catch_up_mu_);
    if (resolved_unknown_.load(std::memory_order_acquire) >= unknown) return Status::OK();
    if (catch_up_attempts_.load(std::memory_order_acquire) != attempts && !last_catch_up_.ok()) {
      return last_catch_up_;
    }
    Status s = Prove();
    last_catch_up_ = s;
    catch_up_attempts_.fetch_add(1, std::memory_order_acq_rel);
    if (s.ok()) resolved_unknown_.store(unknown, std::memory_order_release);
    return s;
  }

 private:
  static store::EtcdFence Fence(const std::string& key, int64_t create_revision, const std::string& value,
                                int64_t lease) {
    return store::EtcdFence{key, create_revision, value, lease};
  }
  store::EtcdWriteObserver Observer() {
    return store::EtcdWriteObserver{[this](int64_t revision, int64_t sent_ns) { Committed(revision, sent_ns); },
                                    [this] { unknown_writes_.fetch_add(1, std::memory_order_acq_rel); },
                                    [this] { Lose("fenced out: another server leads"); }};
  }

  // A fenced write etcd applied at `revision`, sent at `sent_ns`.
  void Committed(int64_t revision, int64_t sent_ns) {
    RaiseTo(&barrier_, revision);
    RaiseTo(&last_proof_ns_, sent_ns);
    RaiseTo(&confirmed_until_ns_, sent_ns + window_ns_ - kConfirmMarginMs * kNsPerMs);
  }
  static void RaiseTo(std::atomic<int64_t>* value, int64_t to) {
    int64_t seen = value->load(std::memory_order_relaxed);
    while (seen < to && !value->compare_exchange_weak(seen, to, std::memory_order_acq_rel)) {
    }
  }

  // Timestamps of physical part `physical` may be handed out once the
  // persisted ceiling is above it.
  Status Admit(uint64_t physical) {
    if (physical < ceiling_.load(std::memory_order_acquire)) return Status::OK();
    return RaiseCeiling(physical + 1);
  }

  // Persists (fenced) a ceiling of at least `at_least`, a window ahead of
  // the clock, before anything below it is handed out. A ceiling written
  // but unanswered may have landed: the next one is never lower.
  Status RaiseCeiling(uint64_t at_least) EXCLUDES(ceiling_mu_) {
    const uint64_t attempts = ceiling_attempts_.load(std::memory_order_acquire);
    MutexLock lock(&ceiling_mu_);
    if (ceiling_.load(std::memory_order_acquire) >= at_least) return Status::OK();
    // A raise that failed while this one waited for the lock is its answer
    // too: etcd did not answer a moment ago, and every timestamp caller
    // trying again in turn would wait for all the others' time-outs.
    if (ceiling_attempts_.load(std::memory_order_acquire) != attempts && !last_ceiling_status_.ok()) {
      return last_ceiling_status_;
    }
    const uint64_t ceiling = std::max(std::max(at_least, WallMs()) + kTsoWindowMs, tried_ceiling_);
    tried_ceiling_ = ceiling;
    Status s = RaiseMark(kCeilingKey, ceiling, &ceiling_revision_);
    last_ceiling_status_ = s;
    ceiling_attempts_.fetch_add(1, std::memory_order_acq_rel);
    if (!s.ok()) return s;
    ceiling_.store(ceiling, std::memory_order_release);
    return Status::OK();
  }

  // Reads a mark (8 bytes, little-endian; 0 when absent) and the revision
  // it was written at.
  Status ReadMark(const char* key, uint64_t* value, int64_t* revision) {
    std::string stored;
    bool found = false;
    Status s = raw_.GetWithRevision(key, &stored, &found, revision);
    if (!s.ok()) return s;
    *value = 0;
    if (found) {
      if (stored.size() != 8) {
        if (std::string_view(key) == kCeilingKey) return Status::Corruption("bad timestamp ceiling record");
        return Status::Corruption(std::string("identifier mark ") + key + " has " + std::to_string(stored.size()) +
                                  " bytes, not 8");
      }
      *value = DecodeFixed64(stored.data());
    }
    return Status::OK();
  }

  // Persists (fenced) a mark of at least `value` under `key`, with a
  // compare on the revision the term last knew it at (*revision), so that
  // a late copy of an earlier, lower write of this term (sent again by the
  // client to another member when the first gave no answer) can never
  // land after it and set it back, which would let the next term hand
  // out again what lies between. When the key moved meanwhile, the term
  // reads it again and writes the larger of the two. Called under the
  // lock that serialises writes of that mark.
  Status RaiseMark(const char* key, uint64_t value, int64_t* revision) {
    for (int attempt = 0; attempt < 3; ++attempt) {
      std::string encoded;
      PutFixed64(&encoded, value);
      bool written = false;
      int64_t at = 0;
      Status s = raw_.PutIfUnchanged(key, encoded, *revision, &written, &at);
      if (!s.ok()) return s;
      if (written) {
        *revision = at;
        return Status::OK();
      }
      uint64_t stored = 0;
      s = ReadMark(key, &stored, revision);
      if (!s.ok()) return s;
      value = std::max(value, stored);
    }
    return Status::Corruption(std::string("mark ") + key + " keeps changing under the term");
  }

  const int64_t create_revision_;
  const int64_t lease_;  // the etcd lease the leader key lives under
  const int64_t ttl_s_;  // its length as etcd granted it
  const int64_t window_ns_;
  std::atomic<bool> lost_{false};
  std::atomic<const char*> lost_why_{nullptr};
  // Steady clock: the term answers from serve_from_ns_ on (once the term
  // before it must have stopped), and before both deadlines.
  std::atomic<int64_t> serve_from_ns_{INT64_MAX};
  std::atomic<int64_t> lease_deadline_ns_;
  std::atomic<int64_t> confirmed_until_ns_;
  // When the last proof etcd applied was sent.
  std::atomic<int64_t> last_proof_ns_;
  std::atomic<int64_t> barrier_;
  // The wall clock minus the term's clock at the leading thread's last
  // tick (see ClockStoodStill).
  std::atomic<int64_t> clock_offset_ns_{WallNs() - SteadyNs()};
  // Writes whose outcome is unknown, and how many of them a later proof
  // has covered.
  std::atomic<uint64_t> unknown_writes_{0};
  std::atomic<uint64_t> resolved_unknown_{0};
  Mutex catch_up_mu_;
  std::atomic<uint64_t> catch_up_attempts_{0};  // bumped under catch_up_mu_
  Status last_catch_up_ GUARDED_BY(catch_up_mu_);
  // The term's own records beside the service's (the timestamp ceiling),
  // written with the same fence, without the service's key space.
  store::EtcdBackend raw_;
  std::unique_ptr<store::MetaStore> store_;  // set by the constructor
  // Set by Begin, before the term is published; the router outlives the
  // service that asks it.
  std::unique_ptr<RegionRouter> router_;
  std::unique_ptr<PdService> service_;

  // Serialises ceiling writes; the persisted ceiling only grows. Taken
  // under the service's tso_mutex (from Admit) and alone (from the
  // leading thread), never the other way round.
  Mutex ceiling_mu_;
  std::atomic<uint64_t> ceiling_{0};  // persisted; written under ceiling_mu_
  uint64_t tried_ceiling_ GUARDED_BY(ceiling_mu_) = 0;
  // The revision the stored ceiling was last known at (see RaiseMark).
  int64_t ceiling_revision_ GUARDED_BY(ceiling_mu_) = 0;
  // Raises tried so far (bumped under ceiling_mu_), and how the last ended.
  std::atomic<uint64_t> ceiling_attempts_{0};
  Status last_ceiling_status_ GUARDED_BY(ceiling_mu_);
  // The revision the identifier mark was last known at. Read by Begin,
  // then written only by the service's identifier batches, which its own
  // mutex serialises.
  int64_t id_mark_revision_ = 0;
};

// Routing for one term: from the copy of the records once it holds every
// write the term must show, else (the copy still loading, or behind) by
// the walk, which reads etcd itself.
class HaServer::TermRouter final : public RegionRouter {
 public:
  TermRouter(Term* term, RegionMirror* mirror) : term_(term), mirror_(mirror) {}

  bool Route(const std::string& key, pdpb::GetRegionResponse* resp, Status* status) const override {
    const std::shared_ptr<const RegionIndex> index = Current();
    return index != nullptr && index->Route(key, resp, status);
  }
  // The region reads under the same rule as routing.
  bool Scan(const std::string& start, const std::string& end, uint32_t limit, std::vector<pdpb::Region>* regions,
            Status* status) const override {
    const std::shared_ptr<const RegionIndex> index = Current();
    return index != nullptr && index->Scan(start, end, limit, regions, status);
  }
  bool FindRegion(uint64_t region_id, std::optional<uint64_t> leader_store, pdpb::GetRegionResponse* resp,
                  Status* status) const override {
    const std::shared_ptr<const RegionIndex> index = Current();
    return index != nullptr && index->FindRegion(region_id, leader_store, resp, status);
  }
  bool StaleReplicas(uint64_t store_id, const std::vector<uint64_t>& region_ids, const std::vector<uint64_t>* known,
                     std::vector<bool>* stale) const override {
    const std::shared_ptr<const RegionIndex> index = Current();
    return index != nullptr && index->StaleReplicas(store_id, region_ids, known, stale);
  }
  size_t regions() const override {
    const std::shared_ptr<const RegionIndex> index = mirror_->index();
    return index != nullptr ? index->regions() : 0;
  }
  // The store records under the same rule as routing: only once the copy
  // holds every write the term acknowledged.
  bool Stores(std::shared_ptr<const std::vector<pdpb::Store>>* stores,
              std::unordered_map<uint64_t, uint64_t>* replicas) const override {
    if (mirror_->index() == nullptr || !term_->CatchUp().ok()) return false;
    const int64_t before = mirror_->applied_revision();
    if (!mirror_->WaitFor(term_->barrier(), kRouteWaitMs)) {
      mirror_->Reconnect(before);
      return false;
    }
    const std::shared_ptr<const RegionIndex> index = mirror_->index();
    return index != nullptr && index->Stores(stores, replicas);
  }
  bool StoresAsHeld(std::shared_ptr<const std::vector<pdpb::Store>>* stores) const override {
    const std::shared_ptr<const RegionIndex> index = mirror_->index();
    return index != nullptr && index->Stores(stores, nullptr);
  }

 private:
  // How long a route waits for the copy before it walks.
  static constexpr int64_t kRouteWaitMs = 1000;

  // The copy's index once it holds every write the term must show, else
  // null (the caller reads the records themselves).
  std::shared_ptr<const RegionIndex> Current() const {
    if (mirror_->index() == nullptr) return nullptr;
    if (!term_->CatchUp().ok()) return nullptr;
    const int64_t before = mirror_->applied_revision();
    if (!mirror_->WaitFor(term_->barrier(), kRouteWaitMs)) {
      // A revision etcd applied has not come in that long, and nothing
      // else has either: the stream is stuck (its member cut off, say).
      // Start another.
      mirror_->Reconnect(before);
      return nullptr;
    }
    return mirror_->index();
  }

  Term* const term_;
  RegionMirror* const mirror_;
};

int64_t HaServer::LeaseSeconds(int64_t lease_ms) {
  return std::max<int64_t>(2, (lease_ms + 999) / 1000);
}

HaServer::HaServer(store::EtcdClient* etcd, HaOptions options)
    : etcd_(etcd),
      options_(std::move(options)),
      leader_key_(options_.prefix + "leader"),
      member_key_(options_.prefix + kMemberPrefix + options_.advertise) {
  RegionMirror::Options mirror;
  mirror.prefix = options_.prefix;
  mirror.leader_key = leader_key_;
  mirror.on_event = [this](const store::EtcdEvent& event, int64_t) { OnEvent(event); };
  mirror.on_loaded = [this](size_t regions, size_t stores, int64_t revision, int64_t took_ms) {
    Log("read " + std::to_string(regions) + " regions and " + std::to_string(stores) + " stores at revision " +
        std::to_string(revision) + " in " + std::to_string(took_ms) + " ms; following changes");
  };
  mirror_ = std::make_unique<RegionMirror>(etcd_, std::move(mirror));
}

HaServer::~HaServer() {
  stop_.store(true);
  if (thread_.joinable()) thread_.join();
  if (member_thread_.joinable()) member_thread_.join();
  bool leading = false;
  {
    MutexLock lock(&mu_);
    leading = term_ != nullptr;
  }
  if (leading) EndTerm("shutting down");
  FreeRetired();
  // Its thread calls OnEvent, which uses the members below.
  mirror_.reset();
}

void HaServer::Start() {
  mirror_->Start();
  thread_ = std::thread([this] { Run(); });
  member_thread_ = std::thread([this] { KeepMembership(); });
}

void HaServer::KeepMembership() {
  const int64_t ttl_asked = LeaseSeconds(options_.lease_ms);
  int64_t lease = 0;
  int64_t renew_at = 0;
  while (!stop_.load()) {
    if (SteadyNs() >= renew_at) {
      int64_t ttl = 0;
      Status s;
      if (lease != 0) {
        s = etcd_->LeaseKeepAlive(lease, &ttl);
        // Gone (expired while etcd was out of reach): a new lease, and the
        // key again.
        if (s.ok() && ttl <= 0) lease = 0;
      }
      if (lease == 0) {
        s = etcd_->LeaseGrant(ttl_asked, &lease, &ttl);
        if (s.ok()) {
          store::EtcdTxnResult result;
          s = etcd_->Txn({}, {store::EtcdOp{store::EtcdOp::Kind::kPut, member_key_, status_addr_, lease}},
                         {}, &result);
          if (!s.ok()) {
            (void)etcd_->LeaseRevoke(lease);
            lease = 0;
          }
        } else {
          lease = 0;
        }
      }
      // A third of the lease between renewals; a failure is tried again
      // at the campaign's pace.
      renew_at = SteadyNs() + (s.ok() && lease != 0 ? ttl * 1000 * kNsPerMs / 3 : kCampaignIntervalMs * kNsPerMs);
    }
    FreeRetired();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  // Leaving: the key goes with its lease at once, not a lease later.
  if (lease != 0) (void)etcd_->LeaseRevoke(lease);
}

void HaServer::FreeRetired() {
  std::vector<std::shared_ptr<Term>> retired;
  {
    MutexLock lock(&mu_);
    if (retired_.empty()) return;
    retired.swap(retired_);
  }
  // Freed here, outside mu_, on this thread: see retired_.
}

Status HaServer::Members(std::vector<Member>* out) const {
  out->clear();
  const std::string start = options_.prefix + kMemberPrefix;
  std::string end = start;
  end.back() = static_cast<char>(end.back() + 1);
  std::vector<store::EtcdKv> kvs;
  bool more = false;
  int64_t revision = 0;
  Status s = etcd_->Range(start, end, 0, 0, &kvs, &more, &revision);
  if (!s.ok()) return s;
  for (const store::EtcdKv& kv : kvs) out->push_back(Member{kv.key.substr(start.size()), kv.value});
  return Status::OK();
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

HaServer::Role HaServer::CurrentRole() const {
  Role role;
  MutexLock lock(&mu_);
  if (term_ != nullptr && term_->Valid()) {
    role.leading = true;
    role.leader = options_.advertise;
    role.lease_id = term_->lease();
    role.lease_ttl_s = term_->ttl_s();
    role.lease_left_ms = term_->lease_left_ms();
    role.term_revision = term_->create_revision();
  } else if (leader_ != options_.advertise) {
    // Its own address names a term of its own that no longer serves.
    role.leader = leader_;
  }
  role.etcd_error = etcd_error_;
  return role;
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
    // A term of another server (tests run several in one process) is let
    // go of here, after mu_: its teardown answers its queued upserts, which
    // take that server's mu_. One of this server's is retired, since this
    // thread may be an event loop (see retired_).
    std::shared_ptr<Term> other = kept.server != this ? std::move(kept.term) : nullptr;
    MutexLock lock(&mu_);
    if (kept.term != nullptr) retired_.push_back(std::move(kept.term));
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
std::function<Status(const Req&, Resp*)> HaServer::OnWorker(Status (PdService::*handler)(const Req&, Resp*)) {
  return [this, handler](const Req& req, Resp* resp) {
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
  };
}

template <class Req, class Resp>
void HaServer::Bind(kanrpc::RpcServer* server, const char* method,
                    Status (PdService::*handler)(const Req&, Resp*)) {
  server->Register<Req, Resp>(method, OnWorker(handler));
}

namespace {
std::atomic<void (*)()> answered_from_memory_hook{nullptr};
std::atomic<void (*)()> upsert_answer_hook{nullptr};
}  // namespace

void HaServer::SetFromMemoryHookForTesting(void (*hook)()) {
  answered_from_memory_hook.store(hook, std::memory_order_release);
}

void HaServer::SetUpsertAnswerHookForTesting(void (*hook)()) {
  upsert_answer_hook.store(hook, std::memory_order_release);
}

template <class Req, class Resp>
void HaServer::BindFromMemory(kanrpc::RpcServer* server, const char* method,
                              Status (PdService::*handler)(const Req&, Resp*),
                              bool (PdService::*from_memory)(const Req&, Resp*, Status*)) {
  // On the event loop, which must not wait: the term is found as a worker
  // finds it (an atomic load of the generation; mu_ only on a change of
  // term, and mu_ is never held across a call to etcd), and the service
  // answers only from what the term already persisted. What cannot be so
  // answered goes to the worker path (OnWorker), which may wait for etcd.
  server->RegisterTryInline<Req, Resp>(
      method,
      [this, from_memory](const Req& req, Resp* resp, Status* status) {
        Status refusal;
        Term* const term = Serving(&refusal);
        if (term == nullptr) {
          *status = refusal;
          return true;
        }
        Resp answer;
        Status s;
        if (!(term->service()->*from_memory)(req, &answer, &s)) return false;
        if (void (*hook)() = answered_from_memory_hook.load(std::memory_order_acquire)) hook();
        // Checked again, as on the worker path: a loop paused past the
        // term's lease or window after the values were taken hands none of
        // them out; they are skipped, never handed out twice. From this
        // check to the answer's send the loop runs only its own code: the
        // margins before the window's and the lease's end (kConfirmMarginMs
        // and the lease's safety margin) leave room for it, and a new
        // leader serves only once this term's window has passed.
        if (!term->Valid()) {
          *status = NotLeader();
          return true;
        }
        *status = s;
        if (s.ok()) *resp = std::move(answer);
        return true;
      },
      OnWorker(handler));
}

void HaServer::BindUpsert(kanrpc::RpcServer* server) {
  // On the event loop: the term is found as Tso finds it there, the write
  // is built and queued on the term's store, and the store's sender thread
  // answers once etcd did; no thread waits per call, and upserts queued
  // together go out as one fenced transaction. Between queueing and the
  // answer the campaign thread may end the term, or the mirror's thread
  // see its key taken: the write then fails on its fence, or lands and is
  // answered with the refusal all the same (a refused upsert may have been
  // applied, as on a worker; the client sends it again to the next
  // leader). The term stays alive until the answer is given (see Term).
  server->RegisterAsync<pdpb::UpsertRegionRequest>(
      "Pd.UpsertRegion", [this](const pdpb::UpsertRegionRequest& req, kanrpc::Reply reply) {
        Status refusal;
        Term* const term = Serving(&refusal);
        if (term == nullptr) {
          reply.Done(refusal, pdpb::UpsertRegionResponse{});
          return;
        }
        term->service()->UpsertRegionAsync(req, [this, term, reply](const Status& s) {
          if (void (*hook)() = upsert_answer_hook.load(std::memory_order_acquire)) hook();
          // Checked again before the answer, as on the worker path.
          if (!term->Valid()) {
            reply.Done(NotLeader(), pdpb::UpsertRegionResponse{});
            return;
          }
          reply.Done(s, pdpb::UpsertRegionResponse{});
        });
      });
}

void HaServer::RegisterTo(kanrpc::RpcServer* server) {
  // Timestamps below the persisted ceiling and identifiers below the
  // term's own mark, answered on the loop; the rest on workers.
  BindFromMemory(server, "Pd.Tso", &PdService::Tso, &PdService::TsoWithoutWaiting);
  BindFromMemory(server, "Pd.AllocId", &PdService::AllocId, &PdService::AllocIdWithoutWaiting);
  Bind(server, "Pd.Bootstrap", &PdService::Bootstrap);
  Bind(server, "Pd.GetRegion", &PdService::GetRegion);
  BindUpsert(server);
  Bind(server, "Pd.RegionHeartbeat", &PdService::RegionHeartbeat);
  Bind(server, "Pd.StoreHeartbeat", &PdService::StoreHeartbeat);
  Bind(server, "Pd.GetStore", &PdService::GetStore);
  Bind(server, "Pd.GetAllStores", &PdService::GetAllStores);
  Bind(server, "Pd.RemoveStore", &PdService::RemoveStore);
  // Region reads.
  Bind(server, "Pd.GetRegionById", &PdService::GetRegionById);
  Bind(server, "Pd.ScanRegions", &PdService::ScanRegions);
  Bind(server, "Pd.UpdateServiceSafePoint", &PdService::UpdateServiceSafePoint);
  Bind(server, "Pd.GetGcSafePoint", &PdService::GetGcSafePoint);
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
      // A server whose term just ended (its lease revoked, say: an operator
      // moving leadership away) leaves the next term to the others first.
      MutexLock lock(&mu_);
      pause_ms = term_ != nullptr ? kLeadTickMs : kStepDownPauseMs;
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
  // A server that cannot read etcd (a majority down, or its certificate
  // refused) never leads: said once when it starts failing, not at every
  // attempt, so that the operator sees why.
  if (!s.ok() && !etcd_failing_) Log("cannot reach etcd: " + s.ToString());
  if (s.ok() && etcd_failing_) Log("reached etcd again");
  etcd_failing_ = !s.ok();
  const int64_t now = SteadyNs();
  if (s.ok() && !kvs.empty()) {
    // A leader writes its key a few times a second when idle: a copy that
    // stays behind the key's last write is following a stream that
    // stopped (its member cut off from the others, say).
    const int64_t applied = mirror_->applied_revision();
    if (mirror_->index() == nullptr || applied >= kvs.front().mod_revision) {
      lagging_since_ns_ = 0;
    } else if (lagging_since_ns_ == 0) {
      lagging_since_ns_ = now;
    } else if (now - lagging_since_ns_ > kWatchStuckNs) {
      mirror_->Reconnect(applied);
      lagging_since_ns_ = 0;
    }
  }
  if (s.ok() && kvs.empty()) {
    if (vacant_since_ns_ == 0) vacant_since_ns_ = now;
  } else {
    vacant_since_ns_ = 0;
  }
  {
    MutexLock lock(&mu_);
    etcd_error_ = s.ok() ? "" : s.ToString();
  }
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

  // A server still reading the records would route by walking etcd, at
  // every call; it leaves the term to one that has them, unless none has
  // taken it for a lease's length.
  if (mirror_->index() == nullptr && now - vacant_since_ns_ < LeaseSeconds(options_.lease_ms) * 1000 * kNsPerMs) {
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
  auto term = std::make_shared<Term>(etcd_, options_, leader_key_, create_revision, lease, sent, ttl);
  {
    MutexLock lock(&mu_);
    starting_ = term;
  }
  s = term->Begin(options_.target_replicas, options_.scheduling, std::make_unique<TermRouter>(term.get(), mirror_.get()));
  // The term before this one may still answer until the window of its
  // last proof has passed. Its proofs are writes below this term's
  // revision, each sent before the change it made was seen here; once the
  // copy shows this term's own key, every such change has been seen.
  const int64_t window = kConfirmWindowMs * kNsPerMs;
  // A copy still loading cannot tell; neither can one whose stream is
  // stuck: then any write before this term's was sent before now.
  const int64_t before_us = mirror_->index() != nullptr && mirror_->WaitFor(create_revision, kCatchUpMs)
                                ? mirror_->LastChangeBefore(create_revision)
                                : SteadyNs();
  if (!s.ok() || term->lost()) {
    {
      MutexLock lock(&mu_);
      starting_.reset();
    }
    Log("could not begin a term: " + (s.ok() ? std::string(term->lost_why()) : s.ToString()));
    (void)etcd_->LeaseRevoke(lease_id_);
    lease_id_ = 0;
    return;
  }
  term->ServeFrom(before_us + window);
  const int64_t wait_ms = std::max<int64_t>(0, (before_us + window - SteadyNs()) / kNsPerMs);
  {
    // In one step, so that a deletion of the key seen meanwhile reaches
    // the term either as starting or as serving.
    MutexLock lock(&mu_);
    starting_.reset();
    term_ = term;
    generation_.store(NextGeneration(), std::memory_order_release);
    leader_ = options_.advertise;
  }
  last_leader_seen_ = options_.advertise;
  Log("leader (lease " + std::to_string(ttl) + " s" +
      (wait_ms > 0 ? ", serving in " + std::to_string(wait_ms) + " ms, once the term before must have ended" : "") +
      ")");
}

void HaServer::Lead(const std::shared_ptr<Term>& term) {
  if (term->lost()) {
    EndTerm(term->lost_why());
    return;
  }
  if (term->ClockStoodStill(SteadyNs())) {
    EndTerm("the clock stood still while the wall clock went on (the machine was frozen)");
    return;
  }
  term->NoteClocks();
  const int64_t now = SteadyNs();
  if (now >= next_renew_ns_) {
    // The lease runs from when etcd received the renewal, which is after
    // `now`: timing the term from `now` errs on the safe side.
    int64_t ttl = 0;
    Status s = etcd_->LeaseKeepAlive(lease_id_, &ttl);
    if (s.ok() && ttl > 0) {
      lease_ttl_s_ = ttl;
      next_renew_ns_ = now + ttl * 1000 * kNsPerMs / 3;
      term->ExtendLeaseTo(now + ttl * 1000 * kNsPerMs - SafetyMarginNs(ttl));
    } else if (s.ok()) {
      EndTerm("lease expired");
      return;
    } else {
      // Try again soon; the term ends by itself when its deadline passes.
      next_renew_ns_ = now + kRenewRetryNs;
    }
  }
  if (term->lost() || term->LeaseRanOut()) {
    EndTerm(term->lost() ? term->lost_why() : "lease not renewed in time");
    return;
  }
  // An idle leader proves its term a few times a window, so that it keeps
  // answering; a busy one proves it with every write.
  if (term->ProofDue()) (void)term->Prove();
  (void)term->KeepCeilingAhead();
}

void HaServer::OnEvent(const store::EtcdEvent& event) {
  if (event.kv.key != leader_key_) return;
  std::shared_ptr<Term> terms[2];
  {
    MutexLock lock(&mu_);
    terms[0] = term_;
    terms[1] = starting_;
  }
  for (const std::shared_ptr<Term>& term : terms) {
    // Changes up to the term's own creation are its predecessors'.
    if (term == nullptr || event.kv.mod_revision <= term->create_revision()) continue;
    if (event.type == store::EtcdEvent::Type::kDelete) {
      term->Lose("leader key deleted");
    } else if (event.kv.create_revision != term->create_revision()) {
      term->Lose("fenced out: another server leads");
    }
  }
}

void HaServer::EndTerm(const std::string& why) {
  std::shared_ptr<Term> ended;  // let go of after mu_ (see Term)
  {
    MutexLock lock(&mu_);
    if (term_ != nullptr) term_->Lose("term ended");
    ended = std::move(term_);
    generation_.store(NextGeneration(), std::memory_order_release);
    leader_.clear();
  }
  last_leader_seen_.clear();
  Log("stepped down: " + why);
  // Best effort: a revoked lease frees the leader key at once, so another
  // server need not wait for it to expire.
  if (lease_id_ != 0) (void)etcd_->LeaseRevoke(lease_id_);
  lease_id_ = 0;
}

}  // namespace kandb::meta
