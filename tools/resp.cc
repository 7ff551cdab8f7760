#include "tools/resp.h"

#include <charconv>

namespace kandb::tools::resp {
namespace {

constexpr std::string_view kEnd = "\r\n";

// The line at the start of `in` without its end: *found false when the end
// has not arrived yet.
Status TakeLine(std::string_view in, std::string_view* line, bool* found) {
  const size_t end = in.find(kEnd);
  *found = end != std::string_view::npos;
  if ((*found ? end : in.size()) > kMaxLineLength) {
    return Status::Corruption("resp: line longer than " + std::to_string(kMaxLineLength) + " bytes");
  }
  if (*found) *line = in.substr(0, end);
  return Status::OK();
}

}  // namespace

void AppendCommand(std::string* out, std::initializer_list<std::string_view> args) {
  out->append("*").append(std::to_string(args.size())).append(kEnd);
  for (std::string_view arg : args) {
    out->append("$").append(std::to_string(arg.size())).append(kEnd);
    out->append(arg).append(kEnd);
  }
}

Status ParseReply(std::string_view in, Reply* reply, size_t* size) {
  *size = 0;
  if (in.empty()) return Status::OK();
  const char type = in[0];
  if (type != '+' && type != '-' && type != ':' && type != '$') {
    return Status::Corruption(std::string("resp: unexpected reply type '") + type + "'");
  }
  std::string_view line;
  bool found = false;
  Status s = TakeLine(in.substr(1), &line, &found);
  if (!s.ok() || !found) return s;
  const size_t head = 1 + line.size() + kEnd.size();
  if (type != '$') {
    if (type == ':' && (line.empty() || line.find_first_not_of("-0123456789") != std::string_view::npos)) {
      return Status::Corruption("resp: bad integer '" + std::string(line) + "'");
    }
    reply->type = type;
    reply->text.assign(line);
    reply->null = false;
    *size = head;
    return Status::OK();
  }
  if (line == "-1") {
    reply->type = type;
    reply->text.clear();
    reply->null = true;
    *size = head;
    return Status::OK();
  }
  size_t length = 0;
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), length);
  if (error != std::errc() || end != line.data() + line.size() || line.empty()) {
    return Status::Corruption("resp: bad bulk length '" + std::string(line) + "'");
  }
  if (length > kMaxBulkLength) return Status::Corruption("resp: bulk of " + std::string(line) + " bytes is too long");
  if (in.size() < head + length + kEnd.size()) return Status::OK();
  if (in.substr(head + length, kEnd.size()) != kEnd) {
    return Status::Corruption("resp: bulk not followed by its line end");
  }
  reply->type = type;
  reply->text.assign(in.substr(head, length));
  reply->null = false;
  *size = head + length + kEnd.size();
  return Status::OK();
}

}  // namespace kandb::tools::resp
