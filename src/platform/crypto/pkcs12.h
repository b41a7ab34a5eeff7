// PKCS#12 (PFX) files: a certificate with its private key.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/crypto/pkey.h"
#include "tessarel/certificate.h"

namespace tessarel::crypto {

struct Pkcs12Contents {
  Certificate certificate;
  PrivateKey key;
  std::vector<Certificate> chain;
};

// Writes certificate and key protected by password (the empty string is a valid password).
// Uses OpenSSL's current defaults: AES-256-CBC under PBKDF2 and an HMAC-SHA-256 MAC.
Bytes write_pkcs12(const Certificate& cert, const PrivateKey& key, const std::string& password,
                   const std::string& friendly_name = {});
// Reads a PFX; a wrong password or a damaged file raises tessarel::Exception with a clear
// message. Files protected with legacy algorithms (RC2, 3DES) are read too.
Pkcs12Contents read_pkcs12(const Bytes& pfx, const std::string& password);

}  // namespace tessarel::crypto
