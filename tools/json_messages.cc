#include "tools/json_messages.h"

#include <cstdint>
#include <initializer_list>

#include "tools/text.h"

namespace kandb::tools {

using nlohmann::json;

namespace {

json UintArray(const std::vector<uint64_t>& values) {
  json array = json::array();
  for (uint64_t v : values) array.push_back(v);
  return array;
}

json ToJson(const pdpb::RegionEpoch& epoch) {
  return json{{"conf_version", epoch.conf_version}, {"version", epoch.version}};
}

json ToJson(const pdpb::RegionHeartbeatEntry& entry) {
  return json{{"region_id", entry.region_id},
              {"member_store_ids", UintArray(entry.member_store_ids)},
              {"caught_up_learner_store_ids", UintArray(entry.caught_up_learner_store_ids)},
              {"candidate_store_ids", UintArray(entry.candidate_store_ids)}};
}

json ToJson(const pdpb::ScheduleCommand& command) {
  json out;
  const char* name = ScheduleKindName(command.kind);
  if (*name != '\0') {
    out["kind"] = name;
  } else {
    out["kind"] = command.kind;
  }
  out["region_id"] = command.region_id;
  out["store_id"] = command.store_id;
  out["address"] = EscapeBytes(command.address);
  return out;
}

// A value of a small enumeration: its name, or the number when it has none.
json Named(uint8_t value, const char* name) { return *name != '\0' ? json(name) : json(value); }

json ToJson(const pdpb::StoreLabel& label) {
  return json{{"key", EscapeBytes(label.key)}, {"value", EscapeBytes(label.value)}};
}

json ToJson(const pdpb::StoreStats& stats) {
  return json{{"capacity", stats.capacity},
              {"available", stats.available},
              {"used_size", stats.used_size},
              {"region_count", stats.region_count},
              {"leader_count", stats.leader_count},
              {"sending_snap_count", stats.sending_snap_count},
              {"receiving_snap_count", stats.receiving_snap_count}};
}

// Strict reading of one JSON object: each field is looked up by name, its
// type and range are checked, and fields that nobody asked for are
// reported at the end.
class ObjectReader {
 public:
  ObjectReader(const json& value, std::string path) : value_(value), path_(std::move(path)) {
    if (!value_.is_object()) status_ = Error(path_, "expected an object");
  }

  const json* Field(const char* name) {
    seen_.push_back(name);
    if (!status_.ok()) return nullptr;
    auto it = value_.find(name);
    return it == value_.end() ? nullptr : &*it;
  }

  void Uint(const char* name, uint64_t max, uint64_t* out) {
    const json* field = Field(name);
    if (field == nullptr) return;
    if (!field->is_number_unsigned() || field->get<uint64_t>() > max) {
      status_ = Error(Path(name), "expected an integer in [0, " + std::to_string(max) + "]");
      return;
    }
    *out = field->get<uint64_t>();
  }
  template <class T>
  void Narrow(const char* name, T* out) {
    uint64_t value = *out;
    Uint(name, static_cast<uint64_t>(static_cast<T>(~T{0})), &value);
    *out = static_cast<T>(value);
  }

  void Bytes(const char* name, std::string* out) {
    const json* field = Field(name);
    if (field == nullptr) return;
    if (!field->is_string()) {
      status_ = Error(Path(name), "expected a string");
      return;
    }
    Status s = UnescapeBytes(field->get_ref<const std::string&>(), out);
    if (!s.ok()) status_ = Error(Path(name), s.message());
  }

  void Bool(const char* name, bool* out) {
    const json* field = Field(name);
    if (field == nullptr) return;
    if (!field->is_boolean()) {
      status_ = Error(Path(name), "expected true or false");
      return;
    }
    *out = field->get<bool>();
  }

  // Reads an array field, handing each element and its path to `read`.
  // A one-byte enumeration given by its name (as `name_of` spells it) or as
  // a number.
  void Named(const char* name, const char* (*name_of)(uint8_t), uint8_t* out) {
    const json* field = Field(name);
    if (field == nullptr) return;
    if (field->is_string()) {
      for (int v = 0; v <= 255; ++v) {
        const char* candidate = name_of(static_cast<uint8_t>(v));
        if (*candidate != '\0' && field->get_ref<const std::string&>() == candidate) {
          *out = static_cast<uint8_t>(v);
          return;
        }
      }
    } else if (field->is_number_unsigned() && field->get<uint64_t>() <= 255) {
      *out = static_cast<uint8_t>(field->get<uint64_t>());
      return;
    }
    std::string names;
    for (int v = 0; v <= 255; ++v) {
      const char* candidate = name_of(static_cast<uint8_t>(v));
      if (*candidate != '\0') names += std::string(names.empty() ? "" : ", ") + candidate;
    }
    status_ = Error(Path(name), "expected one of " + names + " or an integer in [0, 255]");
  }

