#ifndef KANDB_LSM_FILE_IO_H_
#define KANDB_LSM_FILE_IO_H_

// The one seam through which the engine's files are written, synced,
// renamed and removed. Production code calls the POSIX functions through
// CurrentFileIo(); tests install a FileIo that fails the Nth write,
// fdatasync, fsync or rename, or counts the syncs.

#include <sys/types.h>

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
};

// The FileIo in force; never null. Defaults to the plain POSIX calls.
FileIo* CurrentFileIo();

// Installs `io` for the lifetime of the object and restores the previous
// one afterwards. For tests; install before the engine is opened.
class ScopedFileIo {
 public:
  explicit ScopedFileIo(FileIo* io);
  ~ScopedFileIo();
  ScopedFileIo(const ScopedFileIo&) = delete;
  ScopedFileIo& operator=(const ScopedFileIo&) = delete;

 private:
  FileIo* previous_;
};

}  // namespace kandb::lsm

#endif  // KANDB_LSM_FILE_IO_H_
