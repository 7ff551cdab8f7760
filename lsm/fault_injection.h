#ifndef KANDB_LSM_FAULT_INJECTION_H_
#define KANDB_LSM_FAULT_INJECTION_H_

// A FileIo for tests: passes every call to the real one, counts calls of
// each kind, and fails chosen calls with an errno (EIO by default).
//
//   FaultInjectingFileIo io;
//   ScopedFileIo install(&io);
//   io.FailNth(FileOp::kRename, 1, "MANIFEST");  // next manifest rename fails
//
// Calls on a descriptor (write, fsync, ...) are matched against the path the
// descriptor was opened with through this object; descriptors opened before
// it was installed have an empty path. All members may be used from any
// thread while the engine runs.

#include <sys/types.h>

#include <array>
#include <cerrno>
#include <atomic>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "common/mutex.h"
#include "lsm/file_io.h"

namespace kandb::lsm {

enum class FileOp { kOpen, kWrite, kRead, kPread, kFsync, kFdatasync, kRename, kUnlink, kClose };
inline constexpr size_t kFileOpCount = 9;

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
  // Removes the rule for `op`, or every rule.
  void Clear(FileOp op);
  void ClearAll();

  // Calls of kind `op` since construction or the last ResetCounts, failed
  // ones included.
  uint64_t count(FileOp op) const { return counts_[Index(op)].load(std::memory_order_relaxed); }
  // Calls of kind `op` that this object failed.
  uint64_t injected(FileOp op) const { return injected_[Index(op)].load(std::memory_order_relaxed); }
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
  std::string PathOf(int fd);

  std::array<std::atomic<uint64_t>, kFileOpCount> counts_{};
  std::array<std::atomic<uint64_t>, kFileOpCount> injected_{};
  // Lets unarmed calls skip the lock.
  std::atomic<int> armed_rules_{0};
  Mutex mu_;
  std::array<Rule, kFileOpCount> rules_ GUARDED_BY(mu_);
  std::unordered_map<int, std::string> paths_ GUARDED_BY(mu_);
};

}  // namespace kandb::lsm

#endif  // KANDB_LSM_FAULT_INJECTION_H_
