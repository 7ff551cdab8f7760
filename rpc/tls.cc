#include "rpc/tls.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "rpc/sys_error.h"

namespace kandb::kanrpc {

namespace {

// The reason of the oldest error OpenSSL queued on this thread; the queue
// is emptied, so that the next operation's outcome is read alone.
std::string TakeReason() {
  const unsigned long first = ERR_get_error();
  while (ERR_get_error() != 0) {
  }
  if (first == 0) return "unknown error";
  // A failed system call (a file that is not there) is queued with the
  // system's error number as its reason.
  if (ERR_GET_LIB(first) == ERR_LIB_SYS) return ErrnoText(ERR_GET_REASON(first));
  if (const char* reason = ERR_reason_error_string(first)) return reason;
  char text[256];
  ERR_error_string_n(first, text, sizeof(text));
  return text;
}

// The sockets are read and written by a BIO of our own rather than
// OpenSSL's socket BIO, which writes with write(2): a peer gone away would
// raise SIGPIPE in a process (or a tool linking the client) that never
// chose to ignore it.
int SocketOf(BIO* bio) { return static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(bio))); }

int BioWrite(BIO* bio, const char* data, int size) {
  BIO_clear_retry_flags(bio);
  const ssize_t r = send(SocketOf(bio), data, static_cast<size_t>(size), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) BIO_set_retry_write(bio);
  return static_cast<int>(r);
}

int BioRead(BIO* bio, char* buf, int size) {
  BIO_clear_retry_flags(bio);
  const ssize_t r = recv(SocketOf(bio), buf, static_cast<size_t>(size), MSG_DONTWAIT);
  if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) BIO_set_retry_read(bio);
  return static_cast<int>(r);
}

int BioPuts(BIO* bio, const char* text) {
  return BioWrite(bio, text, static_cast<int>(std::min<size_t>(strlen(text), INT_MAX)));
}

long BioCtrl(BIO* bio, int command, long, void*) {
  switch (command) {
    case BIO_CTRL_FLUSH:  // nothing is buffered here
      return 1;
    case BIO_C_GET_FD:
      return SocketOf(bio);
    default:
      return 0;
  }
}

int BioCreate(BIO* bio) {
  BIO_set_init(bio, 1);
  return 1;
}

const BIO_METHOD* SocketBioMethod() {
  static const BIO_METHOD* const method = [] {
    BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "kanrpc socket");
    BIO_meth_set_write(m, BioWrite);
    BIO_meth_set_read(m, BioRead);
    BIO_meth_set_puts(m, BioPuts);
    BIO_meth_set_ctrl(m, BioCtrl);
    BIO_meth_set_create(m, BioCreate);
    return m;
  }();
  return method;
}

// Binds `ssl` to the socket `fd`, which it never closes.
bool AttachSocket(SSL* ssl, int fd) {
  BIO* bio = BIO_new(SocketBioMethod());
  if (bio == nullptr) return false;
  BIO_set_data(bio, reinterpret_cast<void*>(static_cast<intptr_t>(fd)));
  SSL_set_bio(ssl, bio, bio);  // ssl owns it, once for each direction
  return true;
}

class TlsTransport final : public Transport {
 public:
  TlsTransport(int fd, SSL* ssl) : Transport(fd), ssl_(ssl) {}
  ~TlsTransport() override { SSL_free(ssl_); }

  // Each operation starts on an empty error queue: SSL_get_error reads the
  // queue, and an error some other OpenSSL user of this thread left there
  // would pass for this session's.
  Status Recv(char* buf, size_t size, size_t* n) override {
    *n = 0;
    ERR_clear_error();
    const int r = SSL_read(ssl_, buf, static_cast<int>(std::min<size_t>(size, INT_MAX)));
    if (r > 0) {
      *n = static_cast<size_t>(r);
      return Status::OK();
    }
    return Outcome(r);
  }

  Status Send(const char* data, size_t size, size_t* n) override {
    *n = 0;
    ERR_clear_error();
    const int r = SSL_write(ssl_, data, static_cast<int>(std::min<size_t>(size, INT_MAX)));
    if (r > 0) {
      *n = static_cast<size_t>(r);
      return Status::OK();
    }
    return Outcome(r);
  }

  Status Handshake(bool* done) override {
    ERR_clear_error();
    const int r = SSL_do_handshake(ssl_);
    *done = r == 1;
    return *done ? Status::OK() : Outcome(r);
  }

