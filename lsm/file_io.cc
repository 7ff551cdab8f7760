#include "lsm/file_io.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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
int FileIo::Mkdir(const char* path, mode_t mode) { return ::mkdir(path, mode); }
int FileIo::Stat(const char* path, struct stat* st) { return ::stat(path, st); }
int FileIo::Fstat(int fd, struct stat* st) { return ::fstat(fd, st); }

int FileIo::ListDirectory(const char* dir, std::vector<std::string>* names) {
  DIR* d = ::opendir(dir);
  if (d == nullptr) return -1;
  names->clear();
  // readdir reports an error only through errno, so it is cleared first: a
  // listing cut short by a failed read must not pass for a whole one.
  for (;;) {
    errno = 0;
    const struct dirent* entry = ::readdir(d);
    if (entry == nullptr) break;
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
      names->emplace_back(entry->d_name);
    }
  }
  const int error = errno;
  ::closedir(d);
  if (error != 0) {
    errno = error;
    return -1;
  }
  return 0;
}

FileIo* DefaultFileIo() {
  static FileIo io;
  return &io;
}

Status WriteFully(FileIo* io, int fd, const char* data, size_t size, const char* error_prefix) {
  while (size > 0) {
    const ssize_t n = io->Write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      const int error = n == 0 ? ENOSPC : errno;
      return Status::Corruption(std::string(error_prefix) + std::strerror(error));
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return Status::OK();
}

Status SyncDirectory(FileIo* io, const std::string& dir) {
  const int fd = io->Open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  if (fd < 0) return Status::Corruption("dir sync " + dir + ": " + std::strerror(errno));
  const int rc = io->Fsync(fd);
  const int error = errno;
  io->Close(fd);
  if (rc != 0) return Status::Corruption("dir sync " + dir + ": " + std::strerror(error));
  return Status::OK();
}

}  // namespace kandb::lsm
