#ifndef KANDB_LSM_FAULT_INJECTION_H_
#define KANDB_LSM_FAULT_INJECTION_H_

// A FileIo for tests: passes every call to the real one, counts calls of
// each kind, and fails chosen calls with an errno (EIO by default), writes
// short, or drops what was never synced at a simulated power cut.
//
//   FaultInjectingFileIo io;
//   options.io = &io;
//   io.FailNth(FileOp::kRename, 1, "MANIFEST");  // next manifest rename fails
//   io.FailCall(40, ENOSPC, /*sticky=*/true);     // the 40th call of any kind,
//                                                 // and later ones of its kind
//
// Calls on a descriptor (write, fsync, ...) are matched against the path the
// descriptor was opened with through this object. All members may be used
// from any thread while the engine runs.

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/mutex.h"
#include "lsm/file_io.h"

namespace kandb::lsm {

enum class FileOp {
  kOpen, kWrite, kRead, kPread, kFsync, kFdatasync, kRename, kUnlink, kClose, kMkdir, kStat, kFstat, kList,
};
inline constexpr size_t kFileOpCount = 13;
const char* FileOpName(FileOp op);

class FaultInjectingFileIo : public FileIo {
 public:
  FaultInjectingFileIo() = default;
  FaultInjectingFileIo(const FaultInjectingFileIo&) = delete;
  FaultInjectingFileIo& operator=(const FaultInjectingFileIo&) = delete;

  // Counting from now, the `nth` (1-based) call of kind `op` whose path
  // contains `path_substring` (empty matches every call; a rename matches
  // on either of its names) fails with `error` instead of reaching the
  // system. Replaces an earlier rule for `op`.
  void FailNth(FileOp op, uint64_t nth, const std::string& path_substring = "", int error = EIO);
  // Like FailNth, but that call and every later matching one fail until
  // Clear: for faults that persist, such as a full disk.
  void FailFrom(FileOp op, uint64_t nth, const std::string& path_substring = "", int error = EIO);
  // Counting from now, the `nth` call of any kind fails with `error`; with
  // `sticky`, so does every later call of that same kind, until ClearAll.
  void FailCall(uint64_t nth, int error, bool sticky);
  // Removes the rule for `op`, or every rule.
  void Clear(FileOp op);
  void ClearAll();

  // From now on every write hands the system at most half of its bytes
  // (at least one), as a full pipe or a signal can make a real write do.
  void set_short_writes(bool on) { short_writes_.store(on); }
  // fsync and fdatasync stop reaching the system (they still count and
  // still mark data as synced for PowerCut), so that long fault sweeps run
  // at memory speed.
  void set_skip_real_syncs(bool on) { skip_real_syncs_.store(on); }

  // Simulates a power cut after the engine is gone: every file written
  // through this object since it was made is cut back to what its last
  // successful fsync or fdatasync covered (to nothing when it never had
  // one). Names are not modelled: a rename or unlink stands as made.
  void PowerCut();

  // Calls of kind `op` since construction or the last ResetCounts, failed
  // ones included; and of every kind together.
  uint64_t count(FileOp op) const { return counts_[Index(op)].load(std::memory_order_relaxed); }
  uint64_t total_count() const;
  // Calls of kind `op` that this object failed.
  uint64_t injected(FileOp op) const { return injected_[Index(op)].load(std::memory_order_relaxed); }
  uint64_t total_injected() const;
  // "fdatasync /path" of the first call this object failed, for messages.
  std::string first_injected();
  void ResetCounts();

  int Open(const char* path, int flags, mode_t mode) override;
  ssize_t Write(int fd, const void* buf, size_t count) override;
  ssize_t Read(int fd, void* buf, size_t count) override;
  ssize_t Pread(int fd, void* buf, size_t count, off_t offset) override;
  int Fsync(int fd) override;
  int Fdatasync(int fd) override;
  int Rename(const char* from, const char* to) override;
  int Unlink(const char* path) override;
  int Close(int fd) override;
  int Mkdir(const char* path, mode_t mode) override;
  int Stat(const char* path, struct stat* st) override;
  int Fstat(int fd, struct stat* st) override;
  int ListDirectory(const char* dir, std::vector<std::string>* names) override;

 private:
  struct Rule {
    bool armed = false;
    bool sticky = false;
    bool fired = false;
    uint64_t remaining = 0;  // matching calls still to let through, then fail
    std::string path_substring;
    int error = EIO;
  };

  static size_t Index(FileOp op) { return static_cast<size_t>(op); }
  void Arm(FileOp op, uint64_t nth, const std::string& path_substring, int error, bool sticky);
  // Counts the call; returns true (and sets errno) when it must fail.
  bool ShouldFail(FileOp op, const std::string& path);
  bool ShouldFail(FileOp op, int fd);
  bool MatchRule(Rule* rule, const std::string& path) REQUIRES(mu_);
  std::string PathOf(int fd);
  // Records that `fd`'s file is synced up to its current size.
  void MarkSynced(int fd);

  std::array<std::atomic<uint64_t>, kFileOpCount> counts_{};
  std::array<std::atomic<uint64_t>, kFileOpCount> injected_{};
  // Lets unarmed calls skip the lock.
  std::atomic<int> armed_rules_{0};
  std::atomic<bool> short_writes_{false};
  std::atomic<bool> skip_real_syncs_{false};
  Mutex mu_;
  std::array<Rule, kFileOpCount> rules_ GUARDED_BY(mu_);
  // The any-kind rule of FailCall, and the kind it fired on when sticky.
  Rule any_rule_ GUARDED_BY(mu_);
  int sticky_kind_ GUARDED_BY(mu_) = -1;
  std::unordered_map<int, std::string> paths_ GUARDED_BY(mu_);
  std::string first_injected_ GUARDED_BY(mu_);
  // Per file written through this object: the size its last sync covered.
  std::map<std::string, uint64_t> synced_ GUARDED_BY(mu_);
};

}  // namespace kandb::lsm

#endif  // KANDB_LSM_FAULT_INJECTION_H_
