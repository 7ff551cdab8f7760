#ifndef KANDB_LSM_FILENAME_H_
#define KANDB_LSM_FILENAME_H_

// Every file name of the state directory is built here.

#include <cstdint>
#include <string>

namespace kandb::lsm {

// dir + "/wal-%06llu.log"
std::string LogFileName(const std::string& dir, uint64_t number);
// dir + "/sst-%06llu.sst"
std::string TableFileName(const std::string& dir, uint64_t number);
// dir + "/MANIFEST"
std::string ManifestFileName(const std::string& dir);
// path + ".tmp": where a whole-file publication is written before its rename.
std::string TempFileName(const std::string& path);

enum class FileKind { kLog, kTable, kOther };

// Classifies a directory entry name by its prefix only: "wal-%llu.log" and
// then "sst-%llu.sst" as sscanf matches them, so "wal-7.tmp" is log 7 and
// "sst-3.sst.part" is table 3. Sets *number for kLog and kTable.
FileKind ParseFileName(const std::string& name, uint64_t* number);

}  // namespace kandb::lsm

#endif  // KANDB_LSM_FILENAME_H_
