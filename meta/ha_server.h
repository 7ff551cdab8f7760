#ifndef KANDB_META_HA_SERVER_H_
#define KANDB_META_HA_SERVER_H_

// HaServer: the placement service of one of several servers that share an
// etcd cluster. One of them at a time is the leader and serves; the others
// answer every method with "Unavailable: not leader; leader at HOST:PORT"
// (or "...; no leader yet") so that clients move on.
//
// Leadership: an etcd lease, and a create-if-absent transaction on
// "<prefix>leader" that holds the leader's advertise address under that
// lease. The leader renews the lease at a third of its length; when it
// cannot, it stops answering once its own clock says the lease may have
// run out (a margin before etcd's expiry), and campaigns again afresh.
//
// Terms: each leadership term gets a new PdService over a new MetaStore,
// so the identifier counter and the timestamp ceiling come from etcd,
// never from an earlier term's memory. Every write of a term is fenced:
// its transaction also requires the leader key's creation revision to be
// the one this term created, so a deposed leader's late writes change
// nothing. Identifiers are handed out only below a mark the term itself
// wrote (fenced), never below one read back, which a newer leader may
// have raised and be handing out.
//
// One leader at a time, also when the leader key goes early (its lease
// revoked, the key deleted): a leader answers only within kConfirmWindow
// of sending its last write that etcd applied (every write proves the key
// still its own; an idle leader writes nothing but that proof every
// quarter of the window), and stops at once when the watch shows its key
// deleted or taken. A new leader, having won the key at revision W, waits
// until the window of the last change below W that it saw arrive has
// passed: the old leader's last proof was sent before that change arrived,
// so the old leader has stopped by then, whether it saw its key go or not.
// After a leader died, its last write is a lease's length old when the
// key expires, and the new one serves at once.
//
// Routing: every server, leading or not, keeps a copy of the region and
// store records that follows etcd (RegionMirror), so a new leader serves
// at once at any cluster size. A term answers from the copy only once the
// copy holds every write the term (or one before it) acknowledged; after a
// write whose answer was lost (it may have been applied), the term first
// writes again, so that the copy is brought up to what etcd holds before
// the next route.
//
// Timestamps: every timestamp a term hands out lies below a physical
// ceiling persisted (fenced) in "<prefix>tso_ceiling" first; the ceiling is
// kept about kTsoWindowMs ahead of the clock, ahead of time, so that Tso
// rarely waits for etcd. A new term starts above the stored ceiling.
//
// A request is served only while the term is valid, checked before the
// handler runs and again before its answer is given, so that a leader
// paused past its lease answers nothing it computed. Timestamps below the
// persisted ceiling and identifiers below the term's own mark are answered
// on the event loop, with the same two checks: no worker, no etcd call.
// Between the second check and the answer's send only the loop's own code
// runs; a new leader serves only once this term's window has passed, and
// the window ends kConfirmMarginMs early by this server's clock for that
// step. A loop paused longer than that margin right there (the whole
// process stopped between the check and the send) is the one case that
// no check on this server can cover, on the loop as on workers.
//
// Upserts are queued on the loop and answered by the term's store when
// etcd has answered the fenced transaction that carried them (with the
// upserts queued beside them), the term checked before queueing and
// again before the answer.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "common/thread_annotations.h"
#include "meta/pd_service.h"
#include "meta/region_mirror.h"
#include "store/etcd_client.h"

namespace kandb::kanrpc {
class RpcServer;
}  // namespace kandb::kanrpc

