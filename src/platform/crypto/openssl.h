// RAII holders for OpenSSL handles and the translation of OpenSSL's error queue into
// exceptions. Only src/platform/ includes OpenSSL headers.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace tessarel::crypto {

template <auto Fn>
struct Deleter {
  template <typename T>
  void operator()(T* p) const noexcept {
    Fn(p);
  }
};

using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using Pkcs12Ptr = std::unique_ptr<PKCS12, Deleter<PKCS12_free>>;

// The pending OpenSSL errors as one text (and clears the queue).
std::string openssl_errors();
// Throws tessarel::Exception with "what: <OpenSSL's reasons>".
[[noreturn]] void throw_openssl(const std::string& what);

}  // namespace tessarel::crypto
