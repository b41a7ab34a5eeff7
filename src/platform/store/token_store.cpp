#include "platform/store/token_store.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <tuple>

#include "platform/asn1/ber.h"
#include "platform/asn1/der.h"
#include "platform/crypto/digest.h"
#include "platform/crypto/pkey.h"
#include "platform/runtime/scope.h"
#include "platform/runtime/warnings.h"
#include "tessarel/errors.h"

namespace tessarel {

using namespace p11;

namespace {

// ---- what a certificate says about its key ----

struct CertKey {
  KeyKind kind = KeyKind::Unknown;
  Bytes modulus, exponent;  // RSA
  Bytes ec_params;          // EC: DER of the curve parameters (CKA_EC_PARAMS)
  Bytes ec_point;           // EC: the point, uncompressed
  Bytes key_bits;           // subjectPublicKey's bits
};

Bytes strip_zeros(Bytes b) {
  auto first = std::find_if(b.begin(), b.end(), [](std::uint8_t c) { return c != 0; });
  b.erase(b.begin(), first);
  return b;
}

CertKey cert_key(const Certificate& cert) {
  CertKey k;
  k.kind = cert.key_kind();
  Bytes spki = cert.public_key_der();
  asn1::MemorySource src(spki);
  asn1::BerNode root = asn1::ParseBer(src);
  if (root.children.size() != 2 || root.children[0].children.empty())
    throw Exception("Unreadable public key in certificate " + cert.id());
  const asn1::BerNode& alg = root.children[0];
  if (alg.children.size() > 1) k.ec_params = asn1::ElementBytes(src, alg.children[1]);
  Bytes bits = asn1::ContentBytes(src, root.children[1]);
  if (!bits.empty()) bits.erase(bits.begin());  // unused-bits octet
  k.key_bits = bits;
  if (k.kind == KeyKind::Ec) k.ec_point = bits;
  if (k.kind == KeyKind::Rsa || k.kind == KeyKind::RsaPss) {
    crypto::PublicKey pub = crypto::PublicKey::from_certificate(cert);
    k.modulus = strip_zeros(pub.rsa_modulus());
    k.exponent = strip_zeros(pub.rsa_exponent());
  }
  return k;
}

// CKA_EC_POINT is a DER OCTET STRING; some tokens give the bare point.
Bytes bare_point(const Bytes& v) {
  if (v.size() > 2 && v[0] == asn1::kOctetString) {
    try {
      asn1::MemorySource src(v);
      asn1::BerNode n = asn1::ParseBer(src);
      if (n.total_length() == v.size()) return asn1::ContentBytes(src, n);
    } catch (const Exception&) {
    }
  }
  return v;
}

// ---- signatures ----

Bytes digest_info(DigestAlgorithm alg, const Bytes& digest) {
  asn1::DerWriter w;
  w.begin(asn1::kSequence).begin(asn1::kSequence).oid(crypto::digest_oid(alg)).null().end();
  w.octet_string(digest).end();
  return w.finish();
}

// Tokens give DSA and ECDSA signatures as r || s; CMS and XML-DSig with DSA want the DER
// Dss-Sig-Value.
Bytes dss_sig_value(const Bytes& rs) {
  if (rs.empty() || rs.size() % 2) throw Exception("The token returned a malformed signature");
  std::size_t half = rs.size() / 2;
  Bytes r(rs.begin(), rs.begin() + static_cast<std::ptrdiff_t>(half));
  Bytes s(rs.begin() + static_cast<std::ptrdiff_t>(half), rs.end());
  asn1::DerWriter w;
  w.begin(asn1::kSequence)
      .integer_bytes(asn1::unsigned_integer_content(strip_zeros(r)))
      .integer_bytes(asn1::unsigned_integer_content(strip_zeros(s)))
      .end();
  return w.finish();
}

CK_MECHANISM_TYPE hash_mechanism(DigestAlgorithm alg) {
  switch (alg) {
    case DigestAlgorithm::SHA1:
      return CKM_SHA_1;
    case DigestAlgorithm::SHA224:
      return CKM_SHA224;
    case DigestAlgorithm::SHA256:
      return CKM_SHA256;
    case DigestAlgorithm::SHA384:
      return CKM_SHA384;
    case DigestAlgorithm::SHA512:
      return CKM_SHA512;
    default:
      throw Exception("RSASSA-PSS on a token needs SHA-1 or a SHA-2 digest");
  }
}

CK_RSA_PKCS_MGF_TYPE mgf_of(DigestAlgorithm alg) {
  switch (alg) {
    case DigestAlgorithm::SHA1:
      return CKG_MGF1_SHA1;
    case DigestAlgorithm::SHA224:
      return CKG_MGF1_SHA224;
    case DigestAlgorithm::SHA256:
      return CKG_MGF1_SHA256;
    case DigestAlgorithm::SHA384:
      return CKG_MGF1_SHA384;
    case DigestAlgorithm::SHA512:
      return CKG_MGF1_SHA512;
    default:
      throw Exception("RSASSA-PSS on a token needs MGF1 with SHA-1 or a SHA-2 digest");
  }
}

bool refused(CK_RV rv) {
  return rv == CKR_KEY_FUNCTION_NOT_PERMITTED || rv == CKR_MECHANISM_INVALID ||
         rv == CKR_MECHANISM_PARAM_INVALID || rv == CKR_KEY_TYPE_INCONSISTENT ||
         rv == CKR_KEY_SIZE_RANGE || rv == CKR_DATA_LEN_RANGE;
}

// One signature on the session (the token's lock is held).
Bytes raw_sign(Token& token, CK_SESSION_HANDLE s, CK_OBJECT_HANDLE key, CK_MECHANISM& mech,
               const Bytes& data, bool always_authenticate) {
  CK_FUNCTION_LIST* fn = token.fn();
  check(fn->C_SignInit(s, &mech, key), "C_SignInit");
  if (always_authenticate) token.authenticate_again_locked(s);
  // Large enough for RSA-8192 and every ECDSA curve: one call instead of asking for the size.
  Bytes sig(1024);
  CK_ULONG len = sig.size();
  CK_RV rv = fn->C_Sign(s, const_cast<CK_BYTE*>(data.data()), static_cast<CK_ULONG>(data.size()),
                        sig.data(), &len);
  if (rv == CKR_BUFFER_TOO_SMALL) {
    sig.resize(len);
    rv = fn->C_Sign(s, const_cast<CK_BYTE*>(data.data()), static_cast<CK_ULONG>(data.size()),
                    sig.data(), &len);
  }
  check(rv, "C_Sign");
  sig.resize(len);
  return sig;
}

struct KeyRef {
  CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
  bool can_sign = true;
  bool always_authenticate = false;
};

Bytes sign_with(Token& token, CK_SESSION_HANDLE s, const KeyRef& key, KeyKind kind,
                DigestAlgorithm alg, const Bytes& digest) {
  CK_MECHANISM mech{};
  if (kind == KeyKind::Rsa) {
    mech.mechanism = CKM_RSA_PKCS;
    return raw_sign(token, s, key.handle, mech, digest_info(alg, digest), key.always_authenticate);
  }
  if (kind == KeyKind::Ec || kind == KeyKind::Dsa) {
    mech.mechanism = kind == KeyKind::Ec ? CKM_ECDSA : CKM_DSA;
    return dss_sig_value(raw_sign(token, s, key.handle, mech, digest, key.always_authenticate));
  }
  throw Exception("Keys of this kind cannot sign on a token");
}

Bytes sign_with_pss(Token& token, CK_SESSION_HANDLE s, const KeyRef& key, DigestAlgorithm alg,
                    const Bytes& digest, DigestAlgorithm mgf_alg, int salt_len) {
  CK_RSA_PKCS_PSS_PARAMS params{};
  params.hashAlg = hash_mechanism(alg);
  params.mgf = mgf_of(mgf_alg);
  params.sLen = static_cast<CK_ULONG>(salt_len < 0 ? crypto::digest_size(alg) : salt_len);
  CK_MECHANISM mech{CKM_RSA_PKCS_PSS, &params, sizeof params};
  return raw_sign(token, s, key.handle, mech, digest, key.always_authenticate);
}

// Does the private key object belong to the certificate? Attributes first; a test
// signature when the token keeps them to itself.
bool key_matches(Token& token, CK_SESSION_HANDLE s, CK_OBJECT_HANDLE key, const Bytes& id,
                 const Certificate& cert, const CertKey& ck, bool always_authenticate) {
  CK_FUNCTION_LIST* fn = token.fn();
  auto type = get_ulong(fn, s, key, CKA_KEY_TYPE);
  bool rsa = ck.kind == KeyKind::Rsa || ck.kind == KeyKind::RsaPss;
  if (type) {
    if (rsa && *type != CKK_RSA) return false;
    if (ck.kind == KeyKind::Ec && *type != CKK_EC) return false;
    if (ck.kind == KeyKind::Dsa && *type != CKK_DSA) return false;
  }
  if (auto info = get_attribute(fn, s, key, CKA_PUBLIC_KEY_INFO); info && !info->empty())
    return *info == cert.public_key_der();
  if (rsa) {
    auto n = get_attribute(fn, s, key, CKA_MODULUS);
    auto e = get_attribute(fn, s, key, CKA_PUBLIC_EXPONENT);
    if (n && !n->empty())
      return strip_zeros(*n) == ck.modulus && (!e || strip_zeros(*e) == ck.exponent);
  }
  if (ck.kind == KeyKind::Ec) {
    auto params = get_attribute(fn, s, key, CKA_EC_PARAMS);
    if (params && *params != ck.ec_params) return false;
    // The private key object carries no point; its public twin does.
    for (CK_OBJECT_HANDLE pub :
         find_objects(fn, s, {attr_ulong(CKA_CLASS, CKO_PUBLIC_KEY), attr_bytes(CKA_ID, id)})) {
      auto point = get_attribute(fn, s, pub, CKA_EC_POINT);
      if (point && bare_point(*point) == ck.ec_point) return true;
    }
  }
  if (always_authenticate) return true;  // a test signature would ask for the PIN again
  Bytes digest = crypto::random_bytes(32);
  try {
    Bytes sig =
        sign_with(token, s, {key, true, false}, ck.kind == KeyKind::RsaPss ? KeyKind::Rsa : ck.kind,
                  DigestAlgorithm::SHA256, digest);
    return crypto::PublicKey::from_certificate(cert).verify_digest(DigestAlgorithm::SHA256, digest,
                                                                   sig);
  } catch (const Pkcs11Error& e) {
    if (Token::lost(e.rv())) throw;
    // A key the token will not use this way cannot be told apart by signing; the CKA_ID
    // decides, and signing will say that the token refuses.
    return refused(e.rv());
  }
}

// The private key of a certificate on the token, if there is one that belongs to it.
std::optional<KeyRef> find_key(Token& token, CK_SESSION_HANDLE s, const Bytes& id,
                               const Certificate& cert) {
  CK_FUNCTION_LIST* fn = token.fn();
  CertKey ck = cert_key(cert);
  for (CK_OBJECT_HANDLE h :
       find_objects(fn, s, {attr_ulong(CKA_CLASS, CKO_PRIVATE_KEY), attr_bytes(CKA_ID, id)})) {
    bool always = get_bool(fn, s, h, CKA_ALWAYS_AUTHENTICATE).value_or(false);
    if (!key_matches(token, s, h, id, cert, ck, always)) continue;
    return KeyRef{h, get_bool(fn, s, h, CKA_SIGN).value_or(true), always};
  }
  return std::nullopt;
}

class TokenSigningKey : public SigningKey {
 public:
  TokenSigningKey(std::shared_ptr<Token> token, Certificate cert, Bytes id, KeyRef key)
      : token_(std::move(token)),
        cert_(std::move(cert)),
        id_(std::move(id)),
        key_(key),
        epoch_(token_->epoch()) {}

