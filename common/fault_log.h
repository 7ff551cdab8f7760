#ifndef KANDB_COMMON_FAULT_LOG_H_
#define KANDB_COMMON_FAULT_LOG_H_

// Faults the process survives (a full disk, a failed sync, descriptors
// running out) are reported on standard error, one line each, headed by a
// UTC timestamp:
//
//   2026-11-23T10:15:02.123Z storage: flush failed: ... (retrying in 400 ms)
//
// Each source prints at most one line a second; the lines held back in
// between are counted on the next line printed ("; 17 more since"), so a
// fault that repeats thousands of times a second cannot flood the log or
// slow the server down. The banner on standard output is never touched.

#include <string>

namespace kandb {

// Reports `message` under `source` (a short word such as "storage" or
// "accept"), subject to the once-a-second limit of that source. Safe from
// any thread.
void ReportFault(const std::string& source, const std::string& message);

}  // namespace kandb

#endif  // KANDB_COMMON_FAULT_LOG_H_