  short wait_events() const override { return wait_; }

 private:
  // What an operation that returned `r` (<= 0) means: a wait (OK), the
  // stream's end, or a failure.
  Status Outcome(int r) {
    const int error = SSL_get_error(ssl_, r);
    switch (error) {
      case SSL_ERROR_WANT_READ:
        wait_ = POLLIN;
        return Status::OK();
      case SSL_ERROR_WANT_WRITE:
        wait_ = POLLOUT;
        return Status::OK();
      case SSL_ERROR_ZERO_RETURN:
        return ConnectionClosed();
      case SSL_ERROR_SYSCALL: {
        const int system_error = errno;
        ERR_clear_error();
        return system_error == 0 ? ConnectionClosed() : TransferError(system_error);
      }
      default: {
        const long verified = SSL_get_verify_result(ssl_);
        std::string reason = TakeReason();
        if (verified != X509_V_OK && !SSL_is_init_finished(ssl_)) {
          reason += ": ";
          reason += X509_verify_cert_error_string(verified);
        }
        return Status::Corruption("kanrpc tls: " + reason);
      }
    }
  }

  SSL* const ssl_;
  short wait_ = POLLIN;
};

// The names a certificate goes by: its common names and its DNS subject
// alternative names.
bool NamedIn(X509* cert, const std::vector<std::string>& allowed) {
  const auto allowed_name = [&allowed](const char* data, int length) {
    if (length < 0) return false;
    const std::string name(data, static_cast<size_t>(length));
    return std::find(allowed.begin(), allowed.end(), name) != allowed.end();
  };
  X509_NAME* subject = X509_get_subject_name(cert);
  for (int i = -1; subject != nullptr && (i = X509_NAME_get_index_by_NID(subject, NID_commonName, i)) >= 0;) {
    unsigned char* utf8 = nullptr;
    const int length = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, i)));
    const bool found = utf8 != nullptr && allowed_name(reinterpret_cast<const char*>(utf8), length);
    OPENSSL_free(utf8);
    if (found) return true;
  }
  auto* names = static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr));
  bool found = false;
  for (int i = 0; names != nullptr && !found && i < sk_GENERAL_NAME_num(names); ++i) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names, i);
    if (name->type != GEN_DNS) continue;
    found = allowed_name(reinterpret_cast<const char*>(ASN1_STRING_get0_data(name->d.dNSName)),
                         ASN1_STRING_length(name->d.dNSName));
  }
  GENERAL_NAMES_free(names);
  return found;
}

// Lets in a client whose certificate chains to the CA only when the
// certificate itself is named on the allow-list, which the context carries
// as its application data.
int VerifyAllowedName(int chain_ok, X509_STORE_CTX* store) {
  if (chain_ok != 1 || X509_STORE_CTX_get_error_depth(store) != 0) return chain_ok;
  auto* ssl = static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  const auto* allowed = static_cast<const std::vector<std::string>*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
  if (allowed == nullptr || allowed->empty() || NamedIn(X509_STORE_CTX_get_current_cert(store), *allowed)) {
    return 1;
  }
  X509_STORE_CTX_set_error(store, X509_V_ERR_APPLICATION_VERIFICATION);
  return 0;
}

Status LoadFailure(const std::string& what) {
  return Status::InvalidArgument("tls: " + what + ": " + TakeReason());
}

// What both sides set: versions, no renegotiation, no compression, partial
// writes from buffers that may move between retries, and read-ahead, so
// that a record costs one receive rather than two.
SSL_CTX* NewContext(const SSL_METHOD* method) {
  SSL_CTX* ctx = SSL_CTX_new(method);
  if (ctx == nullptr) return nullptr;
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_IGNORE_UNEXPECTED_EOF);
  // Released buffers keep an idle session small (a thousand idle clients
  // would otherwise hold 34 KiB each).
  SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                            SSL_MODE_RELEASE_BUFFERS);
  SSL_CTX_set_read_ahead(ctx, 1);
  // An encrypted key would make OpenSSL ask for its passphrase on the
  // terminal, stopping a server started in the background (or a reload on
  // SIGHUP) for good; it fails to load instead.
  SSL_CTX_set_default_passwd_cb(ctx, [](char*, int, int, void*) { return 0; });
  return ctx;
}

