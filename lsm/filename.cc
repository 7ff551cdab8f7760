#include "lsm/filename.h"

#include <cstdio>

namespace kandb::lsm {

namespace {

std::string NumberedName(const std::string& dir, const char* format, uint64_t number) {
  char name[64];
  std::snprintf(name, sizeof(name), format, static_cast<unsigned long long>(number));
  return dir + name;
}

}  // namespace

std::string LogFileName(const std::string& dir, uint64_t number) {
  return NumberedName(dir, "/wal-%06llu.log", number);
}

std::string TableFileName(const std::string& dir, uint64_t number) {
  return NumberedName(dir, "/sst-%06llu.sst", number);
}

std::string ManifestFileName(const std::string& dir) { return dir + "/MANIFEST"; }

std::string TempFileName(const std::string& path) { return path + ".tmp"; }

FileKind ParseFileName(const std::string& name, uint64_t* number) {
  // sscanf stops comparing once the number is converted, so only the prefix
  // and the digits decide: a leftover "sst-3.sst.tmp" still raises the file
  // counter past 3 when the directory is listed at open.
  unsigned long long n = 0;
  if (std::sscanf(name.c_str(), "wal-%llu.log", &n) == 1) {
    *number = n;
    return FileKind::kLog;
  }
  if (std::sscanf(name.c_str(), "sst-%llu.sst", &n) == 1) {
    *number = n;
    return FileKind::kTable;
  }
  return FileKind::kOther;
}

}  // namespace kandb::lsm
