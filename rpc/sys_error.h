#ifndef KANDB_RPC_SYS_ERROR_H_
#define KANDB_RPC_SYS_ERROR_H_

#include <string>

namespace kandb::kanrpc {

// The system's text for an errno value, safe to call from any thread
// (event loops and workers report failures concurrently).
std::string ErrnoText(int err);

}  // namespace kandb::kanrpc

#endif  // KANDB_RPC_SYS_ERROR_H_
