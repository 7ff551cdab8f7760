// kandb-meta-ctl: the operator's client of the placement-driver server, one
// subcommand per method (`store` has two: show and remove). Output is
// readable by default and JSON with --json; a failed call prints the
// failure (the server's own text for a remote error) on standard error and
// exits with status 1.

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "pdpb/messages.h"
#include "pdpb/stats.h"
#include "rpc/client.h"
#include "tools/command_line.h"
#include "tools/tls_options.h"
#include "tools/describe.h"
#include "tools/json_messages.h"
#include "tools/safe_point_view.h"
#include "tools/stats_view.h"
#include "tools/store_view.h"
#include "tools/text.h"

namespace kandb::tools {
namespace {

constexpr char kProgram[] = "kandb-meta-ctl";

// Options every subcommand takes.
struct Common {
  std::string addr = "127.0.0.1:2379";
  uint64_t timeout_ms = 5000;
  uint64_t attempts = 1;
  bool json = false;
  std::string request_file;
  TlsOptions tls;
};

void AddCommon(CommandLine* cl, Common* c, bool with_request) {
  cl->AddString("addr", &c->addr, "server address HOST:PORT, or the servers of a replicated cluster H1:P1,H2:P2,... (default 127.0.0.1:2379)");
  cl->AddUint("timeout-ms", &c->timeout_ms, INT32_MAX,
              "time-out of every wait for the server, in milliseconds (default 5000)");
  cl->AddUint("attempts", &c->attempts, 100,
              "tries per call; failures are retried after 20 ms, 40 ms, ... (default 1)");
  cl->AddSwitch("json", &c->json, "print the answer as JSON");
  AddTlsOptions(cl, &c->tls);
  if (with_request) {
    cl->AddString("request", &c->request_file,
                  "the whole request as a JSON document in FILE ('-' for standard input); "
                  "not combined with the flags that build the request");
  }
}

constexpr char kJsonNote[] =
    "In JSON documents, field names are those of the messages; keys and addresses are\n"
    "strings in which bytes outside printable ASCII are written \\xNN and a backslash\n"
    "as \\\\ (the same escaping as the readable output and the key arguments).\n";

int UsageError(const std::string& command, const std::string& message) {
  std::fprintf(stderr, "%s: %s\n(see %s --help)\n", command.c_str(), message.c_str(), command.c_str());
  return kExitUsage;
}

// Reads the request document named by --request into *request. Returns -1
// on success, else the exit status after the error was printed.
template <class Req>
int LoadRequest(const std::string& command, const std::string& file, Req* request) {
  std::string text;
  if (file == "-") {
    std::ostringstream buffer;
    buffer << std::cin.rdbuf();
    text = buffer.str();
  } else {
    std::ifstream in(file, std::ios::binary);
    if (!in) return UsageError(command, "cannot read " + file + ": " + std::strerror(errno));
    std::ostringstream buffer;
    buffer << in.rdbuf();
    text = buffer.str();
  }
  nlohmann::json document;
  Status s = ParseJsonDocument(text, &document);
  if (s.ok()) s = FromJson(document, request);
  if (!s.ok()) return UsageError(command, (file == "-" ? std::string("stdin") : file) + ": " + s.message());
  return -1;
}

// Refuses request-building flags next to --request.
int CheckExclusive(const CommandLine& cl, const std::string& command, const Common& c,
                   const std::vector<std::string>& building_flags) {
  if (c.request_file.empty()) return -1;
  for (const std::string& flag : building_flags) {
    if (cl.Given(flag)) return UsageError(command, "--" + flag + " cannot be combined with --request");
  }
  return -1;
}

// The client's options from the common ones. Returns -1 on success, else
// the exit status after the error was printed (a TLS file that cannot be
// used is a bad command line).
int ClientOptions(const Common& c, kanrpc::RpcClientOptions* options) {
  options->timeout_ms = static_cast<int32_t>(c.timeout_ms);
  options->attempts = static_cast<int32_t>(c.attempts);
  const Status s = ClientTls(c.tls, &options->tls);
  if (!s.ok()) {
    std::fprintf(stderr, "%s: %s\n", kProgram, s.message().c_str());
    return kExitUsage;
  }
  return -1;
}

// Makes the call. On failure prints the status message (for a remote error
// "remote: " and the server's text) and returns kExitFailure; else -1.
template <class Req, class Resp>
int CallServer(const Common& c, const char* method, const Req& request, Resp* response) {
  kanrpc::RpcClientOptions options;
  if (int rc = ClientOptions(c, &options); rc >= 0) return rc;
  kanrpc::RpcClient client(c.addr, options);
  Status s = client.Call(method, request, response);
  if (!s.ok()) {
    std::fprintf(stderr, "%s\n", s.message().c_str());
    return kExitFailure;
  }
  return -1;
}

void PrintJson(const nlohmann::json& value) { std::printf("%s\n", value.dump(2).c_str()); }

// "ID:STORE" or "ID:STORE:ROLE".
Status ParsePeer(const std::string& text, pdpb::Peer* peer) {
  const Status bad = Status::InvalidArgument("expected ID:STORE[:ROLE], got '" + text + "'");
  std::vector<std::string> parts;
  std::stringstream stream(text);
  std::string part;
  while (std::getline(stream, part, ':')) parts.push_back(part);
  if (parts.size() < 2 || parts.size() > 3) return bad;
  uint64_t role = 0;
  if (!ParseUint(parts[0], UINT64_MAX, &peer->id).ok() ||
      !ParseUint(parts[1], UINT64_MAX, &peer->store_id).ok() ||
      (parts.size() == 3 && !ParseUint(parts[2], 255, &role).ok())) {
    return bad;
  }
  peer->role = static_cast<uint8_t>(role);
  return Status::OK();
}

// The flags that describe one region record, shared by bootstrap and upsert-region.
struct RegionFlags {
  uint64_t id = 0;
  std::string start_key;
  std::string end_key;
  uint64_t conf_version = 1;
  uint64_t version = 1;
  std::vector<std::string> peers;