  template <class T, class ReadElement>
  void Array(const char* name, std::vector<T>* out, ReadElement read) {
    const json* field = Field(name);
    if (field == nullptr) return;
    if (!field->is_array()) {
      status_ = Error(Path(name), "expected an array");
      return;
    }
    out->clear();
    for (size_t i = 0; i < field->size() && status_.ok(); ++i) {
      T element{};
      Status s = read((*field)[i], Path(name) + "[" + std::to_string(i) + "]", &element);
      if (!s.ok()) {
        status_ = s;
        return;
      }
      out->push_back(std::move(element));
    }
  }

  void UintArray(const char* name, std::vector<uint64_t>* out) {
    Array(name, out, [](const json& element, const std::string& path, uint64_t* value) {
      if (!element.is_number_unsigned()) return Error(path, "expected an integer in [0, 18446744073709551615]");
      *value = element.get<uint64_t>();
      return Status::OK();
    });
  }

  template <class T>
  void Message(const char* name, T* out) {
    const json* field = Field(name);
    if (field == nullptr) return;
    Status s = Read(*field, Path(name), out);
    if (!s.ok()) status_ = s;
  }

  // The first error, or an unknown field once every known one was read.
  Status Finish() {
    if (!status_.ok()) return status_;
    for (auto it = value_.begin(); it != value_.end(); ++it) {
      bool known = false;
      for (const char* name : seen_) known = known || it.key() == name;
      if (!known) return Error(Path(it.key().c_str()), "unknown field");
    }
    return Status::OK();
  }

  static Status Error(const std::string& path, const std::string& what) {
    return Status::InvalidArgument((path.empty() ? std::string("request") : path) + ": " + what);
  }

  // Readers of the embedded records, shared by the messages that hold them.
  static Status Read(const json& value, const std::string& path, pdpb::RegionEpoch* out) {
    ObjectReader r(value, path);
    r.Uint("conf_version", UINT64_MAX, &out->conf_version);
    r.Uint("version", UINT64_MAX, &out->version);
    return r.Finish();
  }
  static Status Read(const json& value, const std::string& path, pdpb::Peer* out) {
    ObjectReader r(value, path);
    r.Uint("id", UINT64_MAX, &out->id);
    r.Uint("store_id", UINT64_MAX, &out->store_id);
    r.Narrow("role", &out->role);
    return r.Finish();
  }
  static Status Read(const json& value, const std::string& path, pdpb::Store* out) {
    ObjectReader r(value, path);
    r.Uint("id", UINT64_MAX, &out->id);
    r.Bytes("address", &out->address);
    r.Narrow("state", &out->state);
    r.Array("labels", &out->labels, [](const json& v, const std::string& p, pdpb::StoreLabel* label) {
      ObjectReader l(v, p);
      l.Bytes("key", &label->key);
      l.Bytes("value", &label->value);
      return l.Finish();
    });
    r.Named("node_state", NodeStateName, &out->node_state);
    r.Uint("first_heartbeat_ms", UINT64_MAX, &out->first_heartbeat_ms);
    return r.Finish();
  }
  static Status Read(const json& value, const std::string& path, pdpb::Region* out) {
    ObjectReader r(value, path);
    r.Uint("id", UINT64_MAX, &out->id);
    r.Bytes("start_key", &out->start_key);
    r.Bytes("end_key", &out->end_key);
    r.Message("epoch", &out->epoch);
    r.Array("peers", &out->peers, [](const json& v, const std::string& p, pdpb::Peer* peer) {
      return Read(v, p, peer);
    });
    return r.Finish();
  }
  static Status Read(const json& value, const std::string& path, pdpb::RegionHeartbeatEntry* out) {
    ObjectReader r(value, path);
    r.Uint("region_id", UINT64_MAX, &out->region_id);
    r.UintArray("member_store_ids", &out->member_store_ids);
    r.UintArray("caught_up_learner_store_ids", &out->caught_up_learner_store_ids);
    r.UintArray("candidate_store_ids", &out->candidate_store_ids);
    return r.Finish();
  }

