#include "platform/crypto/trust.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "platform/crypto/x509.h"
#include "platform/runtime/files.h"
#include "tessarel/errors.h"

namespace tessarel::crypto {

namespace {

using X509StorePtr = std::unique_ptr<X509_STORE, Deleter<X509_STORE_free>>;
using X509StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX_free>>;

struct StackDeleter {
  void operator()(STACK_OF(X509) * s) const noexcept { sk_X509_free(s); }
};
using X509StackPtr = std::unique_ptr<STACK_OF(X509), StackDeleter>;

// Every certificate of a file: PEM (any number) or a single DER certificate.
std::vector<Certificate> certificates_in(const std::string& path) {
  Bytes data = ReadFileBytes(path);
  std::vector<Certificate> out;
  std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
  if (text.find("-----BEGIN ") != std::string_view::npos) {
    BioPtr bio(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
    if (!bio) throw_openssl("Cannot read " + path);
    while (X509* x = PEM_read_bio_X509_AUX(bio.get(), nullptr, nullptr, nullptr)) {
      X509Ptr holder(x);
      out.push_back(certificate_from_x509(x));
    }
    ERR_clear_error();  // the end of the text reads as an error
    return out;
  }
  try {
    out.push_back(Certificate::from_der(data));
  } catch (const Exception&) {
    // Not a certificate: the caller decides whether that matters.
  }
  return out;
}

std::string subject_of(X509* x) {
  if (!x) return "(unknown)";
  return certificate_from_x509(x).subject_text();
}

}  // namespace

std::string iso_time(std::chrono::sys_seconds t) {
  auto days = std::chrono::floor<std::chrono::days>(t);
  std::chrono::year_month_day ymd{days};
  std::chrono::hh_mm_ss hms{t - days};
  char buf[40];
  std::snprintf(buf, sizeof buf, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(ymd.year()),
                static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                static_cast<int>(hms.hours().count()), static_cast<int>(hms.minutes().count()),
                static_cast<int>(hms.seconds().count()));
  return buf;
}

struct TrustStore::Impl {
  X509StorePtr store{X509_STORE_new()};
  std::vector<Certificate> intermediates;
};

TrustStore::TrustStore(const TrustOptions& options) : impl_(std::make_unique<Impl>()) {
  if (!impl_->store) throw_openssl("Cannot create a certificate store");
  auto add = [&](const Certificate& c) {
    if (c.self_signed()) {
      if (X509_STORE_add_cert(impl_->store.get(), x509_of(c)) == 1) ++anchors_;
      ERR_clear_error();  // the same anchor twice is not an error
    } else {
      impl_->intermediates.push_back(c);
    }
  };
  for (const auto& path : options.anchors) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) {
      std::vector<std::string> files;
      for (const auto& entry : std::filesystem::directory_iterator(path, ec))
        if (entry.is_regular_file(ec)) files.push_back(entry.path().string());
      if (ec) throw Exception("Cannot read the trust folder " + path + ": " + ec.message());
      std::sort(files.begin(), files.end());
      // Other files (notes, revocation lists) may sit beside the certificates.
      for (const auto& f : files)
        for (const auto& c : certificates_in(f))
          add(c);
      continue;
    }
    auto certs = certificates_in(path);
    if (certs.empty()) throw Exception("No certificate in the trust file " + path);
    for (const auto& c : certs)
      add(c);
  }
  if (options.system) {
    if (X509_STORE_set_default_paths(impl_->store.get()) != 1)
      throw_openssl("Cannot load the system's CA certificates");
    ++anchors_;  // loaded on demand by OpenSSL; counted as one source
  }
}

TrustStore::~TrustStore() = default;

TrustReport TrustStore::check(const Certificate& signer,
                              const std::vector<Certificate>& certificates,
                              std::chrono::sys_seconds at, TrustPurpose purpose) const {
  TrustReport r;
  r.checked = true;
  r.checked_at = iso_time(at);
  X509StackPtr untrusted(sk_X509_new_null());
  if (!untrusted) throw_openssl("Cannot build a certificate list");
  const std::vector<Certificate>& intermediates = impl_->intermediates;
  for (const auto* list : {&certificates, &intermediates})
    for (const auto& c : *list)
      sk_X509_push(untrusted.get(), x509_of(c));
  X509StoreCtxPtr ctx(X509_STORE_CTX_new());
  if (!ctx ||
      X509_STORE_CTX_init(ctx.get(), impl_->store.get(), x509_of(signer), untrusted.get()) != 1)
    throw_openssl("Cannot start a chain check");
  X509_STORE_CTX_set_time(ctx.get(), 0, static_cast<time_t>(at.time_since_epoch().count()));
  int ok = X509_verify_cert(ctx.get());
  int err = X509_STORE_CTX_get_error(ctx.get());
  X509* current = X509_STORE_CTX_get_current_cert(ctx.get());
  if (STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(ctx.get()))
    for (int i = 0; i < sk_X509_num(chain); ++i)
      r.chain.push_back(subject_of(sk_X509_value(chain, i)));
  ERR_clear_error();
  if (ok != 1) {
    std::string who = subject_of(current);
    switch (err) {
      case X509_V_ERR_CERT_HAS_EXPIRED:
        r.reason = "the certificate " + who + " had expired at " + r.checked_at;
        break;
      case X509_V_ERR_CERT_NOT_YET_VALID:
        r.reason = "the certificate " + who + " was not yet valid at " + r.checked_at;
        break;
      case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
      case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        r.reason = "the root " + who + " is not a trust anchor";
        break;
      case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
      case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        r.reason = "the issuer " + (current ? certificate_from_x509(current).issuer_text() : "") +
                   " of " + who + " is neither a trust anchor nor among the certificates";
        break;
      case X509_V_ERR_INVALID_CA:
        r.reason = "the certificate " + who + " issues others but is not a CA certificate";
        break;
      case X509_V_ERR_CERT_SIGNATURE_FAILURE:
        r.reason = "the issuer's signature on " + who + " does not verify";
        break;
      case X509_V_ERR_PATH_LENGTH_EXCEEDED:
        r.reason = "the chain is longer than " + who + " allows";
        break;
      case X509_V_ERR_KEYUSAGE_NO_CERTSIGN:
        r.reason = "the key usage of " + who + " does not allow signing certificates";
        break;
      default:
        r.reason = std::string(X509_verify_cert_error_string(err)) + " (" + who + ")";
    }
    return r;
  }
  if (purpose == TrustPurpose::Signing) {
    auto ku = signer.key_usage();
    if (ku && !signer.has_key_usage(kDigitalSignature) && !signer.has_key_usage(kNonRepudiation)) {
      r.reason = "the key usage of " + signer.subject_text() +
                 " allows neither digitalSignature nor nonRepudiation";
      return r;
    }
  } else {
    X509* x = x509_of(signer);
    if (!(X509_get_extension_flags(x) & EXFLAG_XKUSAGE) ||
        !(X509_get_extended_key_usage(x) & XKU_TIMESTAMP)) {
      r.reason = "the certificate " + signer.subject_text() + " is not meant for time-stamping";
      return r;
    }
  }
  r.trusted = true;
  return r;
}

}  // namespace tessarel::crypto

namespace tessarel {

TrustReport CheckCertificateTrust(const Certificate& signer,
                                  const std::vector<Certificate>& certificates,
                                  std::chrono::sys_seconds at, const TrustOptions& options,
                                  TrustPurpose purpose) {
  if (!options.enabled()) return {};
  return crypto::TrustStore(options).check(signer, certificates, at, purpose);
}

}  // namespace tessarel
