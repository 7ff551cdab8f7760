#include "common/flags.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kandb {

FlagRegistry* FlagRegistry::Global() {
  static FlagRegistry* registry = new FlagRegistry();  // never destroyed: flags outlive main
  return registry;
}

FlagRegistry::Flag* FlagRegistry::Find(const std::string& name) {
  for (Flag& flag : flags_) {
    if (flag.name == name) return &flag;
  }
  return nullptr;
}

FlagRegistry::Flag* FlagRegistry::Add(const std::string& name, const std::string& help,
                                      std::string default_text) {
  if (Find(name) != nullptr) {
    std::fprintf(stderr, "duplicate flag definition: --%s\n", name.c_str());
    std::exit(1);
  }
  flags_.push_back(Flag{name, help, std::move(default_text), {}});
  return &flags_.back();
}

int64_t* FlagRegistry::DefineInt64(const std::string& name, int64_t default_value,
                                   const std::string& help) {
  Flag* flag = Add(name, help, std::to_string(default_value));
  flag->value = default_value;
  return &std::get<int64_t>(flag->value);
}

bool* FlagRegistry::DefineBool(const std::string& name, bool default_value,
                               const std::string& help) {
  Flag* flag = Add(name, help, default_value ? "true" : "false");
  flag->value = default_value;
  return &std::get<bool>(flag->value);
}

std::string* FlagRegistry::DefineString(const std::string& name, const std::string& default_value,
                                        const std::string& help) {
  Flag* flag = Add(name, help, default_value);
  flag->value = default_value;
  return &std::get<std::string>(flag->value);
}

void FlagRegistry::PrintUsage(const char* program, std::FILE* err) const {
  std::fprintf(err, "usage: %s [flags]\n", program);
  for (const Flag& flag : flags_) {
    std::fprintf(err, "  --%-20s %s (default: %s)\n", flag.name.c_str(), flag.help.c_str(),
                 flag.default_text.c_str());
  }
}

namespace {

// Base-10 conversion as strtoll does it (leading white space and a sign are
// accepted), requiring a non-empty text consumed whole and within range.
bool ParseInt64(const std::string& text, int64_t* out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  long long value = std::strtoll(text.c_str(), &end, 10);
  if (errno == ERANGE || end != text.c_str() + text.size() || end == text.c_str()) return false;
  *out = value;
  return true;
}

// An empty attached value ("--flag=") deliberately means false.
bool ParseBool(const std::string& text, bool* out) {
  if (text == "true" || text == "1") {
    *out = true;
  } else if (text == "false" || text == "0" || text.empty()) {
    *out = false;
  } else {
    return false;
  }
  return true;
}

}  // namespace

int FlagRegistry::Parse(int argc, const char* const* argv, std::FILE* err) {
  if (argc < 2) return -1;
  const char* program = argv[0];
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      PrintUsage(program, err);
      return 0;
    }
    if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
      std::fprintf(err, "unexpected argument: %s\n", arg.c_str());
      PrintUsage(program, err);
      return 1;
    }
    const std::string rest = arg.substr(2);
    const size_t eq = rest.find('=');
    const bool has_value = eq != std::string::npos;
    const std::string name = has_value ? rest.substr(0, eq) : rest;
    Flag* flag = Find(name);
    if (flag == nullptr) {
      std::fprintf(err, "unknown flag: --%.*s\n", static_cast<int>(name.size()), name.data());
      PrintUsage(program, err);
      return 1;
    }
    std::string value;
    if (has_value) {
      value = rest.substr(eq + 1);
    } else if (std::holds_alternative<bool>(flag->value)) {
      flag->value = true;
      continue;
    } else if (i + 1 < argc) {
      value = argv[++i];  // taken whatever it looks like, "--port" included
    } else {
      std::fprintf(err, "flag --%s requires a value\n", name.c_str());
      return 1;
    }

    bool converted = true;
    if (auto* int_value = std::get_if<int64_t>(&flag->value)) {
      int64_t parsed = 0;
      converted = ParseInt64(value, &parsed);
      if (converted) *int_value = parsed;
    } else if (auto* bool_value = std::get_if<bool>(&flag->value)) {
      bool parsed = false;
      converted = ParseBool(value, &parsed);
      if (converted) *bool_value = parsed;
    } else {
      std::get<std::string>(flag->value) = value;
    }
    if (!converted) {
      std::fprintf(err, "bad value for --%s: '%.*s'\n", name.c_str(),
                   static_cast<int>(value.size()), value.data());
      return 1;
    }
  }
  return -1;
}

void ParseFlags(int argc, char** argv) {
  const int exit_status = FlagRegistry::Global()->Parse(argc, argv, stderr);
  if (exit_status >= 0) std::exit(exit_status);
}

}  // namespace kandb