  // The certificate decides: an RSA key whose certificate says RSASSA-PSS signs with PSS.
  KeyKind kind() const override { return cert_.key_kind(); }
  int bits() const override { return cert_.key_bits(); }

  Bytes sign_digest(DigestAlgorithm alg, const Bytes& digest) const override {
    if (kind() == KeyKind::RsaPss)
      return sign_digest_pss(alg, digest, alg, static_cast<int>(digest.size()));
    return sign([&](CK_SESSION_HANDLE s, const KeyRef& k) {
      return sign_with(*token_, s, k, kind(), alg, digest);
    });
  }

  Bytes sign_digest_pss(DigestAlgorithm alg, const Bytes& digest, DigestAlgorithm mgf_alg,
                        int salt_len) const override {
    if (kind() != KeyKind::Rsa && kind() != KeyKind::RsaPss)
      return SigningKey::sign_digest_pss(alg, digest, mgf_alg, salt_len);
    return sign([&](CK_SESSION_HANDLE s, const KeyRef& k) {
      return sign_with_pss(*token_, s, k, alg, digest, mgf_alg, salt_len);
    });
  }

 private:
  template <class F>
  Bytes sign(F&& f) const {
    try {
      return token_->run(Login::Yes, [&](CK_SESSION_HANDLE s) {
        // Handles of private objects belong to the session they were found in.
        if (epoch_ != token_->epoch()) relocate(s);
        try {
          return f(s, key_);
        } catch (const Pkcs11Error& e) {
          // The object went away under a session that stayed open (the token's content
          // was replaced): look for the key once more.
          if (e.rv() != CKR_KEY_HANDLE_INVALID && e.rv() != CKR_OBJECT_HANDLE_INVALID) throw;
          relocate(s);
          return f(s, key_);
        }
      });
    } catch (const Pkcs11Error& e) {
      if (refused(e.rv()))
        throw Exception("The token \"" + token_->label() +
                        "\" refuses to sign with the key of certificate " + cert_.id() + " (" +
                        rv_name(e.rv()) + ")");
      throw;
    } catch (const LoginCancelled& e) {
      throw Exception(std::string(e.what()) + "; nothing was signed");
    }
  }

