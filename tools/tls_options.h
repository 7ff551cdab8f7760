#ifndef KANDB_TOOLS_TLS_OPTIONS_H_
#define KANDB_TOOLS_TLS_OPTIONS_H_

// The TLS options of the tools that call a server: a client certificate,
// the CA the server's certificate must chain to, and the name it must
// carry.

#include <memory>
#include <string>

#include "common/status.h"
#include "rpc/tls.h"
#include "tools/command_line.h"

namespace kandb::tools {

struct TlsOptions {
  std::string cert;
  std::string key;
  std::string ca;
  std::string server_name;
};

inline void AddTlsOptions(CommandLine* cl, TlsOptions* tls) {
  cl->AddString("tls-cert", &tls->cert,
                "PEM client certificate for a server that demands one, with --tls-key; any --tls-* option "
                "makes every connection TLS");
  cl->AddString("tls-key", &tls->key, "PEM private key of --tls-cert");
  cl->AddString("tls-ca", &tls->ca,
                "PEM CA certificates the server's certificate must chain to (default: the system's CAs)");
  cl->AddString("tls-server-name", &tls->server_name,
                "name the server's certificate must carry (default: the host of --addr, a DNS name or an IP "
                "address)");
}

// The client's TLS settings: *out stays null when no option asks for TLS.
inline Status ClientTls(const TlsOptions& tls, std::shared_ptr<const kanrpc::TlsClientContext>* out) {
  out->reset();
  if (tls.cert.empty() && tls.key.empty() && tls.ca.empty() && tls.server_name.empty()) return Status::OK();
  return kanrpc::TlsClientContext::Load(kanrpc::TlsClientConfig{tls.cert, tls.key, tls.ca, tls.server_name}, out);
}

}  // namespace kandb::tools

#endif  // KANDB_TOOLS_TLS_OPTIONS_H_
