#ifndef KANDB_COMMON_TEST_UTIL_H_
#define KANDB_COMMON_TEST_UTIL_H_

// Helpers shared by the tests: scratch directories, free ports and child
// processes (the real binaries started, watched and killed).

#include <sys/types.h>

#include <string>
#include <vector>

namespace kandb::testing {

// Creates a fresh, empty directory under $TEST_TMPDIR or /tmp and returns its path.
std::string MakeTempDir(const std::string& prefix);
// Removes a directory tree; missing paths are ignored.
void RemoveTree(const std::string& path);
std::string ReadFileOrEmpty(const std::string& path);
void WriteFileOrDie(const std::string& path, const std::string& contents);

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
  // Polls standard output until it contains `text`; false after `timeout_ms`
  // or when the child ended first.
  bool WaitForOutput(const std::string& text, int timeout_ms);
  void Kill(int signal);
  // Waits for the child; returns the raw wait status (use WIFEXITED etc.),
  // or -1 when it did not end within `timeout_ms` (negative: no limit).
  int Wait(int timeout_ms = -1);
  bool running() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

  std::string Stdout() const;
  std::string Stderr() const;

 private:
  pid_t pid_ = -1;
  std::string dir_;
};

// Runs a program to completion. Returns the raw wait status, or -1 on a time-out.
struct ProgramResult {
  int status = -1;
  std::string out;
  std::string err;
};
ProgramResult RunProgram(const std::vector<std::string>& argv, int timeout_ms = 30000);

// The exit status of a finished program; a negative number when it was
// killed by a signal or timed out, so it never equals a real status.
int ExitCode(const ProgramResult& result);

}  // namespace kandb::testing

#endif  // KANDB_COMMON_TEST_UTIL_H_
