#ifndef KANDB_COMMON_FUZZ_UTIL_H_
#define KANDB_COMMON_FUZZ_UTIL_H_

// Helpers shared by the libFuzzer targets.
//
// Seed corpora are not kept in the tree: every target writes its own, made
// by the project's writers, when started as
//   <target> --write-seeds=DIR
// (handled in LLVMFuzzerInitialize, before libFuzzer reads its flags), so
// the seeds always match the formats as the code writes them today.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <string>
#include <vector>

#include "common/test_util.h"

// A property a target checks beyond "does not crash": a violation aborts,
// which libFuzzer records as a finding with the input that caused it.
#define KANDB_FUZZ_CHECK(condition)                                                    \
  do {                                                                                 \
    if (!(condition)) {                                                                \
      std::fprintf(stderr, "fuzz check failed at %s:%d: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                    \
    }                                                                                  \
  } while (0)

namespace kandb::fuzzing {

inline constexpr char kWriteSeedsFlag[] = "--write-seeds=";

// If the command line holds --write-seeds=DIR, makes DIR afresh and
// writes each of make_seeds() there as seed-NNN, then ends the process:
// status 0 on success, 1 when a file cannot be written. Otherwise returns.
template <class MakeSeeds>
void MaybeWriteSeeds(int argc, char** argv, MakeSeeds make_seeds) {
  const size_t flag_length = std::strlen(kWriteSeedsFlag);
  for (int i = 1; i < argc; i++) {
    if (std::strncmp(argv[i], kWriteSeedsFlag, flag_length) != 0) continue;
    const std::string dir = argv[i] + flag_length;
    testing::RemoveTree(dir);
    const std::vector<std::string> seeds = make_seeds();
    std::error_code error;
    if (dir.empty() || !std::filesystem::create_directories(dir, error)) {
      std::fprintf(stderr, "cannot create seed directory %s\n", dir.c_str());
      std::exit(1);
    }
    for (size_t n = 0; n < seeds.size(); n++) {
      char name[32];
      std::snprintf(name, sizeof(name), "/seed-%03zu", n);
      testing::WriteFileOrDie(dir + name, seeds[n]);
    }
    std::printf("%zu seeds written to %s\n", seeds.size(), dir.c_str());
    std::exit(0);
  }
}

// A scratch directory for this process, for targets that hand file contents
// to a reader by path. It lies in /dev/shm when there is one, so that the
// writes and syncs of every execution stay in memory. Made on first use and
// removed at normal exit; a finding (abort) leaves it behind.
inline const std::string& ScratchDir() {
  struct Scratch {
    std::string path;
    ~Scratch() { testing::RemoveTree(path); }
  };
  static const Scratch scratch{[] {
    std::string templ = (access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
    templ += "/kandb-fuzz-XXXXXX";
    if (mkdtemp(templ.data()) == nullptr) std::abort();
    return templ;
  }()};
  return scratch.path;
}

// Writes `size` bytes at `data` to `path`, replacing the file. Aborts on
// failure: a target that cannot write its input tests nothing.
inline void WriteInputFile(const std::string& path, const uint8_t* data, size_t size) {
  testing::WriteFileOrDie(path, std::string(reinterpret_cast<const char*>(data), size));
}

}  // namespace kandb::fuzzing

#endif  // KANDB_COMMON_FUZZ_UTIL_H_
