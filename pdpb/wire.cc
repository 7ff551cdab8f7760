#include "pdpb/wire.h"

namespace kandb::pdpb {

namespace {

// Appends the 6-byte record header with one append call.
void AppendHeader(std::string* out, uint32_t tag, uint64_t length) {
  char header[kFieldHeaderSize];
  EncodeFixed16(header, static_cast<uint16_t>(tag));
  EncodeFixed32(header + 2, static_cast<uint32_t>(length));
  out->append(header, sizeof(header));
}

}  // namespace

void AppendField(std::string* out, uint32_t tag, uint64_t length, const char* data) {
  AppendHeader(out, tag, length);
  out->append(data, static_cast<size_t>(length));
}

void AppendU64Field(std::string* out, uint32_t tag, uint64_t value) {
  // Header and value are built together so the record costs one append.
  char record[kIntegerFieldSize];
  EncodeFixed16(record, static_cast<uint16_t>(tag));
  EncodeFixed32(record + 2, 8);
  EncodeFixed64(record + kFieldHeaderSize, value);
  out->append(record, sizeof(record));
}

void AppendBoolField(std::string* out, uint32_t tag, bool value) {
  AppendHeader(out, tag, 1);
  out->push_back(value ? '\1' : '\0');
}

}  // namespace kandb::pdpb
