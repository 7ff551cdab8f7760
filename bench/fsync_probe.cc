// fsync_probe: how many 100-byte records a second N writers can make
// durable on this disk when they share each fdatasync, the way a group
// commit shares it: a writer appends its record to a queue; whoever finds
// no sync running writes everything queued in one write, syncs once, and
// wakes the writers it made durable. No network and no parsing: the limit
// that a server's group commit is measured against.
//
//   fsync_probe DIR WRITERS SECONDS      prints "<appends per second>"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr size_t kRecord = 100;

struct Log {
  int fd = -1;
  std::mutex mu;
  std::condition_variable cv;
  uint64_t queued = 0;   // records handed in
  uint64_t durable = 0;  // records covered by a finished sync
  bool syncing = false;
};

// Makes one record durable; returns false on an I/O failure.
bool Append(Log* log) {
  std::unique_lock<std::mutex> lock(log->mu);
  const uint64_t mine = ++log->queued;
  while (log->durable < mine) {
    if (log->syncing) {
      log->cv.wait(lock);
      continue;
    }
    log->syncing = true;
    const uint64_t upto = log->queued;
    const size_t bytes = static_cast<size_t>(upto - log->durable) * kRecord;
    lock.unlock();
    static thread_local std::string buffer;
    buffer.assign(bytes, 'r');
    const bool ok = write(log->fd, buffer.data(), bytes) == static_cast<ssize_t>(bytes) && fdatasync(log->fd) == 0;
    lock.lock();
    log->syncing = false;
    if (!ok) return false;
    log->durable = upto;
    log->cv.notify_all();
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: fsync_probe DIR WRITERS SECONDS\n");
    return 2;
  }
  const std::string path = std::string(argv[1]) + "/fsync-probe";
  const int writers = std::atoi(argv[2]);
  const double seconds = std::atof(argv[3]);
  Log log;
  log.fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
  if (log.fd < 0 || writers < 1 || seconds <= 0) {
    std::perror("fsync_probe");
    return 2;
  }
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> done{0};
  std::atomic<bool> failed{false};
  std::vector<std::thread> threads;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < writers; i++) {
    threads.emplace_back([&] {
      while (!stop.load(std::memory_order_relaxed)) {
        if (!Append(&log)) {
          failed = true;
          return;
        }
        done.fetch_add(1, std::memory_order_relaxed);
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  stop = true;
  for (std::thread& t : threads) t.join();
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  close(log.fd);
  unlink(path.c_str());
  if (failed) {
    std::perror("fsync_probe: write or fdatasync");
    return 1;
  }
  std::printf("%.0f\n", static_cast<double>(done.load()) / elapsed);
  return 0;
}
