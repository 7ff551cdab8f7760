#include "lsm/manifest.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "lsm/filename.h"

namespace kandb::lsm {

namespace {

std::string ManifestText(const ManifestState& state) {
  std::string text;
  char line[64];
  std::snprintf(line, sizeof(line), "next_file %llu\n", static_cast<unsigned long long>(state.next_file));
  text += line;
  for (uint64_t number : state.sst_files) {
    std::snprintf(line, sizeof(line), "sst %llu\n", static_cast<unsigned long long>(number));
    text += line;
  }
  return text;
}

Status ManifestError(const char* what, int error) {
  return Status::Corruption(std::string(what) + std::strerror(error));
}

// Parses manifest text with exactly the rules of a stream scan of
// "%31s %llu" records: the text is scanned through a memory stream, so
// that odd bytes (a NUL, an overlong word, a sign before the number) are
// treated just as a read straight from the file would treat them.
void ParseManifest(const std::string& text, ManifestState* state) {
  state->sst_files.clear();
  if (text.empty()) return;
  std::FILE* f = ::fmemopen(const_cast<char*>(text.data()), text.size(), "r");
  if (f == nullptr) return;
  // A line that does not scan as a word and a number ends the reading
  // quietly: what came before it counts, the rest is ignored. Unknown words
  // are skipped so that records added later do not break older readers.
  char word[32];
  unsigned long long number = 0;
  while (std::fscanf(f, "%31s %llu", word, &number) == 2) {
    if (std::strcmp(word, "next_file") == 0) {
      state->next_file = number;
    } else if (std::strcmp(word, "sst") == 0) {
      state->sst_files.push_back(number);
    }
  }
  std::fclose(f);
}

}  // namespace

Status WriteManifest(FileIo* io, const std::string& dir, const ManifestState& state, bool* published) {
  if (published != nullptr) *published = false;
  const std::string path = ManifestFileName(dir);
  const std::string tmp = TempFileName(path);
  int fd = io->Open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return ManifestError("manifest create: ", errno);

  // Until the rename the old MANIFEST stays in force, so every step before
  // it may fail without harm; a crash leaves at worst a stray MANIFEST.tmp,
  // which the next write truncates. What is renamed into place must be
  // whole and on disk: an empty or torn manifest reads as naming fewer
  // tables, and the next open would delete the others as orphans.
  const std::string text = ManifestText(state);
  Status s = WriteFully(io, fd, text.data(), text.size(), "manifest write: ");
  if (s.ok() && io->Fsync(fd) != 0) s = ManifestError("manifest fsync: ", errno);
  if (io->Close(fd) != 0 && s.ok()) s = ManifestError("manifest close: ", errno);
  if (!s.ok()) return s;

  if (io->Rename(tmp.c_str(), path.c_str()) != 0) return Status::Corruption("manifest rename failed");
  if (published != nullptr) *published = true;
  // The rename is durable only once the directory is.
  return SyncDirectory(io, dir);
}

Status ReadManifest(FileIo* io, const std::string& dir, ManifestState* state, bool* exists) {
  const std::string path = ManifestFileName(dir);
  const int fd = io->Open(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) {
    if (errno == ENOENT) {
      *exists = false;
      return Status::OK();
    }
    return ManifestError("manifest open: ", errno);
  }
  // A manifest is a few lines; it is read whole, and a failed read fails
  // the reading rather than passing for the end of the file.
  std::string text;
  char buf[4096];
  for (;;) {
    const ssize_t n = io->Read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int error = errno;
      io->Close(fd);
      return ManifestError("manifest read: ", error);
    }
    if (n == 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  io->Close(fd);
  *exists = true;
  ParseManifest(text, state);
  return Status::OK();
}

}  // namespace kandb::lsm