Status LoadIdentity(SSL_CTX* ctx, const std::string& cert, const std::string& key) {
  if (SSL_CTX_use_certificate_chain_file(ctx, cert.c_str()) != 1) {
    return LoadFailure("cannot load certificate " + cert);
  }
  if (SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), SSL_FILETYPE_PEM) != 1) {
    return LoadFailure("cannot load key " + key);
  }
  if (SSL_CTX_check_private_key(ctx) != 1) {
    return LoadFailure("key " + key + " does not match certificate " + cert);
  }
  return Status::OK();
}

bool IsAddress(const std::string& host) {
  unsigned char buf[sizeof(struct in6_addr)];
  return inet_pton(AF_INET, host.c_str(), buf) == 1 || inet_pton(AF_INET6, host.c_str(), buf) == 1;
}

}  // namespace

std::vector<std::string> SplitNames(const std::string& list) {
  std::vector<std::string> names;
  size_t start = 0;
  while (start <= list.size()) {
    size_t end = list.find(',', start);
    if (end == std::string::npos) end = list.size();
    size_t first = start, last = end;
    while (first < last && (list[first] == ' ' || list[first] == '\t')) ++first;
    while (last > first && (list[last - 1] == ' ' || list[last - 1] == '\t')) --last;
    if (last > first) names.push_back(list.substr(first, last - first));
    start = end + 1;
  }
  return names;
}

Status TlsServerContext::Load(const TlsServerConfig& config, std::shared_ptr<TlsServerContext>* out) {
  if (config.cert.empty() || config.key.empty()) {
    return Status::InvalidArgument("tls: a certificate needs its key, and a key its certificate");
  }
  if (!config.allowed_names.empty() && config.ca.empty()) {
    return Status::InvalidArgument("tls: allowed client names need a CA to check client certificates against");
  }
  std::shared_ptr<TlsServerContext> context(new TlsServerContext(config));
  SSL_CTX* ctx = nullptr;
  Status s = context->Build(&ctx);
  if (!s.ok()) return s;
  {
    MutexLock lock(&context->mu_);
    context->ctx_ = ctx;
  }
  *out = std::move(context);
  return Status::OK();
}

TlsServerContext::~TlsServerContext() {
  MutexLock lock(&mu_);
  SSL_CTX_free(ctx_);
}

Status TlsServerContext::Build(SSL_CTX** out) const {
  ERR_clear_error();
  SSL_CTX* ctx = NewContext(TLS_server_method());
  if (ctx == nullptr) return LoadFailure("cannot make a context");
  Status s = LoadIdentity(ctx, config_.cert, config_.key);
  if (s.ok() && !config_.ca.empty()) {
    if (SSL_CTX_load_verify_locations(ctx, config_.ca.c_str(), nullptr) != 1) {
      s = LoadFailure("cannot load CA " + config_.ca);
    } else {
      // Tells clients which CAs to choose a certificate from.
      if (STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(config_.ca.c_str())) {
        SSL_CTX_set_client_CA_list(ctx, names);
      }
      ERR_clear_error();
      SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                         config_.allowed_names.empty() ? nullptr : VerifyAllowedName);
      // The list lives as long as this object, which outlives every session
      // (the server frees its connections before its TLS settings).
      SSL_CTX_set_app_data(ctx, const_cast<std::vector<std::string>*>(&config_.allowed_names));
    }
  }
  if (!s.ok()) {
    SSL_CTX_free(ctx);
    return s;
  }
  // No TLS 1.3 session tickets: this system's clients never resume, and
  // making them (OpenSSL decodes the session again, the client's
  // certificate with it) took about a quarter of the server's work for a
  // full handshake.
  SSL_CTX_set_num_tickets(ctx, 0);
  // Resumed sessions must come from this server's own contexts.
  static const unsigned char kSessionContext[] = "kandb-meta";
  SSL_CTX_set_session_id_context(ctx, kSessionContext, sizeof(kSessionContext) - 1);
  *out = ctx;
  return Status::OK();
}

Status TlsServerContext::Reload() {
  SSL_CTX* fresh = nullptr;
  Status s = Build(&fresh);
  if (!s.ok()) return s;
  SSL_CTX* old = nullptr;
  {
    MutexLock lock(&mu_);
    old = ctx_;
    ctx_ = fresh;
  }
  // Sessions made from the old context hold references of their own.
  SSL_CTX_free(old);
  return Status::OK();
}

