#include "pdpb/messages.h"

#include "pdpb/codec.h"

// Every message is encoded, sized and decoded by the generic codec from the
// field list its header declares.

namespace kandb::pdpb {

KANDB_PDPB_DEFINE_CODEC(RegionEpoch)
KANDB_PDPB_DEFINE_CODEC(Peer)
KANDB_PDPB_DEFINE_CODEC(StoreLabel)
KANDB_PDPB_DEFINE_CODEC(Store)
KANDB_PDPB_DEFINE_CODEC(Region)
KANDB_PDPB_DEFINE_CODEC(TsoRequest)
KANDB_PDPB_DEFINE_CODEC(TsoResponse)
KANDB_PDPB_DEFINE_CODEC(AllocIdRequest)
KANDB_PDPB_DEFINE_CODEC(AllocIdResponse)
KANDB_PDPB_DEFINE_CODEC(BootstrapRequest)
KANDB_PDPB_DEFINE_CODEC(BootstrapResponse)
KANDB_PDPB_DEFINE_CODEC(GetRegionRequest)
KANDB_PDPB_DEFINE_CODEC(GetRegionResponse)
KANDB_PDPB_DEFINE_CODEC(UpsertRegionRequest)
KANDB_PDPB_DEFINE_CODEC(UpsertRegionResponse)
KANDB_PDPB_DEFINE_CODEC(RegionHeartbeatEntry)
KANDB_PDPB_DEFINE_CODEC(RegionHeartbeatRequest)
KANDB_PDPB_DEFINE_CODEC(ScheduleCommand)
KANDB_PDPB_DEFINE_CODEC(RegionHeartbeatResponse)
KANDB_PDPB_DEFINE_CODEC(StoreStats)
KANDB_PDPB_DEFINE_CODEC(StoreHeartbeatRequest)
KANDB_PDPB_DEFINE_CODEC(StoreHeartbeatResponse)
KANDB_PDPB_DEFINE_CODEC(StoreInfo)
KANDB_PDPB_DEFINE_CODEC(GetStoreRequest)
KANDB_PDPB_DEFINE_CODEC(GetStoreResponse)
KANDB_PDPB_DEFINE_CODEC(GetAllStoresRequest)
KANDB_PDPB_DEFINE_CODEC(GetAllStoresResponse)
KANDB_PDPB_DEFINE_CODEC(RemoveStoreRequest)
KANDB_PDPB_DEFINE_CODEC(RemoveStoreResponse)
// Region reads
KANDB_PDPB_DEFINE_CODEC(GetRegionByIdRequest)
KANDB_PDPB_DEFINE_CODEC(ScanRegionsRequest)
KANDB_PDPB_DEFINE_CODEC(ScannedRegion)
KANDB_PDPB_DEFINE_CODEC(ScanRegionsResponse)
KANDB_PDPB_DEFINE_CODEC(ServiceSafePoint)
KANDB_PDPB_DEFINE_CODEC(UpdateServiceSafePointRequest)
KANDB_PDPB_DEFINE_CODEC(UpdateServiceSafePointResponse)
KANDB_PDPB_DEFINE_CODEC(GetGcSafePointRequest)
KANDB_PDPB_DEFINE_CODEC(GetGcSafePointResponse)

// ---- Region bounds, in place ----

namespace {

// Whether a nested record of only integer fields (RegionEpoch, Peer)
// decodes: every known tag, 1 to `known_tags`, must carry 8 bytes.
bool IntegerFieldsDecode(const Field& field, uint16_t known_tags) {
  return DecodeFields(field.size, field.data, [known_tags](const Field& f) {
    return f.tag < 1 || f.tag > known_tags || f.size == 8;
  });
}

}  // namespace

bool DecodeRegionBounds(size_t size, const char* data, std::string_view* start_key,
                        std::string_view* end_key) {
  std::string_view start;
  std::string_view end;
  const bool ok = DecodeFields(size, data, [&start, &end](const Field& f) {
    switch (f.tag) {
      case 1: return f.size == 8;
      case 2: start = std::string_view(f.data, f.size); return true;
      case 3: end = std::string_view(f.data, f.size); return true;
      case 4: return IntegerFieldsDecode(f, 2);  // RegionEpoch
      case 5: return IntegerFieldsDecode(f, 3);  // Peer
      default: return true;
    }
  });
  if (!ok) return false;
  *start_key = start;
  *end_key = end;
  return true;
}

}  // namespace kandb::pdpb
