// Fuzz target: the JSON reader that parses etcd's answers off the network.
//
// Whatever parses must survive a round trip: its compact text parses to an
// equal tree, and writing that tree again gives the same text. Base64 is
// checked on the way: what decodes re-encodes to the same text.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/fuzz_util.h"
#include "store/json.h"

namespace {

using kandb::store::json::Base64Decode;
using kandb::store::json::Base64Encode;
using kandb::store::json::Parse;
using kandb::store::json::Value;

std::vector<std::string> MakeSeeds() {
  // Answers as etcd's gateway writes them, and the corners of the grammar.
  return {
      R"({"header":{"cluster_id":"324952591200643719","member_id":"3319814642761637952","revision":"2","raft_term":"2"},"kvs":[{"key":"Zm9v","create_revision":"2","mod_revision":"2","version":"1","value":"YmFy"}],"count":"1"})",
      R"({"header":{"revision":"3"},"succeeded":true,"responses":[{"response_delete_range":{"header":{"revision":"3"},"deleted":"1"}}]})",
      R"({"result":{"header":{"revision":"2"},"ID":"2324035563829414414","TTL":"3"}})",
      R"({"error":"etcdserver: too many operations in txn request","message":"etcdserver: too many operations in txn request","code":3})",
      R"([1,-0.5e+10,0,true,false,null,"a\"\\\/\b\f\n\r\t\u0041\u00e9\ud83d\ude00",[],{}])",
      "  \"x\"  ",
      "[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]",
      "Zm9vYmFy",
      "Zm8=",
  };
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  kandb::fuzzing::MaybeWriteSeeds(*argc, *argv, MakeSeeds);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  Value value;
  if (Parse(text, &value).ok()) {
    const std::string compact = value.Serialize();
    Value again;
    KANDB_FUZZ_CHECK(Parse(compact, &again).ok());
    KANDB_FUZZ_CHECK(again == value);
    KANDB_FUZZ_CHECK(again.Serialize() == compact);
    uint64_t u = 0;
    int64_t i = 0;
    (void)value.AsUint64(&u);
    (void)value.AsInt64(&i);
  }
  std::string bytes;
  if (Base64Decode(text, &bytes)) KANDB_FUZZ_CHECK(Base64Encode(bytes) == text);
  return 0;
}
