// kandb-meta-inspect: shows what a state directory holds without changing
// it, also while the server runs: the manifest, every log and table file,
// where each log's replay would stop and why, each table's layout, and the
// live records decoded. --verify checks every checksum and every record
// and exits with status 1 when it finds damage, naming the file and offset.
//
// Every file is opened read-only and nothing is created, renamed or
// deleted. The running server may flush or compact while we read; when the
// manifest changes under us, or a file we were about to read is gone, the
// whole reading starts again (a few times at most).

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "common/coding.h"
#include "lsm/filename.h"
#include "lsm/log.h"
#include "lsm/manifest.h"
#include "lsm/memtable.h"
#include "lsm/scan_iterator.h"
#include "lsm/state_dir.h"
#include "lsm/table.h"
#include "meta/keys.h"
#include "pdpb/messages.h"
#include "tools/command_line.h"
#include "tools/describe.h"
#include "tools/safe_point_view.h"
#include "tools/text.h"

namespace kandb::tools {
namespace {

constexpr char kProgram[] = "kandb-meta-inspect";
constexpr int kAttempts = 3;

struct Options {
  std::string dir;
  bool verify = false;
  bool records = true;
};

// One finding of damage: the file (its name in the directory), the byte
// offset it concerns, and what is wrong there.
struct Problem {
  std::string file;
  uint64_t offset;
  std::string what;
};

std::string Base(const std::string& path) { return path.substr(path.rfind('/') + 1); }

struct LogReport {
  std::string name;
  bool vanished = false;
  std::string open_error;
  uint64_t records = 0;
  uint64_t entries = 0;
  lsm::LogEnd end = lsm::LogEnd::kCleanEnd;
  uint64_t end_offset = 0;
  std::string end_detail;
};

struct TableReport {
  std::string name;
  uint64_t number = 0;
  bool live = false;
  bool vanished = false;
  std::string open_error;
  std::shared_ptr<lsm::SstReader> reader;
  uint64_t records = 0;
  uint64_t deletions = 0;
  std::string first_key;
  std::string last_key;
  bool damaged = false;
};

// Everything one consistent reading of the directory found.
struct Snapshot {
  bool manifest_exists = false;
  lsm::ManifestState manifest;
  lsm::StateDirectory listing;
  std::vector<LogReport> logs;
  std::vector<TableReport> tables;  // live ones in manifest order, then orphans
  std::shared_ptr<lsm::MemTable> mem;
  std::vector<Problem> problems;
  // The directory changed while it was read; the reading must start again.
  bool changed = false;
};

void ReadManifestFile(const std::string& dir, Snapshot* snap) {
  Status s = lsm::ReadManifest(lsm::DefaultFileIo(), dir, &snap->manifest, &snap->manifest_exists);
  if (!s.ok()) {
    snap->problems.push_back({"MANIFEST", 0, s.message()});
    return;
  }
  if (!snap->manifest_exists) return;
  // The manifest reader skips unknown records and stops quietly at a
  // malformed line, dropping the rest; more lines than records taken shows
  // that it skipped or dropped something.
  std::ifstream in(lsm::ManifestFileName(dir), std::ios::binary);
  std::string line;
  uint64_t lines = 0;
  while (std::getline(in, line)) {
    if (!line.empty()) ++lines;
  }
  const uint64_t taken = 1 + snap->manifest.sst_files.size();
  if (lines > taken) {
    snap->problems.push_back({"MANIFEST", 0,
                              std::to_string(lines) + " lines but only " + std::to_string(taken) +
                                  " next_file and sst records were taken; the others were skipped or ended "
                                  "the reading"});
  }
}

// Replays every log in ascending number order into snap->mem, as the engine
// does at open, and records where each replay stops.
void ReadLogs(const std::string& dir, Snapshot* snap) {
  for (uint64_t number : snap->listing.Numbers(lsm::FileKind::kLog)) {
    LogReport report;
    const std::string path = lsm::LogFileName(dir, number);
    report.name = Base(path);
    std::unique_ptr<lsm::LogReader> reader;
    Status s = lsm::LogReader::Open(lsm::DefaultFileIo(), path, &reader);
    if (s.IsNotFound()) {
      // Listed but gone: a flush of the running server deleted it, or only
      // a non-canonical name carries the number (the engine reads nothing then).
      report.vanished = true;
      bool canonical_listed = false;
      for (const lsm::StateFile& f : snap->listing.files()) {
        canonical_listed = canonical_listed || f.name == report.name;
      }
      if (canonical_listed) snap->changed = true;
      snap->logs.push_back(std::move(report));
      continue;
    }
    if (!s.ok()) {
      report.open_error = s.message();
      snap->problems.push_back({report.name, 0, s.message()});
      snap->logs.push_back(std::move(report));
      continue;
    }
    lsm::WriteBatch batch;
    while (reader->Next(&batch)) {
      report.records++;
      report.entries += batch.size();
      snap->mem->Apply(batch);
    }
    report.end = reader->end();
    report.end_offset = reader->end_offset();
    report.end_detail = reader->end_detail();
    if (report.end != lsm::LogEnd::kCleanEnd) {
      std::string what = lsm::LogEndName(report.end);
      if (!report.end_detail.empty()) what += " (" + report.end_detail + ")";
      snap->problems.push_back({report.name, report.end_offset, what + "; replay stops here"});
    }
    snap->logs.push_back(std::move(report));
  }
}

// Where an open failure of a table file lies: the footer for everything the
// footer's own check finds, the start of the file when it is too small.
uint64_t OpenFailureOffset(const std::string& message, uint64_t file_size) {
  if (message.rfind("sst too small", 0) == 0 || file_size < lsm::kTableFooterSize) return 0;
  return file_size - lsm::kTableFooterSize;
}

// Reads every record of an open table: they must parse up to the index,
// in strictly ascending key order. With `deep`, also checks the footer's
// entry count, that the index names every sixteenth record by key and
// offset, and that the filter admits every key.
void CheckTable(TableReport* table, bool deep, std::vector<Problem>* problems) {
  const lsm::SstReader& reader = *table->reader;
  const lsm::SstReader::Layout& layout = reader.layout();
  auto problem = [&](uint64_t offset, const std::string& what) {
    problems->push_back({table->name, offset, what});
    table->damaged = true;
  };
  std::unique_ptr<lsm::SstIterator> it = reader.NewIterator(lsm::kCompactionReadBuffer);
  Status s = it->Seek("");
  const auto& index = reader.index();
  bool filter_reported = false;
  bool index_reported = false;
  while (s.ok() && it->Valid()) {
    const uint64_t ordinal = table->records;
    if (ordinal > 0 && !(table->last_key < it->key())) {
      problem(it->record_offset(), "key " + Quote(it->key()) + " is not above the previous key " +
                                       Quote(table->last_key));
      return;
    }
    if (ordinal == 0) table->first_key = it->key();
    table->last_key = it->key();
    if (it->op() != lsm::kOpPut) table->deletions++;
    if (deep && ordinal % lsm::kTableIndexInterval == 0 && !index_reported) {
      const size_t slot = ordinal / lsm::kTableIndexInterval;
      if (slot >= index.size() || index[slot].first != it->key() || index[slot].second != it->record_offset()) {
        problem(layout.index_offset, "index entry " + std::to_string(slot) + " does not name record " +
                                         std::to_string(ordinal) + " at offset " +
                                         std::to_string(it->record_offset()));
        index_reported = true;
      }
    }
    if (deep && !filter_reported && !reader.FilterMayContain(it->key())) {
      problem(layout.filter_offset, "filter rules out the stored key " + Quote(it->key()));
      filter_reported = true;
    }
    table->records++;
    s = it->Next();
  }
  if (!s.ok()) {
    problem(it->record_offset(), s.message());
    return;
  }
  if (deep) {
    const uint64_t footer = layout.file_size - lsm::kTableFooterSize;
    if (table->records != reader.entry_count()) {
      problem(footer, "footer counts " + std::to_string(reader.entry_count()) + " entries, the data holds " +
                          std::to_string(table->records));
    }
    const uint64_t indexed = (table->records + lsm::kTableIndexInterval - 1) / lsm::kTableIndexInterval;
    if (!index_reported && index.size() != indexed) {
      problem(layout.index_offset, "index has " + std::to_string(index.size()) + " entries, " +
                                       std::to_string(indexed) + " expected");
    }
  }
}

void ReadTables(const std::string& dir, bool deep, Snapshot* snap) {
  std::vector<std::pair<uint64_t, bool>> order;  // number, live
  for (uint64_t number : snap->manifest.sst_files) order.push_back({number, true});
  for (uint64_t number : snap->listing.OrphanTables(snap->manifest)) order.push_back({number, false});
  for (const auto& [number, live] : order) {
    TableReport table;
    table.number = number;
    table.live = live;
    const std::string path = lsm::TableFileName(dir, number);
    table.name = Base(path);
    struct stat st;
    const int stat_rc = ::stat(path.c_str(), &st);
    if (stat_rc != 0 && errno == ENOENT) {
      table.vanished = true;
      if (live) {
        // Either a compaction of the running server replaced it (the
        // manifest will differ when read again) or it is lost.
        snap->problems.push_back({table.name, 0, "table file named by the manifest is missing"});
      }
      snap->tables.push_back(std::move(table));
      continue;
    }
    Status s = lsm::SstReader::Open(lsm::DefaultFileIo(), path, &table.reader);
    if (!s.ok()) {
      table.open_error = s.message();
      table.damaged = true;
      if (live) {
        // A file that cannot even be stat'ed has no footer to point at.
        const uint64_t size = stat_rc == 0 ? static_cast<uint64_t>(st.st_size) : 0;
        snap->problems.push_back({table.name, OpenFailureOffset(s.message(), size), s.message()});
      }
      snap->tables.push_back(std::move(table));
      continue;
    }
    std::vector<Problem> found;
    CheckTable(&table, deep, &found);
    // An orphan is deleted at the next open and never read; its damage is
    // shown with it but is not damage of the state.
    if (live) snap->problems.insert(snap->problems.end(), found.begin(), found.end());
    snap->tables.push_back(std::move(table));
  }
}

Snapshot ReadOnce(const std::string& dir, bool deep) {
  Snapshot snap;
  snap.mem = std::make_shared<lsm::MemTable>();
  Status s = lsm::StateDirectory::List(lsm::DefaultFileIo(), dir, &snap.listing);
  if (!s.ok()) {
    snap.problems.push_back({"", 0, s.message()});
    return snap;
  }
  ReadManifestFile(dir, &snap);
  const size_t tables_listed = snap.listing.Numbers(lsm::FileKind::kTable).size();
  if (!snap.manifest_exists && tables_listed > 0) {
    // Without a manifest no table is live: the next open deletes them all.
    snap.problems.push_back({"MANIFEST", 0, "missing, but " + std::to_string(tables_listed) +
                                                " table files are present; the next open deletes them"});
  }
  ReadLogs(dir, &snap);
  ReadTables(dir, deep, &snap);
  // A flush or compaction that finished meanwhile rewrote the manifest.
  lsm::ManifestState again;
  again.next_file = snap.manifest.next_file;
  bool exists = false;
  if (lsm::ReadManifest(lsm::DefaultFileIo(), dir, &again, &exists).ok() &&
      (exists != snap.manifest_exists || again.sst_files != snap.manifest.sst_files ||
       again.next_file != snap.manifest.next_file)) {
    snap.changed = true;
  }
  return snap;
}

std::string U(uint64_t v) { return std::to_string(v); }

void PrintFiles(const Snapshot& snap) {
  std::printf("files (%zu)\n", snap.listing.files().size());
  size_t width = 0;
  for (const lsm::StateFile& f : snap.listing.files()) width = std::max(width, f.name.size());
  for (const lsm::StateFile& f : snap.listing.files()) {
    std::string what;
    if (f.name == "MANIFEST") {
      what = "manifest";
    } else if (f.kind == lsm::FileKind::kLog) {
      what = "log " + U(f.number);
      if (f.name != Base(lsm::LogFileName("", f.number))) what += ", not its canonical name: never replayed";
    } else if (f.kind == lsm::FileKind::kTable) {
      const bool live = std::find(snap.manifest.sst_files.begin(), snap.manifest.sst_files.end(), f.number) !=
                        snap.manifest.sst_files.end();
      what = "table " + U(f.number);
      if (f.name != Base(lsm::TableFileName("", f.number))) {
        what += ", not its canonical name: never read";
      } else {
        what += live ? ", live" : ", orphan: not in the manifest, deleted at the next open";
      }
    } else {
      what = "not a file of the engine";
    }
    if (f.stat_error != 0) {
      // Whatever opening it meets is shown with the logs and tables below.
      std::printf("  %-*s %10s bytes  %s; cannot stat: %s\n", static_cast<int>(width), f.name.c_str(), "?",
                  what.c_str(), std::strerror(f.stat_error));
      continue;
    }
    std::printf("  %-*s %10llu bytes  %s\n", static_cast<int>(width), f.name.c_str(),
                static_cast<unsigned long long>(f.size), what.c_str());
  }
}

void PrintLogs(const Snapshot& snap) {
  std::printf("logs, replayed in this order (%zu)\n", snap.logs.size());
  for (const LogReport& log : snap.logs) {
    if (log.vanished) {
      std::printf("  %s  absent: nothing to replay\n", log.name.c_str());
      continue;
    }
    if (!log.open_error.empty()) {
      std::printf("  %s  cannot be read: %s\n", log.name.c_str(), log.open_error.c_str());
      continue;
    }
    std::printf("  %s  %llu records, %llu entries; replay stops at offset %llu: %s", log.name.c_str(),
                static_cast<unsigned long long>(log.records), static_cast<unsigned long long>(log.entries),
                static_cast<unsigned long long>(log.end_offset), lsm::LogEndName(log.end));
    if (!log.end_detail.empty()) std::printf(" (%s)", log.end_detail.c_str());
    std::printf("\n");
  }
}

void PrintTables(const Snapshot& snap) {
  std::printf("tables, newest first (%zu)\n", snap.tables.size());
  for (const TableReport& t : snap.tables) {
    const char* role = t.live ? "live" : "orphan";
    if (t.vanished) {
      std::printf("  %s  %s, missing\n", t.name.c_str(), role);
      continue;
    }
    if (t.reader == nullptr) {
      std::printf("  %s  %s, cannot be opened: %s\n", t.name.c_str(), role, t.open_error.c_str());
      continue;
    }
    const lsm::SstReader::Layout& l = t.reader->layout();
    std::printf("  %s  %s, footer at %llu: %llu entries (%llu deletions), data 0..%llu, "
                "index %zu entries (%llu bytes at %llu), filter %llu bytes at %llu\n",
                t.name.c_str(), role, static_cast<unsigned long long>(l.file_size - lsm::kTableFooterSize),
                static_cast<unsigned long long>(t.reader->entry_count()),
                static_cast<unsigned long long>(t.deletions), static_cast<unsigned long long>(l.index_offset),
                t.reader->index_entries(), static_cast<unsigned long long>(l.index_size),
                static_cast<unsigned long long>(l.index_offset), static_cast<unsigned long long>(l.filter_size),
                static_cast<unsigned long long>(l.filter_offset));
    if (t.reader->has_checksums()) {
      std::printf("    checksums of %zu runs (%llu bytes at %llu)\n", t.reader->index_entries(),
                  static_cast<unsigned long long>(l.checksum_size), static_cast<unsigned long long>(l.checksum_offset));
    } else {
      std::printf("    no checksum block: written before tables had one, its records cannot be checked\n");
    }
    if (t.records > 0) {
      std::printf("    keys %s .. %s\n", Quote(t.first_key).c_str(), Quote(t.last_key).c_str());
    }
  }
}

bool StartsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

// The readable form of one live record, by the kind its key says it is.
// Records that do not decode are problems of the state.
std::string DescribeRecord(const std::string& key, const std::string& value, std::vector<Problem>* problems) {
  auto bad = [&](const std::string& what) {
    problems->push_back({"record " + Quote(key), 0, what});
    return what + ": " + std::to_string(value.size()) + " bytes";
  };
  if (key == meta::kBootstrappedKey) {
    return value == "1" ? "bootstrap marker" : "bootstrap marker with value " + Quote(value);
  }
  if (key == meta::kIdAllocKey) {
    if (value.size() != 8) return bad("identifier mark is not 8 bytes");
    return "identifier mark " + std::to_string(DecodeFixed64(value.data())) +
           " (identifiers resume here after a restart)";
  }
  if (StartsWith(key, meta::kStorePrefix)) {
    pdpb::Store store;
    if (!pdpb::Decode(value.size(), value.data(), &store)) return bad("store record does not decode");
    std::string text = DescribeStore(store);
    if (meta::StoreKey(store.id) != key) text += "  (id does not match the key)";
    return text;
  }
  if (StartsWith(key, meta::kRegionPrefix)) {
    pdpb::Region region;
    if (!pdpb::Decode(value.size(), value.data(), &region)) return bad("region record does not decode");
    std::string text = DescribeRegion(region, false);
    if (meta::RegionKey(region.id) != key) text += "  (id does not match the key)";
    for (const pdpb::Peer& peer : region.peers) text += "\n      " + DescribePeer(peer);
    return text;
  }
  if (key == meta::kGcSafePointKey) {
    if (value.size() != 8) return bad("gc safe point is not 8 bytes");
    return "gc safe point " + SafePointText(DecodeFixed64(value.data())) + " (never answered lower)";
  }
  if (StartsWith(key, meta::kServiceSafePointPrefix)) {
    pdpb::ServiceSafePoint entry;
    if (!pdpb::Decode(value.size(), value.data(), &entry)) return bad("service safe point does not decode");
    // Expiry against this machine's clock: what the server would count now.
    const auto now_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    std::string text = ServiceSafePointLine(entry, static_cast<uint64_t>(now_ms.count()));
    if (meta::ServiceSafePointKey(entry.service_id) != key) text += "  (service id does not match the key)";
    return text;
  }
  return "unknown key, value " + Quote(value);
}

// Merges the logs' records over the tables newest first, as the engine's
// reads do, and prints the live records. Damaged tables are left out of the
// merge, so what they hid is shown as it would be without them.
void PrintRecords(const Snapshot& snap, bool print, std::vector<Problem>* problems) {
  auto view = std::make_shared<lsm::ReadView>();
  view->memtables.push_back(snap.mem);
  for (const TableReport& t : snap.tables) {
    if (t.live && t.reader != nullptr && !t.damaged) view->tables.push_back(t.reader);
  }
  lsm::ScanIterator it(std::move(view), "", "");
  Status s = it.Init();
  std::vector<std::pair<std::string, std::string>> lines;
  std::map<std::string, uint64_t> counts;
  while (s.ok() && it.Valid()) {
    const std::string key(it.key());
    lines.emplace_back(key, DescribeRecord(key, std::string(it.value()), problems));
    counts[StartsWith(key, meta::kStorePrefix)    ? "stores"
           : StartsWith(key, meta::kRegionPrefix) ? "regions"
                                                   : "other"]++;
    s = it.Next();
  }
  if (!s.ok()) problems->push_back({"", 0, "merging the records failed: " + s.message()});
  std::printf("live records (%zu: %llu stores, %llu regions, %llu other)\n", lines.size(),
              static_cast<unsigned long long>(counts["stores"]), static_cast<unsigned long long>(counts["regions"]),
              static_cast<unsigned long long>(counts["other"]));
  if (!print) return;
  for (const auto& [key, text] : lines) std::printf("  %s  %s\n", EscapeBytes(key).c_str(), text.c_str());
}

std::string DescribeProblem(const Problem& p) {
  if (p.file.empty()) return p.what;
  if (StartsWith(p.file, "record ")) return p.file + ": " + p.what;
  return p.file + " at offset " + U(p.offset) + ": " + p.what;
}

int Main(int argc, char** argv) {
  Options options;
  bool no_records = false;
  std::vector<std::string> dirs;
  CommandLine cl(kProgram,
                 "Shows what a kandb-meta state directory holds, without changing it (safe while the "
                 "server runs).");
  cl.SetPositional("DIR", &dirs, 1, 1, "the state directory (the server's --data_dir)");
  cl.AddSwitch("verify", &options.verify,
               "check every log checksum, every table footer, run checksum, record, index entry and "
               "filter, and name the tables that have no run checksums; "
               "exit 1 on damage");
  cl.AddSwitch("no-records", &no_records, "count the live records but do not list them");
  cl.SetEpilogue(
      "Exit status: 0 read (and with --verify: no damage), 1 damage found with --verify,\n"
      "2 bad command line or unreadable directory. Keys are shown escaped: bytes outside\n"
      "printable ASCII as \\xNN, a backslash as \\\\.\n");
  std::vector<std::string> args(argv + 1, argv + argc);
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  options.dir = dirs[0];
  options.records = !no_records;

  struct stat st;
  if (::stat(options.dir.c_str(), &st) != 0) {
    std::fprintf(stderr, "%s: %s: %s\n", kProgram, options.dir.c_str(), std::strerror(errno));
    return kExitUsage;
  }
  if (!S_ISDIR(st.st_mode)) {
    std::fprintf(stderr, "%s: %s: not a directory\n", kProgram, options.dir.c_str());
    return kExitUsage;
  }

  Snapshot snap;
  int attempt = 0;
  for (;;) {
    snap = ReadOnce(options.dir, options.verify);
    if (!snap.changed || ++attempt >= kAttempts) break;
  }
  if (!snap.problems.empty() && snap.problems[0].file.empty() && snap.listing.files().empty()) {
    std::fprintf(stderr, "%s: %s\n", kProgram, snap.problems[0].what.c_str());
    return kExitUsage;
  }

  std::printf("state directory %s\n", options.dir.c_str());
  if (snap.manifest_exists) {
    std::string live;
    for (uint64_t n : snap.manifest.sst_files) live += " " + U(n);
    std::printf("manifest: next_file %llu, %zu live tables (newest first):%s\n",
                static_cast<unsigned long long>(snap.manifest.next_file), snap.manifest.sst_files.size(),
                live.empty() ? " none" : live.c_str());
  } else {
    std::printf("manifest: none (a fresh directory; the server writes one when it opens it)\n");
  }
  if (snap.changed) std::printf("note: the directory kept changing while it was read; shown as last read\n");
  PrintFiles(snap);
  PrintLogs(snap);
  PrintTables(snap);
  PrintRecords(snap, options.records, &snap.problems);

  if (snap.problems.empty()) {
    std::printf("problems: none\n");
  } else {
    std::printf("problems (%zu)\n", snap.problems.size());
    for (const Problem& p : snap.problems) std::printf("  %s\n", DescribeProblem(p).c_str());
  }
  if (!options.verify) return kExitOk;
  // Not damage: such a table is read as before, only without the checks.
  std::string unchecked;
  for (const TableReport& t : snap.tables) {
    if (t.live && t.reader != nullptr && !t.reader->has_checksums()) unchecked += " " + t.name;
  }
  if (!unchecked.empty()) std::printf("verify: tables without a checksum block, records unchecked:%s\n", unchecked.c_str());
  if (snap.problems.empty()) {
    std::printf("verify: no damage found\n");
    return kExitOk;
  }
  std::printf("verify: %zu problems\n", snap.problems.size());
  for (const Problem& p : snap.problems) std::fprintf(stderr, "%s: damage: %s\n", kProgram, DescribeProblem(p).c_str());
  return kExitFailure;
}

}  // namespace
}  // namespace kandb::tools

int main(int argc, char** argv) { return kandb::tools::Main(argc, argv); }
