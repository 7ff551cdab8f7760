#include "store/etcd_client.h"

#include <curl/curl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <utility>

#include "store/json.h"

namespace kandb::store {

namespace {

// gRPC status codes that etcd's gateway passes on: an endpoint that
// answers with these cannot serve now, another one may.
constexpr int64_t kGrpcDeadlineExceeded = 4;
constexpr int64_t kGrpcNotFound = 5;
constexpr int64_t kGrpcUnavailable = 14;

// Idle handles kept for reuse; more calls than this at once get handles of
// their own that are closed afterwards.
constexpr size_t kMaxIdleHandles = 32;

void GlobalInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

size_t CollectBody(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

std::string Int(int64_t v) { return std::string("\"").append(std::to_string(v)).append("\""); }

void AppendB64(const std::string& bytes, std::string* out) {
  json::AppendQuoted(json::Base64Encode(bytes), out);
}

void AppendOp(const EtcdOp& op, std::string* out) {
  switch (op.kind) {
    case EtcdOp::Kind::kPut:
      out->append("{\"request_put\":{\"key\":");
      AppendB64(op.key, out);
      out->append(",\"value\":");
      AppendB64(op.value, out);
      if (op.lease != 0) out->append(",\"lease\":" + Int(op.lease));
      out->append("}}");
      return;
    case EtcdOp::Kind::kDelete:
      out->append("{\"request_delete_range\":{\"key\":");
      AppendB64(op.key, out);
      out->append("}}");
      return;
    case EtcdOp::Kind::kGet:
      out->append("{\"request_range\":{\"key\":");
      AppendB64(op.key, out);
      out->append("}}");
      return;
  }
}

void AppendOps(const char* name, const std::vector<EtcdOp>& ops, std::string* out) {
  out->append(",\"");
  out->append(name);
  out->append("\":[");
  for (size_t i = 0; i < ops.size(); ++i) {
    if (i > 0) out->push_back(',');
    AppendOp(ops[i], out);
  }
  out->push_back(']');
}

Status BadAnswer(const std::string& why) { return Status::Corruption("etcd: bad answer: " + why); }

// An absent int64 field is 0: the gateway leaves out fields at their default.
bool IntField(const json::Value& object, const char* name, int64_t* out) {
  const json::Value* v = object.Find(name);
  if (v == nullptr) {
    *out = 0;
    return true;
  }
  return v->AsInt64(out);
}

bool BytesField(const json::Value& object, const char* name, std::string* out) {
  const json::Value* v = object.Find(name);
  if (v == nullptr) {
    out->clear();
    return true;
  }
  return v->is_string() && json::Base64Decode(v->text(), out);
}

Status DecodeKvs(const json::Value& answer, std::vector<EtcdKv>* out) {
  out->clear();
  const json::Value* kvs = answer.Find("kvs");
  if (kvs == nullptr) return Status::OK();
  if (!kvs->is_array()) return BadAnswer("kvs is not a list");
  out->reserve(kvs->items().size());
  for (const json::Value& item : kvs->items()) {
    EtcdKv kv;
    if (!item.is_object() || !BytesField(item, "key", &kv.key) ||
        !BytesField(item, "value", &kv.value) ||
        !IntField(item, "create_revision", &kv.create_revision) ||
        !IntField(item, "mod_revision", &kv.mod_revision) || !IntField(item, "lease", &kv.lease)) {
      return BadAnswer("bad record");
    }
    out->push_back(std::move(kv));
  }
  return Status::OK();
}

Status ParseAnswer(const std::string& body, json::Value* out) {
  Status s = json::Parse(body, out);
  if (!s.ok()) return BadAnswer(s.message());
  if (!out->is_object()) return BadAnswer("not an object");
  return Status::OK();
}

bool HeaderRevision(const json::Value& answer, int64_t* revision) {
  const json::Value* header = answer.Find("header");
  if (header == nullptr || !header->is_object()) return false;
  return IntField(*header, "revision", revision);
}

// Applied to every handle before it is used (again after a reset): calls
// and watch streams alike, so that no connection to an https:// endpoint
// goes out without the client certificate or unverified.
void ApplyTls(CURL* curl, const EtcdTls& tls) {
  if (!tls.ca_file.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, tls.ca_file.c_str());
  if (!tls.cert_file.empty()) curl_easy_setopt(curl, CURLOPT_SSLCERT, tls.cert_file.c_str());
  if (!tls.key_file.empty()) curl_easy_setopt(curl, CURLOPT_SSLKEY, tls.key_file.c_str());
  // libcurl's defaults, stated: a member that cannot prove it is the one
  // the endpoint's URL names is never spoken to.
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
}

}  // namespace

// One libcurl handle: it keeps its connections open between calls.
class EtcdClient::Handle {
 public:
  // Post sets only what changes between calls: the TLS settings are made
  // once, here (libcurl keeps its own copies of the paths).
  explicit Handle(const EtcdTls& tls) : curl_(curl_easy_init()) {
    headers_ = curl_slist_append(nullptr, "Content-Type: application/json");
    if (curl_ != nullptr) ApplyTls(curl_, tls);
  }
  ~Handle() {
    if (curl_ != nullptr) curl_easy_cleanup(curl_);
    curl_slist_free_all(headers_);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  // One POST. On a transport failure returns false with *error set;
  // otherwise true with the HTTP status and body.
  bool Post(const std::string& url, const std::string& body, int timeout_ms, long* http_status,
            std::string* answer, std::string* error, bool* connected) {
    if (curl_ == nullptr) {
      *error = "cannot create a connection handle";
      return false;
    }
    answer->clear();
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl_, CURLOPT_POST, 1L);
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers_);
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, CollectBody);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, answer);
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT_MS, static_cast<long>(timeout_ms));
    curl_easy_setopt(curl_, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(timeout_ms));
    // No signals from the resolver: calls run on many threads.
    curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl_, CURLOPT_TCP_NODELAY, 1L);
    const CURLcode rc = curl_easy_perform(curl_);
    if (rc != CURLE_OK) {
      *error = curl_easy_strerror(rc);
      // Only a request that never left (no member took the connection, or
      // the TLS handshake before it failed) certainly did nothing.
      *connected = rc != CURLE_COULDNT_CONNECT && rc != CURLE_COULDNT_RESOLVE_HOST &&
                   rc != CURLE_COULDNT_RESOLVE_PROXY && rc != CURLE_UNSUPPORTED_PROTOCOL &&
                   rc != CURLE_URL_MALFORMAT && rc != CURLE_SSL_CONNECT_ERROR &&
                   rc != CURLE_PEER_FAILED_VERIFICATION && rc != CURLE_SSL_CERTPROBLEM &&
                   rc != CURLE_SSL_CACERT_BADFILE;
      return false;
    }
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, http_status);
    return true;
  }

 private:
  CURL* const curl_;
  curl_slist* headers_ = nullptr;
};

