#include "lsm/fault_injection.h"

#include <cerrno>

namespace kandb::lsm {

void FaultInjectingFileIo::FailNth(FileOp op, uint64_t nth, const std::string& path_substring,
                                   int error) {
  Arm(op, nth, path_substring, error, /*sticky=*/false);
}

void FaultInjectingFileIo::FailFrom(FileOp op, uint64_t nth, const std::string& path_substring,
                                    int error) {
  Arm(op, nth, path_substring, error, /*sticky=*/true);
}

void FaultInjectingFileIo::Arm(FileOp op, uint64_t nth, const std::string& path_substring,
                               int error, bool sticky) {
  MutexLock lock(&mu_);
  Rule& rule = rules_[Index(op)];
  if (!rule.armed) armed_rules_.fetch_add(1);
  rule.armed = true;
  rule.sticky = sticky;
  rule.fired = false;
  rule.remaining = nth > 0 ? nth - 1 : 0;
  rule.path_substring = path_substring;
  rule.error = error;
}

void FaultInjectingFileIo::Clear(FileOp op) {
  MutexLock lock(&mu_);
  Rule& rule = rules_[Index(op)];
  if (rule.armed) armed_rules_.fetch_sub(1);
  rule = Rule();
}

void FaultInjectingFileIo::ClearAll() {
  for (size_t i = 0; i < kFileOpCount; ++i) Clear(static_cast<FileOp>(i));
}

void FaultInjectingFileIo::ResetCounts() {
  for (auto& c : counts_) c.store(0);
  for (auto& c : injected_) c.store(0);
}

bool FaultInjectingFileIo::ShouldFail(FileOp op, const std::string& path) {
  counts_[Index(op)].fetch_add(1, std::memory_order_relaxed);
  if (armed_rules_.load() == 0) return false;
  int error = 0;
  {
    MutexLock lock(&mu_);
    Rule& rule = rules_[Index(op)];
    if (!rule.armed || path.find(rule.path_substring) == std::string::npos) return false;
    if (rule.fired) {
      if (!rule.sticky) return false;
    } else if (rule.remaining > 0) {
      --rule.remaining;
      return false;
    } else {
      rule.fired = true;
    }
    error = rule.error;
  }
  injected_[Index(op)].fetch_add(1, std::memory_order_relaxed);
  errno = error;
  return true;
}

bool FaultInjectingFileIo::ShouldFail(FileOp op, int fd) {
  // Looking the path up costs a lock, so only when some rule is armed.
  if (armed_rules_.load() == 0) return ShouldFail(op, std::string());
  return ShouldFail(op, PathOf(fd));
}

std::string FaultInjectingFileIo::PathOf(int fd) {
  MutexLock lock(&mu_);
  auto it = paths_.find(fd);
  return it == paths_.end() ? std::string() : it->second;
}

int FaultInjectingFileIo::Open(const char* path, int flags, mode_t mode) {
  if (ShouldFail(FileOp::kOpen, std::string(path))) return -1;
  int fd = FileIo::Open(path, flags, mode);
  if (fd >= 0) {
    MutexLock lock(&mu_);
    paths_[fd] = path;
  }
  return fd;
}

ssize_t FaultInjectingFileIo::Write(int fd, const void* buf, size_t count) {
  if (ShouldFail(FileOp::kWrite, fd)) return -1;
  return FileIo::Write(fd, buf, count);
}

ssize_t FaultInjectingFileIo::Read(int fd, void* buf, size_t count) {
  if (ShouldFail(FileOp::kRead, fd)) return -1;
  return FileIo::Read(fd, buf, count);
}

ssize_t FaultInjectingFileIo::Pread(int fd, void* buf, size_t count, off_t offset) {
  if (ShouldFail(FileOp::kPread, fd)) return -1;
  return FileIo::Pread(fd, buf, count, offset);
}

int FaultInjectingFileIo::Fsync(int fd) {
  if (ShouldFail(FileOp::kFsync, fd)) return -1;
  return FileIo::Fsync(fd);
}

int FaultInjectingFileIo::Fdatasync(int fd) {
  if (ShouldFail(FileOp::kFdatasync, fd)) return -1;
  return FileIo::Fdatasync(fd);
}

int FaultInjectingFileIo::Rename(const char* from, const char* to) {
  // Matched against both names, so "MANIFEST" selects the manifest's
  // publication and ".sst" a table's.
  if (ShouldFail(FileOp::kRename, std::string(from) + "\n" + to)) return -1;
  return FileIo::Rename(from, to);
}

int FaultInjectingFileIo::Unlink(const char* path) {
  if (ShouldFail(FileOp::kUnlink, std::string(path))) return -1;
  return FileIo::Unlink(path);
}

int FaultInjectingFileIo::Close(int fd) {
  const bool fail = ShouldFail(FileOp::kClose, fd);
  const int error = errno;
  {
    // Forget the path before the system may hand the number out again.
    MutexLock lock(&mu_);
    paths_.erase(fd);
  }
  // A close made to fail still releases the descriptor, as Linux does.
  int rc = FileIo::Close(fd);
  if (fail) {
    errno = error;
    return -1;
  }
  return rc;
}

}  // namespace kandb::lsm
