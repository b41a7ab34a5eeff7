// SoftHSM2 tokens for tests, made in a temporary folder with their own configuration
// (SOFTHSM2_CONF), never in the system's token folder or the home folder.
#pragma once

#include <string>
#include <vector>

#include "test_support.h"

namespace tessarel::test {

class SoftHsm {
 public:
  SoftHsm();
  // The SoftHSM2 module and its tools are installed.
  static bool available();
  static std::string module();

  const std::string& conf() const { return conf_; }
  // Environment for a program that should see these tokens (and no others of SoftHSM).
  std::vector<std::string> env() const { return {"SOFTHSM2_CONF=" + conf_}; }
  // Points this process at the tokens (before the module is first loaded here).
  void use_in_this_process() const;

  // Initialises a new token; returns a URI that selects it by label.
  std::string add_token(const std::string& label, const std::string& pin = "1234",
                        const std::string& so_pin = "87654321");
  void delete_token(const std::string& label);
  // A file holding the PIN (mode 0600), for --pin file:PATH.
  std::string pin_file(const std::string& pin = "1234");

  // Puts objects on a token with pkcs11-tool (an implementation independent of ours): the
  // key as PKCS#8, the certificate as DER, under the given CKA_ID (hex) and label.
  void put_key(const std::string& token, const TestCert& tc, const std::string& id_hex,
               const std::string& label, const std::vector<std::string>& extra = {},
               const std::string& pin = "1234");
  void put_public_key(const std::string& token, const TestCert& tc, const std::string& id_hex,
                      const std::string& label, const std::string& pin = "1234");
  void put_cert(const std::string& token, const Certificate& cert, const std::string& id_hex,
                const std::string& label, const std::string& pin = "1234");
  // pkcs11-tool --list-objects after login, as text.
  std::string list_objects(const std::string& token, const std::string& pin = "1234");

  const std::string& dir() const { return dir_.path(); }

 private:
  CommandResult tool(const std::vector<std::string>& args);
  TempDir dir_;
  std::string conf_;
  int files_ = 0;
};

}  // namespace tessarel::test