Status EtcdClient::ParseEndpoints(const std::string& list, std::vector<std::string>* out, bool tls) {
  std::vector<std::string> endpoints;
  size_t start = 0;
  for (;;) {
    const size_t comma = list.find(',', start);
    std::string item = list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    if (item.empty()) return Status::InvalidArgument("empty etcd endpoint in '" + list + "'");
    if (item.find("://") == std::string::npos) item = (tls ? "https://" : "http://") + item;
    while (!item.empty() && item.back() == '/') item.pop_back();
    endpoints.push_back(std::move(item));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  *out = std::move(endpoints);
  return Status::OK();
}

EtcdClient::EtcdClient(std::vector<std::string> endpoints, int timeout_ms, EtcdTls tls)
    : endpoints_(std::move(endpoints)), timeout_ms_(timeout_ms), tls_(std::move(tls)) {
  GlobalInit();
}

EtcdClient::~EtcdClient() = default;

std::unique_ptr<EtcdClient::Handle> EtcdClient::Borrow() {
  {
    MutexLock lock(&pool_mu_);
    if (!idle_.empty()) {
      std::unique_ptr<Handle> handle = std::move(idle_.back());
      idle_.pop_back();
      return handle;
    }
  }
  return std::make_unique<Handle>(tls_);
}

void EtcdClient::Return(std::unique_ptr<Handle> handle) {
  MutexLock lock(&pool_mu_);
  if (idle_.size() < kMaxIdleHandles) idle_.push_back(std::move(handle));
}

Status EtcdClient::Post(const char* path, const std::string& body, std::string* answer) {
  if (endpoints_.empty()) return Status::Unavailable("etcd unreachable: no endpoints");
  std::unique_ptr<Handle> handle = Borrow();
  const size_t first = preferred_.load(std::memory_order_relaxed);
  std::string last_error;
  Status result;
  bool done = false;
  // Whether an attempt that failed may still have reached etcd (it timed
  // out, or the member could not serve it): a later refusal then says
  // nothing about that attempt, so the call's outcome stays unknown.
  bool maybe_sent = false;
  for (size_t i = 0; i < endpoints_.size() && !done; ++i) {
    const size_t index = (first + i) % endpoints_.size();
    const std::string& endpoint = endpoints_[index];
    long http_status = 0;
    std::string error;
    bool connected = false;
    if (!handle->Post(endpoint + path, body, timeout_ms_, &http_status, answer, &error, &connected)) {
      last_error = endpoint + ": " + error;
      maybe_sent = maybe_sent || connected;
      continue;
    }
    if (http_status == 200) {
      preferred_.store(index, std::memory_order_relaxed);
      result = Status::OK();
      done = true;
      break;
    }
    // etcd's refusals come as {"error": reason, "code": gRPC code}.
    json::Value refusal;
    int64_t code = -1;
    std::string reason = "http status " + std::to_string(http_status);
    if (json::Parse(*answer, &refusal).ok() && refusal.is_object()) {
      const json::Value* e = refusal.Find("error");
      if (e != nullptr && e->is_string()) reason = e->text();
      const json::Value* c = refusal.Find("code");
      if (c == nullptr || !c->AsInt64(&code)) code = -1;
    }
    if (code == kGrpcUnavailable || code == kGrpcDeadlineExceeded || http_status >= 500) {
      last_error = endpoint + ": " + reason;
      maybe_sent = true;
      continue;
    }
    preferred_.store(index, std::memory_order_relaxed);
    if (maybe_sent) {
      result = Status::Unavailable("etcd unreachable: " + last_error + "; then " + endpoint + ": " + reason);
    } else {
      result = code == kGrpcNotFound ? Status::NotFound("etcd: " + reason)
                                     : Status::InvalidArgument("etcd: " + reason);
    }
    done = true;
  }
  Return(std::move(handle));
  if (!done) {
    // Start the next call one further, so that a dead preferred endpoint
    // does not cost every call a time-out.
    preferred_.store((first + 1) % endpoints_.size(), std::memory_order_relaxed);
    return Status::Unavailable("etcd unreachable: " + last_error);
  }
  return result;
}

Status EtcdClient::Range(const std::string& key, const std::string& range_end, int64_t limit,
                         int64_t revision, std::vector<EtcdKv>* kvs, bool* more,
                         int64_t* header_revision) {
  std::string body = "{\"key\":";
  AppendB64(key, &body);
  if (!range_end.empty()) {
    body.append(",\"range_end\":");
    AppendB64(range_end, &body);
  }
  if (limit > 0) body.append(",\"limit\":" + Int(limit));
  if (revision > 0) body.append(",\"revision\":" + Int(revision));
  body.push_back('}');
  std::string text;
  Status s = Post("/v3/kv/range", body, &text);
  if (!s.ok()) return s;
  json::Value answer;
  s = ParseAnswer(text, &answer);
  if (!s.ok()) return s;
  int64_t rev = 0;
  if (!HeaderRevision(answer, &rev)) return BadAnswer("no header revision");
  std::vector<EtcdKv> records;
  s = DecodeKvs(answer, &records);
  if (!s.ok()) return s;
  const json::Value* m = answer.Find("more");
  *more = m != nullptr && m->type() == json::Value::Type::kBool && m->bool_value();
  *header_revision = rev;
  *kvs = std::move(records);
  return Status::OK();
}

Status EtcdClient::Txn(const std::vector<EtcdCompare>& compares, const std::vector<EtcdOp>& success,
                       const std::vector<EtcdOp>& failure, EtcdTxnResult* result) {
  std::string body = "{\"compare\":[";
  for (size_t i = 0; i < compares.size(); ++i) {
    const EtcdCompare& c = compares[i];
    if (i > 0) body.push_back(',');
    body.append("{\"key\":");
    AppendB64(c.key, &body);
    if (c.target == EtcdCompare::Target::kCreate) {
      body.append(",\"target\":\"CREATE\",\"result\":\"EQUAL\",\"create_revision\":" + Int(c.revision));
    } else {
      body.append(",\"target\":\"MOD\",\"result\":\"EQUAL\",\"mod_revision\":" + Int(c.revision));
    }
    body.push_back('}');
  }
  body.push_back(']');
  AppendOps("success", success, &body);
  AppendOps("failure", failure, &body);
  body.push_back('}');
  std::string text;
  Status s = Post("/v3/kv/txn", body, &text);
  if (!s.ok()) return s;
  json::Value answer;
  s = ParseAnswer(text, &answer);
  if (!s.ok()) return s;
  EtcdTxnResult r;
  if (!HeaderRevision(answer, &r.revision)) return BadAnswer("no header revision");
  const json::Value* ok = answer.Find("succeeded");
  r.succeeded = ok != nullptr && ok->type() == json::Value::Type::kBool && ok->bool_value();
  const std::vector<EtcdOp>& ran = r.succeeded ? success : failure;
  const json::Value* responses = answer.Find("responses");
  const size_t count = responses != nullptr && responses->is_array() ? responses->items().size() : 0;
  if (count != ran.size()) return BadAnswer("wrong number of responses");
  for (size_t i = 0; i < count; ++i) {
    if (ran[i].kind != EtcdOp::Kind::kGet) continue;
    const json::Value* range = responses->items()[i].Find("response_range");
    if (range == nullptr) return BadAnswer("no range response");
    std::vector<EtcdKv> kvs;
    s = DecodeKvs(*range, &kvs);
    if (!s.ok()) return s;
    r.gets.push_back(std::move(kvs));
  }
  *result = std::move(r);
  return Status::OK();
}

Status EtcdClient::LeaseGrant(int64_t ttl_seconds, int64_t* id, int64_t* granted_ttl) {
  std::string text;
  Status s = Post("/v3/lease/grant", "{\"TTL\":" + Int(ttl_seconds) + "}", &text);
  if (!s.ok()) return s;
  json::Value answer;
  s = ParseAnswer(text, &answer);
  if (!s.ok()) return s;
  int64_t lease = 0, ttl = 0;
  if (!IntField(answer, "ID", &lease) || !IntField(answer, "TTL", &ttl) || lease == 0 || ttl <= 0) {
    const json::Value* e = answer.Find("error");
    if (e != nullptr && e->is_string()) return Status::InvalidArgument("etcd: " + e->text());
    return BadAnswer("no lease granted");
  }
  *id = lease;
  *granted_ttl = ttl;
  return Status::OK();
}

Status EtcdClient::LeaseKeepAlive(int64_t id, int64_t* ttl) {
  std::string text;
  Status s = Post("/v3/lease/keepalive", "{\"ID\":" + Int(id) + "}", &text);
  if (!s.ok()) return s;
  json::Value answer;
  s = ParseAnswer(text, &answer);
  if (!s.ok()) return s;
  // The gateway wraps streamed answers: {"result": {...}} or {"error": {...}}.
  const json::Value* result = answer.Find("result");
  if (result == nullptr || !result->is_object()) {
    const json::Value* e = answer.Find("error");
    const json::Value* m = e != nullptr && e->is_object() ? e->Find("message") : nullptr;
    if (m != nullptr && m->is_string()) return Status::Unavailable("etcd unreachable: " + m->text());
    return BadAnswer("no keep-alive result");
  }
  int64_t renewed = 0;
  if (!IntField(*result, "TTL", &renewed)) return BadAnswer("bad TTL");
  *ttl = renewed;
  return Status::OK();
}

Status EtcdClient::LeaseRevoke(int64_t id) {
  std::string text;
  return Post("/v3/lease/revoke", "{\"ID\":" + Int(id) + "}", &text);
}

void EtcdWatchStop::Stop() {
  MutexLock lock(&mu_);
  stopped_.store(true, std::memory_order_release);
  // Shutting the socket down fails the stream's read at once; the socket
  // is closed by the stream's own thread.
  for (int socket : sockets_) shutdown(socket, SHUT_RDWR);
}

bool EtcdWatchStop::Track(int socket) {
  MutexLock lock(&mu_);
  if (stopped()) return false;
  sockets_.push_back(socket);
  return true;
}

void EtcdWatchStop::Close(int socket) {
  MutexLock lock(&mu_);
  sockets_.erase(std::remove(sockets_.begin(), sockets_.end(), socket), sockets_.end());
  close(socket);
}

namespace {

// What one watch stream has seen: the bytes of a line not yet complete,
// and how it ended.
struct WatchStream {
  const std::function<bool(const EtcdWatchAnswer&)>* on_answer = nullptr;
  EtcdWatchStop* stop = nullptr;
  std::string pending;
  size_t scanned = 0;  // bytes of `pending` known to hold no line end
  bool answered = false;  // some answer arrived: the stream was up
  bool ended = false;     // on_answer asked to end it
  Status failure;         // an answer that did not parse, or a stream error
};

Status DecodeWatchAnswer(const std::string& line, EtcdWatchAnswer* out) {
  json::Value message;
  Status s = ParseAnswer(line, &message);
  if (!s.ok()) return s;
  const json::Value* result = message.Find("result");
  if (result == nullptr || !result->is_object()) {
    const json::Value* e = message.Find("error");
    const json::Value* m = e != nullptr && e->is_object() ? e->Find("message") : nullptr;
    if (m != nullptr && m->is_string()) return Status::Unavailable("etcd unreachable: " + m->text());
    return BadAnswer("no watch result");
  }
  EtcdWatchAnswer answer;
  const json::Value* flag = result->Find("created");
  answer.created = flag != nullptr && flag->type() == json::Value::Type::kBool && flag->bool_value();
  flag = result->Find("canceled");
  answer.canceled = flag != nullptr && flag->type() == json::Value::Type::kBool && flag->bool_value();
  if (!IntField(*result, "compact_revision", &answer.compact_revision)) return BadAnswer("bad compact revision");
  const json::Value* reason = result->Find("cancel_reason");
  if (reason != nullptr && reason->is_string()) answer.cancel_reason = reason->text();
  const json::Value* events = result->Find("events");
  if (events != nullptr) {
    if (!events->is_array()) return BadAnswer("events is not a list");
    answer.events.reserve(events->items().size());
    for (const json::Value& item : events->items()) {
      const json::Value* kv = item.is_object() ? item.Find("kv") : nullptr;
      if (kv == nullptr || !kv->is_object()) return BadAnswer("event without a record");
      EtcdEvent event;
      const json::Value* type = item.Find("type");
      if (type != nullptr) {
        if (!type->is_string() || (type->text() != "PUT" && type->text() != "DELETE")) {
          return BadAnswer("bad event type");
        }
        if (type->text() == "DELETE") event.type = EtcdEvent::Type::kDelete;
      }
      EtcdKv& record = event.kv;
      if (!BytesField(*kv, "key", &record.key) || !BytesField(*kv, "value", &record.value) ||
          !IntField(*kv, "create_revision", &record.create_revision) ||
          !IntField(*kv, "mod_revision", &record.mod_revision) || !IntField(*kv, "lease", &record.lease)) {
        return BadAnswer("bad event record");
      }
      answer.events.push_back(std::move(event));
    }
  }
  *out = std::move(answer);
  return Status::OK();
}

// Splits the stream into its lines (one answer each) as bytes arrive.
// Returning less than it was given ends the transfer.
size_t OnWatchBytes(char* data, size_t size, size_t count, void* user) {
  auto* stream = static_cast<WatchStream*>(user);
  const size_t bytes = size * count;
  stream->pending.append(data, bytes);
  size_t start = 0;
  // An answer of many revisions may arrive in hundreds of pieces: only the
  // new bytes are searched for its end.
  for (size_t newline; (newline = stream->pending.find('\n', std::max(start, stream->scanned))) != std::string::npos;
       start = newline + 1) {
    if (newline == start) continue;
    EtcdWatchAnswer answer;
    stream->failure = DecodeWatchAnswer(stream->pending.substr(start, newline - start), &answer);
    if (!stream->failure.ok()) return 0;
    stream->answered = true;
    if (!(*stream->on_answer)(answer)) {
      stream->ended = true;
      return 0;
    }
  }
  stream->pending.erase(0, start);
  stream->scanned = stream->pending.size();
  return bytes;
}

curl_socket_t OpenWatchSocket(void* user, curlsocktype, struct curl_sockaddr* address) {
  const int fd = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  if (fd < 0) return CURL_SOCKET_BAD;
  if (!static_cast<EtcdWatchStop*>(user)->Track(fd)) {
    close(fd);
    return CURL_SOCKET_BAD;
  }
  return fd;
}

int CloseWatchSocket(void* user, curl_socket_t fd) {
  static_cast<EtcdWatchStop*>(user)->Close(fd);
  return 0;
}

// Called by libcurl at least once a second during a transfer: a stop that
// came between the socket's creation and its tracking is seen here.
int WatchProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<EtcdWatchStop*>(user)->stopped() ? 1 : 0;
}

}  // namespace

