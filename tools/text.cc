#include "tools/text.h"

#include <cstdio>
#include <ctime>

namespace kandb::tools {

namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string EscapeBytes(std::string_view bytes) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size());
  for (char c : bytes) {
    const auto b = static_cast<unsigned char>(c);
    if (b == '\\') {
      out += "\\\\";
    } else if (b >= 0x20 && b < 0x7f) {
      out.push_back(c);
    } else {
      out += "\\x";
      out.push_back(kHex[b >> 4]);
      out.push_back(kHex[b & 0xf]);
    }
  }
  return out;
}

Status UnescapeBytes(std::string_view text, std::string* out) {
  std::string result;
  result.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      result.push_back(text[i]);
      continue;
    }
    if (i + 1 < text.size() && text[i + 1] == '\\') {
      result.push_back('\\');
      i += 1;
      continue;
    }
    if (i + 3 < text.size() && text[i + 1] == 'x' && HexValue(text[i + 2]) >= 0 &&
        HexValue(text[i + 3]) >= 0) {
      result.push_back(static_cast<char>(HexValue(text[i + 2]) * 16 + HexValue(text[i + 3])));
      i += 3;
      continue;
    }
    return Status::InvalidArgument("bad escape at offset " + std::to_string(i));
  }
  *out = std::move(result);
  return Status::OK();
}

TsoParts SplitTso(uint64_t timestamp) {
  return TsoParts{timestamp >> kTsoLogicalBits, timestamp & ((uint64_t{1} << kTsoLogicalBits) - 1)};
}

std::string FormatUtcMillis(uint64_t millis) {
  const std::time_t seconds = static_cast<std::time_t>(millis / 1000);
  std::tm tm{};
  if (gmtime_r(&seconds, &tm) == nullptr) return "?";
  char text[64];
  std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03uZ", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                static_cast<unsigned>(millis % 1000));
  return text;
}

std::string FormatElapsed(uint64_t millis) {
  const unsigned long long s = millis / 1000;
  char text[64];
  if (s >= 3600) {
    std::snprintf(text, sizeof(text), "%lluh%02llum%02llus", s / 3600, s / 60 % 60, s % 60);
  } else if (s >= 60) {
    std::snprintf(text, sizeof(text), "%llum%02llus", s / 60, s % 60);
  } else {
    std::snprintf(text, sizeof(text), "%llus", s);
  }
  return text;
}

std::string FormatBytes(double bytes) {
  char text[64];
  if (bytes < 1024) {
    std::snprintf(text, sizeof(text), "%.0f B", bytes);
  } else if (bytes < 1024.0 * 1024) {
    std::snprintf(text, sizeof(text), "%.1f KiB", bytes / 1024);
  } else if (bytes < 1024.0 * 1024 * 1024) {
    std::snprintf(text, sizeof(text), "%.1f MiB", bytes / (1024.0 * 1024));
  } else if (bytes < 1024.0 * 1024 * 1024 * 1024) {
    std::snprintf(text, sizeof(text), "%.1f GiB", bytes / (1024.0 * 1024 * 1024));
  } else {
    std::snprintf(text, sizeof(text), "%.1f TiB", bytes / (1024.0 * 1024 * 1024 * 1024));
  }
  return text;
}

Status ParseUint(std::string_view text, uint64_t max, uint64_t* out) {
  std::string quoted(1, '\'');
  quoted.append(text);
  quoted += '\'';
  if (text.empty()) return Status::InvalidArgument("not a number: " + quoted);
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return Status::InvalidArgument("not a number: " + quoted);
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (value > (max - digit) / 10) {
      return Status::InvalidArgument("out of range (max " + std::to_string(max) + "): " + quoted);
    }
    value = value * 10 + digit;
  }
  *out = value;
  return Status::OK();
}

Status ParseUintList(std::string_view text, std::vector<uint64_t>* out) {
  std::vector<uint64_t> values;
  while (!text.empty()) {
    const size_t comma = text.find(',');
    uint64_t value = 0;
    Status s = ParseUint(text.substr(0, comma), UINT64_MAX, &value);
    if (!s.ok()) return s;
    values.push_back(value);
    if (comma == std::string_view::npos) break;
    text.remove_prefix(comma + 1);
    if (text.empty()) return Status::InvalidArgument("not a number: ''");
  }
  *out = std::move(values);
  return Status::OK();
}

Status ParseDurationMillis(std::string_view text, int64_t* millis) {
  const Status bad = Status::InvalidArgument("bad duration: '" + std::string(text) + "'");
  uint64_t scale = 1000;
  std::string_view digits = text;
  if (text.ends_with("ms")) {
    scale = 1;
    digits.remove_suffix(2);
  } else if (text.ends_with("s")) {
    digits.remove_suffix(1);
  } else if (text.ends_with("m")) {
    scale = 60000;
    digits.remove_suffix(1);
  }
  uint64_t value = 0;
  // A day is far beyond any run of these tools; the bound keeps the
  // multiplication below from overflowing.
  if (!ParseUint(digits, 86400000, &value).ok()) return bad;
  *millis = static_cast<int64_t>(value * scale);
  return Status::OK();
}

}  // namespace kandb::tools
