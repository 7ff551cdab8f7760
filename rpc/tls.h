#ifndef KANDB_RPC_TLS_H_
#define KANDB_RPC_TLS_H_

// TLS for the RPC port, through OpenSSL: the server's certificate, the
// client certificates it demands and the names it lets in, and the
// client's side of the same. TLS 1.2 and 1.3 only; renegotiation refused.

#include <memory>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "common/thread_annotations.h"
#include "rpc/transport.h"

typedef struct ssl_ctx_st SSL_CTX;

namespace kandb::kanrpc {

struct TlsServerConfig {
  std::string cert;  // PEM certificate chain, the server's first
  std::string key;   // PEM private key of the certificate
  // PEM certificates of the CAs that sign client certificates. Empty: no
  // client certificate is asked for.
  std::string ca;
  // When not empty, a client certificate must name one of these, as its
  // common name or as a DNS subject alternative name (needs `ca`).
  std::vector<std::string> allowed_names;
};

// The server's TLS settings, shared by every connection. Sessions are made
// from the certificate loaded last; Reload swaps in the files' new contents
// while established sessions keep the one they were made with.
class TlsServerContext {
 public:
  // Fails with InvalidArgument naming the flag or file and OpenSSL's reason
  // ("tls: cannot load certificate PATH: REASON") when a file is missing or
  // bad, the key does not match the certificate, or the names need a CA.
  static Status Load(const TlsServerConfig& config, std::shared_ptr<TlsServerContext>* out);
  ~TlsServerContext();

  // Reads the files again; on failure the loaded certificate stays in use.
  Status Reload() EXCLUDES(mu_);

  // A server-side session on the accepted socket `fd` (non-blocking),
  // its handshake still to do.
  std::unique_ptr<Transport> Accept(int fd) EXCLUDES(mu_);

  const TlsServerConfig& config() const { return config_; }

  // Makes `ctx`, a server context of another library's making (the HTTP
  // status port's), serve every session with this context as it stands at
  // that session's handshake: certificate, client CAs, names let in, later
  // reloads included. This object must outlive `ctx`'s sessions.
  void Attach(SSL_CTX* ctx);

 private:
  explicit TlsServerContext(TlsServerConfig config) : config_(std::move(config)) {}
  Status Build(SSL_CTX** out) const;

  const TlsServerConfig config_;
  // Guards the pointer only: taken to make a session and to swap in a
  // reloaded context, never while a file is read or a handshake runs.
  Mutex mu_;
  SSL_CTX* ctx_ GUARDED_BY(mu_) = nullptr;
};

struct TlsClientConfig {
  std::string cert;  // PEM client certificate (empty: none is offered)
  std::string key;   // its PEM private key
  // PEM CA certificates that the server's certificate must chain to; empty
  // means the system's trusted CAs.
  std::string ca;
  // The name the server's certificate must carry; empty means the host of
  // the address connected to (a host name, or an IP address that must be
  // one of the certificate's IP subject alternative names).
  std::string server_name;
};

class TlsClientContext {
 public:
  // Failures as TlsServerContext::Load's.
  static Status Load(const TlsClientConfig& config, std::shared_ptr<const TlsClientContext>* out);
  ~TlsClientContext();

  // A client-side session on the connected socket `fd` (non-blocking) to
  // `host`, its handshake still to do; the server's certificate is checked
  // against the CA and the name during it.
  Status Connect(int fd, const std::string& host, std::unique_ptr<Transport>* out) const;

  // Connects a session on a socket that may be blocking: the handshake
  // waits at most timeout_ms for each step (negative: without limit). The
  // socket is non-blocking afterwards.
  Status Handshake(int fd, const std::string& host, int timeout_ms, std::unique_ptr<Transport>* out) const;

 private:
  explicit TlsClientContext(TlsClientConfig config) : config_(std::move(config)) {}

  const TlsClientConfig config_;
  SSL_CTX* ctx_ = nullptr;  // set by Load, read-only afterwards
};

// Splits a comma-separated list of names, dropping blanks around them and
// empty entries.
std::vector<std::string> SplitNames(const std::string& list);

}  // namespace kandb::kanrpc

#endif  // KANDB_RPC_TLS_H_
