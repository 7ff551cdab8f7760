#ifndef KANDB_STORE_ETCD_JSON_H_
#define KANDB_STORE_ETCD_JSON_H_

// The JSON of etcd's HTTP gateway, apart from the HTTP that carries it:
// the request bodies EtcdClient sends and the decoders of the answers it
// gets back, which come from the network and are checked field by field.
//
// The gateway carries every key and value as base64 text and every 64-bit
// integer as a decimal string (smaller integers, such as an error's gRPC
// code, as JSON numbers). Integer fields are read from either form, exactly:
// no fraction, exponent, '+' or blank, at most 20 digits, and nothing
// outside int64 (a value never passes through a double). A field the
// gateway leaves out is at its default (0, empty, false).
//
// Every decoder fails with code 2 (Corruption) "etcd: bad answer: " + why
// when the answer is not what etcd writes; LeaseGrant and the streamed
// answers also pass on the refusals etcd wraps in them (see each).

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/status.h"
#include "store/etcd_client.h"

namespace kandb::store::etcd_json {

// Standard alphabet with padding.
std::string Base64Encode(std::string_view bytes);
// Only the text Base64Encode writes is accepted: standard alphabet,
// padding required, unused bits zero, no blanks or line ends; false (and
// *out untouched) for anything else, so every byte string has one form.
bool Base64Decode(std::string_view text, std::string* out);

// Request bodies. An empty range_end reads or watches the one key; a limit,
// revision or start_revision of 0 is left out (etcd's default).
std::string RangeRequest(const std::string& key, const std::string& range_end, int64_t limit, int64_t revision);
std::string TxnRequest(const std::vector<EtcdCompare>& compares, const std::vector<EtcdOp>& success,
                       const std::vector<EtcdOp>& failure);
// {"<field>": "<value>"}: the lease calls' bodies ("TTL" or "ID").
std::string LeaseRequest(const char* field, int64_t value);
std::string WatchRequest(const std::string& key, const std::string& range_end, int64_t start_revision);

// A refusal, {"error": reason, "code": gRPC code}: sets *reason and *code
// to those of the body that are present and well-formed, and leaves the
// rest as they were (the body may be anything a proxy wrote).
void DecodeRefusal(std::string_view text, std::string* reason, int64_t* code);

Status DecodeRange(std::string_view text, std::vector<EtcdKv>* kvs, bool* more, int64_t* header_revision);
// `success` and `failure` are the request's branches: the answer holds one
// response per operation of the branch that ran.
Status DecodeTxn(std::string_view text, const std::vector<EtcdOp>& success, const std::vector<EtcdOp>& failure,
                 EtcdTxnResult* result);
// A grant etcd refused within a 200 answer ({"error": reason}) fails with
// code 1 "etcd: " + reason.
Status DecodeLeaseGrant(std::string_view text, int64_t* id, int64_t* granted_ttl);
// The streamed answers (keep-alive, and each line of a watch) come as
// {"result": ...} or {"error": {"message": ...}}; the latter fails with
// code 4 "etcd unreachable: " + message.
Status DecodeKeepAlive(std::string_view text, int64_t* ttl);
Status DecodeWatch(std::string_view line, EtcdWatchAnswer* out);

}  // namespace kandb::store::etcd_json

#endif  // KANDB_STORE_ETCD_JSON_H_
