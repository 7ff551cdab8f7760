#ifndef KANDB_APP_TLS_FLAGS_H_
#define KANDB_APP_TLS_FLAGS_H_

// The TLS flags both servers share, defined by each entry point after its
// other flags, and the certificate reload on SIGHUP.

#include <signal.h>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "common/flags.h"
#include "common/status.h"
#include "rpc/server.h"
#include "rpc/tls.h"

namespace kandb::app {

struct TlsFlags {
  std::string* cert;
  std::string* key;
  std::string* ca;
  std::string* allowed_cn;
};

inline TlsFlags DefineTlsFlags() {
  TlsFlags flags;
  flags.cert = DefineStringFlag("tls_cert", "",
                                "PEM certificate (chain) of the RPC port; with --tls_key the port speaks only TLS");
  flags.key = DefineStringFlag("tls_key", "", "PEM private key of --tls_cert");
  flags.ca = DefineStringFlag("tls_ca", "",
                              "PEM CA certificates; clients must present a certificate signed by one of them");
  flags.allowed_cn = DefineStringFlag(
      "tls_allowed_cn", "",
      "comma-separated names let in: a client certificate's common name or a DNS alternative name must be one");
  return flags;
}

// The server's TLS settings from the flags: *out stays null when none is
// given. Fails, naming the flag or the file and OpenSSL's reason, when a
// file cannot be used or the flags do not go together.
inline Status TlsFromFlags(const TlsFlags& flags, std::shared_ptr<kanrpc::TlsServerContext>* out) {
  out->reset();
  if (flags.cert->empty() && flags.key->empty() && flags.ca->empty() && flags.allowed_cn->empty()) {
    return Status::OK();
  }
  if (flags.cert->empty() || flags.key->empty()) {
    return Status::InvalidArgument(
        "tls: --tls_cert and --tls_key go together, and --tls_ca and --tls_allowed_cn need both");
  }
  kanrpc::TlsServerConfig config;
  config.cert = *flags.cert;
  config.key = *flags.key;
  config.ca = *flags.ca;
  config.allowed_names = kanrpc::SplitNames(*flags.allowed_cn);
  if (!flags.allowed_cn->empty() && flags.ca->empty()) {
    return Status::InvalidArgument("tls: --tls_allowed_cn needs --tls_ca, to check client certificates against");
  }
  // A list of blanks and commas must not pass for no list at all, which
  // lets in every certificate the CA signed.
  if (!flags.allowed_cn->empty() && config.allowed_names.empty()) {
    return Status::InvalidArgument("tls: --tls_allowed_cn names no one: '" + *flags.allowed_cn + "'");
  }
  return kanrpc::TlsServerContext::Load(config, out);
}

// Reads the certificate, key and CA files again on every SIGHUP, from a
// thread of its own, so that certificates are rotated without a restart or
// a dropped connection; a reload that fails keeps the certificate in use.
// Call before any other thread starts: SIGHUP is blocked in the calling
// thread, and so in every thread started after it, and only the reload
// thread takes it.
inline void ReloadOnHangup(std::shared_ptr<kanrpc::TlsServerContext> tls, const char* program) {
  sigset_t hangup;
  sigemptyset(&hangup);
  sigaddset(&hangup, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &hangup, nullptr);
  std::thread([tls = std::move(tls), program, hangup] {
    for (;;) {
      int signal = 0;
      if (sigwait(&hangup, &signal) != 0) continue;
      const Status s = tls->Reload();
      if (s.ok()) {
        std::fprintf(stderr, "%s: reloaded TLS certificate %s\n", program, tls->config().cert.c_str());
      } else {
        std::fprintf(stderr, "%s: TLS reload failed, the certificate in use stays: %s\n", program,
                     s.ToString().c_str());
      }
    }
  }).detach();
}

}  // namespace kandb::app

#endif  // KANDB_APP_TLS_FLAGS_H_
