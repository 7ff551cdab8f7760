#ifndef KANDB_META_REGION_MIRROR_H_
#define KANDB_META_REGION_MIRROR_H_

// RegionMirror: a replicated server's copy of its cluster's region and
// store records in etcd, as a routing index. The records are read once (in
// pages, all at the revision of the first page) and then followed through
// a watch from the revision read, so every server keeps its copy warm,
// leading or not: a new leader serves routing at once instead of reading
// every record first, and its index learns each change from etcd itself,
// so a write whose answer was lost is still seen if etcd applied it.
//
// The changes of one watch answer (whole revisions, in revision order)
// reach the index as one batch. WaitFor lets a reader wait until the copy
// includes a revision it must not miss (the writes its term acknowledged);
// every fenced write of a term leaves an event in the cluster's prefix at
// its revision (store/etcd_backend.h), so such a revision always arrives.
//
// Events of the prefix that are no region or store record (the leader key
// among them) are handed to the owner as they arrive. The mirror also
// remembers when the last answers arrived, so that a new leader can tell
// when the writes of the term before its own were last seen
// (LastChangeBefore).
//
// Threads: one of its own, which loads and watches; every other member may
// be called from any thread.

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "common/mutex.h"
#include "common/status.h"
#include "common/thread_annotations.h"
#include "meta/region_index.h"
#include "store/etcd_client.h"

namespace kandb::meta {

class RegionMirror {
 public:
  struct Options {
    // The cluster's etcd prefix ("kandb/<cluster>/").
    std::string prefix;
    // Every event of the prefix outside the region and store records, with
    // when its answer arrived (steady clock, ns), on the mirror's thread,
    // in revision order. It must be quick: the watch waits for it.
    std::function<void(const store::EtcdEvent& event, int64_t received_ns)> on_event;
    // The leader key: its deletion is etcd's doing (a lease that ran out
    // or was revoked) or an operator's, not a write of a leader, so it
    // does not count as a change in LastChangeBefore.
    std::string leader_key;
    // Told of each load that finished: the records read, the revision,
    // how long it took.
    std::function<void(size_t regions, size_t stores, int64_t revision, int64_t took_ms)> on_loaded;
    // Pause after a failed load or a broken watch before trying again.
    int retry_ms = 100;
  };

  // Records read per page of the load, and how often a page is tried.
  static constexpr int64_t kLoadPage = 10000;
  static constexpr int kPageAttempts = 5;
  // Answers whose arrival LastChangeBefore remembers.
  static constexpr size_t kRecentAnswers = 256;

  // `etcd` is not owned and must outlive the mirror.
  RegionMirror(store::EtcdClient* etcd, Options options);
  // Stops and joins the mirror's thread.
  ~RegionMirror();
  RegionMirror(const RegionMirror&) = delete;
  RegionMirror& operator=(const RegionMirror&) = delete;

  // Starts loading, then watching, on the mirror's own thread.
  void Start();

  // Waits at most `timeout_ms` for the copy to include every change up to
  // `revision`; true once it does.
  bool WaitFor(int64_t revision, int64_t timeout_ms) EXCLUDES(mu_);
  // The copy's index, or null before the first load finished. The index
  // stays valid as long as the pointer is held (a reload replaces it).
  std::shared_ptr<const RegionIndex> index() const EXCLUDES(mu_);
  // The newest revision whose changes the index holds (0 before the load).
  int64_t applied_revision() const EXCLUDES(mu_);

  // When the last write below `revision` was seen arrive (steady ns): the
  // arrival of the last watch answer holding such a change (deletions of
  // the leader key aside), or the end of the load's first read when the
  // watch brought none since; `now` when the answers remembered no longer
  // reach back far enough. A write of revision below `revision` was sent
  // no later than this.
  int64_t LastChangeBefore(int64_t revision) const EXCLUDES(mu_);

  // Ends the watch stream and starts another one from the copy's revision,
  // unless the copy has moved past `stuck_at` (the revision it stood at
  // when the caller began to wait for it): a reader found the stream stuck
  // behind etcd (its member cut off from the others, say).
  void Reconnect(int64_t stuck_at) EXCLUDES(mu_);

 private:
  // What the mirror remembers of one watch answer.
  struct Arrival {
    int64_t first_revision;
    int64_t received_ns;
  };

  void Run();
  // Reads every region and store record at one revision into a new index,
  // and makes it the copy.
  Status Load() EXCLUDES(mu_);
  // Watches from the copy's revision until the stream ends or breaks.
  Status Follow() EXCLUDES(mu_);
  // Applies one watch answer; false to end the stream (etcd cancelled it).
  bool OnAnswer(const store::EtcdWatchAnswer& answer) EXCLUDES(mu_);
  // A new stop handle for the next stream, or null when stopping.
  std::shared_ptr<store::EtcdWatchStop> NextStream() EXCLUDES(mu_);

  store::EtcdClient* const etcd_;
  const Options options_;
  const std::string region_start_, region_end_, store_start_, store_end_;

  std::thread thread_;

  // Guards the members below. Held only to read or replace them, never
  // across a call to etcd or into the index.
  mutable Mutex mu_;
  CondVar applied_cv_{&mu_};
  std::shared_ptr<RegionIndex> index_ GUARDED_BY(mu_);
  int64_t applied_revision_ GUARDED_BY(mu_) = 0;
  // Set by a cancelled stream (its revisions were compacted away): the
  // copy is loaded again.
  bool reload_ GUARDED_BY(mu_) = true;
  // When the load's first read answered: every write up to the revision
  // loaded was sent before it.
  int64_t loaded_ns_ GUARDED_BY(mu_) = 0;
  std::deque<Arrival> recent_ GUARDED_BY(mu_);
  // The stream in progress, for Reconnect and the destructor.
  std::shared_ptr<store::EtcdWatchStop> stream_ GUARDED_BY(mu_);
  bool stopping_ GUARDED_BY(mu_) = false;
};

}  // namespace kandb::meta

#endif  // KANDB_META_REGION_MIRROR_H_
