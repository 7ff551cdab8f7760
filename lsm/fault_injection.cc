#include "lsm/fault_injection.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace kandb::lsm {

const char* FileOpName(FileOp op) {
  static const char* const kNames[kFileOpCount] = {"open",   "write",  "read",  "pread", "fsync",
                                                   "fdatasync", "rename", "unlink", "close", "mkdir",
                                                   "stat",   "fstat",  "list"};
  return kNames[static_cast<size_t>(op)];
}

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

void FaultInjectingFileIo::FailCall(uint64_t nth, int error, bool sticky) {
  MutexLock lock(&mu_);
  if (!any_rule_.armed) armed_rules_.fetch_add(1);
  any_rule_ = Rule();
  any_rule_.armed = true;
  any_rule_.sticky = sticky;
  any_rule_.remaining = nth > 0 ? nth - 1 : 0;
  any_rule_.error = error;
  sticky_kind_ = -1;
}

void FaultInjectingFileIo::Clear(FileOp op) {
  MutexLock lock(&mu_);
  Rule& rule = rules_[Index(op)];
  if (rule.armed) armed_rules_.fetch_sub(1);
  rule = Rule();
}

void FaultInjectingFileIo::ClearAll() {
  for (size_t i = 0; i < kFileOpCount; ++i) Clear(static_cast<FileOp>(i));
  MutexLock lock(&mu_);
  if (any_rule_.armed) armed_rules_.fetch_sub(1);
  any_rule_ = Rule();
  sticky_kind_ = -1;
}

uint64_t FaultInjectingFileIo::total_count() const {
  uint64_t total = 0;
  for (const auto& c : counts_) total += c.load(std::memory_order_relaxed);
  return total;
}

uint64_t FaultInjectingFileIo::total_injected() const {
  uint64_t total = 0;
  for (const auto& c : injected_) total += c.load(std::memory_order_relaxed);
  return total;
}

std::string FaultInjectingFileIo::first_injected() {
  MutexLock lock(&mu_);
  return first_injected_;
}

void FaultInjectingFileIo::ResetCounts() {
  for (auto& c : counts_) c.store(0);
  for (auto& c : injected_) c.store(0);
}

bool FaultInjectingFileIo::MatchRule(Rule* rule, const std::string& path) {
  if (!rule->armed || path.find(rule->path_substring) == std::string::npos) return false;
  if (rule->fired) return rule->sticky;
  if (rule->remaining > 0) {
    --rule->remaining;
    return false;
  }
  rule->fired = true;
  return true;
}

bool FaultInjectingFileIo::ShouldFail(FileOp op, const std::string& path) {
  counts_[Index(op)].fetch_add(1, std::memory_order_relaxed);
  if (armed_rules_.load() == 0) return false;
  int error = 0;
  {
    MutexLock lock(&mu_);
    if (sticky_kind_ == static_cast<int>(Index(op))) {
      error = any_rule_.error;
    } else if (any_rule_.armed && !any_rule_.fired && MatchRule(&any_rule_, path)) {
      error = any_rule_.error;
      if (any_rule_.sticky) sticky_kind_ = static_cast<int>(Index(op));
    } else if (MatchRule(&rules_[Index(op)], path)) {
      error = rules_[Index(op)].error;
    } else {
      return false;
    }
    if (first_injected_.empty()) first_injected_ = std::string(FileOpName(op)) + " " + path;
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

void FaultInjectingFileIo::MarkSynced(int fd) {
  struct stat st;
  if (::fstat(fd, &st) != 0) return;
  MutexLock lock(&mu_);
  auto path = paths_.find(fd);
  if (path == paths_.end()) return;
  auto synced = synced_.find(path->second);
  if (synced != synced_.end()) synced->second = static_cast<uint64_t>(st.st_size);
}

void FaultInjectingFileIo::PowerCut() {
  MutexLock lock(&mu_);
  for (const auto& [path, size] : synced_) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && static_cast<uint64_t>(st.st_size) > size) {
      if (::truncate(path.c_str(), static_cast<off_t>(size)) != 0) std::abort();
    }
  }
}

int FaultInjectingFileIo::Open(const char* path, int flags, mode_t mode) {
  if (ShouldFail(FileOp::kOpen, std::string(path))) return -1;
  const bool writes = (flags & (O_WRONLY | O_RDWR)) != 0 && (flags & O_DIRECTORY) == 0;
  struct stat before;
  const bool existed = writes && ::stat(path, &before) == 0;
  int fd = FileIo::Open(path, flags, mode);
  if (fd >= 0) {
    MutexLock lock(&mu_);
    paths_[fd] = path;
    if (writes) {
      // What was on disk before this object first wrote the file counts
      // as durable; truncation and creation start it at nothing.
      auto [it, inserted] = synced_.emplace(path, 0);
      if ((flags & O_TRUNC) != 0) {
        it->second = 0;
      } else if (inserted && existed) {
        it->second = static_cast<uint64_t>(before.st_size);
      }
    }
  }
  return fd;
}

ssize_t FaultInjectingFileIo::Write(int fd, const void* buf, size_t count) {
  if (ShouldFail(FileOp::kWrite, fd)) return -1;
  if (short_writes_.load() && count > 1) count /= 2;
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
  const int rc = skip_real_syncs_.load() ? 0 : FileIo::Fsync(fd);
  if (rc == 0) MarkSynced(fd);
  return rc;
}

int FaultInjectingFileIo::Fdatasync(int fd) {
  if (ShouldFail(FileOp::kFdatasync, fd)) return -1;
  const int rc = skip_real_syncs_.load() ? 0 : FileIo::Fdatasync(fd);
  if (rc == 0) MarkSynced(fd);
  return rc;
}

int FaultInjectingFileIo::Rename(const char* from, const char* to) {
  // Matched against both names, so "MANIFEST" selects the manifest's
  // publication and ".sst" a table's.
  if (ShouldFail(FileOp::kRename, std::string(from) + "\n" + to)) return -1;
  const int rc = FileIo::Rename(from, to);
  if (rc == 0) {
    MutexLock lock(&mu_);
    auto it = synced_.find(from);
    if (it != synced_.end()) {
      synced_[to] = it->second;
      synced_.erase(from);
    } else {
      synced_.erase(to);
    }
  }
  return rc;
}

int FaultInjectingFileIo::Unlink(const char* path) {
  if (ShouldFail(FileOp::kUnlink, std::string(path))) return -1;
  const int rc = FileIo::Unlink(path);
  if (rc == 0) {
    MutexLock lock(&mu_);
    synced_.erase(path);
  }
  return rc;
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

int FaultInjectingFileIo::Mkdir(const char* path, mode_t mode) {
  if (ShouldFail(FileOp::kMkdir, std::string(path))) return -1;
  return FileIo::Mkdir(path, mode);
}

int FaultInjectingFileIo::Stat(const char* path, struct stat* st) {
  if (ShouldFail(FileOp::kStat, std::string(path))) return -1;
  return FileIo::Stat(path, st);
}

int FaultInjectingFileIo::Fstat(int fd, struct stat* st) {
  if (ShouldFail(FileOp::kFstat, fd)) return -1;
  return FileIo::Fstat(fd, st);
}

int FaultInjectingFileIo::ListDirectory(const char* dir, std::vector<std::string>* names) {
  if (ShouldFail(FileOp::kList, std::string(dir))) return -1;
  return FileIo::ListDirectory(dir, names);
}

}  // namespace kandb::lsm
