// The personal store on PKCS#11 tokens, selected by a pkcs11: URI.
//
// Certificates are the token's X.509 certificate objects; a certificate has its key when the
// token holds a private key with the same CKA_ID that belongs to the certificate's public
// key. Keys never leave the token: signing runs there, and export is refused. The order is
// the modules' order, then the slots', then, within a token, label, CKA_ID and certificate
// bytes: tokens return their objects in no fixed order, and "the first certificate" must
// mean the same one on every call.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/store/pkcs11_uri.h"
#include "platform/store/token.h"
#include "tessarel/store.h"

namespace tessarel {

class TokenCertStore : public CertStore {
 public:
  explicit TokenCertStore(std::string uri);

  std::string location() const override { return text_; }
  std::vector<Certificate> certificates() override;
  bool has_private_key(const Certificate& cert) override;
  bool key_valid(const Certificate& cert) override;
  std::unique_ptr<SigningKey> signing_key(const Certificate& cert) override;
  // Puts the key (marked sensitive and not extractable), its public half and the
  // certificate on the one writable token the URI selects.
  void add(const Certificate& cert, const Bytes& pkcs8_key) override;
  bool remove(const Certificate& cert) override;
  // Refused: the key cannot leave the token.
  Bytes export_pkcs12(const Certificate& cert, const std::string& password) override;
  // The tokens present and the handles of their certificate objects (a cheap look that
  // reads no values), and this process's own writes.
  std::string change_stamp() override;

  // The tokens the URI selects, present now, in the store's order.
  std::vector<std::shared_ptr<p11::Token>> tokens() const;

 private:
  // One look at the slots: the tokens that match, and what could or could not be read
  // (warnings to give, or problems that went away), by what they concern.
  struct Scan {
    std::vector<std::shared_ptr<p11::Token>> tokens;
    std::vector<std::pair<std::string, std::optional<std::string>>> problems;
    bool looked = false;  // at least one slot was there to look at
  };
  Scan scan() const;
  void report(const Scan& scan) const;

  struct Entry {
    std::shared_ptr<p11::Token> token;
    Bytes id;  // CKA_ID
    Certificate cert;
  };
  std::vector<Entry> enumerate();
  // The entry of a certificate, enumerating again when it is not known yet.
  std::optional<Entry> entry_for(const Certificate& cert);
  p11::Login key_login();

  std::string text_;
  p11::Pkcs11Uri uri_;
  std::mutex mutex_;
  std::vector<Entry> entries_;
  bool login_declined_ = false;
};

}  // namespace tessarel