namespace kandb::meta {

struct HaOptions {
  std::string prefix;     // "kandb/" + cluster + "/"
  std::string advertise;  // HOST:PORT written in the leader key
  int64_t lease_ms = 3000;
  uint32_t target_replicas = 0;
  // Store liveness, failure domains and change limits (PdService::Options).
  Scheduler::Options scheduling;
};

class HaServer {
 public:
  // How far the persisted timestamp ceiling runs ahead of the clock.
  static constexpr uint64_t kTsoWindowMs = 3000;
  // A follower tries to take over this often.
  static constexpr int kCampaignIntervalMs = 100;
  // How long a leader may answer after sending a write that etcd applied
  // (its proof that the key is still its own). Every server uses the same
  // window, whatever its lease: a new leader waits out its predecessor's
  // window by its own. Short, so that a new leader after a revoke waits at
  // most that; at most half the shortest lease (2 s), so that after a
  // leader died its window has run out before its lease has.
  static constexpr int64_t kConfirmWindowMs = 1000;
  // A leader stops this long before its window ends by its own clock: room
  // for an answer checked just before to leave, and for clocks that run at
  // slightly different rates.
  static constexpr int64_t kConfirmMarginMs = 100;
  // How long a new leader waits for its copy to show its own key.
  static constexpr int64_t kCatchUpMs = 1000;

  // The lease length asked of etcd, in whole seconds: etcd grants whole
  // seconds and nothing much below 2 s.
  static int64_t LeaseSeconds(int64_t lease_ms);

  // `etcd` is not owned and must outlive the server.
  HaServer(store::EtcdClient* etcd, HaOptions options);
  // Stops campaigning and resigns (revokes its lease) if it leads.
  ~HaServer();
  HaServer(const HaServer&) = delete;
  HaServer& operator=(const HaServer&) = delete;

  // Registers the six methods, each dispatched to the current term's
  // service, the store and safe point methods likewise, and "Pd.Stats",
  // before the RPC server starts.
  void RegisterTo(kanrpc::RpcServer* server);
  // Starts following the records and campaigning, each on a thread of its
  // own.
  void Start();

  // This server's part in the cluster now, for the status port.
  struct Role {
    bool leading = false;    // leads and serves now
    std::string leader;      // the leader's address (its own while leading); empty: none known
    std::string etcd_error;  // why the last read of etcd failed; empty when it succeeded
    // The term's, while leading.
    int64_t lease_id = 0;
    int64_t lease_ttl_s = 0;
    int64_t lease_left_ms = 0;  // until the lease may run out, by this server's clock
    int64_t term_revision = 0;  // the leader key's creation revision
  };
  Role CurrentRole() const EXCLUDES(mu_);
  const std::string& advertise() const { return options_.advertise; }

  // For tests that open the window between taking timestamps or
  // identifiers on the event loop and checking the term again before they
  // are answered: `hook` runs on the loop in between. Null (the default)
  // calls nothing; set it while no server answers.
  static void SetFromMemoryHookForTesting(void (*hook)());
  // For tests that hold a term store's sender thread busy: `hook` runs
  // before each upsert is answered, on the thread that answers it (the
  // sender; the thread tearing the term down, for upserts never sent; the
  // event loop, when the sender cannot start). Null (the default) calls
  // nothing.
  static void SetUpsertAnswerHookForTesting(void (*hook)());

  // The servers of the cluster that etcd knows alive: each keeps the key
  // "<prefix>member/<advertise>" (its status address as the value) under a
  // lease of its own, renewed by a thread of its own so that a slow etcd
  // call never delays the leader's renewals. A server cut off from etcd
  // drops out when that lease runs out. Reads etcd; in advertise order.
  struct Member {
    std::string address;
    std::string status_addr;
  };
  Status Members(std::vector<Member>* out) const;
  // The status port's HOST:PORT, as others reach it, for this server's
  // member key. Set before Start.
  void SetStatusAddr(std::string addr) { status_addr_ = std::move(addr); }

 private:
  class Term;
  class TermRouter;

  // A method's handler on a worker thread, within the term's validity.
  template <class Req, class Resp>
  std::function<Status(const Req&, Resp*)> OnWorker(Status (PdService::*handler)(const Req&, Resp*));
  template <class Req, class Resp>
  void Bind(kanrpc::RpcServer* server, const char* method,
            Status (PdService::*handler)(const Req&, Resp*));
  // The same, answered on the event loop by `from_memory` when it can.
  template <class Req, class Resp>
  void BindFromMemory(kanrpc::RpcServer* server, const char* method,
                      Status (PdService::*handler)(const Req&, Resp*),
                      bool (PdService::*from_memory)(const Req&, Resp*, Status*));

