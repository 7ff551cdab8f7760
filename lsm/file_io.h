#ifndef KANDB_LSM_FILE_IO_H_
#define KANDB_LSM_FILE_IO_H_

// The one seam through which the engine touches the file system: every
// file it opens, reads, writes, syncs, renames or removes, and every
// directory it creates, lists or syncs. The engine takes its FileIo from
// its options; tests hand it one that fails the Nth call of a kind, writes
// short, or drops what was not synced at a simulated power cut.

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "common/status.h"

namespace kandb::lsm {

class FileIo {
 public:
  virtual ~FileIo() = default;
  // Each has the contract of the POSIX call of the same name: -1 (or a
  // negative count) with errno set on failure.
  virtual int Open(const char* path, int flags, mode_t mode);
  virtual ssize_t Write(int fd, const void* buf, size_t count);
  virtual ssize_t Read(int fd, void* buf, size_t count);
  virtual ssize_t Pread(int fd, void* buf, size_t count, off_t offset);
  virtual int Fsync(int fd);
  virtual int Fdatasync(int fd);
  virtual int Rename(const char* from, const char* to);
  virtual int Unlink(const char* path);
  virtual int Close(int fd);
  virtual int Mkdir(const char* path, mode_t mode);
  virtual int Stat(const char* path, struct stat* st);
  virtual int Fstat(int fd, struct stat* st);
  // Replaces *names with the entry names of `dir` ("." and ".." left out),
  // in the order the system lists them. 0, or -1 with errno when the
  // directory cannot be opened or read to its end.
  virtual int ListDirectory(const char* dir, std::vector<std::string>* names);
};

// The plain POSIX calls; stateless, shared by every engine that is given
// no other FileIo.
FileIo* DefaultFileIo();

// Writes all `size` bytes, continuing after short writes and EINTR. A
// failure is Corruption `error_prefix` + strerror; a write that makes no
// progress counts as ENOSPC.
Status WriteFully(FileIo* io, int fd, const char* data, size_t size, const char* error_prefix);

// fsyncs the directory itself, so that the names created, renamed or
// removed in it survive a crash. Failure: "dir sync " + dir + ": " + strerror.
Status SyncDirectory(FileIo* io, const std::string& dir);

}  // namespace kandb::lsm

#endif  // KANDB_LSM_FILE_IO_H_
