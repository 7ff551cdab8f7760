#include "lsm/state_dir.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kandb::lsm {

Status StateDirectory::List(FileIo* io, const std::string& dir, StateDirectory* out) {
  std::vector<std::string> names;
  if (io->ListDirectory(dir.c_str(), &names) != 0) {
    return Status::Corruption("list " + dir + ": " + std::strerror(errno));
  }
  std::vector<StateFile> files;
  files.reserve(names.size());
  for (std::string& name : names) {
    StateFile file;
    const std::string path = dir + "/" + name;
    struct stat st;
    if (io->Stat(path.c_str(), &st) == 0) {
      file.size = static_cast<uint64_t>(st.st_size);
    } else if (errno == ENOENT) {
      continue;
    } else {
      file.stat_error = errno;
    }
    file.kind = ParseFileName(name, &file.number);
    file.name = std::move(name);
    files.push_back(std::move(file));
  }
  std::sort(files.begin(), files.end(), [](const StateFile& a, const StateFile& b) { return a.name < b.name; });
  out->files_ = std::move(files);
  return Status::OK();
}

std::vector<uint64_t> StateDirectory::Numbers(FileKind kind) const {
  std::vector<uint64_t> numbers;
  for (const StateFile& f : files_) {
    if (f.kind == kind) numbers.push_back(f.number);
  }
  std::sort(numbers.begin(), numbers.end());
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  return numbers;
}

std::vector<uint64_t> StateDirectory::OrphanTables(const ManifestState& manifest) const {
  std::vector<uint64_t> orphans;
  for (uint64_t number : Numbers(FileKind::kTable)) {
    if (std::find(manifest.sst_files.begin(), manifest.sst_files.end(), number) == manifest.sst_files.end()) {
      orphans.push_back(number);
    }
  }
  return orphans;
}

uint64_t StateDirectory::NextFileAfter(uint64_t next_file) const {
  for (const StateFile& f : files_) {
    if (f.kind != FileKind::kOther && f.number >= next_file) next_file = f.number + 1;
  }
  return next_file;
}

}  // namespace kandb::lsm
