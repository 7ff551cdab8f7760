// The status server in process: its start and teardown.

#include "app/status_server.h"

#include <gtest/gtest.h>

#include <memory>

#include "rpc/server.h"

namespace kandb::app {
namespace {

// The library's stop does nothing until its accept loop runs: a server torn
// down right after Start must still end, every time.
TEST(StatusServerTest, DestroyedRightAfterStartEnds) {
  kanrpc::RpcServer rpc;
  StatusOptions options;
  options.addr = "127.0.0.1:0";
  options.program = "kandb-meta";
  options.rpc = &rpc;
  options.health = [] { return Health{true, "standalone", "", ""}; };
  for (int i = 0; i < 500; ++i) {
    std::unique_ptr<StatusServer> status;
    ASSERT_TRUE(StatusServer::Start(options, &status).ok());
    ASSERT_GT(status->port(), 0);
  }
}

}  // namespace
}  // namespace kandb::app
