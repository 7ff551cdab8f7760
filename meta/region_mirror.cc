#include "meta/region_mirror.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "common/clock.h"
#include "common/fault_log.h"
#include "meta/keys.h"

namespace kandb::meta {

namespace {

bool InRange(const std::string& key, const std::string& start, const std::string& end) {
  return start <= key && key < end;
}

}  // namespace

RegionMirror::RegionMirror(store::EtcdClient* etcd, Options options)
    : etcd_(etcd),
      options_(std::move(options)),
      region_start_(options_.prefix + kRegionPrefix),
      region_end_(options_.prefix + kRegionScanEnd),
      store_start_(options_.prefix + kStorePrefix),
      store_end_(options_.prefix + kStoreScanEnd) {}

RegionMirror::~RegionMirror() {
  std::shared_ptr<store::EtcdWatchStop> stream;
  {
    MutexLock lock(&mu_);
    stopping_ = true;
    stream = stream_;
    applied_cv_.SignalAll();  // a retry pause, or readers waiting
  }
  if (stream != nullptr) stream->Stop();
  if (thread_.joinable()) thread_.join();
}

void RegionMirror::Start() { thread_ = std::thread([this] { Run(); }); }

std::shared_ptr<store::EtcdWatchStop> RegionMirror::NextStream() {
  MutexLock lock(&mu_);
  if (stopping_) return nullptr;
  stream_ = std::make_shared<store::EtcdWatchStop>();
  return stream_;
}

void RegionMirror::Run() {
  for (;;) {
    bool reload = false;
    {
      MutexLock lock(&mu_);
      if (stopping_) return;
      reload = reload_;
    }
    const Status s = reload ? Load() : Follow();
    if (!s.ok()) ReportFault("routing", std::string(reload ? "loading" : "following") + " the records: " + s.ToString());
    MutexLock lock(&mu_);
    if (stopping_) return;
    // A stream that ended well (a reconnect) starts again at once.
    if (!s.ok()) applied_cv_.WaitFor(std::chrono::milliseconds(options_.retry_ms));
  }
}

Status RegionMirror::Load() {
  const int64_t began = SteadyNs();
  auto index = std::make_shared<RegionIndex>();
  int64_t revision = 0;  // pinned by the first page
  int64_t first_answer_ns = 0;
  size_t counts[2] = {0, 0};
  size_t* count = counts;
  for (const auto& [start, end] : {std::pair(region_start_, region_end_), std::pair(store_start_, store_end_)}) {
    std::string from = start;
    for (;;) {
      {
        MutexLock lock(&mu_);
        if (stopping_) return Status::OK();
      }
      std::vector<store::EtcdKv> kvs;
      bool more = false;
      int64_t seen = 0;
      // A page that failed is read again (at the same revision) a few
      // times before the whole load starts over: at a million records, one
      // slow answer must not throw away the pages read before it.
      Status s;
      for (int attempt = 0; attempt < kPageAttempts; ++attempt) {
        s = etcd_->Range(from, end, kLoadPage, revision, &kvs, &more, &seen);
        if (s.ok()) break;
        MutexLock lock(&mu_);
        if (stopping_) return Status::OK();
        applied_cv_.WaitFor(std::chrono::milliseconds(options_.retry_ms));
      }
      if (!s.ok()) return s;
      if (revision == 0) {
        revision = seen;
        first_answer_ns = SteadyNs();
      }
      lsm::WriteBatch batch;
      batch.reserve(kvs.size());
      for (store::EtcdKv& kv : kvs) {
        batch.push_back(lsm::Entry{lsm::kOpPut, kv.key.substr(options_.prefix.size()), std::move(kv.value)});
      }
      index->Apply(batch);
      *count += batch.size();
      if (!more || kvs.empty()) break;
      from = kvs.back().key + '\0';
    }
    ++count;
  }
  {
    MutexLock lock(&mu_);
    index_ = std::move(index);
    applied_revision_ = revision;
    loaded_ns_ = first_answer_ns;
    recent_.clear();
    reload_ = false;
    applied_cv_.SignalAll();
  }
  if (options_.on_loaded) options_.on_loaded(counts[0], counts[1], revision, (SteadyNs() - began) / 1000000);
  return Status::OK();
}

Status RegionMirror::Follow() {
  const std::shared_ptr<store::EtcdWatchStop> stream = NextStream();
  if (stream == nullptr) return Status::OK();
  int64_t from = 0;
  {
    MutexLock lock(&mu_);
    from = applied_revision_ + 1;
  }
  return etcd_->Watch(options_.prefix, store::PrefixEnd(options_.prefix), from,
                      [this](const store::EtcdWatchAnswer& answer) { return OnAnswer(answer); }, stream.get());
}

bool RegionMirror::OnAnswer(const store::EtcdWatchAnswer& answer) {
  if (answer.canceled) {
    // Compacted away, or refused: only a fresh load brings the copy back.
    ReportFault("routing", "watch cancelled (compacted to " + std::to_string(answer.compact_revision) +
                               (answer.cancel_reason.empty() ? "" : ", " + answer.cancel_reason) +
                               "): loading the records again");
    MutexLock lock(&mu_);
    reload_ = true;
    return false;
  }
  if (answer.events.empty()) return true;
  const int64_t received = SteadyNs();
  std::shared_ptr<RegionIndex> index;
  {
    MutexLock lock(&mu_);
    index = index_;
  }
  lsm::WriteBatch batch;
  batch.reserve(answer.events.size());
  int64_t first = INT64_MAX, last = 0;
  for (const store::EtcdEvent& event : answer.events) {
    const std::string& key = event.kv.key;
    if (event.type != store::EtcdEvent::Type::kDelete || key != options_.leader_key) {
      first = std::min(first, event.kv.mod_revision);
    }
    last = std::max(last, event.kv.mod_revision);
    if (InRange(key, region_start_, region_end_) || InRange(key, store_start_, store_end_)) {
      const bool put = event.type == store::EtcdEvent::Type::kPut;
      batch.push_back(lsm::Entry{put ? lsm::kOpPut : lsm::kOpDelete, key.substr(options_.prefix.size()),
                                 put ? event.kv.value : std::string()});
    } else if (options_.on_event) {
      options_.on_event(event, received);
    }
  }
  // One answer, one change: a transaction's records become visible to
  // routing together. Only the mirror's thread applies, so the order is
  // etcd's.
  if (!batch.empty()) index->Apply(batch);
  MutexLock lock(&mu_);
  applied_revision_ = std::max(applied_revision_, last);
  if (first != INT64_MAX) {
    recent_.push_back(Arrival{first, received});
    if (recent_.size() > kRecentAnswers) recent_.pop_front();
  }
  applied_cv_.SignalAll();
  return !stopping_;
}

bool RegionMirror::WaitFor(int64_t revision, int64_t timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  MutexLock lock(&mu_);
  while (index_ == nullptr || applied_revision_ < revision) {
    if (stopping_ || std::chrono::steady_clock::now() >= deadline) return false;
    applied_cv_.WaitUntil(deadline);
  }
  return true;
}

std::shared_ptr<const RegionIndex> RegionMirror::index() const {
  MutexLock lock(&mu_);
  return index_;
}

int64_t RegionMirror::applied_revision() const {
  MutexLock lock(&mu_);
  return applied_revision_;
}

int64_t RegionMirror::LastChangeBefore(int64_t revision) const {
  MutexLock lock(&mu_);
  for (auto it = recent_.rbegin(); it != recent_.rend(); ++it) {
    if (it->first_revision < revision) return std::max(it->received_ns, loaded_ns_);
  }
  // Nothing remembered below it: either nothing came since the load (the
  // load's read then bounds every write before it), or the answers
  // remembered start above it and what came before is forgotten.
  if (loaded_ns_ != 0 && (recent_.size() < kRecentAnswers)) return loaded_ns_;
  return SteadyNs();
}

void RegionMirror::Reconnect(int64_t stuck_at) {
  std::shared_ptr<store::EtcdWatchStop> stream;
  {
    MutexLock lock(&mu_);
    // A stream that moved on is catching up, not stuck: ending it would
    // only make it start over.
    if (applied_revision_ != stuck_at) return;
    stream = stream_;
  }
  if (stream != nullptr) stream->Stop();
}

}  // namespace kandb::meta