  // Pd.UpsertRegion, queued from the event loop and answered by the
  // term's store once etcd has (see BindUpsert).
  void BindUpsert(kanrpc::RpcServer* server);

  // The term to serve a request with, or null with *refusal set. The term
  // stays alive until this thread asks again: each worker thread keeps
  // the term it last served with, and takes mu_ only when terms changed,
  // so that a request costs no lock and no shared count of its own.
  Term* Serving(Status* refusal) EXCLUDES(mu_);
  // Frees the terms serving threads let go of (see retired_).
  void FreeRetired() EXCLUDES(mu_);
  Status NotLeader() EXCLUDES(mu_);

  void Run();
  // Keeps this server's member key alive until stop_, then deletes it;
  // frees the retired terms meanwhile.
  void KeepMembership();
  // One attempt to become leader; on success publishes the new term.
  void Campaign();
  // Renews the lease and extends the timestamp ceiling of the current
  // term, or ends the term when it can no longer be trusted.
  void Lead(const std::shared_ptr<Term>& term);
  void EndTerm(const std::string& why) EXCLUDES(mu_);
  void Log(const std::string& event);
  // From the mirror's thread: a change of the leader key (or of another
  // key of the prefix, ignored). A term whose key was deleted or taken by
  // another server stops answering at once.
  void OnEvent(const store::EtcdEvent& event) EXCLUDES(mu_);

  store::EtcdClient* const etcd_;
  const HaOptions options_;
  const std::string leader_key_;
  // The copy of the records; started by Start, stopped first by the
  // destructor, since its thread calls OnEvent.
  std::unique_ptr<RegionMirror> mirror_;

  std::atomic<bool> stop_{false};
  std::thread thread_;
  const std::string member_key_;
  std::string status_addr_;    // set before Start, read-only after
  std::thread member_thread_;  // KeepMembership; owns its lease alone

  // Owned by the campaign thread (and by the destructor once it is
  // joined): the lease of the current term (0: none), its length as etcd
  // granted it, and when to renew it next (steady clock).
  int64_t lease_id_ = 0;
  int64_t lease_ttl_s_ = 0;
  int64_t next_renew_ns_ = 0;
  std::string last_leader_seen_;  // for the follower's log lines
  bool etcd_failing_ = false;     // the last campaign's read failed; logged once
  // Since when the leader key has been seen absent, and since when the
  // copy of the records has lagged its last write (0: not so).
  int64_t vacant_since_ns_ = 0;
  int64_t lagging_since_ns_ = 0;

  // Guards the term that requests are served with, and the leader address
  // that followers name. Held only to copy or replace them.
  mutable Mutex mu_;
  std::shared_ptr<Term> term_ GUARDED_BY(mu_);  // null while not leading
  // A term won but not yet serving (beginning, or waiting out the term
  // before it), so that OnEvent can end it too.
  std::shared_ptr<Term> starting_ GUARDED_BY(mu_);
  // Changes (under mu_, to a value unique in the process) whenever term_
  // does; read without it to tell a thread's kept term from the current
  // one.
  std::atomic<uint64_t> generation_{0};
  std::string leader_ GUARDED_BY(mu_);          // empty: no leader known
  std::string etcd_error_ GUARDED_BY(mu_);      // the last campaign read's failure; empty: it read
  // Terms that an event loop or a worker let go of, freed by the membership
  // thread (and by the destructor once it is joined), outside mu_. The
  // last hold on a term tears its store down, which waits for the store's
  // sender thread, and that may be in an etcd call that runs to its whole
  // time-out while etcd is out of reach: a loop that waited for it would
  // keep every connection it serves waiting too.
  std::vector<std::shared_ptr<Term>> retired_ GUARDED_BY(mu_);
};

}  // namespace kandb::meta

#endif  // KANDB_META_HA_SERVER_H_