  // Inside run: finds the key again after a new session or a vanished handle.
  void relocate(CK_SESSION_HANDLE s) const {
    auto k = find_key(*token_, s, id_, cert_);
    if (!k) {
      token_->check_present_locked();
      throw Exception("The key of certificate " + cert_.id() + " is no longer on the token \"" +
                      token_->label() + "\"");
    }
    key_ = *k;
    epoch_ = token_->epoch();
  }

  std::shared_ptr<Token> token_;
  Certificate cert_;
  Bytes id_;
  // Guarded by the token's lock: only touched inside token_->run.
  mutable KeyRef key_;
  mutable std::uint64_t epoch_;
};

Bytes serial_integer(const Certificate& cert) {
  return asn1::tlv(asn1::kInteger, cert.serial());
}

// ---- writing a certificate and its key ----

// A certificate and the key it came with, as a token is to hold them.
struct NewEntry {
  const Certificate& cert;
  const std::optional<crypto::PrivateKey>& key;
  CertKey ck;
  Bytes id;           // CKA_ID of all three objects: SHA-1 of the public key
  std::string label;  // the common name, else the certificate's id
};

// The key in the PKCS#8 text, which must belong to the certificate; none when it is empty.
std::optional<crypto::PrivateKey> key_of(const Certificate& cert, const Bytes& pkcs8_key) {
  std::optional<crypto::PrivateKey> key;
  if (!pkcs8_key.empty()) {
    key = crypto::PrivateKey::from_pkcs8_der(pkcs8_key);
    if (!key->matches(cert)) throw Exception("The private key does not belong to the certificate");
  }
  return key;
}

struct KeyTemplates {
  std::vector<Attribute> priv;  // holds the private key's parts: wiped by whoever creates it
  std::vector<Attribute> pub;
};

// The key pair's objects: the private one sensitive and never extractable.
KeyTemplates key_templates(const NewEntry& e) {
  crypto::PrivateKeyParts parts = crypto::private_key_parts(*e.key);
  bool rsa = parts.kind != KeyKind::Ec;
  CK_KEY_TYPE type = rsa ? CKK_RSA : CKK_EC;
  KeyTemplates t;
  t.priv = {attr_ulong(CKA_CLASS, CKO_PRIVATE_KEY),
            attr_ulong(CKA_KEY_TYPE, type),
            attr_bool(CKA_TOKEN, true),
            attr_bool(CKA_PRIVATE, true),
            attr_bool(CKA_SENSITIVE, true),
            attr_bool(CKA_EXTRACTABLE, false),
            attr_bool(CKA_SIGN, true),
            attr_bytes(CKA_ID, e.id),
            attr_text(CKA_LABEL, e.label),
            attr_bytes(CKA_SUBJECT, e.cert.subject_der())};
  t.pub = {attr_ulong(CKA_CLASS, CKO_PUBLIC_KEY),
           attr_ulong(CKA_KEY_TYPE, type),
           attr_bool(CKA_TOKEN, true),
           attr_bool(CKA_PRIVATE, false),
           attr_bool(CKA_VERIFY, true),
           attr_bytes(CKA_ID, e.id),
           attr_text(CKA_LABEL, e.label),
           attr_bytes(CKA_SUBJECT, e.cert.subject_der())};
  if (rsa) {
    for (auto* a : {&t.priv, &t.pub}) {
      a->push_back(attr_bytes(CKA_MODULUS, parts.n));
      a->push_back(attr_bytes(CKA_PUBLIC_EXPONENT, parts.e));
    }
    t.priv.push_back(attr_bytes(CKA_PRIVATE_EXPONENT, parts.d));
    t.priv.push_back(attr_bytes(CKA_PRIME_1, parts.p));
    t.priv.push_back(attr_bytes(CKA_PRIME_2, parts.q));
    t.priv.push_back(attr_bytes(CKA_EXPONENT_1, parts.dp));
    t.priv.push_back(attr_bytes(CKA_EXPONENT_2, parts.dq));
    t.priv.push_back(attr_bytes(CKA_COEFFICIENT, parts.qinv));
  } else {
    t.priv.push_back(attr_bytes(CKA_EC_PARAMS, e.ck.ec_params));
    t.priv.push_back(attr_bytes(CKA_VALUE, parts.ec_private));
    t.pub.push_back(attr_bytes(CKA_EC_PARAMS, e.ck.ec_params));
    t.pub.push_back(attr_bytes(CKA_EC_POINT, asn1::tlv(asn1::kOctetString, e.ck.ec_point)));
  }
  parts.wipe();
  return t;
}

// Creates an object from a template holding secrets, and wipes them, created or not.
CK_OBJECT_HANDLE create_secret_object(CK_FUNCTION_LIST* fn, CK_SESSION_HANDLE s,
                                      std::vector<Attribute>& secret) {
  ScopeExit wipe_secret([&] {
    for (auto& a : secret)
      wipe(a.value);
  });
  return create_object(fn, s, secret);
}

std::vector<Attribute> certificate_template(const NewEntry& e) {
  return {attr_ulong(CKA_CLASS, CKO_CERTIFICATE),
          attr_ulong(CKA_CERTIFICATE_TYPE, CKC_X_509),
          attr_bool(CKA_TOKEN, true),
          attr_bool(CKA_PRIVATE, false),
          attr_bytes(CKA_ID, e.id),
          attr_text(CKA_LABEL, e.label),
          attr_bytes(CKA_SUBJECT, e.cert.subject_der()),
          attr_bytes(CKA_ISSUER, e.cert.issuer_der()),
          attr_bytes(CKA_SERIAL_NUMBER, serial_integer(e.cert)),
          attr_bytes(CKA_VALUE, e.cert.der())};
}

// Writes what the token lacks of the entry, in one session.
void write_entry(Token& token, CK_SESSION_HANDLE s, const NewEntry& e) {
  if (!token.writable()) throw Exception("The token \"" + token.label() + "\" is read-only");
  CK_FUNCTION_LIST* fn = token.fn();
  bool cert_present =
      !find_objects(fn, s,
                    {attr_ulong(CKA_CLASS, CKO_CERTIFICATE), attr_bytes(CKA_VALUE, e.cert.der())})
           .empty();
  bool key_present = e.key && find_key(token, s, e.id, e.cert).has_value();
  if (cert_present && (!e.key || key_present)) return;

  // Created in this order and destroyed again on any failure, so the token never
  // keeps a certificate without the key it came with.
  std::vector<CK_OBJECT_HANDLE> created;
  try {
    if (e.key && !key_present) {
      KeyTemplates t = key_templates(e);
      created.push_back(create_secret_object(fn, s, t.priv));
      created.push_back(create_object(fn, s, t.pub));
    }
    if (!cert_present) created.push_back(create_object(fn, s, certificate_template(e)));
  } catch (...) {
    for (auto it = created.rbegin(); it != created.rend(); ++it)
      fn->C_DestroyObject(s, *it);
    throw;
  }
}

}  // namespace

// ---- the store ----

TokenCertStore::TokenCertStore(std::string uri)
    : text_(std::move(uri)), uri_(Pkcs11Uri::parse(text_)) {}

TokenCertStore::Scan TokenCertStore::scan() const {
  Scan out;
  for (const auto& module : modules_for(uri_)) {
    std::vector<CK_SLOT_ID> slots;
    try {
      slots = module->known_slots();
      out.problems.emplace_back("slots " + module->path(), std::nullopt);
    } catch (const Exception& e) {
      out.problems.emplace_back("slots " + module->path(), std::string("PKCS#11: ") + e.what());
      continue;
    }
    for (CK_SLOT_ID slot : slots) {
      if (uri_.slot_id && *uri_.slot_id != slot) continue;
      std::string about = "slot " + std::to_string(slot) + " " + module->path();
      out.looked = true;
      try {
        // Not patient here: the whole look is repeated instead (see enumerate).
        auto info = module->token_info(slot, /*patient=*/false);
        out.problems.emplace_back(about, std::nullopt);
        if (!info || !(info->flags & CKF_TOKEN_INITIALIZED)) continue;
        if (!uri_matches(uri_, *module, module->slot_info(slot), *info)) continue;
        out.tokens.push_back(Token::get(module, slot, *info));
      } catch (const Pkcs11Error& e) {
        out.problems.emplace_back(about, std::string("PKCS#11: skipping slot ") +
                                             std::to_string(slot) + " of " + module->name() + ": " +
                                             e.what());
      }
    }
  }
  return out;
}

void TokenCertStore::report(const Scan& scan) const {
  for (const auto& [about, problem] : scan.problems) {
    if (problem)
      report_problem(about, *problem);
    else
      clear_problem(about);
  }
}

std::vector<std::shared_ptr<Token>> TokenCertStore::tokens() const {
  Scan s = scan();
  report(s);
  return s.tokens;
}

std::vector<TokenCertStore::Entry> TokenCertStore::enumerate() {
  std::vector<Entry> all;
  Scan s = scan();
  // A token whose state another process is rewriting can read as blank, uninitialised or
  // unreadable for a moment (SoftHSM2's file store does while another process logs in):
  // look again a few times, briefly, before saying that it is not there. A look that found
  // no slot at all (no module starts) is not repeated.
  for (int wait_ms : {5, 10, 20, 40, 80}) {
    if (!s.tokens.empty() || !s.looked) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(wait_ms));
    s = scan();
  }
  report(s);
  const auto& found = s.tokens;
  if (found.empty())
    report_problem("match " + text_, "PKCS#11: no token present matches " + text_);
  else
    clear_problem("match " + text_);
  for (const auto& token : found) {
    std::vector<std::tuple<Bytes, Bytes, Certificate>> certs;  // label, id, certificate
    token->run(Login::No, [&](CK_SESSION_HANDLE session) {
      certs.clear();
      std::vector<Attribute> match = {attr_ulong(CKA_CLASS, CKO_CERTIFICATE),
                                      attr_ulong(CKA_CERTIFICATE_TYPE, CKC_X_509)};
      if (uri_.object) match.push_back(attr_text(CKA_LABEL, *uri_.object));
      if (uri_.id) match.push_back(attr_bytes(CKA_ID, *uri_.id));
      for (CK_OBJECT_HANDLE h : find_objects(token->fn(), session, match)) {
        auto value = get_attribute(token->fn(), session, h, CKA_VALUE);
        if (!value) continue;
        try {
          certs.emplace_back(get_attribute(token->fn(), session, h, CKA_LABEL).value_or(Bytes{}),
                             get_attribute(token->fn(), session, h, CKA_ID).value_or(Bytes{}),
                             Certificate::from_der(*value));
        } catch (const Exception& e) {
          warn("PKCS#11: skipping an unreadable certificate on the token \"" + token->label() +
               "\": " + e.what());
        }
      }
    });
    std::stable_sort(certs.begin(), certs.end(), [](const auto& a, const auto& b) {
      return std::tie(std::get<0>(a), std::get<1>(a), std::get<2>(a).der()) <
             std::tie(std::get<0>(b), std::get<1>(b), std::get<2>(b).der());
    });
    for (auto& [label, id, cert] : certs)
      all.push_back({token, id, std::move(cert)});
  }
  return all;
}

