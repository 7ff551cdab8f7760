#ifndef KANDB_RPC_WORKERS_H_
#define KANDB_RPC_WORKERS_H_

#include <cstddef>
#include <deque>
#include <memory>

#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "rpc/server_shared.h"

namespace kandb::kanrpc {

struct Connection;

// The worker threads that run blocking calls. Threads are started as calls
// need them and end after kWorkerIdle without work; one parked call costs
// one thread, as it would anywhere.
class RpcServer::Workers {
 public:
  // Queues `connection`'s call; false when no thread could be started for it.
  bool Submit(std::shared_ptr<Shared> shared, Connection* connection) EXCLUDES(mu_);
  // Idle threads end at once; running ones after their call.
  void Stop() EXCLUDES(mu_);

 private:
  void Run(std::shared_ptr<Shared> shared) EXCLUDES(mu_);

  Mutex mu_;
  CondVar cv_{&mu_};
  std::deque<Connection*> calls_ GUARDED_BY(mu_);
  size_t idle_ GUARDED_BY(mu_) = 0;
  bool stopping_ GUARDED_BY(mu_) = false;
};

}  // namespace kandb::kanrpc

#endif  // KANDB_RPC_WORKERS_H_
