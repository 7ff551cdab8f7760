#ifndef KANDB_APP_DESCRIPTORS_H_
#define KANDB_APP_DESCRIPTORS_H_

// The descriptor limit of both servers' processes.

#include <sys/resource.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kandb::app {

// Every connection holds a descriptor, so the common soft limit of 1024 is
// a ceiling on clients that the operator never chose; the hard limit is
// what the system allows this process.
inline void RaiseDescriptorLimit(const char* program) {
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    std::fprintf(stderr, "%s: cannot raise the descriptor limit: %s\n", program, std::strerror(errno));
  }
}

}  // namespace kandb::app

#endif  // KANDB_APP_DESCRIPTORS_H_