std::vector<Certificate> TokenCertStore::certificates() {
  std::vector<Entry> fresh = enumerate();
  std::lock_guard lock(mutex_);
  entries_ = std::move(fresh);
  std::vector<Certificate> out;
  for (const auto& e : entries_)
    out.push_back(e.cert);
  return out;
}

namespace {
// Writes of this process: the stamp changes even when a handle is reused.
std::atomic<std::uint64_t> g_token_writes{0};
}  // namespace

std::string TokenCertStore::change_stamp() {
  std::string stamp = std::to_string(g_token_writes.load());
  try {
    for (const auto& token : tokens()) {
      stamp += "|" + token->label() + "#" + std::to_string(token->epoch());
      std::vector<CK_OBJECT_HANDLE> handles = token->run(Login::No, [&](CK_SESSION_HANDLE s) {
        return find_objects(token->fn(), s, {attr_ulong(CKA_CLASS, CKO_CERTIFICATE)});
      });
      std::sort(handles.begin(), handles.end());
      for (CK_OBJECT_HANDLE h : handles)
        stamp += ":" + std::to_string(h);
    }
  } catch (const std::exception&) {
    // A token that cannot be asked now: read again at the next look.
    stamp += "|?" + std::to_string(++g_token_writes);
  }
  return stamp;
}

