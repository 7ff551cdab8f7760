#include "rpc/sys_error.h"

#include <cstring>

namespace kandb::kanrpc {

namespace {

// strerror_r comes in two flavours depending on the C library's feature
// macros; overloads pick the right reading of its result.
[[maybe_unused]] const char* Pick(int rc, const char* buf) {
  return rc == 0 ? buf : "Unknown error";
}
[[maybe_unused]] const char* Pick(const char* text, const char*) { return text; }

}  // namespace

std::string ErrnoText(int err) {
  char buf[256];
  buf[0] = '\0';
  return Pick(strerror_r(err, buf, sizeof(buf)), buf);
}

}  // namespace kandb::kanrpc