  void Add(CommandLine* cl) {
    cl->AddUint("region-id", &id, UINT64_MAX, "region id");
    cl->AddString("start-key", &start_key, "first key of the region, inclusive (escaped; default: unbounded)");
    cl->AddString("end-key", &end_key, "end of the region, exclusive (escaped; default: unbounded)");
    cl->AddUint("conf-version", &conf_version, UINT64_MAX, "epoch conf_version (default 1)");
    cl->AddUint("version", &version, UINT64_MAX, "epoch version (default 1)");
    cl->AddRepeated("peer", &peers, "a replica as ID:STORE or ID:STORE:ROLE; repeat for each peer");
  }
  static std::vector<std::string> Names() {
    return {"region-id", "start-key", "end-key", "conf-version", "version", "peer"};
  }
  Status Build(pdpb::Region* region) const {
    region->id = id;
    Status s = UnescapeBytes(start_key, &region->start_key);
    if (!s.ok()) return Status::InvalidArgument("--start-key: " + s.message());
    s = UnescapeBytes(end_key, &region->end_key);
    if (!s.ok()) return Status::InvalidArgument("--end-key: " + s.message());
    region->epoch.conf_version = conf_version;
    region->epoch.version = version;
    for (const std::string& text : peers) {
      pdpb::Peer peer;
      s = ParsePeer(text, &peer);
      if (!s.ok()) return Status::InvalidArgument("--peer: " + s.message());
      region->peers.push_back(peer);
    }
    return Status::OK();
  }
};

std::string CommandName(const char* sub) { return std::string(kProgram) + " " + sub; }

int RunTso(const std::vector<std::string>& args) {
  const std::string command = CommandName("tso");
  Common c;
  uint64_t count = 1;
  CommandLine cl(command, "Asks the timestamp oracle for a batch of timestamps (Pd.Tso).");
  cl.AddUint("count", &count, UINT32_MAX, "timestamps wanted (default 1)");
  AddCommon(&cl, &c, true);
  cl.SetEpilogue(
      "A timestamp is physical milliseconds since the Unix epoch shifted left by 18 bits,\n"
      "plus a logical counter; both parts are shown. The batch is timestamp .. timestamp+count-1.\n");
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  if (int rc = CheckExclusive(cl, command, c, {"count"}); rc >= 0) return rc;
  pdpb::TsoRequest request;
  request.count = static_cast<uint32_t>(count);
  if (!c.request_file.empty()) {
    if (int rc = LoadRequest(command, c.request_file, &request); rc >= 0) return rc;
  }
  pdpb::TsoResponse response;
  if (int rc = CallServer(c, "Pd.Tso", request, &response); rc >= 0) return rc;
  if (c.json) {
    PrintJson(ToJson(response));
  } else {
    const TsoParts parts = SplitTso(response.timestamp);
    std::printf("timestamp %llu\nphysical  %llu ms (%s)\nlogical   %llu\ncount     %u\n",
                static_cast<unsigned long long>(response.timestamp),
                static_cast<unsigned long long>(parts.physical_ms), FormatUtcMillis(parts.physical_ms).c_str(),
                static_cast<unsigned long long>(parts.logical), response.count);
  }
  return kExitOk;
}

int RunAllocId(const std::vector<std::string>& args) {
  const std::string command = CommandName("alloc-id");
  Common c;
  uint64_t count = 1;
  CommandLine cl(command, "Allocates a batch of cluster-unique identifiers (Pd.AllocId).");
  cl.AddUint("count", &count, UINT32_MAX, "identifiers wanted (default 1)");
  AddCommon(&cl, &c, true);
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  if (int rc = CheckExclusive(cl, command, c, {"count"}); rc >= 0) return rc;
  pdpb::AllocIdRequest request;
  request.count = static_cast<uint32_t>(count);
  if (!c.request_file.empty()) {
    if (int rc = LoadRequest(command, c.request_file, &request); rc >= 0) return rc;
  }
  pdpb::AllocIdResponse response;
  if (int rc = CallServer(c, "Pd.AllocId", request, &response); rc >= 0) return rc;
  if (c.json) {
    PrintJson(ToJson(response));
  } else {
    std::printf("first_id %llu\ncount    %u\nlast_id  %llu\n", static_cast<unsigned long long>(response.first_id),
                response.count, static_cast<unsigned long long>(response.first_id + response.count - 1));
  }
  return kExitOk;
}

int RunBootstrap(const std::vector<std::string>& args) {
  const std::string command = CommandName("bootstrap");
  Common c;
  uint64_t store_id = 0;
  std::string store_address;
  uint64_t store_state = 0;
  RegionFlags region;
  CommandLine cl(command,
                 "Bootstraps the cluster with its first store and region, or registers a store "
                 "of an existing cluster (Pd.Bootstrap).");
  cl.AddUint("store-id", &store_id, UINT64_MAX, "id of the calling store");
  cl.AddString("store-address", &store_address, "address at which the store serves (escaped)");
  cl.AddUint("store-state", &store_state, 255, "store state (default 0)");
  region.Add(&cl);
  AddCommon(&cl, &c, true);
  cl.SetEpilogue(std::string("Further regions (extra_regions) can be given in a --request document, e.g.\n"
                             "  {\"store\": {\"id\": 1, \"address\": \"127.0.0.1:20160\"},\n"
                             "   \"region\": {\"id\": 2, \"peers\": [{\"id\": 3, \"store_id\": 1}]},\n"
                             "   \"extra_regions\": []}\n") +
                 kJsonNote);
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  std::vector<std::string> building = RegionFlags::Names();
  building.insert(building.end(), {"store-id", "store-address", "store-state"});
  if (int rc = CheckExclusive(cl, command, c, building); rc >= 0) return rc;
  pdpb::BootstrapRequest request;
  if (!c.request_file.empty()) {
    if (int rc = LoadRequest(command, c.request_file, &request); rc >= 0) return rc;
  } else {
    if (!cl.Given("store-id")) return UsageError(command, "--store-id is required (or --request)");
    if (!cl.Given("region-id")) return UsageError(command, "--region-id is required (or --request)");
    request.store.id = store_id;
    Status s = UnescapeBytes(store_address, &request.store.address);
    if (!s.ok()) return UsageError(command, "--store-address: " + s.message());
    request.store.state = static_cast<uint8_t>(store_state);
    s = region.Build(&request.region);
    if (!s.ok()) return UsageError(command, s.message());
  }
  pdpb::BootstrapResponse response;
  if (int rc = CallServer(c, "Pd.Bootstrap", request, &response); rc >= 0) return rc;
  if (c.json) {
    PrintJson(ToJson(response));
  } else if (response.already_bootstrapped) {
    std::printf("cluster already bootstrapped; store %llu registered\n",
                static_cast<unsigned long long>(request.store.id));
  } else {
    std::printf("cluster bootstrapped: store %llu, region %llu and %zu more regions\n",
                static_cast<unsigned long long>(request.store.id),
                static_cast<unsigned long long>(request.region.id), request.extra_regions.size());
  }
  return kExitOk;
}

// The readable form of a region's answer: the record with its peers, the
// leader and its store, then the peers' stores.
void PrintRegionAnswer(const pdpb::GetRegionResponse& response) {
  std::printf("%s\n", DescribeRegion(response.region, true).c_str());
  if (response.region.peers.empty()) {
    std::printf("leader none\n");
  } else {
    std::printf("leader %s\n", DescribePeer(response.leader).c_str());
    std::printf("leader %s\n", DescribeStore(response.leader_store).c_str());
  }
  for (const pdpb::Store& store : response.stores) std::printf("%s\n", DescribeStore(store).c_str());
}

int RunGetRegion(const std::vector<std::string>& args) {
  const std::string command = CommandName("get-region");
  Common c;
  std::vector<std::string> keys;
  CommandLine cl(command, "Shows the region that covers a key, its leader and stores (Pd.GetRegion).");
  cl.SetPositional("KEY", &keys, 0, 1, "the key to route, escaped (\\xNN for any byte, \\\\ for a backslash)");
  AddCommon(&cl, &c, true);
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  pdpb::GetRegionRequest request;
  if (!c.request_file.empty()) {
    if (!keys.empty()) return UsageError(command, "KEY cannot be combined with --request");
    if (int rc = LoadRequest(command, c.request_file, &request); rc >= 0) return rc;
  } else {
    if (keys.empty()) return UsageError(command, "missing KEY");
    Status s = UnescapeBytes(keys[0], &request.key);
    if (!s.ok()) return UsageError(command, "KEY: " + s.message());
  }
  pdpb::GetRegionResponse response;
  if (int rc = CallServer(c, "Pd.GetRegion", request, &response); rc >= 0) return rc;
  if (c.json) {
    PrintJson(ToJson(response));
    return kExitOk;
  }
  PrintRegionAnswer(response);
  return kExitOk;
}

// ---- Region reads: one region by id, and the regions of a key range.

int RunRegion(const std::vector<std::string>& args) {
  const std::string command = CommandName("region");
  Common c;
  uint64_t id = 0;
  CommandLine cl(command,
                 "Shows the region with an id, its leader and stores (Pd.GetRegionById). The leader is the "
                 "peer on the store that last reported the region in a region heartbeat, else the first peer.");
  cl.AddUint("id", &id, UINT64_MAX, "the region's id");
  AddCommon(&cl, &c, true);
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  if (int rc = CheckExclusive(cl, command, c, {"id"}); rc >= 0) return rc;
  pdpb::GetRegionByIdRequest request;
  if (!c.request_file.empty()) {
    if (int rc = LoadRequest(command, c.request_file, &request); rc >= 0) return rc;
  } else {
    if (!cl.Given("id")) return UsageError(command, "--id is required (or --request)");
    request.region_id = id;
  }
  pdpb::GetRegionResponse response;
  if (int rc = CallServer(c, "Pd.GetRegionById", request, &response); rc >= 0) return rc;
  if (c.json) {
    PrintJson(ToJson(response));
  } else {
    PrintRegionAnswer(response);
  }
  return kExitOk;
}

int RunRegions(const std::vector<std::string>& args) {
  const std::string command = CommandName("regions");
  Common c;
  std::string start;
  std::string end;
  uint64_t limit = 0;
  CommandLine cl(command,
                 "Lists the regions of a key range in key order, one line each with its leader "
                 "(Pd.ScanRegions).");
  cl.AddString("start", &start, "first key of the range, inclusive (escaped; default: unbounded)");
  cl.AddString("end", &end, "end of the range, exclusive (escaped; default: unbounded)");
  cl.AddUint("limit", &limit, UINT32_MAX,
             "regions wanted at most (default 0: the server's default of 1000; it answers 10000 at most)");
  AddCommon(&cl, &c, true);
  cl.SetEpilogue(
      "The first region listed is the one that covers --start, or the first after it. When the\n"
      "limit cut the list short, the last line names the --start that continues it.\n");
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  if (int rc = CheckExclusive(cl, command, c, {"start", "end", "limit"}); rc >= 0) return rc;
  pdpb::ScanRegionsRequest request;
  if (!c.request_file.empty()) {
    if (int rc = LoadRequest(command, c.request_file, &request); rc >= 0) return rc;
  } else {
    Status s = UnescapeBytes(start, &request.start_key);
    if (!s.ok()) return UsageError(command, "--start: " + s.message());
    s = UnescapeBytes(end, &request.end_key);
    if (!s.ok()) return UsageError(command, "--end: " + s.message());
    request.limit = static_cast<uint32_t>(limit);
  }
  pdpb::ScanRegionsResponse response;
  if (int rc = CallServer(c, "Pd.ScanRegions", request, &response); rc >= 0) return rc;
  if (c.json) {
    PrintJson(ToJson(response));
    return kExitOk;
  }
  for (const pdpb::ScannedRegion& entry : response.regions) {
    std::printf("%s leader %s\n", DescribeRegion(entry.region, false).c_str(),
                entry.region.peers.empty() ? "none" : DescribePeer(entry.leader).c_str());
  }
  const size_t wanted = request.limit == 0 ? pdpb::kScanRegionsDefaultLimit
                                           : std::min(request.limit, pdpb::kScanRegionsMaxLimit);
  std::printf("%zu regions", response.regions.size());
  if (response.regions.size() == wanted && !response.regions.back().region.end_key.empty()) {
    std::printf("; the limit was reached: continue with --start %s",
                Quote(response.regions.back().region.end_key).c_str());
  }
  std::printf("\n");
  return kExitOk;
}

int RunUpsertRegion(const std::vector<std::string>& args) {
  const std::string command = CommandName("upsert-region");
  Common c;
  RegionFlags region;
  std::vector<std::string> removed;
  CommandLine cl(command, "Writes region records and deletes others, as one batch (Pd.UpsertRegion).");
  region.Add(&cl);
  cl.AddRepeated("remove", &removed, "id of a region whose record is deleted; repeat or list as 1,2,3");
  AddCommon(&cl, &c, true);
  cl.SetEpilogue(std::string("Several regions at once go in a --request document, e.g.\n"
                             "  {\"regions\": [{\"id\": 4, \"start_key\": \"a\", \"end_key\": \"m\",\n"
                             "                \"epoch\": {\"conf_version\": 1, \"version\": 2},\n"
                             "                \"peers\": [{\"id\": 5, \"store_id\": 1}]}],\n"
                             "   \"removed_region_ids\": [7]}\n") +
                 kJsonNote);
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  std::vector<std::string> building = RegionFlags::Names();
  building.push_back("remove");
  if (int rc = CheckExclusive(cl, command, c, building); rc >= 0) return rc;
  pdpb::UpsertRegionRequest request;
  if (!c.request_file.empty()) {
    if (int rc = LoadRequest(command, c.request_file, &request); rc >= 0) return rc;
  } else {
    for (const std::string& name : RegionFlags::Names()) {
      if (name != "region-id" && cl.Given(name) && !cl.Given("region-id")) {
        return UsageError(command, "--" + name + " needs --region-id");
      }
    }
    if (!cl.Given("region-id") && removed.empty()) {
      return UsageError(command, "nothing to do: give --region-id, --remove or --request");
    }
    if (cl.Given("region-id")) {
      pdpb::Region record;
      Status s = region.Build(&record);
      if (!s.ok()) return UsageError(command, s.message());
      request.regions.push_back(std::move(record));
    }
    for (const std::string& text : removed) {
      std::vector<uint64_t> ids;
      Status s = ParseUintList(text, &ids);
      if (!s.ok()) return UsageError(command, "--remove: " + s.message());
      request.removed_region_ids.insert(request.removed_region_ids.end(), ids.begin(), ids.end());
    }
  }
  pdpb::UpsertRegionResponse response;
  if (int rc = CallServer(c, "Pd.UpsertRegion", request, &response); rc >= 0) return rc;
  if (c.json) {
    PrintJson(ToJson(response));
  } else {
    std::printf("upserted %zu regions, removed %zu\n", request.regions.size(),
                request.removed_region_ids.size());
  }
  return kExitOk;
}

int RunHeartbeat(const std::vector<std::string>& args) {
  const std::string command = CommandName("heartbeat");
  Common c;
  uint64_t store_id = 0;
  uint64_t region_id = 0;
  std::string members;
  std::string learners;
  std::string candidates;
  std::string check_regions;
  CommandLine cl(command,
                 "Reports a store's regions and prints the scheduling commands the server "
                 "answers with (Pd.RegionHeartbeat).");
  cl.AddUint("store-id", &store_id, UINT64_MAX, "the reporting store");
  cl.AddUint("region-id", &region_id, UINT64_MAX, "a region the store leads");
  cl.AddString("members", &members, "stores holding a member of that region, e.g. 1,2,3");
  cl.AddString("caught-up-learners", &learners, "stores whose learner of that region caught up");
  cl.AddString("candidates", &candidates, "members that may take over leadership or be removed first");
  cl.AddString("check-regions", &check_regions,
               "further regions the store holds a replica of, checked for staleness, e.g. 7,8");
  AddCommon(&cl, &c, true);
  cl.SetEpilogue(std::string("Several regions at once go in a --request document, e.g.\n"
                             "  {\"store_id\": 1, \"regions\": [{\"region_id\": 2, \"member_store_ids\": [1],\n"
                             "   \"caught_up_learner_store_ids\": [], \"candidate_store_ids\": []}],\n"
                             "   \"region_ids\": [7]}\n") +
                 kJsonNote);
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  if (int rc = CheckExclusive(cl, command, c,
                              {"store-id", "region-id", "members", "caught-up-learners", "candidates",
                               "check-regions"});
      rc >= 0) {
    return rc;
  }
  pdpb::RegionHeartbeatRequest request;
  if (!c.request_file.empty()) {
    if (int rc = LoadRequest(command, c.request_file, &request); rc >= 0) return rc;
  } else {
    if (!cl.Given("store-id")) return UsageError(command, "--store-id is required (or --request)");
    request.store_id = store_id;
    if (cl.Given("region-id")) {
      pdpb::RegionHeartbeatEntry entry;
      entry.region_id = region_id;
      const std::pair<const char*, std::pair<const std::string*, std::vector<uint64_t>*>> lists[] = {
          {"members", {&members, &entry.member_store_ids}},
          {"caught-up-learners", {&learners, &entry.caught_up_learner_store_ids}},
          {"candidates", {&candidates, &entry.candidate_store_ids}},
      };
      for (const auto& [name, list] : lists) {
        Status s = ParseUintList(*list.first, list.second);
        if (!s.ok()) return UsageError(command, std::string("--") + name + ": " + s.message());
      }
      request.regions.push_back(std::move(entry));
    } else if (cl.Given("members") || cl.Given("caught-up-learners") || cl.Given("candidates")) {
      return UsageError(command, "--members, --caught-up-learners and --candidates need --region-id");
    }
    Status s = ParseUintList(check_regions, &request.region_ids);
    if (!s.ok()) return UsageError(command, "--check-regions: " + s.message());
  }
  pdpb::RegionHeartbeatResponse response;
  if (int rc = CallServer(c, "Pd.RegionHeartbeat", request, &response); rc >= 0) return rc;
  if (c.json) {
    PrintJson(ToJson(response));
    return kExitOk;
  }
  if (response.commands.empty()) std::printf("no commands\n");
  for (const pdpb::ScheduleCommand& command_out : response.commands) {
    const char* name = ScheduleKindName(command_out.kind);
    std::string kind = *name != '\0' ? name : "kind " + std::to_string(command_out.kind);
    std::printf("%s region %llu store %llu", kind.c_str(), static_cast<unsigned long long>(command_out.region_id),
                static_cast<unsigned long long>(command_out.store_id));
    if (!command_out.address.empty()) std::printf(" address %s", Quote(command_out.address).c_str());
    std::printf("\n");
  }
  return kExitOk;
}

// The wall clock in milliseconds, against which heartbeat ages are shown.
uint64_t NowMillis() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count());
}

