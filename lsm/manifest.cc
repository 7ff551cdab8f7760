#include "lsm/manifest.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "lsm/file_io.h"
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

}  // namespace

Status WriteManifest(const std::string& dir, const ManifestState& state) {
  const std::string path = ManifestFileName(dir);
  const std::string tmp = TempFileName(path);
  FileIo* io = CurrentFileIo();
  int fd = io->Open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return Status::Corruption(std::string("manifest create: ") + std::strerror(errno));

  // The results of the write, the fsync and the close are deliberately not
  // checked; only a failed rename is reported. Until the rename the old
  // MANIFEST stays in force, and a crash leaves at worst a stray
  // MANIFEST.tmp, which the next write truncates.
  const std::string text = ManifestText(state);
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    ssize_t n = io->Write(fd, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    p += n;
    left -= static_cast<size_t>(n);
  }
  io->Fsync(fd);
  io->Close(fd);

  if (io->Rename(tmp.c_str(), path.c_str()) != 0) return Status::Corruption("manifest rename failed");
  return Status::OK();
}

Status ReadManifest(const std::string& dir, ManifestState* state, bool* exists) {
  const std::string path = ManifestFileName(dir);
  std::FILE* f = std::fopen(path.c_str(), "r");
  if (f == nullptr) {
    if (errno == ENOENT) {
      *exists = false;
      return Status::OK();
    }
    return Status::Corruption(std::string("manifest open: ") + std::strerror(errno));
  }
  *exists = true;
  state->sst_files.clear();
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
  return Status::OK();
}

}  // namespace kandb::lsm
