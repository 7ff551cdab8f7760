#ifndef KANDB_TOOLS_JSON_MESSAGES_H_
#define KANDB_TOOLS_JSON_MESSAGES_H_

// The JSON form of the placement-driver messages, for the tools' --json
// output and for requests given as a document. Field names are those of
// the messages; byte strings (keys, addresses) are JSON strings in the
// escaped form of EscapeBytes, so any byte survives the round trip;
// numbers are JSON integers. A schedule command's kind is written as its
// name ("AddPeer"), or as the number when it has none; a store's state and
// node_state as their names in lower case ("up", "serving"), as the
// readable output shows them, or as the number when they have none. Reading
// takes either form for node_state.
//
// Reading is strict: an unknown field, a value of the wrong type or out of
// range fails with InvalidArgument naming the field's path, e.g.
// "region.peers[0].store_id: expected an integer in [0, 18446744073709551615]".
// Absent fields keep their defaults.

#include <string>

#include <nlohmann/json.hpp>

#include "common/status.h"
#include "pdpb/messages.h"
#include "pdpb/stats.h"

namespace kandb::tools {

nlohmann::json ToJson(const pdpb::Peer& peer);
nlohmann::json ToJson(const pdpb::Store& store);
nlohmann::json ToJson(const pdpb::Region& region);
nlohmann::json ToJson(const pdpb::TsoResponse& response);
nlohmann::json ToJson(const pdpb::AllocIdResponse& response);
nlohmann::json ToJson(const pdpb::BootstrapRequest& request);
nlohmann::json ToJson(const pdpb::BootstrapResponse& response);
nlohmann::json ToJson(const pdpb::GetRegionResponse& response);
nlohmann::json ToJson(const pdpb::UpsertRegionRequest& request);
nlohmann::json ToJson(const pdpb::UpsertRegionResponse& response);
nlohmann::json ToJson(const pdpb::RegionHeartbeatRequest& request);
nlohmann::json ToJson(const pdpb::RegionHeartbeatResponse& response);
nlohmann::json ToJson(const pdpb::StoreInfo& info);
nlohmann::json ToJson(const pdpb::GetStoreResponse& response);
nlohmann::json ToJson(const pdpb::GetAllStoresResponse& response);
nlohmann::json ToJson(const pdpb::RemoveStoreResponse& response);
// Region reads.
nlohmann::json ToJson(const pdpb::ScanRegionsResponse& response);
nlohmann::json ToJson(const pdpb::ServiceSafePoint& entry);
nlohmann::json ToJson(const pdpb::UpdateServiceSafePointResponse& response);
nlohmann::json ToJson(const pdpb::GetGcSafePointResponse& response);
// The live statistics; "engine" is left out when has_engine is false.
// last_fault is escaped like every byte string.
nlohmann::json ToJson(const pdpb::StatsResponse& response);

Status FromJson(const nlohmann::json& json, pdpb::Region* out);
Status FromJson(const nlohmann::json& json, pdpb::TsoRequest* out);
Status FromJson(const nlohmann::json& json, pdpb::AllocIdRequest* out);
Status FromJson(const nlohmann::json& json, pdpb::BootstrapRequest* out);
Status FromJson(const nlohmann::json& json, pdpb::GetRegionRequest* out);
Status FromJson(const nlohmann::json& json, pdpb::UpsertRegionRequest* out);
Status FromJson(const nlohmann::json& json, pdpb::RegionHeartbeatRequest* out);
// Region reads.
Status FromJson(const nlohmann::json& json, pdpb::GetRegionByIdRequest* out);
Status FromJson(const nlohmann::json& json, pdpb::ScanRegionsRequest* out);

// "PromoteLearner", "AddPeer", "RemovePeer", "DestroyStaleReplica",
// "TransferLeader", or "" for any other kind.
const char* ScheduleKindName(uint32_t kind);

// The state the service sees a store in (StoreInfo.state): "unknown",
// "up", "disconnected", "down", "offline", "tombstone", or "" for any
// other value.
const char* StoreStateName(uint8_t state);
// What the operator decided about a store (Store.node_state): "serving",
// "offline", "tombstone", or "" for any other value.
const char* NodeStateName(uint8_t node_state);

// Parses `text` as a JSON document. The library's parse error becomes an
// InvalidArgument status carrying its message; nothing is thrown.
Status ParseJsonDocument(const std::string& text, nlohmann::json* out);

}  // namespace kandb::tools

#endif  // KANDB_TOOLS_JSON_MESSAGES_H_
