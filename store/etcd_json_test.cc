#include "store/etcd_json.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

namespace kandb::store::etcd_json {
namespace {

using nlohmann::json;

TEST(EtcdJsonTest, Base64IsStrict) {
  const std::pair<std::string, std::string> vectors[] = {
      {"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},
      {"foo", "Zm9v"},  {"foob", "Zm9vYg=="},  {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"}, {std::string("\xff\x00\xfe", 3), "/wD+"},
  };
  for (const auto& [bytes, text] : vectors) {
    EXPECT_EQ(Base64Encode(bytes), text);
    std::string out;
    ASSERT_TRUE(Base64Decode(text, &out)) << text;
    EXPECT_EQ(out, bytes);
  }
  // Missing or misplaced padding, unused bits set, other alphabets, and the
  // blanks and line ends around the text that OpenSSL alone would skip.
  std::string out = "kept";
  for (const char* bad : {"Zg=", "Zg", "Zh==", "Zm9=", "Z===", "====", "Zg==Zg==", "Zm=v", "Zm9v!A==", "_-8=",
                          "Zm9v====", " Zm9v", "Zm9v\n", "Zm9v\r\n\r\n", "Zm 9v", "Zm9v-", "    "}) {
    EXPECT_FALSE(Base64Decode(bad, &out)) << bad;
  }
  EXPECT_EQ(out, "kept");
  // Larger than one encoding chunk of 3 MiB, not a multiple of three.
  std::string big(size_t{7} << 20 | 1, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 131 + (i >> 12));
  const std::string text = Base64Encode(big);
  EXPECT_EQ(text.size(), (big.size() + 2) / 3 * 4);
  ASSERT_TRUE(Base64Decode(text, &out));
  EXPECT_TRUE(out == big);
}

// One record's create_revision given as `field`: its value, or "refused".
std::string CreateRevision(const std::string& field) {
  std::vector<EtcdKv> kvs;
  bool more = false;
  int64_t revision = 0;
  const Status s = DecodeRange(R"({"header":{"revision":"9"},"kvs":[{"key":"Zm9v","create_revision":)" + field + "}]}",
                               &kvs, &more, &revision);
  if (!s.ok()) {
    EXPECT_EQ(s.ToString(), "Corruption: etcd: bad answer: bad record") << field;
    return "refused";
  }
  return std::to_string(kvs.at(0).create_revision);
}

TEST(EtcdJsonTest, IntegerFieldsAreExact) {
  // The gateway's decimal strings, and JSON integers.
  const std::pair<const char*, const char*> cases[] = {
      {R"("9223372036854775807")", "9223372036854775807"}, {R"("-9223372036854775808")", "-9223372036854775808"},
      {R"("-5")", "-5"}, {R"("007")", "7"}, {R"("-0")", "0"}, {"3", "3"}, {"-5", "-5"},
      {"9223372036854775807", "9223372036854775807"}, {"-9223372036854775808", "-9223372036854775808"},
  };
  for (const auto& [field, expected] : cases) EXPECT_EQ(CreateRevision(field), expected) << field;
  // Beyond int64 in either form (an unsigned JSON number above INT64_MAX
  // must not come back negative), and anything not an integer.
  for (const char* field : {R"("9223372036854775808")", R"("-9223372036854775809")", "9223372036854775808",
                            "18446744073709551615", "18446744073709551616", "-9223372036854775809",
                            R"("000000000000000000001")", "1.0", "1e3", R"("1e3")", R"("+5")", R"(" 5")", R"("5 ")",
                            R"("0x10")", R"("")", R"("-")", "true", "null", "[1]"}) {
    EXPECT_EQ(CreateRevision(field), "refused") << field;
  }
}

TEST(EtcdJsonTest, RangeAnswers) {
  std::vector<EtcdKv> kvs;
  bool more = false;
  int64_t revision = 0;
  // As etcd writes it; fields at their default are left out.
  ASSERT_TRUE(DecodeRange(R"({"header":{"cluster_id":"324952591200643719","member_id":"3319814642761637952",)"
                          R"("revision":"12","raft_term":"2"},"kvs":[{"key":"Zm9v","create_revision":"2",)"
                          R"("mod_revision":"11","version":"4","value":"/wD+","lease":"7587869830410349330"},)"
                          R"({"key":"Zm9vMg==","create_revision":"5","mod_revision":"5","version":"1"}],)"
                          R"("more":true,"count":"3"})",
                          &kvs, &more, &revision)
                  .ok());
  EXPECT_EQ(revision, 12);
  EXPECT_TRUE(more);
  ASSERT_EQ(kvs.size(), 2u);
  EXPECT_EQ(kvs[0].key, "foo");
  EXPECT_EQ(kvs[0].value, std::string("\xff\x00\xfe", 3));
  EXPECT_EQ(kvs[0].create_revision, 2);
  EXPECT_EQ(kvs[0].mod_revision, 11);
  EXPECT_EQ(kvs[0].lease, 7587869830410349330);
  EXPECT_EQ(kvs[1].key, "foo2");
  EXPECT_EQ(kvs[1].value, "");
  EXPECT_EQ(kvs[1].lease, 0);

  // An empty range: no kvs, no more.
  ASSERT_TRUE(DecodeRange(R"({"header":{"revision":"3"}})", &kvs, &more, &revision).ok());
  EXPECT_TRUE(kvs.empty());
  EXPECT_FALSE(more);
  EXPECT_EQ(revision, 3);

  const std::pair<std::string, const char*> bad[] = {
      {"", "etcd: bad answer: empty"},
      {"<html>\xff</html>",
       R"(etcd: bad answer: not JSON: 14 bytes starting "<html>\ufffd</html>")"},
      {R"({"header":{"revision":"2"},"kvs":[{"key":"Zm9v","value":"YmFyYmF6cXV4cXV1eA==)",
       R"(etcd: bad answer: not JSON: 77 bytes starting "{\"header\":{\"revision\":\"2\"},\"kvs\"")"},
      {R"({"header":{"revision":"2"}} {})", "etcd: bad answer: not JSON: 30 bytes starting "
                                            R"("{\"header\":{\"revision\":\"2\"}} {}")"},
      {"[1]", "etcd: bad answer: not an object"},
      {R"({"kvs":[]})", "etcd: bad answer: no header revision"},
      {R"({"header":"x"})", "etcd: bad answer: no header revision"},
      {R"({"header":{"revision":2.5}})", "etcd: bad answer: no header revision"},
      {R"({"header":{"revision":"2"},"kvs":{}})", "etcd: bad answer: kvs is not a list"},
      {R"({"header":{"revision":"2"},"kvs":["Zm9v"]})", "etcd: bad answer: bad record"},
      {R"({"header":{"revision":"2"},"kvs":[{"key":"Zm9v="}]})", "etcd: bad answer: bad record"},
      {R"({"header":{"revision":"2"},"kvs":[{"key":3}]})", "etcd: bad answer: bad record"},
      {R"({"header":{"revision":"2"},"kvs":[{"key":"Zm9v","lease":"x"}]})", "etcd: bad answer: bad record"},
  };
  // Nesting as deep as an answer's length allows neither parses nor frees
  // by recursion.
  const size_t depth = 1 << 20;
  const std::string deep =
      R"({"header":{"revision":"2"},"kvs":[)" + std::string(depth, '[') + std::string(depth + 1, ']') + "}";
  EXPECT_EQ(DecodeRange(deep, &kvs, &more, &revision).ToString(), "Corruption: etcd: bad answer: bad record");

  for (const auto& [text, error] : bad) {
    kvs.assign(1, EtcdKv());
    kvs[0].key = "kept";
    Status s = DecodeRange(text, &kvs, &more, &revision);
    EXPECT_TRUE(s.IsCorruption()) << text;
    EXPECT_EQ(s.message(), error) << text;
    ASSERT_EQ(kvs.size(), 1u);
    EXPECT_EQ(kvs[0].key, "kept");
  }
}

TEST(EtcdJsonTest, TxnAnswers) {
  const std::vector<EtcdOp> success = {{EtcdOp::Kind::kPut, "a", "1", 0}, {EtcdOp::Kind::kGet, "a", "", 0}};
  const std::vector<EtcdOp> failure = {{EtcdOp::Kind::kGet, "b", "", 0}};
  EtcdTxnResult r;
  ASSERT_TRUE(DecodeTxn(R"({"header":{"revision":"8"},"succeeded":true,"responses":[)"
                        R"({"response_put":{"header":{"revision":"8"}}},)"
                        R"({"response_range":{"header":{"revision":"8"},"kvs":[{"key":"YQ==","value":"MQ==",)"
                        R"("create_revision":"8","mod_revision":"8","version":"1"}],"count":"1"}}]})",
                        success, failure, &r)
                  .ok());
  EXPECT_TRUE(r.succeeded);
  EXPECT_EQ(r.revision, 8);
  ASSERT_EQ(r.gets.size(), 1u);
  ASSERT_EQ(r.gets[0].size(), 1u);
  EXPECT_EQ(r.gets[0][0].value, "1");
  // The failure branch ran (succeeded left out): its get found nothing.
  ASSERT_TRUE(DecodeTxn(R"({"header":{"revision":"8"},"responses":[{"response_range":{"header":{}}}]})", success,
                        failure, &r)
                  .ok());
  EXPECT_FALSE(r.succeeded);
  ASSERT_EQ(r.gets.size(), 1u);
  EXPECT_TRUE(r.gets[0].empty());
  // A transaction without operations has no responses at all.
  ASSERT_TRUE(DecodeTxn(R"({"header":{"revision":"9"},"succeeded":true})", {}, {}, &r).ok());
  EXPECT_EQ(r.revision, 9);

  const std::pair<const char*, const char*> bad[] = {
      {R"({"succeeded":true,"responses":[{},{}]})", "etcd: bad answer: no header revision"},
      {R"({"header":{"revision":"8"},"succeeded":true,"responses":[{}]})", "etcd: bad answer: wrong number of responses"},
      {R"({"header":{"revision":"8"},"succeeded":true,"responses":{"a":1,"b":2}})",
       "etcd: bad answer: wrong number of responses"},
      {R"({"header":{"revision":"8"},"succeeded":"true","responses":[{},{}]})",
       "etcd: bad answer: wrong number of responses"},
      {R"({"header":{"revision":"8"},"succeeded":true,"responses":[{},{}]})", "etcd: bad answer: no range response"},
      {R"({"header":{"revision":"8"},"succeeded":true,"responses":[{},[]]})", "etcd: bad answer: no range response"},
      {R"({"header":{"revision":"8"},"succeeded":true,"responses":[{},{"response_range":{"kvs":[1]}}]})",
       "etcd: bad answer: bad record"},
  };
  for (const auto& [text, error] : bad) {
    r.revision = -1;
    EXPECT_EQ(DecodeTxn(text, success, failure, &r).ToString(), std::string("Corruption: ") + error) << text;
    EXPECT_EQ(r.revision, -1);
  }
}

TEST(EtcdJsonTest, LeaseAnswersAndRefusals) {
  int64_t id = 0, ttl = 0;
  ASSERT_TRUE(DecodeLeaseGrant(R"({"header":{"revision":"2"},"ID":"7587869830410349330","TTL":"3"})", &id, &ttl).ok());
  EXPECT_EQ(id, 7587869830410349330);
  EXPECT_EQ(ttl, 3);
  EXPECT_EQ(DecodeLeaseGrant(R"({"header":{},"error":"etcdserver: lease already exists"})", &id, &ttl).ToString(),
            "InvalidArgument: etcd: etcdserver: lease already exists");
  EXPECT_EQ(DecodeLeaseGrant(R"({"ID":"5","TTL":"0"})", &id, &ttl).ToString(),
            "Corruption: etcd: bad answer: no lease granted");
  EXPECT_EQ(DecodeLeaseGrant(R"({"ID":"5","TTL":"x","error":7})", &id, &ttl).ToString(),
            "Corruption: etcd: bad answer: no lease granted");
  EXPECT_EQ(id, 7587869830410349330);

  ASSERT_TRUE(DecodeKeepAlive(R"({"result":{"header":{"revision":"2"},"ID":"5","TTL":"3"}})", &ttl).ok());
  EXPECT_EQ(ttl, 3);
  // A lease that is gone renews to a TTL left out.
  ASSERT_TRUE(DecodeKeepAlive(R"({"result":{"header":{"revision":"2"},"ID":"5"}})", &ttl).ok());
  EXPECT_EQ(ttl, 0);
  EXPECT_EQ(DecodeKeepAlive(R"({"error":{"grpc_code":14,"http_code":503,"message":"etcdserver: no leader"}})", &ttl)
                .ToString(),
            "Unavailable: etcd unreachable: etcdserver: no leader");
  EXPECT_EQ(DecodeKeepAlive(R"({"result":"x","error":{"message":1}})", &ttl).ToString(),
            "Corruption: etcd: bad answer: no keep-alive result");
  EXPECT_EQ(DecodeKeepAlive(R"({"result":{"TTL":1.5}})", &ttl).ToString(), "Corruption: etcd: bad answer: bad TTL");

  // Refusals of any call: what is there and well-formed replaces the defaults.
  std::string reason = "http status 400";
  int64_t code = -1;
  DecodeRefusal(R"({"error":"etcdserver: too many operations in txn request","code":3})", &reason, &code);
  EXPECT_EQ(reason, "etcdserver: too many operations in txn request");
  EXPECT_EQ(code, 3);
  DecodeRefusal(R"({"error":"etcdserver: no leader","code":"14"})", &reason, &code);
  EXPECT_EQ(reason, "etcdserver: no leader");
  EXPECT_EQ(code, 14);
  for (const char* junk : {"<html>503</html>", "", "[]", R"({"error":5,"code":"x"})", R"({"code":1.5})"}) {
    reason = "http status 503";
    code = -1;
    DecodeRefusal(junk, &reason, &code);
    EXPECT_EQ(reason, "http status 503") << junk;
    EXPECT_EQ(code, -1) << junk;
  }
}

TEST(EtcdJsonTest, WatchAnswers) {
  EtcdWatchAnswer a;
  ASSERT_TRUE(DecodeWatch(R"({"result":{"header":{"revision":"4"},"created":true}})", &a).ok());
  EXPECT_TRUE(a.created);
  EXPECT_TRUE(a.events.empty());
  ASSERT_TRUE(DecodeWatch(R"({"result":{"header":{"revision":"6"},"events":[)"
                          R"({"kv":{"key":"YQ==","create_revision":"5","mod_revision":"5","version":"1","value":"MQ=="}},)"
                          R"({"type":"DELETE","kv":{"key":"Yg==","mod_revision":"6"}}]}})",
                          &a)
                  .ok());
  EXPECT_FALSE(a.created);
  ASSERT_EQ(a.events.size(), 2u);
  EXPECT_EQ(a.events[0].type, EtcdEvent::Type::kPut);
  EXPECT_EQ(a.events[0].kv.key, "a");
  EXPECT_EQ(a.events[0].kv.value, "1");
  EXPECT_EQ(a.events[1].type, EtcdEvent::Type::kDelete);
  EXPECT_EQ(a.events[1].kv.key, "b");
  EXPECT_EQ(a.events[1].kv.mod_revision, 6);
  ASSERT_TRUE(DecodeWatch(R"({"result":{"header":{"revision":"9"},"canceled":true,"compact_revision":"7",)"
                          R"("cancel_reason":"mvcc: required revision has been compacted"}})",
                          &a)
                  .ok());
  EXPECT_TRUE(a.canceled);
  EXPECT_EQ(a.compact_revision, 7);
  EXPECT_EQ(a.cancel_reason, "mvcc: required revision has been compacted");

  const std::pair<const char*, const char*> bad[] = {
      {R"({"error":{"grpc_code":14,"message":"etcdserver: no leader"}})",
       "Unavailable: etcd unreachable: etcdserver: no leader"},
      {R"({"result":[]})", "Corruption: etcd: bad answer: no watch result"},
      {R"({"result":{"compact_revision":"-"}})", "Corruption: etcd: bad answer: bad compact revision"},
      {R"({"result":{"events":{}}})", "Corruption: etcd: bad answer: events is not a list"},
      {R"({"result":{"events":[{"type":"PUT"}]}})", "Corruption: etcd: bad answer: event without a record"},
      {R"({"result":{"events":[{"kv":[]}]}})", "Corruption: etcd: bad answer: event without a record"},
      {R"({"result":{"events":[{"type":"EXPIRE","kv":{}}]}})", "Corruption: etcd: bad answer: bad event type"},
      {R"({"result":{"events":[{"type":null,"kv":{}}]}})", "Corruption: etcd: bad answer: bad event type"},
      {R"({"result":{"events":[{"kv":{"value":"YQ"}}]}})", "Corruption: etcd: bad answer: bad event record"},
  };
  for (const auto& [text, error] : bad) {
    a.cancel_reason = "kept";
    EXPECT_EQ(DecodeWatch(text, &a).ToString(), error) << text;
    EXPECT_EQ(a.cancel_reason, "kept");
  }
}

TEST(EtcdJsonTest, RequestBodies) {
  // Keys and values of any bytes go as base64; 64-bit fields as decimal
  // strings; defaults are left out.
  const std::string key("\xff\x00k", 3);
  EXPECT_EQ(json::parse(RangeRequest(key, "", 0, 0), nullptr, false), json({{"key", "/wBr"}}));
  EXPECT_EQ(json::parse(RangeRequest("a", "b", 10, INT64_MAX), nullptr, false),
            json({{"key", "YQ=="}, {"range_end", "Yg=="}, {"limit", "10"}, {"revision", "9223372036854775807"}}));
  EXPECT_EQ(json::parse(LeaseRequest("ID", -2), nullptr, false), json({{"ID", "-2"}}));
  EXPECT_EQ(json::parse(WatchRequest("a", "b", 5), nullptr, false),
            json({{"create_request", {{"key", "YQ=="}, {"range_end", "Yg=="}, {"start_revision", "5"}}}}));
  EXPECT_EQ(json::parse(WatchRequest("a", "", 0), nullptr, false), json({{"create_request", {{"key", "YQ=="}}}}));

  const std::string txn = TxnRequest(
      {{"a", EtcdCompare::Target::kCreate, 0}, {"b", EtcdCompare::Target::kMod, 7}},
      {{EtcdOp::Kind::kPut, "a", key, 99}, {EtcdOp::Kind::kPut, "b", "", 0}, {EtcdOp::Kind::kDelete, "c", "", 0}},
      {{EtcdOp::Kind::kGet, "a", "", 0}});
  const json expected = json::parse(R"({
    "compare": [
      {"key": "YQ==", "target": "CREATE", "result": "EQUAL", "create_revision": "0"},
      {"key": "Yg==", "target": "MOD", "result": "EQUAL", "mod_revision": "7"}],
    "success": [
      {"request_put": {"key": "YQ==", "value": "/wBr", "lease": "99"}},
      {"request_put": {"key": "Yg==", "value": ""}},
      {"request_delete_range": {"key": "Yw=="}}],
    "failure": [{"request_range": {"key": "YQ=="}}]})");
  EXPECT_EQ(json::parse(txn, nullptr, false), expected) << txn;
  EXPECT_EQ(json::parse(TxnRequest({}, {}, {}), nullptr, false),
            json({{"compare", json::array()}, {"success", json::array()}, {"failure", json::array()}}));
}

}  // namespace
}  // namespace kandb::store::etcd_json
