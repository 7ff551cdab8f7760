// Fuzz target: the decoders of etcd's answers, which come off the network.
//
// Every decoder is given the same bytes; none may crash or throw, and what
// decodes must be whole: a record's bytes survive the base64 of a request
// built from them. Base64 is checked on the way: what decodes re-encodes
// to the same text.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/fuzz_util.h"
#include "store/etcd_json.h"

namespace {

using kandb::store::EtcdEvent;
using kandb::store::EtcdKv;
using kandb::store::EtcdOp;
using kandb::store::EtcdTxnResult;
using kandb::store::EtcdWatchAnswer;
using kandb::store::etcd_json::Base64Decode;
using kandb::store::etcd_json::Base64Encode;
using kandb::store::etcd_json::DecodeKeepAlive;
using kandb::store::etcd_json::DecodeLeaseGrant;
using kandb::store::etcd_json::DecodeRange;
using kandb::store::etcd_json::DecodeRefusal;
using kandb::store::etcd_json::DecodeTxn;
using kandb::store::etcd_json::DecodeWatch;
using kandb::store::etcd_json::RangeRequest;

std::vector<std::string> MakeSeeds() {
  // Answers as etcd's gateway writes them, and its refusals.
  return {
      R"({"header":{"cluster_id":"324952591200643719","member_id":"3319814642761637952","revision":"2","raft_term":"2"},"kvs":[{"key":"Zm9v","create_revision":"2","mod_revision":"2","version":"1","value":"YmFy"}],"more":true,"count":"1"})",
      R"({"header":{"revision":"3"},"succeeded":true,"responses":[{"response_put":{"header":{"revision":"3"}}},{"response_range":{"header":{"revision":"3"},"kvs":[{"key":"YQ==","value":"/wD+","lease":"7587869830410349330"}]}}]})",
      R"({"header":{"revision":"3"},"responses":[{"response_range":{"header":{"revision":"3"}}}]})",
      R"({"header":{"revision":"2"},"ID":"2324035563829414414","TTL":"3"})",
      R"({"result":{"header":{"revision":"2"},"ID":"2324035563829414414","TTL":"3"}})",
      R"({"error":{"grpc_code":14,"http_code":503,"message":"etcdserver: no leader","http_status":"Service Unavailable"}})",
      R"({"result":{"header":{"revision":"6"},"events":[{"kv":{"key":"YQ==","create_revision":"5","mod_revision":"5","version":"1","value":"MQ=="}},{"type":"DELETE","kv":{"key":"Yg==","mod_revision":"6"}}]}})",
      R"({"result":{"header":{"revision":"9"},"canceled":true,"compact_revision":"7","cancel_reason":"mvcc: required revision has been compacted"}})",
      R"({"error":"etcdserver: too many operations in txn request","message":"etcdserver: too many operations in txn request","code":3})",
      R"([1,-0.5e+10,0,18446744073709551615,-9223372036854775808,true,false,null,"a\"\\\/\b\f\n\r\t\u0041\u00e9\ud83d\ude00",[],{}])",
      "Zm9vYmFy",
      "Zm8=",
  };
}

void CheckRecord(const EtcdKv& kv) {
  std::string bytes;
  KANDB_FUZZ_CHECK(Base64Decode(Base64Encode(kv.key), &bytes) && bytes == kv.key);
  KANDB_FUZZ_CHECK(Base64Decode(Base64Encode(kv.value), &bytes) && bytes == kv.value);
  // Request bodies are built from what was read, bytes of any kind.
  KANDB_FUZZ_CHECK(!RangeRequest(kv.key, kv.value, kv.create_revision, kv.mod_revision).empty());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  kandb::fuzzing::MaybeWriteSeeds(*argc, *argv, MakeSeeds);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  std::vector<EtcdKv> kvs;
  bool more = false;
  int64_t revision = 0;
  if (DecodeRange(text, &kvs, &more, &revision).ok()) {
    for (const EtcdKv& kv : kvs) CheckRecord(kv);
  }

  const std::vector<EtcdOp> success = {{EtcdOp::Kind::kPut, "a", "1", 0}, {EtcdOp::Kind::kGet, "a", "", 0}};
  const std::vector<EtcdOp> failure = {{EtcdOp::Kind::kGet, "b", "", 0}};
  EtcdTxnResult txn;
  if (DecodeTxn(text, success, failure, &txn).ok()) {
    KANDB_FUZZ_CHECK(txn.gets.size() == 1);
    for (const auto& gets : txn.gets) {
      for (const EtcdKv& kv : gets) CheckRecord(kv);
    }
  }

  int64_t id = 0, ttl = 0;
  if (DecodeLeaseGrant(text, &id, &ttl).ok()) KANDB_FUZZ_CHECK(id != 0 && ttl > 0);
  (void)DecodeKeepAlive(text, &ttl);

  EtcdWatchAnswer watch;
  if (DecodeWatch(text, &watch).ok()) {
    for (const EtcdEvent& event : watch.events) CheckRecord(event.kv);
  }

  std::string reason;
  int64_t code = -1;
  DecodeRefusal(text, &reason, &code);

  std::string bytes;
  if (Base64Decode(text, &bytes)) KANDB_FUZZ_CHECK(Base64Encode(bytes) == text);
  return 0;
}