std::optional<TokenCertStore::Entry> TokenCertStore::entry_for(const Certificate& cert) {
  for (int pass = 0; pass < 2; ++pass) {
    {
      // A copy: another thread may enumerate again meanwhile.
      std::lock_guard lock(mutex_);
      for (const auto& e : entries_)
        if (e.cert == cert) return e;
    }
    if (pass == 0) certificates();
  }
  return std::nullopt;
}

Login TokenCertStore::key_login() {
  std::lock_guard lock(mutex_);
  return login_declined_ ? Login::No : Login::Yes;
}

bool TokenCertStore::has_private_key(const Certificate& cert) {
  auto e = entry_for(cert);
  if (!e) return false;
  auto look = [&](CK_SESSION_HANDLE s) {
    return !find_objects(e->token->fn(), s,
                         {attr_ulong(CKA_CLASS, CKO_PRIVATE_KEY), attr_bytes(CKA_ID, e->id)})
                .empty();
  };
  try {
    return e->token->run(key_login(), look);
  } catch (const LoginCancelled&) {
    // Asked once for this store: a listing does not ask again for every certificate.
    std::lock_guard lock(mutex_);
    login_declined_ = true;
    warn("PKCS#11: no PIN for the token \"" + e->token->label() +
         "\"; its private keys are not visible");
  }
  return e->token->run(Login::No, look);
}