 private:
  std::string Path(const char* name) const { return path_.empty() ? name : path_ + "." + name; }

  const json& value_;
  const std::string path_;
  std::vector<const char*> seen_;
  Status status_;
};

Status ReadRegion(const json& v, const std::string& p, pdpb::Region* region) {
  return ObjectReader::Read(v, p, region);
}

}  // namespace

const char* ScheduleKindName(uint32_t kind) {
  switch (kind) {
    case pdpb::kPromoteLearner:
      return "PromoteLearner";
    case pdpb::kAddPeer:
      return "AddPeer";
    case pdpb::kRemovePeer:
      return "RemovePeer";
    case pdpb::kDestroyStaleReplica:
      return "DestroyStaleReplica";
    case pdpb::kTransferLeader:
      return "TransferLeader";
    default:
      return "";
  }
}

const char* StoreStateName(uint8_t state) {
  switch (state) {
    case pdpb::kStoreUnknown:
      return "unknown";
    case pdpb::kStoreUp:
      return "up";
    case pdpb::kStoreDisconnected:
      return "disconnected";
    case pdpb::kStoreDown:
      return "down";
    case pdpb::kStoreOffline:
      return "offline";
    case pdpb::kStoreTombstone:
      return "tombstone";
    default:
      return "";
  }
}

const char* NodeStateName(uint8_t node_state) {
  switch (node_state) {
    case pdpb::kNodeServing:
      return "serving";
    case pdpb::kNodeOffline:
      return "offline";
    case pdpb::kNodeTombstone:
      return "tombstone";
    default:
      return "";
  }
}

json ToJson(const pdpb::Peer& peer) {
  return json{{"id", peer.id}, {"store_id", peer.store_id}, {"role", peer.role}};
}

json ToJson(const pdpb::Store& store) {
  json labels = json::array();
  for (const pdpb::StoreLabel& label : store.labels) labels.push_back(ToJson(label));
  return json{{"id", store.id},
              {"address", EscapeBytes(store.address)},
              {"state", store.state},
              {"labels", labels},
              {"node_state", Named(store.node_state, NodeStateName(store.node_state))},
              {"first_heartbeat_ms", store.first_heartbeat_ms}};
}

json ToJson(const pdpb::Region& region) {
  json peers = json::array();
  for (const pdpb::Peer& peer : region.peers) peers.push_back(ToJson(peer));
  return json{{"id", region.id},
              {"start_key", EscapeBytes(region.start_key)},
              {"end_key", EscapeBytes(region.end_key)},
              {"epoch", ToJson(region.epoch)},
              {"peers", peers}};
}

json ToJson(const pdpb::TsoResponse& response) {
  const TsoParts parts = SplitTso(response.timestamp);
  return json{{"timestamp", response.timestamp},
              {"physical", parts.physical_ms},
              {"logical", parts.logical},
              {"count", response.count}};
}

json ToJson(const pdpb::AllocIdResponse& response) {
  return json{{"first_id", response.first_id}, {"count", response.count}};
}

json ToJson(const pdpb::BootstrapRequest& request) {
  json extra = json::array();
  for (const pdpb::Region& region : request.extra_regions) extra.push_back(ToJson(region));
  return json{{"store", ToJson(request.store)}, {"region", ToJson(request.region)}, {"extra_regions", extra}};
}

json ToJson(const pdpb::BootstrapResponse& response) {
  return json{{"already_bootstrapped", response.already_bootstrapped}};
}

json ToJson(const pdpb::GetRegionResponse& response) {
  json stores = json::array();
  for (const pdpb::Store& store : response.stores) stores.push_back(ToJson(store));
  return json{{"region", ToJson(response.region)},
              {"leader", ToJson(response.leader)},
              {"leader_store", ToJson(response.leader_store)},
              {"stores", stores}};
}

json ToJson(const pdpb::ScanRegionsResponse& response) {
  json regions = json::array();
  for (const pdpb::ScannedRegion& entry : response.regions) {
    regions.push_back(json{{"region", ToJson(entry.region)}, {"leader", ToJson(entry.leader)}});
  }
  return json{{"regions", regions}};
}

json ToJson(const pdpb::UpsertRegionRequest& request) {
  json regions = json::array();
  for (const pdpb::Region& region : request.regions) regions.push_back(ToJson(region));
  return json{{"regions", regions}, {"removed_region_ids", UintArray(request.removed_region_ids)}};
}

json ToJson(const pdpb::UpsertRegionResponse& response) {
  return json{{"message", EscapeBytes(response.message)}};
}

json ToJson(const pdpb::RegionHeartbeatRequest& request) {
  json regions = json::array();
  for (const pdpb::RegionHeartbeatEntry& entry : request.regions) regions.push_back(ToJson(entry));
  json out{{"store_id", request.store_id}, {"regions", regions}, {"region_ids", UintArray(request.region_ids)}};
  if (!request.region_conf_versions.empty()) out["region_conf_versions"] = UintArray(request.region_conf_versions);
  return out;
}

json ToJson(const pdpb::RegionHeartbeatResponse& response) {
  json commands = json::array();
  for (const pdpb::ScheduleCommand& command : response.commands) commands.push_back(ToJson(command));
  return json{{"commands", commands}};
}

json ToJson(const pdpb::StoreInfo& info) {
  return json{{"store", ToJson(info.store)},
              {"state", Named(info.state, StoreStateName(info.state))},
              {"stats", ToJson(info.stats)},
              {"last_heartbeat_ms", info.last_heartbeat_ms},
              {"replicas", info.replicas}};
}

json ToJson(const pdpb::GetStoreResponse& response) { return json{{"store", ToJson(response.store)}}; }

json ToJson(const pdpb::GetAllStoresResponse& response) {
  json stores = json::array();
  for (const pdpb::StoreInfo& info : response.stores) stores.push_back(ToJson(info));
  return json{{"stores", stores}};
}

json ToJson(const pdpb::RemoveStoreResponse& response) {
  return json{{"state", Named(response.state, StoreStateName(response.state))}};
}

json ToJson(const pdpb::ServiceSafePoint& entry) {
  return json{{"service_id", EscapeBytes(entry.service_id)},
              {"safe_point", entry.safe_point},
              {"expires_ms", entry.expires_ms}};
}

json ToJson(const pdpb::UpdateServiceSafePointResponse& response) {
  return json{{"service_id", EscapeBytes(response.service_id)},
              {"safe_point", response.safe_point},
              {"expires_ms", response.expires_ms},
              {"min_safe_point", response.min_safe_point},
              {"refused", response.refused}};
}

json ToJson(const pdpb::GetGcSafePointResponse& response) {
  json services = json::array();
  for (const pdpb::ServiceSafePoint& entry : response.services) services.push_back(ToJson(entry));
  return json{{"safe_point", response.safe_point}, {"services", services}};
}

json ToJson(const pdpb::LatencyHistogram& histogram) {
  return json{{"bounds_micros", UintArray(histogram.bounds_micros)},
              {"counts", UintArray(histogram.counts)},
              {"count", histogram.count},
              {"sum_nanos", histogram.sum_nanos}};
}

json ToJson(const pdpb::StatsResponse& response) {
  json methods = json::array();
  for (const pdpb::MethodStats& method : response.methods) {
    json errors = json::array();
    for (const pdpb::ErrorCount& error : method.errors) {
      errors.push_back(json{{"code", error.code}, {"count", error.count}});
    }
    methods.push_back(json{{"method", method.method},
                           {"requests", method.requests},
                           {"errors", errors},
                           {"latency", ToJson(method.latency)}});
  }
  const pdpb::ConnectionStats& c = response.connections;
  const pdpb::EngineStats& e = response.engine;
  const pdpb::RoutingStats& r = response.routing;
  const pdpb::SchedulingStats& g = response.scheduling;
  json out{{"uptime_ms", response.uptime_ms},
           {"methods", methods},
           {"unknown_method_requests", response.unknown_method_requests},
           {"connections", json{{"open", c.open}, {"accepted", c.accepted}, {"failed_accepts", c.failed_accepts}, {"tls_refused", c.tls_refused}}},
           {"has_engine", response.has_engine},
           {"routing", json{{"index_regions", r.index_regions},
                            {"index_lookups", r.index_lookups},
                            {"walk_lookups", r.walk_lookups}}},
           {"scheduling", json{{"stores_unknown", g.stores_unknown},
                               {"stores_up", g.stores_up},
                               {"stores_disconnected", g.stores_disconnected},
                               {"stores_down", g.stores_down},
                               {"stores_offline", g.stores_offline},
                               {"stores_tombstone", g.stores_tombstone},
                               {"regions_missing_replica", g.regions_missing_replica},
                               {"regions_on_down_store", g.regions_on_down_store},
                               {"regions_on_offline_store", g.regions_on_offline_store},
                               {"promote_learner", g.promote_learner},
                               {"add_peer", g.add_peer},
                               {"remove_peer", g.remove_peer},
                               {"destroy_stale_replica", g.destroy_stale_replica},
                               {"transfer_leader", g.transfer_leader}}}};
  // Without an engine of its own (etcd) there is nothing to show.
  if (response.has_engine) {
    out["engine"] = json{{"write_groups", e.write_groups},
                         {"batches", e.batches},
                         {"max_group_size", e.max_group_size},
                         {"syncs", e.syncs},
                         {"sync_latency", ToJson(e.sync_latency)},
                         {"log_bytes", e.log_bytes},
                         {"memtable_bytes", e.memtable_bytes},
                         {"immutable_memtables", e.immutable_memtables},
                         {"table_files", e.table_files},
                         {"table_bytes", e.table_bytes},
                         {"flushes", e.flushes},
                         {"flush_nanos", e.flush_nanos},
                         {"compactions", e.compactions},
                         {"compaction_nanos", e.compaction_nanos},
                         {"disk_full_faults", e.disk_full_faults},
                         {"sync_faults", e.sync_faults},
                         {"other_faults", e.other_faults},
                         {"last_fault", EscapeBytes(e.last_fault)}};
  }
  return out;
}

Status FromJson(const json& value, pdpb::Region* out) { return ReadRegion(value, "", out); }

Status FromJson(const json& value, pdpb::TsoRequest* out) {
  ObjectReader r(value, "");
  r.Narrow("count", &out->count);
  return r.Finish();
}

Status FromJson(const json& value, pdpb::AllocIdRequest* out) {
  ObjectReader r(value, "");
  r.Narrow("count", &out->count);
  return r.Finish();
}

Status FromJson(const json& value, pdpb::BootstrapRequest* out) {
  ObjectReader r(value, "");
  r.Message("store", &out->store);
  r.Message("region", &out->region);
  r.Array("extra_regions", &out->extra_regions, ReadRegion);
  return r.Finish();
}

Status FromJson(const json& value, pdpb::GetRegionRequest* out) {
  ObjectReader r(value, "");
  r.Bytes("key", &out->key);
  return r.Finish();
}

Status FromJson(const json& value, pdpb::UpsertRegionRequest* out) {
  ObjectReader r(value, "");
  r.Array("regions", &out->regions, ReadRegion);
  r.UintArray("removed_region_ids", &out->removed_region_ids);
  return r.Finish();
}

Status FromJson(const json& value, pdpb::RegionHeartbeatRequest* out) {
  ObjectReader r(value, "");
  r.Uint("store_id", UINT64_MAX, &out->store_id);
  r.Array("regions", &out->regions,
          [](const json& v, const std::string& p, pdpb::RegionHeartbeatEntry* entry) {
            return ObjectReader::Read(v, p, entry);
          });
  r.UintArray("region_ids", &out->region_ids);
  r.UintArray("region_conf_versions", &out->region_conf_versions);
  return r.Finish();
}

Status FromJson(const json& value, pdpb::GetRegionByIdRequest* out) {
  ObjectReader r(value, "");
  r.Uint("region_id", UINT64_MAX, &out->region_id);
  return r.Finish();
}

Status FromJson(const json& value, pdpb::ScanRegionsRequest* out) {
  ObjectReader r(value, "");
  r.Bytes("start_key", &out->start_key);
  r.Bytes("end_key", &out->end_key);
  r.Narrow("limit", &out->limit);
  return r.Finish();
}

Status ParseJsonDocument(const std::string& text, json* out) {
  // The library reports a syntax error by throwing; this is the boundary
  // where that becomes a Status. allow_exceptions=false would lose the
  // position of the error, which is what an operator needs to fix the file.
  try {
    *out = json::parse(text);
  } catch (const json::exception& e) {
    return Status::InvalidArgument(std::string("bad JSON: ") + e.what());
  }
  return Status::OK();
}

}  // namespace kandb::tools
