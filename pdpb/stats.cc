#include "pdpb/stats.h"

#include "pdpb/wire.h"

// The same four functions per message, in the same order and with the same
// rules as messages.cc: every non-repeated field written, in ascending field
// number; repeated fields once per element; decoders count repeated records
// first so that each vector is allocated once.

namespace kandb::pdpb {

namespace {

template <typename M>
size_t MessageFieldSize(const M& message) {
  return kFieldHeaderSize + EncodedSize(message);
}

template <typename M>
size_t RepeatedMessageFieldSize(const std::vector<M>& messages) {
  size_t size = 0;
  for (const M& message : messages) size += MessageFieldSize(message);
  return size;
}

template <typename M>
void AppendRepeatedMessageField(std::string* out, uint32_t tag, const std::vector<M>& messages) {
  for (const M& message : messages) AppendMessageField(out, tag, message);
}

void AppendRepeatedU64Field(std::string* out, uint32_t tag, const std::vector<uint64_t>& values) {
  for (uint64_t value : values) AppendU64Field(out, tag, value);
}

template <typename M>
std::string EncodeReserved(const M& message) {
  std::string out;
  out.reserve(EncodedSize(message));
  EncodeTo(message, &out);
  return out;
}

}  // namespace

// ---- StatsRequest ----

size_t EncodedSize(const StatsRequest&) { return 0; }

void EncodeTo(const StatsRequest&, std::string*) {}

std::string Encode(const StatsRequest& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, StatsRequest*) {
  return DecodeFields(size, data, [](const Field&) { return true; });
}

// ---- LatencyHistogram ----

size_t EncodedSize(const LatencyHistogram& m) {
  return (m.bounds_micros.size() + m.counts.size() + 2) * kIntegerFieldSize;
}

void EncodeTo(const LatencyHistogram& m, std::string* out) {
  AppendRepeatedU64Field(out, 1, m.bounds_micros);
  AppendRepeatedU64Field(out, 2, m.counts);
  AppendU64Field(out, 3, m.count);
  AppendU64Field(out, 4, m.sum_nanos);
}

std::string Encode(const LatencyHistogram& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, LatencyHistogram* out) {
  const auto counts = CountFields<3>(size, data);
  ReserveMore(&out->bounds_micros, counts[1]);
  ReserveMore(&out->counts, counts[2]);
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadRepeatedU64(f, &out->bounds_micros);
      case 2: return ReadRepeatedU64(f, &out->counts);
      case 3: return ReadU64(f, &out->count);
      case 4: return ReadU64(f, &out->sum_nanos);
      default: return true;
    }
  });
}

// ---- ErrorCount ----

size_t EncodedSize(const ErrorCount&) { return 2 * kIntegerFieldSize; }

void EncodeTo(const ErrorCount& m, std::string* out) {
  AppendU64Field(out, 1, m.code);
  AppendU64Field(out, 2, m.count);
}

std::string Encode(const ErrorCount& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, ErrorCount* out) {
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadU32(f, &out->code);
      case 2: return ReadU64(f, &out->count);
      default: return true;
    }
  });
}

// ---- MethodStats ----

size_t EncodedSize(const MethodStats& m) {
  return kFieldHeaderSize + m.method.size() + kIntegerFieldSize + RepeatedMessageFieldSize(m.errors) +
         MessageFieldSize(m.latency);
}

void EncodeTo(const MethodStats& m, std::string* out) {
  AppendBytesField(out, 1, m.method);
  AppendU64Field(out, 2, m.requests);
  AppendRepeatedMessageField(out, 3, m.errors);
  AppendMessageField(out, 4, m.latency);
}

std::string Encode(const MethodStats& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, MethodStats* out) {
  ReserveMore(&out->errors, CountFields<4>(size, data)[3]);
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: ReadBytes(f, &out->method); return true;
      case 2: return ReadU64(f, &out->requests);
      case 3: return ReadRepeatedMessage(f, &out->errors);
      case 4: return ReadMessage(f, &out->latency);
      default: return true;
    }
  });
}

// ---- ConnectionStats ----

size_t EncodedSize(const ConnectionStats&) { return 3 * kIntegerFieldSize; }

void EncodeTo(const ConnectionStats& m, std::string* out) {
  AppendU64Field(out, 1, m.open);
  AppendU64Field(out, 2, m.accepted);
  AppendU64Field(out, 3, m.failed_accepts);
}

std::string Encode(const ConnectionStats& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, ConnectionStats* out) {
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadU64(f, &out->open);
      case 2: return ReadU64(f, &out->accepted);
      case 3: return ReadU64(f, &out->failed_accepts);
      default: return true;
    }
  });
}

// ---- EngineStats ----