bool TokenCertStore::key_valid(const Certificate& cert) {
  auto e = entry_for(cert);
  if (!e) return false;
  try {
    auto key = e->token->run(
        Login::Yes, [&](CK_SESSION_HANDLE s) { return find_key(*e->token, s, e->id, cert); });
    if (key && !key->can_sign)
      warn("PKCS#11: the token \"" + e->token->label() +
           "\" does not allow the key of certificate " + cert.id() + " to sign");
    return key && key->can_sign;
  } catch (const LoginCancelled& c) {
    warn(std::string("PKCS#11: ") + c.what());
    return false;
  }
}

std::unique_ptr<SigningKey> TokenCertStore::signing_key(const Certificate& cert) {
  auto e = entry_for(cert);
  if (!e) return nullptr;
  try {
    auto key = e->token->run(
        Login::Yes, [&](CK_SESSION_HANDLE s) { return find_key(*e->token, s, e->id, cert); });
    if (!key || !key->can_sign) return nullptr;
    return std::make_unique<TokenSigningKey>(e->token, cert, e->id, *key);
  } catch (const LoginCancelled& c) {
    warn(std::string("PKCS#11: ") + c.what());
    return nullptr;
  }
}

void TokenCertStore::add(const Certificate& cert, const Bytes& pkcs8_key) {
  ++g_token_writes;
  auto found = tokens();
  if (found.empty()) throw Exception("No token present matches " + text_);
  if (found.size() > 1)
    throw Exception("The URI " + text_ + " matches " + std::to_string(found.size()) +
                    " tokens; name one with token= or serial=");
  Token& token = *found.front();

  std::optional<crypto::PrivateKey> key = key_of(cert, pkcs8_key);
  NewEntry entry{cert, key, cert_key(cert), {}, {}};
  entry.id = crypto::digest(DigestAlgorithm::SHA1, entry.ck.key_bits);
  entry.label = cert.subject_cn().empty() ? cert.id() : cert.subject_cn();
  token.run(
      Login::Yes, [&](CK_SESSION_HANDLE s) { write_entry(token, s, entry); }, /*retry=*/false);
  std::lock_guard lock(mutex_);
  entries_.clear();
}