int RunStores(const std::vector<std::string>& args) {
  const std::string command = CommandName("stores");
  Common c;
  bool exclude_tombstones = false;
  CommandLine cl(command,
                 "Lists the stores, one line each: state, address, labels, replicas, load and the age "
                 "of the last store heartbeat (Pd.GetAllStores).");
  cl.AddSwitch("exclude-tombstones", &exclude_tombstones, "leave out the stores that were removed");
  AddCommon(&cl, &c, false);
  cl.SetEpilogue(
      "A line reads (wrapped here)\n"
      "  store 1 up address \"127.0.0.1:20160\" labels zone=z1,host=h1 replicas 12 regions 12 leaders 4\n"
      "  available 80.0 GiB/100.0 GiB heartbeat 3s ago\n"
      "States: up, disconnected (silent for a while: gets no new replicas), down (silent too long:\n"
      "its replicas are replaced), offline (being removed), tombstone (removed), unknown (has never\n"
      "sent a store heartbeat). replicas counts the region records that place a replica on the\n"
      "store; regions, leaders and the space are what the store last reported, '-' before its\n"
      "first report to this server.\n");
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  pdpb::GetAllStoresRequest request;
  request.exclude_tombstones = exclude_tombstones;
  pdpb::GetAllStoresResponse response;
  if (int rc = CallServer(c, "Pd.GetAllStores", request, &response); rc >= 0) return rc;
  if (c.json) {
    PrintJson(ToJson(response));
    return kExitOk;
  }
  if (response.stores.empty()) std::printf("no stores\n");
  const uint64_t now_ms = NowMillis();
  for (const pdpb::StoreInfo& info : response.stores) std::printf("%s\n", StoreLine(info, now_ms).c_str());
  return kExitOk;
}

