#include "common/test_util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "common/mutex.h"

namespace kandb::testing {

std::string MakeTempDir(const std::string& prefix) {
  const char* base = std::getenv("TEST_TMPDIR");
  std::string templ = std::string(base != nullptr ? base : "/tmp") + "/" + prefix + "-XXXXXX";
  std::vector<char> buf(templ.begin(), templ.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) std::abort();
  return std::string(buf.data());
}

void RemoveTree(const std::string& path) {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
}

std::string ReadFileOrEmpty(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void WriteFileOrDie(const std::string& path, const std::string& contents) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  if (!out) std::abort();
}

int PickFreePort() {
  // The kernel may hand a port it just freed out again; one process never
  // gets the same port twice (an etcd member's client port equal to
  // another's peer port left that member dead).
  static Mutex mu;
  static std::set<int> given;  // guarded by mu
  for (;;) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof(addr);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
      std::abort();
    }
    const int port = ntohs(addr.sin_port);
    close(fd);
    MutexLock lock(&mu);
    if (given.insert(port).second) return port;
  }
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    Kill(SIGKILL);
    Wait();
  }
  if (!dir_.empty()) RemoveTree(dir_);
}

bool ChildProcess::Start(const std::vector<std::string>& argv) {
  if (dir_.empty()) dir_ = MakeTempDir("kandb-child");
  const std::string out_path = dir_ + "/stdout";
  const std::string err_path = dir_ + "/stderr";
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int in = open("/dev/null", O_RDONLY);
    if (out < 0 || err < 0 || in < 0) _exit(127);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    if (nofile_soft_ > 0) {
      struct rlimit limit = {static_cast<rlim_t>(nofile_soft_), static_cast<rlim_t>(nofile_hard_)};
      if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(126);
    }
    // The originals would otherwise stay open in the program under test.
    for (int fd : {in, out, err}) {
      if (fd > 2) close(fd);
    }
    execv(args[0], args.data());
    _exit(127);
  }
  pid_ = pid;
  return true;
}

bool ChildProcess::WaitForOutput(const std::string& text, int timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (std::chrono::steady_clock::now() < deadline) {
    if (Stdout().find(text) != std::string::npos) return true;
    if (pid_ <= 0) return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      reaped_status_ = status;
      return Stdout().find(text) != std::string::npos;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

void ChildProcess::Kill(int signal) {
  if (pid_ > 0) kill(pid_, signal);
}

int ChildProcess::Wait(int timeout_ms) {
  if (pid_ <= 0) return reaped_status_;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (true) {
    int status = 0;
    pid_t r = waitpid(pid_, &status, timeout_ms < 0 ? 0 : WNOHANG);
    if (r == pid_) {
      pid_ = -1;
      return status;
    }
    if (r < 0 && errno != EINTR) {
      pid_ = -1;
      return -1;
    }
    if (timeout_ms >= 0 && std::chrono::steady_clock::now() >= deadline) return -1;
    if (timeout_ms >= 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

std::string ChildProcess::Stdout() const { return ReadFileOrEmpty(dir_ + "/stdout"); }
std::string ChildProcess::Stderr() const { return ReadFileOrEmpty(dir_ + "/stderr"); }

ProgramResult RunProgram(const std::vector<std::string>& argv, int timeout_ms) {
  ProgramResult result;
  ChildProcess child;
  if (!child.Start(argv)) return result;
  result.status = child.Wait(timeout_ms);
  result.out = child.Stdout();
  result.err = child.Stderr();
  return result;
}

int ExitCode(const ProgramResult& result) {
  return WIFEXITED(result.status) ? WEXITSTATUS(result.status) : -1000 - result.status;
}

Tmpfs::Tmpfs(int size_mib) : path_(MakeTempDir("kandb-tmpfs")) {
  const std::string options = "size=" + std::to_string(size_mib) + "m";
  if (::mount("tmpfs", path_.c_str(), "tmpfs", 0, options.c_str()) == 0) {
    mounted_ = true;
  } else {
    error_ = std::string("mount tmpfs: ") + std::strerror(errno);
  }
}

Tmpfs::~Tmpfs() {
  if (mounted_) ::umount2(path_.c_str(), MNT_DETACH);
  RemoveTree(path_);
}

uint64_t FillFileSystem(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return 0;
  static const std::string zeros(1 << 20, '\0');
  uint64_t written = 0;
  for (size_t chunk = zeros.size(); chunk > 0;) {
    const ssize_t n = write(fd, zeros.data(), chunk);
    if (n > 0) {
      written += static_cast<uint64_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      chunk /= 2;  // the last pages: smaller writes take what is left
    }
  }
  close(fd);
  return written;
}

}  // namespace kandb::testing
