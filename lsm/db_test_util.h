#ifndef KANDB_LSM_DB_TEST_UTIL_H_
#define KANDB_LSM_DB_TEST_UTIL_H_

// Shared by the engine's tests: a peer into the engine's private state, a
// FileIo that runs hooks before chosen calls, a one-shot gate, helpers.

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "common/test_util.h"
#include "lsm/db.h"
#include "lsm/fault_injection.h"
#include "lsm/memtable.h"
#include "lsm/table.h"

namespace kandb::lsm {

using testing::ScratchDir;

class LsmDbTestPeer {
 public:
  explicit LsmDbTestPeer(LsmDb* db) : db_(db) {}
  size_t QueuedWriters() {
    MutexLock lock(&db_->write_queue_mutex_);
    return db_->writers_.size();
  }
  uint64_t NextFile() {
    MutexLock lock(&db_->db_mutex_);
    return db_->next_file_;
  }
  std::vector<uint64_t> LiveTables() {
    MutexLock lock(&db_->manifest_mutex_);
    return db_->live_tables_;
  }
  std::vector<uint64_t> TableEntryCounts() {
    MutexLock lock(&db_->db_mutex_);
    std::vector<uint64_t> counts;
    for (const auto& reader : db_->table_readers_) counts.push_back(reader->entry_count());
    return counts;
  }
  // Retires the active memtable as a full write group would.
  Status SwitchMemTable() {
    MutexLock lock(&db_->db_mutex_);
    return db_->SwitchMemTable();
  }
  // One flush on the calling thread, as the background thread would run it.
  Status FlushOldestMemTable() { return db_->FlushOldestMemTable(); }

 private:
  LsmDb* const db_;
};

// Runs the test's hook, if set, before the call. Set hooks before the
// engine opens and leave them until it is gone.
class HookedFileIo : public FaultInjectingFileIo {
 public:
  std::function<void(const std::string& from, const std::string& to)> on_rename;
  std::function<void(int fd)> on_fdatasync;
  // Table files, the manifest and directories are synced with fsync.
  std::function<void(int fd)> on_fsync;
  std::function<void(const std::string& path)> on_unlink;

  int Rename(const char* from, const char* to) override {
    if (on_rename) on_rename(from, to);
    return FaultInjectingFileIo::Rename(from, to);
  }
  int Fdatasync(int fd) override {
    if (on_fdatasync) on_fdatasync(fd);
    return FaultInjectingFileIo::Fdatasync(fd);
  }
  int Fsync(int fd) override {
    if (on_fsync) on_fsync(fd);
    return FaultInjectingFileIo::Fsync(fd);
  }
  int Unlink(const char* path) override {
    if (on_unlink) on_unlink(path);
    return FaultInjectingFileIo::Unlink(path);
  }
};

// Holds the first thread that arrives until Open; later ones pass through.
class Gate {
 public:
  void Arrive() {
    std::unique_lock<std::mutex> lock(mu_);
    if (taken_) return;
    taken_ = true;
    cv_.notify_all();
    cv_.wait(lock, [this] { return opened_; });
  }
  bool WaitArrived() {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, std::chrono::seconds(20), [this] { return taken_; });
  }
  void Open() {
    std::lock_guard<std::mutex> lock(mu_);
    opened_ = true;
    cv_.notify_all();
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  bool taken_ = false;
  bool opened_ = false;
};

// Names in `dir`, sorted, without "." and "..".
inline std::vector<std::string> ListNames(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (const dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The path that descriptor `fd` of this process was opened with, for hooks.
inline std::string PathOfDescriptor(int fd) {
  char path[4096];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t n = readlink(link.c_str(), path, sizeof(path) - 1);
  return n < 0 ? std::string() : std::string(path, static_cast<size_t>(n));
}

inline bool EndsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

inline bool FileExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// Polls `condition` every millisecond for up to 20 seconds.
inline bool Eventually(const std::function<bool()>& condition) { return testing::WaitFor(20000, condition, 1); }

inline void PrintTo(const Entry& e, std::ostream* os) {
  *os << (e.op == kOpPut ? "put " : "del ") << e.key << "=" << e.value;
}
inline Entry Put(std::string key, std::string value) { return Entry{kOpPut, std::move(key), std::move(value)}; }
inline Entry Del(std::string key) { return Entry{kOpDelete, std::move(key), std::string()}; }

inline LsmDb::Options SmallOptions(uint64_t write_buffer_size, uint64_t max_table_files, bool sync,
                                   FileIo* io = DefaultFileIo()) {
  LsmDb::Options options;
  options.write_buffer_size = write_buffer_size;
  options.max_table_files = max_table_files;
  options.sync = sync;
  options.io = io;
  return options;
}

// The value of `key`, "<absent>", or the failure rendered.
inline std::string GetOrAbsent(LsmDb* db, const std::string& key) {
  std::string value;
  bool found = false;
  Status s = db->Get(key, &value, &found);
  if (!s.ok()) return s.ToString();
  return found ? value : "<absent>";
}

}  // namespace kandb::lsm

#endif  // KANDB_LSM_DB_TEST_UTIL_H_
