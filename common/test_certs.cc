#include "common/test_certs.h"

#include <cstdio>

#include "common/test_util.h"

namespace kandb::testing {

namespace {

const char kNewKey[] = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";

}  // namespace

TestPki::TestPki(std::string dir, std::string name) : dir_(std::move(dir)) {
  ca_.cert = dir_ + "/" + name + "-ca.pem";
  ca_.key = dir_ + "/" + name + "-ca.key";
  ok_ = Run(std::string("openssl req -x509 ") + kNewKey + " -keyout '" + ca_.key + "' -out '" + ca_.cert +
            "' -subj '/CN=" + name + "' -days 30");
}

bool TestPki::Run(const std::string& command) {
  const ProgramResult result = RunProgram({"/bin/sh", "-c", command}, 60000);
  if (ExitCode(result) == 0) return true;
  error_ = command + ": " + result.err;
  return false;
}

CertFiles TestPki::Issue(const std::string& file_stem, const std::string& common_name, const std::string& san,
                         int days) {
  CertFiles files{dir_ + "/" + file_stem + ".pem", dir_ + "/" + file_stem + ".key"};
  const std::string csr = dir_ + "/" + file_stem + ".csr";
  const std::string ext = dir_ + "/" + file_stem + ".ext";
  WriteFileOrDie(ext, san.empty() ? "basicConstraints=CA:FALSE\n"
                                  : "basicConstraints=CA:FALSE\nsubjectAltName=" + san + "\n");
  // Each certificate of a CA gets its own serial number: a client that
  // saw two with the same one from the same issuer would refuse the second.
  const bool made =
      Run(std::string("openssl req ") + kNewKey + " -keyout '" + files.key + "' -out '" + csr + "' -subj '/CN=" +
          common_name + "'") &&
      Run("openssl x509 -req -in '" + csr + "' -CA '" + ca_.cert + "' -CAkey '" + ca_.key + "' -set_serial " +
          std::to_string(serial_++) + " -days " + std::to_string(days) + " -extfile '" + ext + "' -out '" +
          files.cert + "'");
  std::remove(csr.c_str());
  std::remove(ext.c_str());
  return made ? files : CertFiles{};
}

}  // namespace kandb::testing
