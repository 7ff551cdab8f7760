#include "store/etcd_json.h"

#include <openssl/evp.h>

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>
#include <utility>

namespace kandb::store::etcd_json {

namespace {

using Json = nlohmann::json;

// Nothing here may throw on what the network sent: answers are parsed with
// exceptions off, and values are reached only through find, the is_*
// tests and get_ptr, which return end or null on a type they do not hold.

Status BadAnswer(const std::string& why) { return Status::Corruption("etcd: bad answer: " + why); }

// Never throws: requests hold base64 and ASCII only, and a byte that is
// not UTF-8 would be replaced rather than thrown about.
std::string Dump(const Json& value) { return value.dump(-1, ' ', false, Json::error_handler_t::replace); }

// Parses an answer: an object, or why not. An answer that is no JSON is
// described by its length and first bytes (quoted), which tell a proxy's
// error page or a cut answer apart.
Status ParseObject(std::string_view text, Json* out) {
  Json parsed = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) {
    if (text.empty()) return BadAnswer("empty");
    const Json head = std::string(text.substr(0, 32));
    return BadAnswer("not JSON: " + std::to_string(text.size()) + " bytes starting " +
                     head.dump(-1, ' ', /*ensure_ascii=*/true, Json::error_handler_t::replace));
  }
  if (!parsed.is_object()) return BadAnswer("not an object");
  *out = std::move(parsed);
  return Status::OK();
}

// The member `name` of an object, or null when absent (or no object).
const Json* Find(const Json& object, const char* name) {
  if (!object.is_object()) return nullptr;
  const auto it = object.find(name);
  return it == object.end() ? nullptr : &*it;
}

const std::string* StringOf(const Json* value) {
  return value == nullptr ? nullptr : value->get_ptr<const std::string*>();
}

// True only for the JSON literal true.
bool FlagOf(const Json* value) {
  const bool* flag = value == nullptr ? nullptr : value->get_ptr<const bool*>();
  return flag != nullptr && *flag;
}

// An integer as the header comment says.
bool Int64Of(const Json& value, int64_t* out) {
  // is_number_integer() holds for unsigned numbers too, and get_ptr would
  // then read an unsigned value as signed: unsigned ones are taken first.
  if (const uint64_t* u = value.get_ptr<const uint64_t*>()) {
    if (*u > static_cast<uint64_t>(INT64_MAX)) return false;
    *out = static_cast<int64_t>(*u);
    return true;
  }
  if (const int64_t* i = value.get_ptr<const int64_t*>()) {
    *out = *i;
    return true;
  }
  const std::string* text = value.get_ptr<const std::string*>();
  if (text == nullptr) return false;
  const size_t digits = text->size() - (text->starts_with('-') ? 1 : 0);
  if (digits > 20) return false;
  const char* end = text->data() + text->size();
  int64_t v = 0;
  const auto [stop, error] = std::from_chars(text->data(), end, v);
  if (error != std::errc() || stop != end) return false;
  *out = v;
  return true;
}

// An absent integer field is 0: the gateway leaves out fields at their default.
bool IntField(const Json& object, const char* name, int64_t* out) {
  const Json* v = Find(object, name);
  if (v == nullptr) {
    *out = 0;
    return true;
  }
  return Int64Of(*v, out);
}

bool BytesField(const Json& object, const char* name, std::string* out) {
  const Json* v = Find(object, name);
  if (v == nullptr) {
    out->clear();
    return true;
  }
  const std::string* text = StringOf(v);
  return text != nullptr && Base64Decode(*text, out);
}

bool RecordOf(const Json& item, EtcdKv* kv) {
  return item.is_object() && BytesField(item, "key", &kv->key) && BytesField(item, "value", &kv->value) &&
         IntField(item, "create_revision", &kv->create_revision) &&
         IntField(item, "mod_revision", &kv->mod_revision) && IntField(item, "lease", &kv->lease);
}

Status DecodeKvs(const Json& answer, std::vector<EtcdKv>* out) {
  out->clear();
  const Json* kvs = Find(answer, "kvs");
  if (kvs == nullptr) return Status::OK();
  if (!kvs->is_array()) return BadAnswer("kvs is not a list");
  out->reserve(kvs->size());
  for (const Json& item : *kvs) {
    EtcdKv kv;
    if (!RecordOf(item, &kv)) return BadAnswer("bad record");
    out->push_back(std::move(kv));
  }
  return Status::OK();
}

bool HeaderRevision(const Json& answer, int64_t* revision) {
  const Json* header = Find(answer, "header");
  if (header == nullptr || !header->is_object()) return false;
  return IntField(*header, "revision", revision);
}

// The result of a streamed answer, or the refusal wrapped in it.
Status StreamResult(const Json& answer, const char* missing, const Json** result) {
  *result = Find(answer, "result");
  if (*result != nullptr && (*result)->is_object()) return Status::OK();
  const Json* error = Find(answer, "error");
  const std::string* message = error == nullptr ? nullptr : StringOf(Find(*error, "message"));
  if (message != nullptr) return Status::Unavailable("etcd unreachable: " + *message);
  return BadAnswer(missing);
}

// 64-bit fields go as decimal strings, as the gateway expects them.
Json Int(int64_t v) { return std::to_string(v); }

Json KeyRange(const std::string& key, const std::string& range_end) {
  Json request{{"key", Base64Encode(key)}};
  if (!range_end.empty()) request["range_end"] = Base64Encode(range_end);
  return request;
}

Json Op(const EtcdOp& op) {
  switch (op.kind) {
    case EtcdOp::Kind::kPut: {
      Json put{{"key", Base64Encode(op.key)}, {"value", Base64Encode(op.value)}};
      if (op.lease != 0) put["lease"] = Int(op.lease);
      return Json{{"request_put", std::move(put)}};
    }
    case EtcdOp::Kind::kDelete:
      return Json{{"request_delete_range", KeyRange(op.key, "")}};
    case EtcdOp::Kind::kGet:
      return Json{{"request_range", KeyRange(op.key, "")}};
  }
  return Json::object();
}

Json Ops(const std::vector<EtcdOp>& ops) {
  Json list = Json::array();
  for (const EtcdOp& op : ops) list.push_back(Op(op));
  return list;
}

}  // namespace

