#ifndef KANDB_APP_STRESS_TEST_UTIL_H_
#define KANDB_APP_STRESS_TEST_UTIL_H_

// Helpers of the long-running tests against the real binary: scaling under
// sanitizers, knobs from the environment, the server's memory and threads as
// the kernel reports them, the open-file limit, and what the state
// directory holds between two runs of the server.

#include <dirent.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "lsm/filename.h"

namespace kandb::testing {

// True in builds instrumented by AddressSanitizer or ThreadSanitizer, where
// every thread and every byte costs several times more: the tests scale
// their load down there and keep the full load in plain builds.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitizedBuild = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool kSanitizedBuild = true;
#else
inline constexpr bool kSanitizedBuild = false;
#endif
#else
inline constexpr bool kSanitizedBuild = false;
#endif

// The positive integer in environment variable `name`, or `fallback` when
// it is unset or not a positive number. Lets a longer run be chosen without
// rebuilding (for example KANDB_TORTURE_CYCLES=300).
inline int64_t EnvInt(const char* name, int64_t fallback) {
  const char* text = std::getenv(name);
  if (text == nullptr) return fallback;
  char* end = nullptr;
  const long long value = std::strtoll(text, &end, 10);
  return (end != text && *end == '\0' && value > 0) ? value : fallback;
}

// What /proc/<pid>/status says about a process's memory and threads.
struct ProcessStatus {
  bool ok = false;
  int64_t rss_kib = 0;      // VmRSS: resident now
  int64_t hwm_kib = 0;      // VmHWM: resident at the peak
  int64_t vm_size_kib = 0;  // VmSize: address space reserved
  int64_t threads = 0;
};

inline ProcessStatus ReadProcessStatus(pid_t pid) {
  ProcessStatus status;
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string name;
    int64_t value = 0;
    fields >> name >> value;
    if (name == "VmRSS:") status.rss_kib = value;
    if (name == "VmHWM:") status.hwm_kib = value;
    if (name == "VmSize:") status.vm_size_kib = value;
    if (name == "Threads:") {
      status.threads = value;
      status.ok = true;
    }
  }
  return status;
}

// Raises this process's soft limit on open files towards `wanted` (never
// past the hard limit) and returns the limit in force. Children started
// afterwards inherit it.
inline int64_t RaiseOpenFileLimit(int64_t wanted) {
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  if (static_cast<int64_t>(limit.rlim_cur) < wanted) {
    limit.rlim_cur = limit.rlim_max == RLIM_INFINITY
                         ? static_cast<rlim_t>(wanted)
                         : std::min<rlim_t>(limit.rlim_max, static_cast<rlim_t>(wanted));
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
  }
  return static_cast<int64_t>(limit.rlim_cur);
}

// The engine files of a state directory, by the names the engine gives them.
struct StateFiles {
  std::set<uint64_t> tables;
  // "*.tmp" names: publications that a kill interrupted.
  std::set<std::string> temporary;
};

inline StateFiles ListStateFiles(const std::string& dir) {
  StateFiles files;
  if (DIR* d = opendir(dir.c_str())) {
    while (const struct dirent* entry = readdir(d)) {
      const std::string name = entry->d_name;
      const std::string suffix = lsm::TempFileName("");
      if (name.size() > suffix.size() &&
          name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
        files.temporary.insert(name);
        continue;
      }
      uint64_t number = 0;
      if (lsm::ParseFileName(name, &number) == lsm::FileKind::kTable) files.tables.insert(number);
    }
    closedir(d);
  }
  return files;
}

}  // namespace kandb::testing

#endif  // KANDB_APP_STRESS_TEST_UTIL_H_