bool TokenCertStore::remove(const Certificate& cert) {
  ++g_token_writes;
  auto e = entry_for(cert);
  if (!e) return false;
  std::shared_ptr<Token> token = e->token;
  Bytes id = e->id;
  bool removed = token->run(
      Login::Yes,
      [&](CK_SESSION_HANDLE s) {
        CK_FUNCTION_LIST* fn = token->fn();
        auto certs = find_objects(
            fn, s, {attr_ulong(CKA_CLASS, CKO_CERTIFICATE), attr_bytes(CKA_VALUE, cert.der())});
        if (certs.empty()) return false;
        for (CK_OBJECT_HANDLE h : certs)
          check(fn->C_DestroyObject(s, h), "C_DestroyObject");
        // The key pair goes with its last certificate, and only if it is this one's.
        bool shared =
            !find_objects(fn, s, {attr_ulong(CKA_CLASS, CKO_CERTIFICATE), attr_bytes(CKA_ID, id)})
                 .empty();
        if (!shared) {
          if (auto key = find_key(*token, s, id, cert)) {
            check(fn->C_DestroyObject(s, key->handle), "C_DestroyObject");
            for (CK_OBJECT_HANDLE h : find_objects(
                     fn, s, {attr_ulong(CKA_CLASS, CKO_PUBLIC_KEY), attr_bytes(CKA_ID, id)}))
              fn->C_DestroyObject(s, h);
          }
        }
        return true;
      },
      /*retry=*/false);
  std::lock_guard lock(mutex_);
  entries_.clear();
  return removed;
}

