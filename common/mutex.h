#ifndef KANDB_COMMON_MUTEX_H_
#define KANDB_COMMON_MUTEX_H_

// Annotated wrappers over the standard mutexes, so that Clang's thread-safety
// analysis can check which lock guards which member. Failures of the standard
// library's locks stay system errors; they are not turned into Status.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#include "common/thread_annotations.h"

namespace kandb {

class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() ACQUIRE() { mu_.lock(); }
  // Takes the lock only when it is free; true when taken.
  bool TryLock() TRY_ACQUIRE(true) { return mu_.try_lock(); }
  void Unlock() RELEASE() { mu_.unlock(); }
  // Tells the analysis that the caller holds the lock (no run-time check).
  void AssertHeld() ASSERT_CAPABILITY(this) {}

 private:
  friend class CondVar;
  std::mutex mu_;
};

// Holds a Mutex for the lifetime of the object.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex* mu) ACQUIRE(mu) : mu_(mu) { mu_->Lock(); }
  ~MutexLock() RELEASE() { mu_->Unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex* const mu_;
};

// A condition variable bound to one Mutex, which the caller holds around
// every Wait. Wait carries no annotation: the analysis cannot tie the
// mutex given at construction to the caller's lock expression, so callers
// state the held lock with their own REQUIRES or MutexLock instead.
class CondVar {
 public:
  explicit CondVar(Mutex* mu) : mu_(mu) {}
  CondVar(const CondVar&) = delete;
  CondVar& operator=(const CondVar&) = delete;

  void Wait() {
    std::unique_lock<std::mutex> lock(mu_->mu_, std::adopt_lock);
    cv_.wait(lock);
    lock.release();
  }
  // Waits at most `timeout`; a wake-up may also come early or spuriously,
  // so callers test their condition again either way.
  void WaitFor(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mu_->mu_, std::adopt_lock);
    cv_.wait_for(lock, timeout);
    lock.release();
  }
  // Waits until `deadline` at the latest; as WaitFor, it may return early.
  void WaitUntil(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mu_->mu_, std::adopt_lock);
    cv_.wait_until(lock, deadline);
    lock.release();
  }
  void Signal() { cv_.notify_one(); }
  void SignalAll() { cv_.notify_all(); }

 private:
  Mutex* const mu_;
  std::condition_variable cv_;
};

// A reader-writer lock: shared for lookups, exclusive for changes.
class CAPABILITY("shared_mutex") SharedMutex {
 public:
  SharedMutex() = default;
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  void Lock() ACQUIRE() { mu_.lock(); }
  void Unlock() RELEASE() { mu_.unlock(); }
  // The standard library retries a read lock that reports EAGAIN.
  void LockShared() ACQUIRE_SHARED() { mu_.lock_shared(); }
  void UnlockShared() RELEASE_SHARED() { mu_.unlock_shared(); }
  // Tell the analysis that the caller holds the lock, exclusively or
  // shared (no run-time check); for code it cannot follow, such as lambdas.
  void AssertHeld() ASSERT_CAPABILITY(this) {}
  void AssertReaderHeld() ASSERT_SHARED_CAPABILITY(this) {}

 private:
  std::shared_mutex mu_;
};

class SCOPED_CAPABILITY WriterLock {
 public:
  explicit WriterLock(SharedMutex* mu) ACQUIRE(mu) : mu_(mu) { mu_->Lock(); }
  ~WriterLock() RELEASE() { mu_->Unlock(); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  SharedMutex* const mu_;
};

class SCOPED_CAPABILITY ReaderLock {
 public:
  explicit ReaderLock(SharedMutex* mu) ACQUIRE_SHARED(mu) : mu_(mu) { mu_->LockShared(); }
  ~ReaderLock() RELEASE() { mu_->UnlockShared(); }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;

 private:
  SharedMutex* const mu_;
};

}  // namespace kandb

#endif  // KANDB_COMMON_MUTEX_H_
