#ifndef KANDB_APP_META_SERVER_TEST_UTIL_H_
#define KANDB_APP_META_SERVER_TEST_UTIL_H_

// Runs the real kandb-meta binary for end-to-end tests: on 127.0.0.1, a
// free port and a given state directory, with a client to talk to it.

#include <signal.h>
#include <sys/wait.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "rpc/client.h"
#include "rpc/tls.h"

namespace kandb::testing {

inline std::string MetaBanner(const std::string& bind_addr, long long port,
                              const std::string& data_dir) {
  return "kandb-meta listening on " + bind_addr + ":" + std::to_string(port) + ", state at " +
         data_dir + "\n";
}

class MetaServer {
 public:
  // Generous: the sanitizer builds start slowly on a loaded machine.
  static constexpr int kStartTimeoutMs = 30000;

  MetaServer() = default;
  MetaServer(const MetaServer&) = delete;
  MetaServer& operator=(const MetaServer&) = delete;

  // Starts the server on `data_dir` with `flags` added, and waits for its
  // banner. A port taken by someone else between picking and binding is
  // retried with another one.
  bool Start(const std::string& data_dir, const std::vector<std::string>& flags = {}) {
    for (int attempt = 0; attempt < 3; attempt++) {
      port_ = PickFreePort();
      child_ = std::make_unique<ChildProcess>();
      if (nofile_soft_ > 0) child_->set_open_file_limit(nofile_soft_, nofile_hard_);
      std::vector<std::string> argv = {KANDB_META_BINARY, "--bind_addr=127.0.0.1",
                                       "--port=" + std::to_string(port_), "--data_dir=" + data_dir};
      if (with_status_port_) {
        status_port_ = PickFreePort();
        argv.push_back("--status_addr=127.0.0.1:" + std::to_string(status_port_));
      }
      argv.insert(argv.end(), flags.begin(), flags.end());
      if (!child_->Start(argv)) return false;
      if (child_->WaitForOutput(MetaBanner("127.0.0.1", port_, data_dir), kStartTimeoutMs)) {
        return true;
      }
      const std::string err = child_->Stderr();
      // The status port says only that it cannot listen; on 127.0.0.1 and a
      // port that was free a moment ago, someone took it meanwhile.
      if (err.find("Address already in use") == std::string::npos &&
          err.find("status: cannot listen on") == std::string::npos) {
        ADD_FAILURE() << "kandb-meta did not start: " << err;
        return false;
      }
    }
    ADD_FAILURE() << "kandb-meta found no free port";
    return false;
  }

  // Starts the server with these limits on open files (soft, hard).
  void set_open_file_limit(uint64_t soft, uint64_t hard) {
    nofile_soft_ = soft;
    nofile_hard_ = hard;
  }

  // Makes the next Start open the HTTP status port too, on a free port of
  // 127.0.0.1 that status_port() then tells.
  void set_status_port(bool on) { with_status_port_ = on; }
  int status_port() const { return status_port_; }

  // SIGKILL, as an operator or a crash would end it, and reap it.
  void Kill() {
    if (child_ == nullptr) return;
    child_->Kill(SIGKILL);
    child_->Wait();
  }

  // A client with one attempt per call, so that every failure is seen as it
  // arrives rather than retried.
  std::unique_ptr<kanrpc::RpcClient> NewClient(std::shared_ptr<const kanrpc::TlsClientContext> tls = nullptr) const {
    kanrpc::RpcClientOptions options;
    options.timeout_ms = 10000;
    options.attempts = 1;
    options.tls = std::move(tls);
    return std::make_unique<kanrpc::RpcClient>(target(), options);
  }

  std::string target() const { return "127.0.0.1:" + std::to_string(port_); }
  int port() const { return port_; }
  ChildProcess* child() { return child_.get(); }

 private:
  int port_ = 0;
  bool with_status_port_ = false;
  int status_port_ = 0;
  std::unique_ptr<ChildProcess> child_;
  uint64_t nofile_soft_ = 0;
  uint64_t nofile_hard_ = 0;
};

}  // namespace kandb::testing

#endif  // KANDB_APP_META_SERVER_TEST_UTIL_H_
