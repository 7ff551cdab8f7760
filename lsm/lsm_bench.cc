// lsm_bench: figures for the engine, all measured in one directory.
//
//   lsm_bench [--dir=PATH] [--seconds=S] [--table_memory]
//
// Prints the raw rate of 100-byte appends each followed by fdatasync; synced
// Write calls per second with 1, 8, 32 and 128 writer threads (each Write
// is one 100-byte log record, so the two compare directly); point reads per
// second from the memtable and from table files; keys per second of a full
// scan. --table_memory instead builds eight 64 MiB table files and reports
// the resident memory an engine holds with them open, measured in a fresh
// process so that the building does not count.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "lsm/db.h"
#include "lsm/file_io.h"
#include "lsm/filename.h"
#include "lsm/manifest.h"
#include "lsm/table.h"
#include "lsm/table_builder.h"

namespace kandb::lsm {
namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

[[noreturn]] void Die(const std::string& what, const Status& s) {
  std::fprintf(stderr, "lsm_bench: %s: %s\n", what.c_str(), s.ToString().c_str());
  std::exit(1);
}

void Check(const std::string& what, const Status& s) {
  if (!s.ok()) Die(what, s);
}

std::string FixedKey(const char* prefix, uint64_t n) {
  char buf[32];
  std::snprintf(buf, sizeof(buf), "%s%012llu", prefix, static_cast<unsigned long long>(n));
  return buf;  // 16 bytes with a 4-byte prefix
}

// A 16-byte key and a 63-byte value encode to a 92-byte batch, which the
// log frames as a 100-byte record: the same size as the raw appends.
constexpr size_t kValueSize = 63;

// Counts the engine's fdatasync calls and the time spent in them, to show
// how many writes each group carried.
class SyncCountingFileIo : public FileIo {
 public:
  int Fdatasync(int fd) override {
    const auto start = Clock::now();
    const int rc = FileIo::Fdatasync(fd);
    nanos_ += std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
    ++syncs_;
    return rc;
  }
  void Reset() {
    syncs_ = 0;
    nanos_ = 0;
  }
  uint64_t syncs() const { return syncs_; }
  double average_ms() const { return syncs_ == 0 ? 0 : nanos_ / 1e6 / syncs_; }

 private:
  std::atomic<uint64_t> syncs_{0};
  std::atomic<uint64_t> nanos_{0};
};

SyncCountingFileIo sync_counter;

std::unique_ptr<LsmDb> OpenOrDie(const std::string& dir, const LsmDb::Options& options) {
  std::unique_ptr<LsmDb> db;
  Check("open " + dir, LsmDb::Open(dir, options, &db));
  return db;
}

// Operations done in a measured stretch of time, with the engine's
// fdatasync calls during it.
struct Run {
  uint64_t ops = 0;
  double seconds = 0;
  uint64_t syncs = 0;
  double sync_ms = 0;  // summed
  void Add(const Run& r) {
    ops += r.ops;
    seconds += r.seconds;
    syncs += r.syncs;
    sync_ms += r.sync_ms;
  }
  double rate() const { return ops / seconds; }
};

Run RawSyncedAppends(const std::string& dir, double seconds) {
  const std::string path = dir + "/raw-appends";
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) {
    std::perror("open raw-appends");
    std::exit(1);
  }
  char record[100];
  std::memset(record, 'r', sizeof(record));
  Run run;
  const auto start = Clock::now();
  while (Seconds(start) < seconds) {
    if (::write(fd, record, sizeof(record)) != static_cast<ssize_t>(sizeof(record)) || ::fdatasync(fd) != 0) {
      std::perror("raw append");
      std::exit(1);
    }
    ++run.ops;
  }
  run.seconds = Seconds(start);
  ::close(fd);
  ::unlink(path.c_str());
  return run;
}

Run SyncedWrites(const std::string& dir, int threads, double seconds) {
  std::filesystem::remove_all(dir);
  LsmDb::Options options;  // 64 MiB buffer, sync on
  options.io = &sync_counter;
  std::unique_ptr<LsmDb> db = OpenOrDie(dir, options);
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> total{0};
  std::vector<std::thread> workers;
  const std::string value(kValueSize, 'v');
  sync_counter.Reset();
  const auto start = Clock::now();
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      uint64_t n = 0;
      char prefix[8];
      std::snprintf(prefix, sizeof(prefix), "w%03d", t);
      while (!stop.load(std::memory_order_relaxed)) {
        Check("write", db->Write({Entry{kOpPut, FixedKey(prefix, n), value}}));
        ++n;
      }
      total += n;
    });
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  stop = true;
  for (std::thread& w : workers) w.join();
  Run run;
  run.seconds = Seconds(start);
  run.ops = total;
  run.syncs = sync_counter.syncs();
  run.sync_ms = sync_counter.average_ms() * run.syncs;
  return run;
}