int RunStore(const std::vector<std::string>& args) {
  const std::string command = CommandName("store");
  Common c;
  std::vector<std::string> words;
  CommandLine cl(command,
                 "Shows one store in detail (Pd.GetStore), or takes it out of the cluster "
                 "(Pd.RemoveStore).");
  cl.SetPositional("ID", &words, 1, 2, "the store's id");
  cl.SetSynopsis("[remove] ID");
  AddCommon(&cl, &c, false);
  cl.SetEpilogue(
      "  store ID         shows the store: state, address, labels, node state, replicas, the load it\n"
      "                   last reported and its heartbeat times\n"
      "  store remove ID  takes the store out of the cluster and prints the state it is in then:\n"
      "                   offline while its replicas move to other stores, or tombstone at once\n"
      "                   when it holds none\n");
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  const bool remove = words[0] == "remove";
  if (remove && words.size() == 1) return UsageError(command, "missing ID");
  if (!remove && words.size() == 2) return UsageError(command, "unexpected argument '" + words[1] + "'");
  uint64_t id = 0;
  Status s = ParseUint(words.back(), UINT64_MAX, &id);
  if (!s.ok()) return UsageError(command, "ID: " + s.message());

  if (remove) {
    pdpb::RemoveStoreRequest request;
    request.store_id = id;
    pdpb::RemoveStoreResponse response;
    if (int rc = CallServer(c, "Pd.RemoveStore", request, &response); rc >= 0) return rc;
    if (c.json) {
      PrintJson(ToJson(response));
      return kExitOk;
    }
    std::string what = StoreStateText(response.state);
    if (response.state == pdpb::kStoreOffline) what += ": being removed, its replicas move to other stores";
    if (response.state == pdpb::kStoreTombstone) what += ": removed, it held no replica";
    std::printf("store %llu %s\n", static_cast<unsigned long long>(id), what.c_str());
    return kExitOk;
  }
  pdpb::GetStoreRequest request;
  request.store_id = id;
  pdpb::GetStoreResponse response;
  if (int rc = CallServer(c, "Pd.GetStore", request, &response); rc >= 0) return rc;
  if (c.json) {
    PrintJson(ToJson(response));
  } else {
    std::fputs(StorePage(response.store, NowMillis()).c_str(), stdout);
  }
  return kExitOk;
}

