#include "tools/command_line.h"

#include "tools/text.h"

namespace kandb::tools {

CommandLine::CommandLine(std::string command, std::string summary)
    : command_(std::move(command)), summary_(std::move(summary)) {}

void CommandLine::AddString(const std::string& name, std::string* target, const std::string& help) {
  options_.push_back(Option{name, Kind::kString, target, 0, help});
}

void CommandLine::AddUint(const std::string& name, uint64_t* target, uint64_t max,
                          const std::string& help) {
  options_.push_back(Option{name, Kind::kUint, target, max, help});
}

void CommandLine::AddSwitch(const std::string& name, bool* target, const std::string& help) {
  options_.push_back(Option{name, Kind::kSwitch, target, 0, help});
}

void CommandLine::AddRepeated(const std::string& name, std::vector<std::string>* target,
                              const std::string& help) {
  options_.push_back(Option{name, Kind::kRepeated, target, 0, help});
}

void CommandLine::SetPositional(const std::string& name, std::vector<std::string>* target,
                                size_t min, size_t max, const std::string& help) {
  positional_name_ = name;
  positional_ = target;
  positional_min_ = min;
  positional_max_ = max;
  positional_help_ = help;
}

CommandLine::Option* CommandLine::Find(const std::string& name) {
  for (Option& option : options_) {
    if (option.name == name) return &option;
  }
  return nullptr;
}

bool CommandLine::Given(const std::string& name) const {
  for (const Option& option : options_) {
    if (option.name == name) return option.given;
  }
  return false;
}

Status CommandLine::Store(Option* option, const std::string& value) {
  option->given = true;
  switch (option->kind) {
    case Kind::kString:
      *static_cast<std::string*>(option->target) = value;
      return Status::OK();
    case Kind::kUint:
      return ParseUint(value, option->max, static_cast<uint64_t*>(option->target));
    case Kind::kSwitch:
      *static_cast<bool*>(option->target) = true;
      return Status::OK();
    case Kind::kRepeated:
      static_cast<std::vector<std::string>*>(option->target)->push_back(value);
      return Status::OK();
  }
  return Status::OK();
}

std::string CommandLine::Usage() const {
  std::string text = "usage: " + command_ + " [options]";
  if (!synopsis_.empty()) {
    text += " " + synopsis_;
  } else if (positional_ != nullptr) {
    text += " ";
    text += positional_min_ == 0 ? "[" + positional_name_ + "]" : positional_name_;
    if (positional_max_ > 1) text += "...";
  }
  text += "\n" + summary_ + "\n";
  if (positional_ != nullptr && !positional_help_.empty()) {
    text += "\n  " + positional_name_ + "\n      " + positional_help_ + "\n";
  }
  text += "\noptions:\n";
  for (const Option& option : options_) {
    std::string head = "  --" + option.name;
    if (option.kind == Kind::kUint) head += " N";
    if (option.kind == Kind::kString || option.kind == Kind::kRepeated) head += " VALUE";
    text += head + "\n      " + option.help + "\n";
  }
  text += "  --help\n      print this help and exit\n";
  if (!epilogue_.empty()) text += "\n" + epilogue_;
  return text;
}

int CommandLine::Parse(const std::vector<std::string>& args, std::FILE* out, std::FILE* err) {
  auto fail = [&](const std::string& message) {
    std::fprintf(err, "%s: %s\n(see %s --help)\n", command_.c_str(), message.c_str(), command_.c_str());
    return kExitUsage;
  };
  std::vector<std::string> positional;
  bool options_ended = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (options_ended || arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
      positional.push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_ended = true;
      continue;
    }
    if (arg == "--help") {
      std::fputs(Usage().c_str(), out);
      return kExitOk;
    }
    const size_t eq = arg.find('=');
    const std::string name = arg.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
    Option* option = Find(name);
    if (option == nullptr) return fail("unknown option --" + name);
    std::string value;
    if (option->kind == Kind::kSwitch) {
      if (eq != std::string::npos) return fail("--" + name + " takes no value");
    } else if (eq != std::string::npos) {
      value = arg.substr(eq + 1);
    } else if (i + 1 < args.size()) {
      value = args[++i];
    } else {
      return fail("--" + name + " needs a value");
    }
    if (option->given && option->kind != Kind::kRepeated && option->kind != Kind::kSwitch) {
      return fail("--" + name + " given twice");
    }
    Status s = Store(option, value);
    if (!s.ok()) return fail("--" + name + ": " + s.message());
  }
  if (positional_ == nullptr && !positional.empty()) return fail("unexpected argument '" + positional[0] + "'");
  if (positional_ != nullptr) {
    if (positional.size() < positional_min_) return fail("missing " + positional_name_);
    if (positional.size() > positional_max_) {
      return fail("unexpected argument '" + positional[positional_max_] + "'");
    }
    *positional_ = std::move(positional);
  }
  return -1;
}

Status SplitSharedOptions(const std::vector<std::string>& args, std::span<const SharedOption> shared,
                          std::optional<std::string>* command, std::vector<std::string>* command_args) {
  std::vector<std::string> hoisted;
  size_t i = 0;
  for (; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg.size() < 3 || arg.compare(0, 2, "--") != 0) break;
    const size_t eq = arg.find('=');
    const std::string name = arg.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
    const SharedOption* option = nullptr;
    for (const SharedOption& candidate : shared) {
      if (name == candidate.name) option = &candidate;
    }
    if (option == nullptr) break;  // the command, or something the caller reports as one
    hoisted.push_back(arg);
    if (option->takes_value && eq == std::string::npos) {
      if (i + 1 == args.size()) return Status::InvalidArgument("--" + name + " needs a value");
      hoisted.push_back(args[++i]);
    }
  }
  command->reset();
  if (i < args.size()) {
    *command = args[i];
    hoisted.insert(hoisted.end(), args.begin() + static_cast<ptrdiff_t>(i) + 1, args.end());
  }
  *command_args = std::move(hoisted);
  return Status::OK();
}

}  // namespace kandb::tools
