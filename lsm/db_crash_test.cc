// Crash safety: writers in a child process are killed with SIGKILL at a
// random moment; after a reopen every batch the child acknowledged (on a
// pipe, right after Write returned) must be there, and none in part. The
// test forks before it starts any thread of its own. KANDB_CRASH_CYCLES sets
// the number of kill cycles (default 20).

#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "lsm/db.h"
#include "lsm/db_test_util.h"

namespace kandb::lsm {
namespace {

constexpr int kWriters = 4;

// Small buffers, so that flushes and compactions run during every cycle.
LsmDb::Options CrashOptions() { return SmallOptions(4096, 3, /*sync=*/true); }

struct Ack {
  uint32_t writer;
  uint32_t seq;
};

std::string Tag(int cycle, uint32_t seq) { return std::to_string(cycle) + "." + std::to_string(seq); }
std::string OwnKey(int cycle, uint32_t writer, uint32_t seq) {
  return "u/" + std::to_string(cycle) + "/" + std::to_string(writer) + "/" + std::to_string(seq);
}
std::string SharedKey(uint32_t writer, const char* name) { return "k/" + std::to_string(writer) + "/" + name; }

// Batch `seq` of `writer` in `cycle`: three keys that always agree, a key
// that is put on odd batches and deleted on even ones, and a key of its own.
WriteBatch CrashBatch(int cycle, uint32_t writer, uint32_t seq) {
  const std::string tag = Tag(cycle, seq);
  return {Put(SharedKey(writer, "a"), tag), Put(SharedKey(writer, "b"), tag),
          seq % 2 == 1 ? Put(SharedKey(writer, "odd"), tag) : Del(SharedKey(writer, "odd")),
          Put(OwnKey(cycle, writer, seq), tag), Put(SharedKey(writer, "c"), tag)};
}

[[noreturn]] void ChildMain(const std::string& dir, int cycle, int ack_fd) {
  std::unique_ptr<LsmDb> db;
  if (!LsmDb::Open(dir, CrashOptions(), &db).ok()) _exit(3);
  std::vector<std::thread> writers;
  for (uint32_t w = 0; w < kWriters; ++w) {
    writers.emplace_back([&db, cycle, ack_fd, w] {
      for (uint32_t seq = 1;; ++seq) {
        if (!db->Write(CrashBatch(cycle, w, seq)).ok()) _exit(4);
        // Smaller than PIPE_BUF, so each acknowledgement arrives whole.
        const Ack ack{w, seq};
        if (write(ack_fd, &ack, sizeof(ack)) != sizeof(ack)) _exit(5);
      }
    });
  }
  for (std::thread& t : writers) t.join();
  _exit(6);
}

// Runs one child for `life`, counted from its start or, with
// `after_first_ack`, from its first acknowledgement (a sanitized child can
// take longer than a whole life to open); kills it; and returns the last
// acknowledged sequence number of each writer (0 for none).
std::vector<uint32_t> RunAndKill(const std::string& dir, int cycle, std::chrono::microseconds life,
                                 bool after_first_ack) {
  int fds[2];
  EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    ChildMain(dir, cycle, fds[1]);
  }
  close(fds[1]);
  EXPECT_GT(pid, 0);

  std::vector<uint32_t> last(kWriters, 0);
  std::string pending;
  bool eof = false;  // the child is gone
  auto drain = [&](int timeout_ms) {
    pollfd p{fds[0], POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) return false;
    char buf[4096];
    ssize_t n = read(fds[0], buf, sizeof(buf));
    if (n <= 0) {
      eof = true;
      return false;
    }
    pending.append(buf, static_cast<size_t>(n));
    size_t used = 0;
    for (; pending.size() - used >= sizeof(Ack); used += sizeof(Ack)) {
      Ack ack;
      std::memcpy(&ack, pending.data() + used, sizeof(ack));
      EXPECT_LT(ack.writer, static_cast<uint32_t>(kWriters));
      EXPECT_EQ(ack.seq, last[ack.writer] + 1);  // one writer acknowledges in order
      last[ack.writer] = ack.seq;
    }
    pending.erase(0, used);
    return true;
  };
  auto deadline = std::chrono::steady_clock::now() + life;
  if (after_first_ack) {
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!eof && last == std::vector<uint32_t>(kWriters, 0) && std::chrono::steady_clock::now() < give_up) {
      drain(1);
    }
    deadline = std::chrono::steady_clock::now() + life;
  }
  while (!eof && std::chrono::steady_clock::now() < deadline) drain(1);
  kill(pid, SIGKILL);
  int status = 0;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "child ended by itself, status " << status;
  while (drain(0)) {
  }
  EXPECT_TRUE(pending.empty());
  close(fds[0]);
  return last;
}