int RunSafePoint(const std::vector<std::string>& args) {
  const std::string command = CommandName("safe-point");
  Common c;
  std::vector<std::string> words;
  CommandLine cl(command,
                 "Shows the GC safe point and the safe point and expiry of every service that holds it "
                 "back (Pd.GetGcSafePoint), or sets one service's safe point (Pd.UpdateServiceSafePoint).");
  cl.SetPositional("ARGS", &words, 0, 4, "set SERVICE TTL_S SAFE_POINT");
  cl.SetSynopsis("[set SERVICE TTL_S SAFE_POINT]");
  AddCommon(&cl, &c, false);
  cl.SetEpilogue(
      "  safe-point      the GC safe point, then one line per service that holds it back\n"
      "  safe-point set SERVICE TTL_S SAFE_POINT\n"
      "                  holds the GC safe point at SAFE_POINT (a timestamp) for SERVICE (escaped)\n"
      "                  for TTL_S seconds; TTL_S 0 removes SERVICE's entry\n"
      "The GC safe point is the lowest safe point of the services whose time to live has not run\n"
      "out, and never moves backwards. An update below the service's safe point or below the GC\n"
      "safe point is refused: the current values are printed after \"refused\", with exit status 0.\n");
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  const uint64_t now_ms = NowMillis();
  if (words.empty()) {
    pdpb::GetGcSafePointResponse response;
    if (int rc = CallServer(c, "Pd.GetGcSafePoint", pdpb::GetGcSafePointRequest{}, &response); rc >= 0) return rc;
    if (c.json) {
      PrintJson(ToJson(response));
    } else {
      std::fputs(GcSafePointPage(response, now_ms).c_str(), stdout);
    }
    return kExitOk;
  }
  if (words[0] != "set") return UsageError(command, "unexpected argument '" + words[0] + "'");
  if (words.size() != 4) return UsageError(command, "set needs SERVICE TTL_S SAFE_POINT");
  pdpb::UpdateServiceSafePointRequest request;
  Status s = UnescapeBytes(words[1], &request.service_id);
  if (!s.ok()) return UsageError(command, "SERVICE: " + s.message());
  s = ParseUint(words[2], UINT64_MAX, &request.ttl_s);
  if (!s.ok()) return UsageError(command, "TTL_S: " + s.message());
  s = ParseUint(words[3], UINT64_MAX, &request.safe_point);
  if (!s.ok()) return UsageError(command, "SAFE_POINT: " + s.message());
  pdpb::UpdateServiceSafePointResponse response;
  if (int rc = CallServer(c, "Pd.UpdateServiceSafePoint", request, &response); rc >= 0) return rc;
  if (c.json) {
    PrintJson(ToJson(response));
  } else {
    std::fputs(ServiceUpdateText(response, now_ms).c_str(), stdout);
  }
  return kExitOk;
}

