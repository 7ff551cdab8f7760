#include "rpc/workers.h"

#include <chrono>
#include <string>
#include <system_error>
#include <thread>

#include "common/fault_log.h"
#include "rpc/connection.h"
#include "rpc/loop.h"

namespace kandb::kanrpc {

namespace {

// A worker thread with nothing to do for this long ends.
constexpr auto kWorkerIdle = std::chrono::seconds(5);

}  // namespace

bool RpcServer::Workers::Submit(std::shared_ptr<Shared> shared, Connection* connection) {
  Shared* const counted = shared.get();
  {
    MutexLock lock(&mu_);
    calls_.push_back(connection);
    if (calls_.size() <= idle_) {
      cv_.Signal();
      return true;
    }
    // Thread creation reports its failure by exception; it is caught here,
    // as a call refused for want of resources, not a server failure.
    try {
      std::thread(&Workers::Run, this, std::move(shared)).detach();
      return true;
    } catch (const std::system_error& e) {
      calls_.pop_back();
      ReportFault("accept", std::string("cannot start a worker thread: ") + e.what());
    }
  }
  MutexLock lock(&counted->mu);
  ++counted->ended.failed_accepts;
  return false;
}

void RpcServer::Workers::Stop() {
  MutexLock lock(&mu_);
  stopping_ = true;
  cv_.SignalAll();
}

void RpcServer::Workers::Run(std::shared_ptr<Shared> shared) {
  // `shared` owns this object: holding it keeps the pool alive as long as
  // the thread.
  (void)shared;
  for (;;) {
    Connection* connection = nullptr;
    {
      MutexLock lock(&mu_);
      const auto deadline = Clock::now() + kWorkerIdle;
      ++idle_;
      while (calls_.empty() && !stopping_ && Clock::now() < deadline) cv_.WaitUntil(deadline);
      --idle_;
      if (calls_.empty()) return;
      connection = calls_.front();
      calls_.pop_front();
    }
    connection->status = connection->method->handler(connection->request.payload, &connection->response);
    connection->loop->Answered(connection);
  }
}

}  // namespace kandb::kanrpc
