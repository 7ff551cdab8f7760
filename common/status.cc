#include "common/status.h"

namespace kandb {

namespace {

const char* KindText(uint32_t code) {
  switch (code) {
    case Status::kOk:
      return "OK";
    case Status::kInvalidArgument:
      return "InvalidArgument";
    case Status::kCorruption:
      return "Corruption";
    case Status::kNotFound:
      return "NotFound";
    case Status::kUnavailable:
      return "Unavailable";
    default:
      return "Unknown";
  }
}

}  // namespace

std::string Status::ToString() const {
  if (ok()) return "OK";
  std::string out = KindText(code_);
  out.append(": ");
  out.append(message_);
  return out;
}

}  // namespace kandb
