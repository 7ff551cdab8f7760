// engine_load_bench: loads keys of 16 bytes with 100-byte values through
// the engine, and through RocksDB when the build found it, and prints for
// each what the load cost: peak memory growth (VmHWM from /proc/self/status
// before and after), bytes written to storage, time, and whether every key
// reads back with its value, by point reads and by one full scan.
//
//   engine_load_bench [--keys=N] [--engine=kandb|rocksdb|both] [--dir=PATH]
//                     [--reads=N]
//
// Each engine runs in a process of its own (the program starts itself once
// per engine), so that one engine's peak does not hide the other's. Keys
// arrive in a scrambled order, in batches of 1000, without fdatasync: the
// load is bound by the engine, not by the disk's sync latency. Both engines
// get a 64 MiB write buffer.

#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "lsm/db.h"

#ifdef KANDB_HAVE_ROCKSDB
#include <rocksdb/db.h>
#include <rocksdb/iterator.h>
#include <rocksdb/options.h>
#include <rocksdb/write_batch.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kBatch = 1000;
constexpr size_t kValueSize = 100;
constexpr uint64_t kWriteBuffer = 64ull << 20;

double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

// Key i: "k" and 15 digits of i scrambled by an odd multiplier modulo 2^48,
// a one-to-one map, so the keys are distinct and arrive out of order.
std::string KeyOf(uint64_t i) {
  char buf[24];
  std::snprintf(buf, sizeof(buf), "k%015" PRIu64, static_cast<uint64_t>((i * 0x9E3779B97F4A7C15ull) & ((1ull << 48) - 1)));
  return buf;
}

// 100 bytes that differ from key to key, so that a value read back for the
// wrong key is noticed.
std::string ValueOf(uint64_t i) {
  std::string v(kValueSize, 'v');
  char buf[24];
  const int n = std::snprintf(buf, sizeof(buf), "%" PRIu64 "-", i);
  for (size_t at = 0; at + n <= kValueSize; at += n) std::memcpy(v.data() + at, buf, n);
  return v;
}

long StatusKiB(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const size_t n = std::strlen(field);
  while (std::getline(status, line)) {
    if (line.compare(0, n, field) == 0) return std::atol(line.c_str() + n);
  }
  return -1;
}

// Bytes this process caused to be sent to storage.
uint64_t StorageWriteBytes() {
  std::ifstream io("/proc/self/io");
  std::string name;
  uint64_t value = 0;
  while (io >> name >> value) {
    if (name == "write_bytes:") return value;
  }
  return 0;
}

uint64_t DirectoryBytes(const std::string& dir) {
  uint64_t total = 0;
  for (const auto& e : std::filesystem::recursive_directory_iterator(dir)) {
    if (e.is_regular_file()) total += e.file_size();
  }
  return total;
}

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "engine_load_bench: %s\n", what.c_str());
  std::exit(1);
}

// What the benchmark needs of an engine; failures end the program.
class Engine {
 public:
  virtual ~Engine() = default;
  virtual void Write(const std::vector<std::pair<std::string, std::string>>& batch) = 0;
  // Returns once no flush or compaction is pending.
  virtual void WaitIdle() = 0;
  // Table files in use, where the engine says (0 otherwise).
  virtual uint64_t TableFiles() { return 0; }
  virtual bool Get(const std::string& key, std::string* value) = 0;
  // Calls fn for every live key in order; returns the number of keys.
  virtual uint64_t ScanAll(const std::function<void(const std::string&, const std::string&)>& fn) = 0;
};