// Set by SIGINT while `stats --watch` runs.
volatile std::sig_atomic_t interrupted = 0;

void OnInterrupt(int) { interrupted = 1; }

// Sleeps until `deadline` or until interrupted.
void SleepUntil(std::chrono::steady_clock::time_point deadline) {
  while (!interrupted) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return;
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - now).count();
    struct timespec pause = {static_cast<time_t>(left / 1000000000), static_cast<long>(left % 1000000000)};
    nanosleep(&pause, nullptr);  // SIGINT cuts it short
  }
}

// Calls Pd.Stats every `interval_ms` on one connection and redraws the
// rates since the previous answer, as top does, until SIGINT.
int WatchStats(const Common& c, int64_t interval_ms) {
  struct sigaction action = {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);  // no SA_RESTART: the sleep ends at once
  sigaction(SIGTERM, &action, nullptr);

  kanrpc::RpcClientOptions options;
  if (int rc = ClientOptions(c, &options); rc >= 0) return rc;
  kanrpc::RpcClient client(c.addr, options);
  const bool terminal = isatty(STDOUT_FILENO) != 0;
  pdpb::StatsResponse before;  // the first page shows the rates since start
  auto next = std::chrono::steady_clock::now();
  while (!interrupted) {
    pdpb::StatsResponse now;
    Status s = client.Call("Pd.Stats", pdpb::StatsRequest{}, &now);
    std::string page = std::string(kProgram) + " stats --watch, " + c.addr + " (Ctrl-C to stop)\n";
    if (s.ok()) {
      page += StatsRates(before, now);
      before = std::move(now);
    } else {
      page += s.message() + "\n";
    }
    // A terminal is cleared for each page; a pipe or file gets them in a row.
    std::fputs(terminal ? "\x1b[H\x1b[2J" : "\n", stdout);
    std::fputs(page.c_str(), stdout);
    std::fflush(stdout);
    next += std::chrono::milliseconds(interval_ms);
    SleepUntil(next);
  }
  return kExitOk;
}