Bytes TokenCertStore::export_pkcs12(const Certificate& cert, const std::string&) {
  auto e = entry_for(cert);
  throw Exception("The private key of certificate " + cert.id() + " stays on the token" +
                  (e ? " \"" + e->token->label() + "\"" : std::string()) +
                  " and cannot be exported");
}

// ---- listing and the PIN ----

void set_pin_provider(PinProvider provider) {
  set_pin_source(std::move(provider));
}

std::vector<TokenModuleInfo> list_tokens(const std::string& text) {
  Pkcs11Uri uri = Pkcs11Uri::parse(text.empty() ? "pkcs11:" : text);
  std::vector<TokenModuleInfo> out;
  std::vector<ModuleFailure> failures;
  std::vector<std::shared_ptr<Module>> modules;
  if (!uri.module_path.empty()) {
    try {
      modules = modules_for(uri);
    } catch (const Exception& e) {
      failures.push_back({{uri.module_path, uri.module_path}, e.what()});
    }
  } else {
    modules = modules_for(uri, &failures);
  }
  for (const auto& m : modules) {
    TokenModuleInfo mi;
    mi.name = m->name();
    mi.path = m->path();
    mi.description = m->description();
    mi.manufacturer = m->manufacturer();
    mi.version = std::to_string(m->info().libraryVersion.major) + "." +
                 std::to_string(m->info().libraryVersion.minor);
    try {
      for (CK_SLOT_ID slot : m->slots(false)) {
        CK_SLOT_INFO si = m->slot_info(slot);
        TokenSlotInfo ts;
        ts.slot_id = slot;
        ts.slot_description = padded_field(si.slotDescription, sizeof si.slotDescription);
        auto ti = (si.flags & CKF_TOKEN_PRESENT) ? m->token_info(slot) : std::nullopt;
        if (ti) {
          if (!uri_matches(uri, *m, si, *ti)) continue;
          TokenIdentity id = TokenIdentity::of(*ti);
          ts.token_present = true;
          ts.token_initialized = ti->flags & CKF_TOKEN_INITIALIZED;
          ts.label = id.label;
          ts.manufacturer = id.manufacturer;
          ts.model = id.model;
          ts.serial = id.serial;
          ts.login_required = ti->flags & CKF_LOGIN_REQUIRED;
          ts.pin_pad = ti->flags & CKF_PROTECTED_AUTHENTICATION_PATH;
          ts.pin_initialized = ti->flags & CKF_USER_PIN_INITIALIZED;
          ts.pin_count_low = ti->flags & CKF_USER_PIN_COUNT_LOW;
          ts.pin_final_try = ti->flags & CKF_USER_PIN_FINAL_TRY;
          ts.pin_locked = ti->flags & CKF_USER_PIN_LOCKED;
          ts.write_protected = ti->flags & CKF_WRITE_PROTECTED;
          ts.uri = "pkcs11:model=" + Pkcs11Uri::encode(id.model) +
                   ";manufacturer=" + Pkcs11Uri::encode(id.manufacturer) +
                   ";serial=" + Pkcs11Uri::encode(id.serial) +
                   ";token=" + Pkcs11Uri::encode(id.label);
          if (!uri.module_path.empty())
            ts.uri += "?module-path=" + Pkcs11Uri::encode(uri.module_path);
        } else if (uri.token || uri.serial || uri.model || uri.manufacturer) {
          continue;  // the URI asks for a token, and this slot has none
        }
        mi.slot_list.push_back(std::move(ts));
      }
    } catch (const Exception& e) {
      mi.error = e.what();
    }
    out.push_back(std::move(mi));
  }
  for (const auto& f : failures) {
    TokenModuleInfo mi;
    mi.name = f.module.name;
    mi.path = f.module.path;
    mi.error = f.error;
    out.push_back(std::move(mi));
  }
  return out;
}

}  // namespace tessarel