class KandbEngine : public Engine {
 public:
  explicit KandbEngine(const std::string& dir) {
    kandb::lsm::LsmDb::Options options;
    options.write_buffer_size = kWriteBuffer;
    options.sync = false;
    kandb::Status s = kandb::lsm::LsmDb::Open(dir, options, &db_);
    if (!s.ok()) Die("open: " + s.ToString());
  }
  void Write(const std::vector<std::pair<std::string, std::string>>& batch) override {
    kandb::lsm::WriteBatch b;
    b.reserve(batch.size());
    for (const auto& [k, v] : batch) b.push_back({kandb::lsm::kOpPut, k, v});
    kandb::Status s = db_->Write(b);
    if (!s.ok()) Die("write: " + s.ToString());
  }
  void WaitIdle() override { db_->WaitForBackgroundIdle(); }
  uint64_t TableFiles() override { return db_->TableFileCount(); }
  bool Get(const std::string& key, std::string* value) override {
    bool found = false;
    kandb::Status s = db_->Get(key, value, &found);
    if (!s.ok()) Die("get: " + s.ToString());
    return found;
  }
  uint64_t ScanAll(const std::function<void(const std::string&, const std::string&)>& fn) override {
    // In pages, as a client would: one Scan of everything would hold the
    // whole database in its result.
    uint64_t n = 0;
    std::string start;
    std::vector<kandb::lsm::Entry> page;
    for (;;) {
      kandb::Status s = db_->Scan(start, "", 10000, &page);
      if (!s.ok()) Die("scan: " + s.ToString());
      for (const auto& e : page) fn(e.key, e.value);
      n += page.size();
      if (page.size() < 10000) return n;
      start = page.back().key + '\0';
    }
  }

 private:
  std::unique_ptr<kandb::lsm::LsmDb> db_;
};