int RunStats(const std::vector<std::string>& args) {
  const std::string command = CommandName("stats");
  Common c;
  bool prometheus = false;
  std::string watch;
  CommandLine cl(command,
                 "Shows the server's live statistics: requests, errors and latencies per method, "
                 "connections, the storage engine, routing, and the scheduler's stores, repairs and commands "
                 "(Pd.Stats).");
  cl.AddSwitch("prometheus", &prometheus, "print in the Prometheus text exposition format");
  cl.AddString("watch", &watch, "redraw the rates every VALUE, an interval such as 1s or 500ms, until Ctrl-C");
  AddCommon(&cl, &c, false);
  cl.SetEpilogue(
      "--prometheus prints every figure with a kandb_meta_ prefix, latencies as histograms in\n"
      "seconds; written to a file named *.prom it can be published by a textfile collector.\n"
      "Latency quantiles in the readable output are bucket bounds (powers of two of microseconds).\n");
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  if (c.json && prometheus) return UsageError(command, "--json and --prometheus exclude each other");
  if (cl.Given("watch")) {
    if (c.json || prometheus) return UsageError(command, "--watch cannot be combined with --json or --prometheus");
    int64_t interval_ms = 0;
    Status s = ParseDurationMillis(watch, &interval_ms);
    if (!s.ok()) return UsageError(command, "--watch: " + s.message());
    if (interval_ms <= 0) return UsageError(command, "--watch: the interval must be positive");
    return WatchStats(c, interval_ms);
  }
  pdpb::StatsResponse response;
  if (int rc = CallServer(c, "Pd.Stats", pdpb::StatsRequest{}, &response); rc >= 0) return rc;
  if (c.json) {
    PrintJson(ToJson(response));
  } else if (prometheus) {
    std::fputs(StatsPrometheus(response).c_str(), stdout);
  } else {
    std::fputs(StatsText(response).c_str(), stdout);
  }
  return kExitOk;
}

