#ifndef KANDB_TOOLS_COMMAND_LINE_H_
#define KANDB_TOOLS_COMMAND_LINE_H_

// The options of one tool command ("kandb-meta-ctl tso", "kandb-meta-bench"):
// "--name VALUE" or "--name=VALUE", switches without a value, repeatable
// options, positional arguments, "--" to end the options, and "--help".
// Every value is checked as it is parsed; the first error ends the parse
// with one line naming the command and the option.

#include <cstdint>
#include <cstdio>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "common/status.h"

namespace kandb::tools {

// Exit statuses shared by the tools.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;  // the command ran and failed (or found damage)
inline constexpr int kExitUsage = 2;    // bad command line or bad input document

class CommandLine {
 public:
  // `command` is how the usage names the command, e.g. "kandb-meta-ctl tso";
  // `summary` is one line saying what it does.
  CommandLine(std::string command, std::string summary);
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // The targets must outlive Parse; they keep their values when the option
  // is absent, so callers set defaults before adding.
  void AddString(const std::string& name, std::string* target, const std::string& help);
  void AddUint(const std::string& name, uint64_t* target, uint64_t max, const std::string& help);
  void AddSwitch(const std::string& name, bool* target, const std::string& help);
  // May be given any number of times; each value is appended.
  void AddRepeated(const std::string& name, std::vector<std::string>* target, const std::string& help);
  // Arguments that are not options, between `min` and `max` of them.
  void SetPositional(const std::string& name, std::vector<std::string>* target, size_t min,
                     size_t max, const std::string& help);
  // What the usage line shows after "[options]" in place of the positional
  // name, for arguments with a shape of their own ("[remove] ID").
  void SetSynopsis(std::string text) { synopsis_ = std::move(text); }
  // Free text printed after the option list (examples, formats).
  void SetEpilogue(std::string text) { epilogue_ = std::move(text); }

  // Parses `args` (without the program and command names). Returns -1 when
  // the command should run, kExitOk after "--help" wrote the usage to `out`,
  // or kExitUsage after an error line and a hint were written to `err`.
  int Parse(const std::vector<std::string>& args, std::FILE* out, std::FILE* err);

  // Whether the option was given on the command line (after Parse).
  bool Given(const std::string& name) const;
  std::string Usage() const;

 private:
  enum class Kind { kString, kUint, kSwitch, kRepeated };
  struct Option {
    std::string name;
    Kind kind;
    void* target;
    uint64_t max;
    std::string help;
    bool given = false;
  };

  Option* Find(const std::string& name);
  Status Store(Option* option, const std::string& value);

  const std::string command_;
  const std::string summary_;
  std::vector<Option> options_;
  std::string positional_name_;
  std::string positional_help_;
  std::vector<std::string>* positional_ = nullptr;
  size_t positional_min_ = 0;
  size_t positional_max_ = 0;
  std::string synopsis_;
  std::string epilogue_;
};

// An option that every command of a program takes, and that may therefore
// stand before the command name too: "kandb-meta-ctl --addr H:P tso".
struct SharedOption {
  const char* name;  // without the leading "--"
  bool takes_value;  // false for a switch
};

// Splits "[shared options] COMMAND [options]": *command becomes the first
// argument that is not a shared option (nullopt when there is none), and
// *command_args the shared options found before it followed by everything
// after it, so that the command's own parser checks them (values, repeats)
// exactly as when they are typed after the command. Fails only when the
// last argument is a shared option that lacks its value; the message is
// "--NAME needs a value", as the command's parser words it.
Status SplitSharedOptions(const std::vector<std::string>& args, std::span<const SharedOption> shared,
                          std::optional<std::string>* command, std::vector<std::string>* command_args);

}  // namespace kandb::tools

#endif  // KANDB_TOOLS_COMMAND_LINE_H_
