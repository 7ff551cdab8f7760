#include "lsm/file_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>

namespace kandb::lsm {

int FileIo::Open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
ssize_t FileIo::Write(int fd, const void* buf, size_t count) { return ::write(fd, buf, count); }
ssize_t FileIo::Read(int fd, void* buf, size_t count) { return ::read(fd, buf, count); }
ssize_t FileIo::Pread(int fd, void* buf, size_t count, off_t offset) {
  return ::pread(fd, buf, count, offset);
}
int FileIo::Fsync(int fd) { return ::fsync(fd); }
int FileIo::Fdatasync(int fd) { return ::fdatasync(fd); }
int FileIo::Rename(const char* from, const char* to) { return ::rename(from, to); }
int FileIo::Unlink(const char* path) { return ::unlink(path); }
int FileIo::Close(int fd) { return ::close(fd); }

namespace {

FileIo* DefaultFileIo() {
  static FileIo io;
  return &io;
}

// Read by the engine's background thread while a test's main thread may
// install a wrapper, hence atomic; the pointed-to object outlives its use.
std::atomic<FileIo*> current_io{nullptr};

}  // namespace

FileIo* CurrentFileIo() {
  FileIo* io = current_io.load(std::memory_order_acquire);
  return io != nullptr ? io : DefaultFileIo();
}

ScopedFileIo::ScopedFileIo(FileIo* io) : previous_(current_io.exchange(io, std::memory_order_acq_rel)) {}

ScopedFileIo::~ScopedFileIo() { current_io.store(previous_, std::memory_order_release); }

}  // namespace kandb::lsm
