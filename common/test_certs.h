#ifndef KANDB_COMMON_TEST_CERTS_H_
#define KANDB_COMMON_TEST_CERTS_H_

// Certificates for the tests, made with the openssl command (EC P-256 keys,
// so that handshakes are cheap) in a directory of the caller's.

#include <string>

namespace kandb::testing {

struct CertFiles {
  std::string cert;  // PEM certificate
  std::string key;   // PEM private key, unencrypted
};

class TestPki {
 public:
  // A self-signed CA named `name`, its files under `dir`. ok() says whether
  // the openssl command worked, error() what it printed when not.
  TestPki(std::string dir, std::string name);

  bool ok() const { return ok_; }
  const std::string& error() const { return error_; }
  const CertFiles& ca() const { return ca_; }

  // A certificate signed by this CA for `common_name`, with the subject
  // alternative names `san` (openssl's form, "DNS:localhost,IP:127.0.0.1";
  // empty for none), valid for `days` (0: it expires within the second it
  // was made). Files `file_stem`.pem and `file_stem`.key; empty paths on
  // failure (see error()).
  CertFiles Issue(const std::string& file_stem, const std::string& common_name, const std::string& san,
                  int days = 30);
  // A server certificate for 127.0.0.1 and localhost.
  CertFiles Server(const std::string& file_stem, const std::string& common_name = "kandb-meta") {
    return Issue(file_stem, common_name, "DNS:localhost,IP:127.0.0.1");
  }

 private:
  bool Run(const std::string& command);

  const std::string dir_;
  CertFiles ca_;
  bool ok_ = false;
  std::string error_;
  int serial_ = 1;
};

}  // namespace kandb::testing

#endif  // KANDB_COMMON_TEST_CERTS_H_
