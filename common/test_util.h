#ifndef KANDB_COMMON_TEST_UTIL_H_
#define KANDB_COMMON_TEST_UTIL_H_

// Helpers shared by the tests: polling, scratch directories, free ports and
// child processes (the real binaries started, watched and killed).

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "common/status.h"

namespace kandb::testing {

inline int64_t SteadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}
inline void SleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// Polls `done` every `pause_ms` until it holds (true) or `timeout_ms` passed.
template <class F>
bool WaitFor(int64_t timeout_ms, F done, int pause_ms = 50) {
  for (const int64_t end = SteadyMs() + timeout_ms; !done(); SleepMs(pause_ms)) {
    if (SteadyMs() >= end) return false;
  }
  return true;
}

// Calls `call` until it succeeds or `timeout_ms` passed; its last status.
template <class F>
Status RetryFor(int64_t timeout_ms, F call, int pause_ms = 50) {
  Status s;
  WaitFor(timeout_ms, [&] { return (s = call()).ok(); }, pause_ms);
  return s;
}

// Creates a fresh, empty directory under $TEST_TMPDIR or /tmp and returns its path.
std::string MakeTempDir(const std::string& prefix);
// Removes a directory tree; missing paths are ignored.
void RemoveTree(const std::string& path);
std::string ReadFileOrEmpty(const std::string& path);
void WriteFileOrDie(const std::string& path, const std::string& contents);

// A scratch directory, removed with the object however the test ends.
class ScratchDir {
 public:
  explicit ScratchDir(const std::string& prefix = "kandb-test") : path_(MakeTempDir(prefix)) {}
  ~ScratchDir() { RemoveTree(path_); }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  const std::string path_;
};

// A TCP port on 127.0.0.1 that was free a moment ago.
int PickFreePort();

// A child process whose standard output and error go to files, so that a
// chatty child never blocks on a full pipe.
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();  // kills (SIGKILL) and reaps a child still running
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Starts argv[0] with the given arguments (no shell). Returns false when fork fails.
  bool Start(const std::vector<std::string>& argv);
  // Makes the next Start give the child these limits on open files (soft,
  // hard), as prlimit would, before the program runs.
  void set_open_file_limit(uint64_t soft, uint64_t hard) {
    nofile_soft_ = soft;
    nofile_hard_ = hard;
  }
  // Polls standard output until it contains `text`; false after `timeout_ms`
  // or when the child ended first.
  bool WaitForOutput(const std::string& text, int timeout_ms);
  void Kill(int signal);
  // Waits for the child; returns the raw wait status (use WIFEXITED etc.),
  // also of a child that WaitForOutput saw end, or -1 when it did not end
  // within `timeout_ms` (negative: no limit) or never ran.
  int Wait(int timeout_ms = -1);
  bool running() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

  std::string Stdout() const;
  std::string Stderr() const;

 private:
  pid_t pid_ = -1;
  int reaped_status_ = -1;  // of a child that ended while WaitForOutput watched
  std::string dir_;
  uint64_t nofile_soft_ = 0;  // 0: inherit
  uint64_t nofile_hard_ = 0;
};

// Runs a program to completion. Returns the raw wait status, or -1 on a time-out.
struct ProgramResult {
  int status = -1;
  std::string out;
  std::string err;
};
ProgramResult RunProgram(const std::vector<std::string>& argv, int timeout_ms = 30000);

// A tmpfs of `size_mib` mounted at a fresh directory for the life of the
// object: a real small file system that fills up. Mounting needs root;
// mounted() says whether it worked and error() why not.
class Tmpfs {
 public:
  explicit Tmpfs(int size_mib);
  ~Tmpfs();
  Tmpfs(const Tmpfs&) = delete;
  Tmpfs& operator=(const Tmpfs&) = delete;
  bool mounted() const { return mounted_; }
  const std::string& error() const { return error_; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  bool mounted_ = false;
  std::string error_;
};

// Writes `path` with zeros until the file system is full; returns the bytes
// written.
uint64_t FillFileSystem(const std::string& path);

// The exit status of a finished program; a negative number when it was
// killed by a signal or timed out, so it never equals a real status.
int ExitCode(const ProgramResult& result);

}  // namespace kandb::testing

#endif  // KANDB_COMMON_TEST_UTIL_H_
