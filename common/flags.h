#ifndef KANDB_COMMON_FLAGS_H_
#define KANDB_COMMON_FLAGS_H_

// The process-wide command-line flag registry. Modules define flags during
// static initialisation; the entry point parses the command line once and
// code reads the values through the pointers the definitions returned.
//
//   static int64_t* port = kandb::DefineInt64Flag("port", 2379, "listen port");
//   int main(int argc, char** argv) { kandb::ParseFlags(argc, argv); ... }

#include <cstdint>
#include <cstdio>
#include <deque>
#include <string>
#include <variant>

namespace kandb {

class FlagRegistry {
 public:
  FlagRegistry() = default;
  FlagRegistry(const FlagRegistry&) = delete;
  FlagRegistry& operator=(const FlagRegistry&) = delete;

  // The registry shared by the whole process, created on first use so that
  // definitions from static initialisers in any order find it ready.
  static FlagRegistry* Global();

  // Each definition returns a pointer to the flag's value, valid for the
  // registry's lifetime. A name defined twice ends the process (status 1).
  int64_t* DefineInt64(const std::string& name, int64_t default_value, const std::string& help);
  bool* DefineBool(const std::string& name, bool default_value, const std::string& help);
  std::string* DefineString(const std::string& name, const std::string& default_value,
                            const std::string& help);

  // Parses argv[1..argc-1] and stores the values. Returns -1 when the
  // program should go on, or the exit status it should end with ("--help":
  // 0, any error: 1) after the messages were written to `err`.
  int Parse(int argc, const char* const* argv, std::FILE* err);

  // Writes "usage: <program> [flags]" and one line per flag, in definition order.
  void PrintUsage(const char* program, std::FILE* err) const;

 private:
  struct Flag {
    std::string name;
    std::string help;
    std::string default_text;
    std::variant<int64_t, bool, std::string> value;
  };

  Flag* Find(const std::string& name);
  Flag* Add(const std::string& name, const std::string& help, std::string default_text);

  // A deque never moves its elements, so value pointers stay valid as flags are added.
  std::deque<Flag> flags_;
};

inline int64_t* DefineInt64Flag(const std::string& name, int64_t default_value,
                                const std::string& help) {
  return FlagRegistry::Global()->DefineInt64(name, default_value, help);
}
inline bool* DefineBoolFlag(const std::string& name, bool default_value, const std::string& help) {
  return FlagRegistry::Global()->DefineBool(name, default_value, help);
}
inline std::string* DefineStringFlag(const std::string& name, const std::string& default_value,
                                     const std::string& help) {
  return FlagRegistry::Global()->DefineString(name, default_value, help);
}

// Parses the process's command line with the global registry. Ends the
// process on "--help" (status 0) and on any error (status 1).
void ParseFlags(int argc, char** argv);

}  // namespace kandb

#endif  // KANDB_COMMON_FLAGS_H_