#ifdef KANDB_HAVE_ROCKSDB
class RocksEngine : public Engine {
 public:
  explicit RocksEngine(const std::string& dir) {
    rocksdb::Options options;
    options.create_if_missing = true;
    options.write_buffer_size = kWriteBuffer;
    rocksdb::DB* db = nullptr;
    rocksdb::Status s = rocksdb::DB::Open(options, dir, &db);
    if (!s.ok()) Die("rocksdb open: " + s.ToString());
    db_.reset(db);
  }
  void Write(const std::vector<std::pair<std::string, std::string>>& batch) override {
    rocksdb::WriteBatch b;
    for (const auto& [k, v] : batch) b.Put(k, v);
    rocksdb::Status s = db_->Write(rocksdb::WriteOptions(), &b);
    if (!s.ok()) Die("rocksdb write: " + s.ToString());
  }
  void WaitIdle() override {
    for (;;) {
      uint64_t flushes = 0, compactions = 0, pending = 0, flush_pending = 0;
      db_->GetIntProperty("rocksdb.num-running-flushes", &flushes);
      db_->GetIntProperty("rocksdb.num-running-compactions", &compactions);
      db_->GetIntProperty("rocksdb.compaction-pending", &pending);
      db_->GetIntProperty("rocksdb.mem-table-flush-pending", &flush_pending);
      if (flushes + compactions + pending + flush_pending == 0) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  bool Get(const std::string& key, std::string* value) override {
    rocksdb::Status s = db_->Get(rocksdb::ReadOptions(), key, value);
    if (s.IsNotFound()) return false;
    if (!s.ok()) Die("rocksdb get: " + s.ToString());
    return true;
  }
  uint64_t ScanAll(const std::function<void(const std::string&, const std::string&)>& fn) override {
    std::unique_ptr<rocksdb::Iterator> it(db_->NewIterator(rocksdb::ReadOptions()));
    uint64_t n = 0;
    for (it->SeekToFirst(); it->Valid(); it->Next(), ++n) fn(it->key().ToString(), it->value().ToString());
    if (!it->status().ok()) Die("rocksdb scan: " + it->status().ToString());
    return n;
  }

 private:
  std::unique_ptr<rocksdb::DB> db_;
};
#endif

int RunOne(const std::string& engine, const std::string& dir, uint64_t keys, uint64_t reads) {
  std::filesystem::remove_all(dir);
  const long hwm_before = StatusKiB("VmHWM:");
  const uint64_t written_before = StorageWriteBytes();
  std::unique_ptr<Engine> db;
  if (engine == "kandb") db = std::make_unique<KandbEngine>(dir);
#ifdef KANDB_HAVE_ROCKSDB
  if (engine == "rocksdb") db = std::make_unique<RocksEngine>(dir);
#endif
  if (db == nullptr) Die("unknown or unavailable engine " + engine);

  const auto start = Clock::now();
  std::vector<std::pair<std::string, std::string>> batch;
  for (uint64_t i = 0; i < keys; i += kBatch) {
    batch.clear();
    for (uint64_t j = i; j < i + kBatch && j < keys; ++j) batch.emplace_back(KeyOf(j), ValueOf(j));
    db->Write(batch);
  }
  const double load_seconds = Seconds(start);
  db->WaitIdle();
  const double idle_seconds = Seconds(start);
  const uint64_t tables = db->TableFiles();
  const long hwm_after = StatusKiB("VmHWM:");
  const uint64_t written = StorageWriteBytes() - written_before;

  // Read-back: random keys by point reads, then every key by one scan.
  std::mt19937_64 rng(7);
  uint64_t wrong = 0;
  std::string value;
  auto read_start = Clock::now();
  for (uint64_t n = 0; n < reads; ++n) {
    const uint64_t i = rng() % keys;
    if (!db->Get(KeyOf(i), &value) || value != ValueOf(i)) ++wrong;
  }
  const double read_seconds = Seconds(read_start);
  uint64_t scanned_bad = 0;
  std::string previous;
  read_start = Clock::now();
  const uint64_t scanned = db->ScanAll([&](const std::string& k, const std::string& v) {
    // Keys come in order; the value's leading number names the key it was
    // written under.
    const uint64_t i = std::strtoull(v.c_str(), nullptr, 10);
    if (k <= previous || k != KeyOf(i) || v != ValueOf(i)) ++scanned_bad;
    previous = k;
  });
  const double scan_seconds = Seconds(read_start);

  std::printf("%-8s %9" PRIu64 " keys  peak memory +%7.1f MiB (VmHWM %.1f -> %.1f MiB)  written %7.1f MiB "
              "(%.1f MiB on disk)\n",
              engine.c_str(), keys, (hwm_after - hwm_before) / 1024.0, hwm_before / 1024.0, hwm_after / 1024.0,
              written / 1048576.0, DirectoryBytes(dir) / 1048576.0);
  std::printf("%-8s   load %.1f s (%.0f keys/s), idle after %.1f s", engine.c_str(), load_seconds,
              keys / load_seconds, idle_seconds);
  if (tables > 0) std::printf(" with %" PRIu64 " table files", tables);
  std::printf("; %" PRIu64 " point reads %.0f /s, %" PRIu64 " wrong; full scan %" PRIu64 " keys %.0f keys/s, %" PRIu64
              " wrong\n",
              reads, reads / read_seconds, wrong, scanned, scanned / scan_seconds, scanned_bad);
  std::fflush(stdout);
  db.reset();
  std::filesystem::remove_all(dir);
  return wrong == 0 && scanned == keys && scanned_bad == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t keys = 5000000;
  uint64_t reads = 200000;
  std::string engine = "both";
  std::string dir;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("--keys=", 0) == 0) {
      keys = std::strtoull(arg.c_str() + 7, nullptr, 10);
    } else if (arg.rfind("--reads=", 0) == 0) {
      reads = std::strtoull(arg.c_str() + 8, nullptr, 10);
    } else if (arg.rfind("--engine=", 0) == 0) {
      engine = arg.substr(9);
    } else if (arg.rfind("--dir=", 0) == 0) {
      dir = arg.substr(6);
    } else {
      std::fprintf(stderr, "usage: engine_load_bench [--keys=N] [--engine=kandb|rocksdb|both] [--dir=PATH] "
                           "[--reads=N]\n");
      return 2;
    }
  }
  if (keys == 0) Die("--keys must be positive");
  if (dir.empty()) {
    const char* base = std::getenv("TMPDIR");
    dir = std::string(base != nullptr ? base : "/tmp") + "/engine-load-bench-" + std::to_string(::getpid());
  }
  if (engine != "both") return RunOne(engine, dir, keys, reads);

  std::vector<std::string> engines = {"kandb"};
#ifdef KANDB_HAVE_ROCKSDB
  engines.push_back("rocksdb");
#else
  std::printf("(built without RocksDB: install librocksdb-dev and reconfigure to compare)\n");
#endif
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  int rc = 0;
  for (const std::string& e : engines) {
    std::fflush(stdout);
    const std::string command = self + " --engine=" + e + " --keys=" + std::to_string(keys) +
                                " --reads=" + std::to_string(reads) + " --dir=" + dir;
    if (std::system(command.c_str()) != 0) rc = 1;
  }
  return rc;
}