struct Subcommand {
  const char* name;
  const char* summary;
  int (*run)(const std::vector<std::string>& args);
};

const Subcommand kSubcommands[] = {
    {"tso", "get a batch of timestamps", RunTso},
    {"alloc-id", "allocate a batch of identifiers", RunAllocId},
    {"bootstrap", "bootstrap the cluster or register a store", RunBootstrap},
    {"get-region", "route a key to its region", RunGetRegion},
    {"upsert-region", "write or delete region records", RunUpsertRegion},
    {"heartbeat", "send a region heartbeat, print the scheduling commands", RunHeartbeat},
    {"stores", "list the stores: state, address, labels, load", RunStores},
    {"store", "show one store (ID), or take it out of the cluster (remove ID)", RunStore},
    {"stats", "show live statistics (also --prometheus, --watch 1s)", RunStats},
    // Region reads.
    {"region", "show the region with an id (--id N), its leader and stores", RunRegion},
    {"regions", "list the regions of a key range in key order, with their leaders", RunRegions},
    {"safe-point", "show the GC safe point and the services' (or set one)", RunSafePoint},
};

std::string TopUsage() {
  std::string text = std::string("usage: ") + kProgram + " COMMAND [options]\n" +
                     "The command-line client of the kandb-meta placement-driver server.\n\ncommands:\n";
  for (const Subcommand& sub : kSubcommands) {
    char line[128];
    std::snprintf(line, sizeof(line), "  %-14s %s\n", sub.name, sub.summary);
    text += line;
  }
  text += std::string("\nEvery command takes --addr HOST:PORT, --timeout-ms, --attempts, --json, the TLS\n") +
          "options --tls-cert, --tls-key, --tls-ca and --tls-server-name, and --help;\n" +
          "all but --help may also stand before the command.\n" +
          "Exit status: 0 success, 1 the call failed, 2 bad command line or request document.\n";
  return text;
}

// The options of Common that people also type before the command, as in
// "kandb-meta-ctl --addr 10.0.0.1:2379 tso"; --request belongs to a command.
constexpr SharedOption kSharedOptions[] = {
    {"addr", true},     {"timeout-ms", true}, {"attempts", true},       {"json", false},
    {"tls-cert", true}, {"tls-key", true},    {"tls-server-name", true}, {"tls-ca", true}};

int Main(int argc, char** argv) {
  std::optional<std::string> command;
  std::vector<std::string> args;
  Status s = SplitSharedOptions(std::vector<std::string>(argv + 1, argv + argc), kSharedOptions, &command, &args);
  if (!s.ok()) {
    std::fprintf(stderr, "%s: %s\n(see %s --help)\n", kProgram, s.message().c_str(), kProgram);
    return kExitUsage;
  }
  if (!command) {
    std::fputs(TopUsage().c_str(), stderr);
    return kExitUsage;
  }
  const std::string& name = *command;
  if (name == "--help" || name == "help") {
    std::fputs(TopUsage().c_str(), stdout);
    return kExitOk;
  }
  for (const Subcommand& sub : kSubcommands) {
    if (name == sub.name) return sub.run(args);
  }
  std::fprintf(stderr, "%s: unknown command '%s'\n(see %s --help)\n", kProgram, name.c_str(), kProgram);
  return kExitUsage;
}

}  // namespace
}  // namespace kandb::tools

int main(int argc, char** argv) { return kandb::tools::Main(argc, argv); }