void PrintWrites(int threads, const Run& run) {
  std::printf("synced Write, %3d writer thread%s     %10.0f /s   (%.1f writes per fdatasync, %.2f ms each)\n",
              threads, threads == 1 ? " " : "s", run.rate(), run.syncs ? double(run.ops) / run.syncs : 0.0,
              run.syncs ? run.sync_ms / run.syncs : 0.0);
}

// Loads `keys` entries into the database at `dir`; with `to_tables` the
// database is then reopened with a one-byte write buffer and written once,
// so that the replayed memtable is flushed and every key is in a table.
std::unique_ptr<LsmDb> Load(const std::string& dir, uint64_t keys, bool to_tables) {
  std::filesystem::remove_all(dir);
  LsmDb::Options options;
  options.sync = false;
  std::unique_ptr<LsmDb> db = OpenOrDie(dir, options);
  const std::string value(kValueSize, 'v');
  for (uint64_t base = 0; base < keys; base += 1000) {
    WriteBatch batch;
    for (uint64_t i = base; i < base + 1000 && i < keys; ++i) batch.push_back(Entry{kOpPut, FixedKey("key-", i), value});
    Check("load", db->Write(batch));
  }
  if (!to_tables) return db;
  db.reset();
  options.write_buffer_size = 1;
  db = OpenOrDie(dir, options);
  Check("load", db->Write({Entry{kOpPut, "zz-flush", ""}}));
  db->WaitForBackgroundIdle();
  return db;
}

void PointReads(LsmDb* db, uint64_t keys, double seconds, const char* where) {
  std::mt19937_64 rng(42);
  std::string value;
  bool found = false;
  uint64_t n = 0;
  const auto start = Clock::now();
  while ((n & 1023) != 0 || Seconds(start) < seconds) {
    Check("get", db->Get(FixedKey("key-", rng() % keys), &value, &found));
    if (!found) Die("get", Status::NotFound("a loaded key is missing"));
    ++n;
  }
  std::printf("point reads from %-19s %10.0f /s\n", where, n / Seconds(start));
}

// The best of three scans: the first one of a process pays for faulting in
// the heap that holds its result, which says nothing about the engine.
void FullScan(LsmDb* db, uint64_t keys, const char* where) {
  double best = 1e99;
  size_t count = 0;
  for (int run = 0; run < 3; ++run) {
    std::vector<Entry> out;
    const auto start = Clock::now();
    Check("scan", db->Scan("", "", UINT32_MAX, &out));
    best = std::min(best, Seconds(start));
    count = out.size();
    if (count < keys) Die("scan", Status::NotFound("keys missing from the scan"));
  }
  std::printf("full scan over %-21s %10.0f keys/s (%zu keys)\n", where, count / best, count);
}

long ResidentKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

// Eight tables of 64 MiB each, of 16-byte keys and 100-byte values, named
// by a manifest.
void BuildTables(const std::string& dir) {
  constexpr uint64_t kTableBytes = 64ull << 20;
  constexpr uint64_t kRecord = 9 + 16 + 100;
  constexpr uint64_t kPerTable = kTableBytes / kRecord;
  ManifestState manifest;
  const std::string value(100, 'v');
  for (uint64_t t = 0; t < 8; ++t) {
    std::vector<Entry> entries;
    entries.reserve(kPerTable);
    for (uint64_t i = 0; i < kPerTable; ++i) entries.push_back(Entry{kOpPut, FixedKey("tab-", i * 8 + t), value});
    const uint64_t number = t + 1;
    Check("write table", WriteTable(DefaultFileIo(), TableFileName(dir, number), entries));
    manifest.sst_files.insert(manifest.sst_files.begin(), number);
  }
  manifest.next_file = 9;
  Check("write manifest", WriteManifest(DefaultFileIo(), dir, manifest));
}