std::string Base64Encode(std::string_view bytes) {
  // EVP_EncodeBlock takes an int length: whole groups of at most this many
  // bytes at a time, and a NUL after the text.
  constexpr size_t kChunk = size_t{3} << 20;
  std::string out((bytes.size() + 2) / 3 * 4 + 1, '\0');
  size_t written = 0;
  for (size_t at = 0; at < bytes.size(); at += kChunk) {
    const size_t n = std::min(kChunk, bytes.size() - at);
    written += static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data() + written),
                                                   reinterpret_cast<const unsigned char*>(bytes.data() + at),
                                                   static_cast<int>(n)));
  }
  out.resize(written);
  return out;
}

bool Base64Decode(std::string_view text, std::string* out) {
  if (text.size() % 4 != 0 || text.size() > static_cast<size_t>(INT32_MAX)) return false;
  // EVP_DecodeBlock is lenient: it skips blanks and line ends around the
  // text, reads '=' anywhere as zero bits and keeps the padding's zero
  // bytes. What it decodes is therefore kept only when encoding it again
  // gives back the very text, which admits exactly the strict form.
  std::string decoded(text.size() / 4 * 3, '\0');
  const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(decoded.data()),
                                reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  if (n < 0) return false;
  const size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  if (static_cast<size_t>(n) < padding) return false;
  decoded.resize(static_cast<size_t>(n) - padding);
  if (Base64Encode(decoded) != text) return false;
  *out = std::move(decoded);
  return true;
}

std::string RangeRequest(const std::string& key, const std::string& range_end, int64_t limit, int64_t revision) {
  Json request = KeyRange(key, range_end);
  if (limit > 0) request["limit"] = Int(limit);
  if (revision > 0) request["revision"] = Int(revision);
  return Dump(request);
}

std::string TxnRequest(const std::vector<EtcdCompare>& compares, const std::vector<EtcdOp>& success,
                       const std::vector<EtcdOp>& failure) {
  Json compare = Json::array();
  for (const EtcdCompare& c : compares) {
    const bool create = c.target == EtcdCompare::Target::kCreate;
    compare.push_back(Json{{"key", Base64Encode(c.key)},
                           {"target", create ? "CREATE" : "MOD"},
                           {"result", "EQUAL"},
                           {create ? "create_revision" : "mod_revision", Int(c.revision)}});
  }
  return Dump(Json{{"compare", std::move(compare)}, {"success", Ops(success)}, {"failure", Ops(failure)}});
}

std::string LeaseRequest(const char* field, int64_t value) { return Dump(Json{{field, Int(value)}}); }

std::string WatchRequest(const std::string& key, const std::string& range_end, int64_t start_revision) {
  Json create = KeyRange(key, range_end);
  if (start_revision > 0) create["start_revision"] = Int(start_revision);
  return Dump(Json{{"create_request", std::move(create)}});
}

void DecodeRefusal(std::string_view text, std::string* reason, int64_t* code) {
  const Json refusal = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  if (const std::string* error = StringOf(Find(refusal, "error"))) *reason = *error;
  const Json* c = Find(refusal, "code");
  int64_t value = 0;
  if (c != nullptr && Int64Of(*c, &value)) *code = value;
}