TEST(CrashTest, KilledWritersLoseNothingAcknowledgedAndApplyBatchesWhole) {
  int cycles = 20;
  if (const char* env = std::getenv("KANDB_CRASH_CYCLES")) cycles = std::max(1, std::atoi(env));
  ScratchDir dir("kandb-crash");
  std::mt19937 rng(static_cast<uint32_t>(std::random_device{}()));
  // The agreed value of each writer's three keys after the last recovery.
  std::vector<std::string> shared(kWriters, "<absent>");
  // Every own key that must survive from now on, with its value.
  std::map<std::string, std::string> durable;
  uint64_t acknowledged = 0;

  for (int cycle = 1; cycle <= cycles; ++cycle) {
    // One kill in four lands anywhere in the first 30 ms, often while the
    // child is still recovering; the others up to 60 ms into its writing,
    // with flushes and compactions under way.
    const bool after_first_ack = rng() % 4 != 0;
    const auto life = std::chrono::microseconds(rng() % (after_first_ack ? 60000 : 30000));
    const std::vector<uint32_t> last = RunAndKill(dir.path(), cycle, life, after_first_ack);
    if (::testing::Test::HasFailure()) return;

    std::unique_ptr<LsmDb> db;
    Status s = LsmDb::Open(dir.path(), CrashOptions(), &db);
    ASSERT_TRUE(s.ok()) << "cycle " << cycle << ": " << s.ToString();
    for (uint32_t w = 0; w < kWriters; ++w) {
      SCOPED_TRACE("cycle " + std::to_string(cycle) + " writer " + std::to_string(w));
      acknowledged += last[w];
      for (uint32_t seq = 1; seq <= last[w]; ++seq) durable[OwnKey(cycle, w, seq)] = Tag(cycle, seq);

      // All or nothing: the three keys agree, and the batch they name is
      // the last acknowledged one or the one in flight at the kill.
      const std::string a = GetOrAbsent(db.get(), SharedKey(w, "a"));
      ASSERT_EQ(GetOrAbsent(db.get(), SharedKey(w, "b")), a);
      ASSERT_EQ(GetOrAbsent(db.get(), SharedKey(w, "c")), a);
      std::set<std::string> allowed = {Tag(cycle, last[w] + 1)};
      allowed.insert(last[w] > 0 ? Tag(cycle, last[w]) : shared[w]);
      ASSERT_EQ(allowed.count(a), 1u) << "found " << a << " after " << last[w] << " acknowledged";
      const uint32_t in_flight = last[w] + 1;
      const std::string own = GetOrAbsent(db.get(), OwnKey(cycle, w, in_flight));
      if (a == Tag(cycle, in_flight)) {
        ASSERT_EQ(own, a);  // the in-flight batch made it, entirely
        durable[OwnKey(cycle, w, in_flight)] = a;
      } else {
        ASSERT_EQ(own, "<absent>");
      }
      if (a != "<absent>") {
        const bool odd = std::stoul(a.substr(a.find('.') + 1)) % 2 == 1;
        ASSERT_EQ(GetOrAbsent(db.get(), SharedKey(w, "odd")), odd ? a : "<absent>");
      }
      shared[w] = a;
    }

    // Every batch acknowledged in this or an earlier cycle is still there,
    // and no own key exists that was neither acknowledged nor in flight.
    std::vector<Entry> own_keys;
    ASSERT_TRUE(db->Scan("u/", "u0", 1u << 30, &own_keys).ok());
    std::map<std::string, std::string> found;
    for (const Entry& e : own_keys) found[e.key] = e.value;
    ASSERT_EQ(found, durable) << "cycle " << cycle;
  }
  std::printf("%d kill cycles, %llu acknowledged batches checked\n", cycles,
              static_cast<unsigned long long>(acknowledged));
  EXPECT_GT(acknowledged, 0u);
}

}  // namespace
}  // namespace kandb::lsm