size_t EncodedSize(const EngineStats& m) {
  // Fields 1-4 and 6-17 are integers.
  return 16 * kIntegerFieldSize + MessageFieldSize(m.sync_latency) + kFieldHeaderSize + m.last_fault.size();
}

void EncodeTo(const EngineStats& m, std::string* out) {
  AppendU64Field(out, 1, m.write_groups);
  AppendU64Field(out, 2, m.batches);
  AppendU64Field(out, 3, m.max_group_size);
  AppendU64Field(out, 4, m.syncs);
  AppendMessageField(out, 5, m.sync_latency);
  AppendU64Field(out, 6, m.log_bytes);
  AppendU64Field(out, 7, m.memtable_bytes);
  AppendU64Field(out, 8, m.immutable_memtables);
  AppendU64Field(out, 9, m.table_files);
  AppendU64Field(out, 10, m.table_bytes);
  AppendU64Field(out, 11, m.flushes);
  AppendU64Field(out, 12, m.flush_nanos);
  AppendU64Field(out, 13, m.compactions);
  AppendU64Field(out, 14, m.compaction_nanos);
  AppendU64Field(out, 15, m.disk_full_faults);
  AppendU64Field(out, 16, m.sync_faults);
  AppendU64Field(out, 17, m.other_faults);
  AppendBytesField(out, 18, m.last_fault);
}

std::string Encode(const EngineStats& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, EngineStats* out) {
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadU64(f, &out->write_groups);
      case 2: return ReadU64(f, &out->batches);
      case 3: return ReadU64(f, &out->max_group_size);
      case 4: return ReadU64(f, &out->syncs);
      case 5: return ReadMessage(f, &out->sync_latency);
      case 6: return ReadU64(f, &out->log_bytes);
      case 7: return ReadU64(f, &out->memtable_bytes);
      case 8: return ReadU64(f, &out->immutable_memtables);
      case 9: return ReadU64(f, &out->table_files);
      case 10: return ReadU64(f, &out->table_bytes);
      case 11: return ReadU64(f, &out->flushes);
      case 12: return ReadU64(f, &out->flush_nanos);
      case 13: return ReadU64(f, &out->compactions);
      case 14: return ReadU64(f, &out->compaction_nanos);
      case 15: return ReadU64(f, &out->disk_full_faults);
      case 16: return ReadU64(f, &out->sync_faults);
      case 17: return ReadU64(f, &out->other_faults);
      case 18: ReadBytes(f, &out->last_fault); return true;
      default: return true;
    }
  });
}

// ---- RoutingStats ----

size_t EncodedSize(const RoutingStats&) { return 3 * kIntegerFieldSize; }

void EncodeTo(const RoutingStats& m, std::string* out) {
  AppendU64Field(out, 1, m.index_regions);
  AppendU64Field(out, 2, m.index_lookups);
  AppendU64Field(out, 3, m.walk_lookups);
}

std::string Encode(const RoutingStats& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, RoutingStats* out) {
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadU64(f, &out->index_regions);
      case 2: return ReadU64(f, &out->index_lookups);
      case 3: return ReadU64(f, &out->walk_lookups);
      default: return true;
    }
  });
}

// ---- StatsResponse ----

size_t EncodedSize(const StatsResponse& m) {
  return 2 * kIntegerFieldSize + RepeatedMessageFieldSize(m.methods) + MessageFieldSize(m.connections) +
         kBoolFieldSize + MessageFieldSize(m.engine) + MessageFieldSize(m.routing);
}

void EncodeTo(const StatsResponse& m, std::string* out) {
  AppendU64Field(out, 1, m.uptime_ms);
  AppendRepeatedMessageField(out, 2, m.methods);
  AppendU64Field(out, 3, m.unknown_method_requests);
  AppendMessageField(out, 4, m.connections);
  AppendBoolField(out, 5, m.has_engine);
  AppendMessageField(out, 6, m.engine);
  AppendMessageField(out, 7, m.routing);
}

std::string Encode(const StatsResponse& m) { return EncodeReserved(m); }

bool Decode(size_t size, const char* data, StatsResponse* out) {
  ReserveMore(&out->methods, CountFields<3>(size, data)[2]);
  return DecodeFields(size, data, [out](const Field& f) {
    switch (f.tag) {
      case 1: return ReadU64(f, &out->uptime_ms);
      case 2: return ReadRepeatedMessage(f, &out->methods);
      case 3: return ReadU64(f, &out->unknown_method_requests);
      case 4: return ReadMessage(f, &out->connections);
      case 5: return ReadBool(f, &out->has_engine);
      case 6: return ReadMessage(f, &out->engine);
      case 7: return ReadMessage(f, &out->routing);
      default: return true;
    }
  });
}

}  // namespace kandb::pdpb