Status EtcdClient::Watch(const std::string& key, const std::string& range_end, int64_t start_revision,
                         const std::function<bool(const EtcdWatchAnswer&)>& on_answer, EtcdWatchStop* stop) {
  if (endpoints_.empty()) return Status::Unavailable("etcd unreachable: no endpoints");
  std::string body = "{\"create_request\":{\"key\":";
  AppendB64(key, &body);
  if (!range_end.empty()) {
    body.append(",\"range_end\":");
    AppendB64(range_end, &body);
  }
  if (start_revision > 0) body.append(",\"start_revision\":" + Int(start_revision));
  body.append("}}");

  CURL* curl = curl_easy_init();
  if (curl == nullptr) return Status::Unavailable("etcd unreachable: cannot create a connection handle");
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  const size_t first = preferred_.load(std::memory_order_relaxed);
  std::string last_error = "no endpoint tried";
  Status result;
  bool done = false;
  for (size_t i = 0; i < endpoints_.size() && !done && !stop->stopped(); ++i) {
    const size_t index = (first + i) % endpoints_.size();
    const std::string url = endpoints_[index] + "/v3/watch";
    WatchStream stream;
    stream.on_answer = &on_answer;
    stream.stop = stop;
    curl_easy_reset(curl);
    ApplyTls(curl, tls_);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, OnWatchBytes);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &stream);
    curl_easy_setopt(curl, CURLOPT_OPENSOCKETFUNCTION, OpenWatchSocket);
    curl_easy_setopt(curl, CURLOPT_OPENSOCKETDATA, stop);
    curl_easy_setopt(curl, CURLOPT_CLOSESOCKETFUNCTION, CloseWatchSocket);
    curl_easy_setopt(curl, CURLOPT_CLOSESOCKETDATA, stop);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, WatchProgress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, stop);
    // A stream lasts as long as it is wanted; only the connect is bounded.
    // Keep-alive probes find a peer that went away without a word.
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(timeout_ms_));
    curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(curl, CURLOPT_TCP_KEEPIDLE, 2L);
    curl_easy_setopt(curl, CURLOPT_TCP_KEEPINTVL, 1L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TCP_NODELAY, 1L);
    const CURLcode rc = curl_easy_perform(curl);
    long http_status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &http_status);
    if (stream.ended || stop->stopped()) {
      done = true;
    } else if (!stream.failure.ok()) {
      result = stream.failure;
      done = true;
    } else if (stream.answered) {
      // A stream that was up and broke: the caller resumes from what it
      // has, perhaps on another endpoint.
      preferred_.store(index, std::memory_order_relaxed);
      result = Status::Unavailable("etcd unreachable: " + endpoints_[index] + ": watch ended: " +
                                   (rc == CURLE_OK ? std::string("closed by etcd") : curl_easy_strerror(rc)));
      done = true;
    } else {
      last_error = endpoints_[index] + ": " +
                   (rc == CURLE_OK ? "http status " + std::to_string(http_status) : curl_easy_strerror(rc));
    }
  }
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  if (done || stop->stopped()) return result;
  preferred_.store((first + 1) % endpoints_.size(), std::memory_order_relaxed);
  return Status::Unavailable("etcd unreachable: " + last_error);
}

std::string PrefixEnd(const std::string& prefix) {
  std::string end = prefix;
  while (!end.empty()) {
    if (static_cast<unsigned char>(end.back()) < 0xFF) {
      end.back() = static_cast<char>(static_cast<unsigned char>(end.back()) + 1);
      return end;
    }
    end.pop_back();
  }
  return end;
}

}  // namespace kandb::store
