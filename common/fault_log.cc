#include "common/fault_log.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <map>

#include "common/mutex.h"

namespace kandb {
namespace {

struct SourceState {
  std::chrono::steady_clock::time_point last_printed;
  bool printed = false;
  uint64_t held_back = 0;
};

struct FaultLog {
  Mutex mu;
  // Per source, when it last printed and how many lines it held back since.
  std::map<std::string, SourceState, std::less<>> sources GUARDED_BY(mu);
};

FaultLog& TheFaultLog() {
  // Never destroyed, so a thread that reports during process exit finds it.
  static FaultLog* log = new FaultLog;
  return *log;
}

std::string UtcNow() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  struct tm utc;
  gmtime_r(&seconds, &utc);
  char text[64];
  std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<int>(millis));
  return text;
}

}  // namespace

void ReportFault(const std::string& source, const std::string& message) {
  FaultLog& log = TheFaultLog();
  uint64_t held_back = 0;
  {
    MutexLock lock(&log.mu);
    SourceState& state = log.sources[source];
    const auto now = std::chrono::steady_clock::now();
    if (state.printed && now - state.last_printed < std::chrono::seconds(1)) {
      ++state.held_back;
      return;
    }
    state.printed = true;
    state.last_printed = now;
    held_back = state.held_back;
    state.held_back = 0;
  }
  std::string line = UtcNow() + " " + source + ": " + message;
  if (held_back > 0) line += "; " + std::to_string(held_back) + " more since";
  line += "\n";
  // One write of the whole line, so that lines of concurrent sources never
  // interleave.
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

}  // namespace kandb
