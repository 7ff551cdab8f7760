// Binds the service's handlers to their method names on the RPC server. The
// server decodes each request payload (answering "bad request payload" when
// it does not decode), calls the handler, and encodes the response only
// when the handler succeeded.

#include <functional>

#include "meta/pd_service.h"
#include "rpc/server.h"

namespace kandb::meta {

void PdService::RegisterTo(kanrpc::RpcServer* server) {
  // Each closure holds only the service pointer (and Pd.Stats the server's
  // too); the entry point destroys the server before the service.
  bool ceiling = false;
  {
    MutexLock lock(&tso_mutex_);
    ceiling = tso_admit_ != nullptr;
  }
  // Without a ceiling a timestamp batch never waits for anything.
  server->Register<pdpb::TsoRequest, pdpb::TsoResponse>(
      "Pd.Tso",
      [this](const pdpb::TsoRequest& req, pdpb::TsoResponse* resp) { return Tso(req, resp); },
      ceiling ? kanrpc::CallMode::kBlocking : kanrpc::CallMode::kInline);
  server->Register<pdpb::AllocIdRequest, pdpb::AllocIdResponse>(
      "Pd.AllocId", [this](const pdpb::AllocIdRequest& req, pdpb::AllocIdResponse* resp) {
        return AllocId(req, resp);
      });
  server->Register<pdpb::BootstrapRequest, pdpb::BootstrapResponse>(
      "Pd.Bootstrap", [this](const pdpb::BootstrapRequest& req, pdpb::BootstrapResponse* resp) {
        return Bootstrap(req, resp);
      });
  // The index answers in microseconds; a walk over every region record is
  // left to a worker, so that it never holds up the loop's other calls.
  server->RegisterTryInline<pdpb::GetRegionRequest, pdpb::GetRegionResponse>(
      "Pd.GetRegion",
      [this](const pdpb::GetRegionRequest& req, pdpb::GetRegionResponse* resp, Status* status) {
        return GetRegionFromIndex(req, resp, status);
      },
      [this](const pdpb::GetRegionRequest& req, pdpb::GetRegionResponse* resp) { return GetRegion(req, resp); });
  server->RegisterAsync<pdpb::UpsertRegionRequest>(
      "Pd.UpsertRegion", [this](const pdpb::UpsertRegionRequest& req, kanrpc::Reply reply) {
        UpsertRegionAsync(
            req, [reply](const Status& s) { reply.Done(s, pdpb::UpsertRegionResponse{}); },
            /*defer_lead=*/true);
      });
  // After a pass that queued upserts, the loop leads their group itself
  // when the disk has been quick, else hands it to the commit thread.
  server->SetPassHook([this] { store_->LeadDeferredWrites(); });
  server->Register<pdpb::RegionHeartbeatRequest, pdpb::RegionHeartbeatResponse>(
      "Pd.RegionHeartbeat",
      [this](const pdpb::RegionHeartbeatRequest& req, pdpb::RegionHeartbeatResponse* resp) {
        return RegionHeartbeat(req, resp);
      });
  // Stores call these every few seconds each; they may write a record, so
  // they run on workers.
  server->Register<pdpb::StoreHeartbeatRequest, pdpb::StoreHeartbeatResponse>(
      "Pd.StoreHeartbeat", [this](const pdpb::StoreHeartbeatRequest& req, pdpb::StoreHeartbeatResponse* resp) {
        return StoreHeartbeat(req, resp);
      });
  server->Register<pdpb::GetStoreRequest, pdpb::GetStoreResponse>(
      "Pd.GetStore",
      [this](const pdpb::GetStoreRequest& req, pdpb::GetStoreResponse* resp) { return GetStore(req, resp); });
  server->Register<pdpb::GetAllStoresRequest, pdpb::GetAllStoresResponse>(
      "Pd.GetAllStores", [this](const pdpb::GetAllStoresRequest& req, pdpb::GetAllStoresResponse* resp) {
        return GetAllStores(req, resp);
      });
  server->Register<pdpb::RemoveStoreRequest, pdpb::RemoveStoreResponse>(
      "Pd.RemoveStore",
      [this](const pdpb::RemoveStoreRequest& req, pdpb::RemoveStoreResponse* resp) { return RemoveStore(req, resp); });
  // Region reads: a scan decodes up to thousands of records, and both take
  // the heartbeat bookkeeping's lock for the leaders they present, which
  // an event loop never takes; so they run on workers.
  server->Register<pdpb::GetRegionByIdRequest, pdpb::GetRegionResponse>(
      "Pd.GetRegionById", [this](const pdpb::GetRegionByIdRequest& req, pdpb::GetRegionResponse* resp) {
        return GetRegionById(req, resp);
      });
  server->Register<pdpb::ScanRegionsRequest, pdpb::ScanRegionsResponse>(
      "Pd.ScanRegions", [this](const pdpb::ScanRegionsRequest& req, pdpb::ScanRegionsResponse* resp) {
        return ScanRegions(req, resp);
      });
  // GC safe points: each call reads every service entry and may write, all
  // under a lock of its own, so they run on workers.
  server->Register<pdpb::UpdateServiceSafePointRequest, pdpb::UpdateServiceSafePointResponse>(
      "Pd.UpdateServiceSafePoint",
      [this](const pdpb::UpdateServiceSafePointRequest& req, pdpb::UpdateServiceSafePointResponse* resp) {
        return UpdateServiceSafePoint(req, resp);
      });
  server->Register<pdpb::GetGcSafePointRequest, pdpb::GetGcSafePointResponse>(
      "Pd.GetGcSafePoint", [this](const pdpb::GetGcSafePointRequest& req, pdpb::GetGcSafePointResponse* resp) {
        return GetGcSafePoint(req, resp);
      });
  // Read-only and answered from counters and the copy of the store
  // records, taking only the scheduler's lock for in-memory work, so that
  // calling it every second costs the six methods nothing.
  // On a worker: the engine's counters wait for a sync in progress, which
  // on a stalled disk must not hold up a loop.
  server->Register<pdpb::StatsRequest, pdpb::StatsResponse>(
      "Pd.Stats", [this, server](const pdpb::StatsRequest&, pdpb::StatsResponse* resp) {
        GetStats(*server, resp);
        return Status::OK();
      });
}

}  // namespace kandb::meta