Status DecodeRange(std::string_view text, std::vector<EtcdKv>* kvs, bool* more, int64_t* header_revision) {
  Json answer;
  Status s = ParseObject(text, &answer);
  if (!s.ok()) return s;
  int64_t revision = 0;
  if (!HeaderRevision(answer, &revision)) return BadAnswer("no header revision");
  std::vector<EtcdKv> records;
  s = DecodeKvs(answer, &records);
  if (!s.ok()) return s;
  *more = FlagOf(Find(answer, "more"));
  *header_revision = revision;
  *kvs = std::move(records);
  return Status::OK();
}

Status DecodeTxn(std::string_view text, const std::vector<EtcdOp>& success, const std::vector<EtcdOp>& failure,
                 EtcdTxnResult* result) {
  Json answer;
  Status s = ParseObject(text, &answer);
  if (!s.ok()) return s;
  static const Json kNoResponses = Json::array();
  EtcdTxnResult r;
  if (!HeaderRevision(answer, &r.revision)) return BadAnswer("no header revision");
  r.succeeded = FlagOf(Find(answer, "succeeded"));
  const std::vector<EtcdOp>& ran = r.succeeded ? success : failure;
  const Json* responses = Find(answer, "responses");
  if (responses == nullptr || !responses->is_array()) responses = &kNoResponses;
  if (responses->size() != ran.size()) return BadAnswer("wrong number of responses");
  size_t i = 0;
  for (const Json& response : *responses) {
    if (ran[i++].kind != EtcdOp::Kind::kGet) continue;
    const Json* range = Find(response, "response_range");
    if (range == nullptr) return BadAnswer("no range response");
    std::vector<EtcdKv> kvs;
    s = DecodeKvs(*range, &kvs);
    if (!s.ok()) return s;
    r.gets.push_back(std::move(kvs));
  }
  *result = std::move(r);
  return Status::OK();
}

Status DecodeLeaseGrant(std::string_view text, int64_t* id, int64_t* granted_ttl) {
  Json answer;
  Status s = ParseObject(text, &answer);
  if (!s.ok()) return s;
  int64_t lease = 0, ttl = 0;
  if (!IntField(answer, "ID", &lease) || !IntField(answer, "TTL", &ttl) || lease == 0 || ttl <= 0) {
    if (const std::string* error = StringOf(Find(answer, "error"))) return Status::InvalidArgument("etcd: " + *error);
    return BadAnswer("no lease granted");
  }
  *id = lease;
  *granted_ttl = ttl;
  return Status::OK();
}

Status DecodeKeepAlive(std::string_view text, int64_t* ttl) {
  Json answer;
  Status s = ParseObject(text, &answer);
  if (!s.ok()) return s;
  const Json* result = nullptr;
  s = StreamResult(answer, "no keep-alive result", &result);
  if (!s.ok()) return s;
  int64_t renewed = 0;
  if (!IntField(*result, "TTL", &renewed)) return BadAnswer("bad TTL");
  *ttl = renewed;
  return Status::OK();
}

Status DecodeWatch(std::string_view line, EtcdWatchAnswer* out) {
  Json message;
  Status s = ParseObject(line, &message);
  if (!s.ok()) return s;
  const Json* result = nullptr;
  s = StreamResult(message, "no watch result", &result);
  if (!s.ok()) return s;
  EtcdWatchAnswer answer;
  answer.created = FlagOf(Find(*result, "created"));
  answer.canceled = FlagOf(Find(*result, "canceled"));
  if (!IntField(*result, "compact_revision", &answer.compact_revision)) return BadAnswer("bad compact revision");
  if (const std::string* reason = StringOf(Find(*result, "cancel_reason"))) answer.cancel_reason = *reason;
  const Json* events = Find(*result, "events");
  if (events != nullptr) {
    if (!events->is_array()) return BadAnswer("events is not a list");
    answer.events.reserve(events->size());
    for (const Json& item : *events) {
      const Json* kv = Find(item, "kv");
      if (kv == nullptr || !kv->is_object()) return BadAnswer("event without a record");
      EtcdEvent event;
      if (const Json* type = Find(item, "type")) {
        const std::string* name = StringOf(type);
        if (name == nullptr || (*name != "PUT" && *name != "DELETE")) return BadAnswer("bad event type");
        if (*name == "DELETE") event.type = EtcdEvent::Type::kDelete;
      }
      if (!RecordOf(*kv, &event.kv)) return BadAnswer("bad event record");
      answer.events.push_back(std::move(event));
    }
  }
  *out = std::move(answer);
  return Status::OK();
}

}  // namespace kandb::store::etcd_json