int MeasureOpenTables(const std::string& dir) {
  const long before = ResidentKiB();
  LsmDb::Options options;
  std::unique_ptr<LsmDb> db = OpenOrDie(dir, options);
  const long after = ResidentKiB();
  uint64_t bytes = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().filename().string().rfind("sst-", 0) == 0) bytes += entry.file_size();
  }
  std::string value;
  bool found = false;
  Check("get", db->Get(FixedKey("tab-", 12345), &value, &found));
  const long after_get = ResidentKiB();
  std::printf("%llu table files, %.1f MiB on disk\n", static_cast<unsigned long long>(db->TableFileCount()),
              bytes / 1048576.0);
  std::printf("resident before open %ld KiB, after open %ld KiB (+%ld KiB), after one Get %ld KiB\n", before, after,
              after - before, after_get);
  return found ? 0 : 1;
}

}  // namespace
}  // namespace kandb::lsm

int main(int argc, char** argv) {
  using namespace kandb::lsm;
  std::string dir;
  double seconds = 2.0;
  bool table_memory = false;
  std::string measure_dir;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg.rfind("--dir=", 0) == 0) {
      dir = arg.substr(6);
    } else if (arg.rfind("--seconds=", 0) == 0) {
      seconds = std::atof(arg.c_str() + 10);
    } else if (arg == "--table_memory") {
      table_memory = true;
    } else if (arg.rfind("--measure_open=", 0) == 0) {
      measure_dir = arg.substr(15);
    } else {
      std::fprintf(stderr, "usage: lsm_bench [--dir=PATH] [--seconds=S] [--table_memory]\n");
      return 2;
    }
  }
  if (!measure_dir.empty()) return MeasureOpenTables(measure_dir);

  const bool own_dir = dir.empty();
  if (own_dir) {
    const char* base = std::getenv("TMPDIR");
    std::string templ = std::string(base != nullptr ? base : "/tmp") + "/lsm-bench-XXXXXX";
    if (mkdtemp(templ.data()) == nullptr) {
      std::perror("mkdtemp");
      return 1;
    }
    dir = templ;
  } else {
    mkdir(dir.c_str(), 0755);
  }
  std::printf("directory %s\n", dir.c_str());

  if (table_memory) {
    const std::string tables = dir + "/tables";
    std::filesystem::remove_all(tables);
    mkdir(tables.c_str(), 0755);
    BuildTables(tables);
    // A fresh process, so that the memory used to build the tables is not
    // counted.
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const std::string command = self + " --measure_open=" + tables;
    std::fflush(stdout);
    const int rc = std::system(command.c_str());
    if (own_dir) std::filesystem::remove_all(dir);
    return rc == 0 ? 0 : 1;
  }

  {
    // The host's sync latency drifts, so the raw rate and the one-writer
    // rate it is compared with are measured in alternating slices.
    Run raw;
    Run one;
    for (int slice = 0; slice < 4; ++slice) {
      raw.Add(RawSyncedAppends(dir, seconds / 4));
      one.Add(SyncedWrites(dir + "/writes", 1, seconds / 4));
    }
    std::printf("raw 100-byte append + fdatasync     %10.0f /s\n", raw.rate());
    PrintWrites(1, one);
    std::printf("  one writer / raw                  %10.2f\n", one.rate() / raw.rate());
    for (int threads : {8, 32, 128}) {
      const Run run = SyncedWrites(dir + "/writes", threads, seconds);
      PrintWrites(threads, run);
      if (threads == 32) std::printf("  32 writers / one writer           %10.2f\n", run.rate() / one.rate());
    }
  }

  constexpr uint64_t kKeys = 200000;
  {
    std::unique_ptr<LsmDb> db = Load(dir + "/memtable", kKeys, /*to_tables=*/false);
    PointReads(db.get(), kKeys, seconds, "the memtable");
    FullScan(db.get(), kKeys, "the memtable");
  }
  {
    std::unique_ptr<LsmDb> db = Load(dir + "/tables", kKeys, /*to_tables=*/true);
    std::printf("(%llu table files)\n", static_cast<unsigned long long>(db->TableFileCount()));
    PointReads(db.get(), kKeys, seconds, "table files");
    FullScan(db.get(), kKeys, "table files");
  }
  if (own_dir) std::filesystem::remove_all(dir);
  return 0;
}
