#ifndef KANDB_COMMON_STATUS_H_
#define KANDB_COMMON_STATUS_H_

#include <cstdint>
#include <string>
#include <utility>

namespace kandb {

// The result of every fallible operation: a numeric kind and a message.
// A default-constructed Status is success. Failures are values, never
// exceptions; callers test ok() before using any output argument.
class [[nodiscard]] Status {
 public:
  enum Code : uint32_t {
    kOk = 0,
    kInvalidArgument = 1,
    kCorruption = 2,
    kNotFound = 3,
    // The server cannot serve now (not the leader, its replicated store out
    // of reach); the same request may succeed later or elsewhere. Only the
    // replicated server produces it.
    kUnavailable = 4,
  };

  Status() = default;
  // Stores `message` unchanged. Any code is accepted; codes outside the
  // table above render with the kind text "Unknown".
  Status(uint32_t code, std::string message) : code_(code), message_(std::move(message)) {}

  static Status OK() { return Status(); }
  static Status InvalidArgument(std::string message) {
    return Status(kInvalidArgument, std::move(message));
  }
  static Status Corruption(std::string message) { return Status(kCorruption, std::move(message)); }
  static Status NotFound(std::string message) { return Status(kNotFound, std::move(message)); }
  static Status Unavailable(std::string message) {
    return Status(kUnavailable, std::move(message));
  }

  bool ok() const { return code_ == kOk; }
  bool IsInvalidArgument() const { return code_ == kInvalidArgument; }
  bool IsCorruption() const { return code_ == kCorruption; }
  bool IsNotFound() const { return code_ == kNotFound; }
  bool IsUnavailable() const { return code_ == kUnavailable; }

  uint32_t code() const { return code_; }
  const std::string& message() const { return message_; }

  // "OK" for success whatever the message holds; otherwise the kind text,
  // ": " and the message (the separator is written even for an empty message).
  std::string ToString() const;

 private:
  uint32_t code_ = kOk;
  std::string message_;
};

}  // namespace kandb

#endif  // KANDB_COMMON_STATUS_H_