void TlsServerContext::Attach(SSL_CTX* ctx) {
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  // No resumption at all: a resumed session would skip the switch below
  // and keep what the client was let in with, also after a reload that
  // would now refuse it.
  SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_NO_TICKET);
  SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(ctx, 0);
  // The hello is the first thing a session reads, before a certificate is
  // chosen or one asked for: from there on the session is this context's.
  SSL_CTX_set_client_hello_cb(
      ctx,
      [](SSL* ssl, int*, void* arg) -> int {
        auto* self = static_cast<TlsServerContext*>(arg);
        SSL_CTX* current = nullptr;
        {
          MutexLock lock(&self->mu_);
          current = self->ctx_;
          // The session keeps a reference of its own once switched; this
          // one only bridges the unlocked steps below.
          SSL_CTX_up_ref(current);
        }
        const bool switched = SSL_set_SSL_CTX(ssl, current) != nullptr;
        if (switched) {
          SSL_set_verify(ssl, SSL_CTX_get_verify_mode(current), SSL_CTX_get_verify_callback(current));
          if (STACK_OF(X509_NAME)* names = SSL_CTX_get_client_CA_list(current)) {
            SSL_set_client_CA_list(ssl, SSL_dup_CA_list(names));
          }
        }
        SSL_CTX_free(current);
        return switched ? SSL_CLIENT_HELLO_SUCCESS : SSL_CLIENT_HELLO_ERROR;
      },
      this);
}

std::unique_ptr<Transport> TlsServerContext::Accept(int fd) {
  SSL* ssl = nullptr;
  {
    MutexLock lock(&mu_);
    ssl = SSL_new(ctx_);
  }
  if (ssl == nullptr || !AttachSocket(ssl, fd)) {
    SSL_free(ssl);
    ERR_clear_error();
    return nullptr;
  }
  SSL_set_accept_state(ssl);
  return std::make_unique<TlsTransport>(fd, ssl);
}

Status TlsClientContext::Load(const TlsClientConfig& config, std::shared_ptr<const TlsClientContext>* out) {
  if (config.cert.empty() != config.key.empty()) {
    return Status::InvalidArgument("tls: a certificate needs its key, and a key its certificate");
  }
  ERR_clear_error();
  std::shared_ptr<TlsClientContext> context(new TlsClientContext(config));
  SSL_CTX* ctx = NewContext(TLS_client_method());
  if (ctx == nullptr) return LoadFailure("cannot make a context");
  context->ctx_ = ctx;  // freed with the context from here on
  if (!config.cert.empty()) {
    Status s = LoadIdentity(ctx, config.cert, config.key);
    if (!s.ok()) return s;
  }
  if (!config.ca.empty()) {
    if (SSL_CTX_load_verify_locations(ctx, config.ca.c_str(), nullptr) != 1) {
      return LoadFailure("cannot load CA " + config.ca);
    }
  } else if (SSL_CTX_set_default_verify_paths(ctx) != 1) {
    return LoadFailure("cannot load the system's CAs");
  }
  SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
  *out = std::move(context);
  return Status::OK();
}

TlsClientContext::~TlsClientContext() { SSL_CTX_free(ctx_); }

Status TlsClientContext::Connect(int fd, const std::string& host, std::unique_ptr<Transport>* out) const {
  const std::string& name = config_.server_name.empty() ? host : config_.server_name;
  SSL* ssl = SSL_new(ctx_);
  bool ready = ssl != nullptr && AttachSocket(ssl, fd);
  if (ready && IsAddress(name)) {
    ready = X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name.c_str()) == 1;
  } else if (ready) {
    ready = SSL_set_tlsext_host_name(ssl, name.c_str()) == 1 && SSL_set1_host(ssl, name.c_str()) == 1;
  }
  if (!ready) {
    SSL_free(ssl);
    return Status::Corruption("kanrpc tls: cannot set up a session for " + name + ": " + TakeReason());
  }
  SSL_set_connect_state(ssl);
  *out = std::make_unique<TlsTransport>(fd, ssl);
  return Status::OK();
}

Status TlsClientContext::Handshake(int fd, const std::string& host, int timeout_ms,
                                   std::unique_ptr<Transport>* out) const {
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return TransferError(errno);
  std::unique_ptr<Transport> transport;
  Status s = Connect(fd, host, &transport);
  for (bool done = false; s.ok();) {
    s = transport->Handshake(&done);
    if (!s.ok() || done) break;
    s = WaitTransport(*transport, timeout_ms);
  }
  if (s.ok()) *out = std::move(transport);
  return s;
}

}  // namespace kandb::kanrpc
