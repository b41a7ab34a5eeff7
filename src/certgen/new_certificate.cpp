#include <algorithm>
#include <cctype>
#include <chrono>

#include "certgen/x509_certificate_ex.h"
#include "platform/asn1/der.h"
#include "platform/crypto/digest.h"
#include "platform/runtime/scope.h"
#include "tessarel/certgen.h"
#include "tessarel/errors.h"

namespace tessarel {

namespace {

int default_bits(KeyKind k) {
  return k == KeyKind::Ec ? 256 : 2048;
}

CertAlgorithm signature_for(KeyKind k, DigestAlgorithm d) {
  if (k == KeyKind::Dsa) return CertAlgorithm::DsaWithSha1;
  bool ec = k == KeyKind::Ec;
  switch (d) {
    case DigestAlgorithm::SHA1:
      return ec ? CertAlgorithm::EcdsaWithSha1 : CertAlgorithm::Sha1WithRsa;
    case DigestAlgorithm::SHA224:
      return ec ? CertAlgorithm::EcdsaWithSha224 : CertAlgorithm::Sha224WithRsa;
    case DigestAlgorithm::SHA384:
      return ec ? CertAlgorithm::EcdsaWithSha384 : CertAlgorithm::Sha384WithRsa;
    case DigestAlgorithm::SHA512:
      return ec ? CertAlgorithm::EcdsaWithSha512 : CertAlgorithm::Sha512WithRsa;
    default:
      return ec ? CertAlgorithm::EcdsaWithSha256 : CertAlgorithm::Sha256WithRsa;
  }
}

std::chrono::sys_seconds add_months(std::chrono::sys_days day, int months) {
  using namespace std::chrono;
  year_month_day ymd{day};
  year_month ym = year_month{ymd.year(), ymd.month()} + std::chrono::months{months};
  auto last = year_month_day_last{ym.year(), month_day_last{ym.month()}}.day();
  return sys_days{ym / std::min(ymd.day(), last)};
}

}  // namespace

std::string CheckNewCertificateOptions(const NewCertificateOptions& o) {
  if (o.common_name.empty()) return "the common name is required";
  if (o.common_name.size() > 64) return "the common name is longer than 64 characters";
  if (o.organization.size() > 64) return "the organization is longer than 64 characters";
  if (!o.country.empty() &&
      (o.country.size() != 2 || !std::isupper(static_cast<unsigned char>(o.country[0])) ||
       !std::isupper(static_cast<unsigned char>(o.country[1]))))
    return "the country must be two upper-case letters (ISO 3166), not '" + o.country + "'";
  if (o.email.size() > 255) return "the e-mail address is longer than 255 characters";
  for (unsigned char c : o.email)
    if (c >= 0x80) return "the e-mail address must be ASCII";
  int bits = o.bits ? o.bits : default_bits(o.key);
  switch (o.key) {
    case KeyKind::Rsa:
    case KeyKind::RsaPss:
      if (bits < 1024 || bits > 16384) return "RSA keys must have 1024 to 16384 bits";
      break;
    case KeyKind::Dsa:
      if (bits != 1024 && bits != 2048 && bits != 3072)
        return "DSA keys must have 1024, 2048 or 3072 bits";
      break;
    case KeyKind::Ec:
      if (bits < 160 || bits > 521) return "EC keys must have 160 to 521 bits";
      break;
    default:
      return "unsupported key kind";
  }
  if (o.days < 0 || o.days > 36500) return "the validity must be 1 to 36500 days";
  return "";
}

Certificate CreateSelfSignedCertificate(const NewCertificateOptions& o, CertStore& store) {
  std::string problem = CheckNewCertificateOptions(o);
  if (!problem.empty()) throw Exception("Cannot create the certificate: " + problem);

  TElX509CertificateEx cert;
  auto add = [&](const char* oid, const std::string& value) {
    cert.SubjectRDN.AddText(oid, value);
    cert.IssuerRDN.AddText(oid, value);
  };
  add(oid::kCountryName, o.country);
  add(oid::kStateOrProvinceName, o.state);
  add(oid::kLocalityName, o.locality);
  add(oid::kOrganizationName, o.organization);
  add(oid::kOrganizationalUnitName, o.organizational_unit);
  add(oid::kCommonName, o.common_name);
  add(oid::kEmailAddress, o.email);

  using namespace std::chrono;
  sys_days today = floor<days>(system_clock::now());
  cert.ValidFrom = today;
  cert.ValidTo = o.days ? sys_seconds{today + days{o.days}} : add_months(today, 48);
  cert.SerialNumber = NewSerialNumber(store);

  // Key usage for signing; RSA keys may also encipher keys.
  std::uint8_t usage = 0xC0;  // digitalSignature, nonRepudiation
  if (o.key == KeyKind::Rsa) usage |= 0x20;
  Bytes bits_content{static_cast<std::uint8_t>(o.key == KeyKind::Rsa ? 5 : 6), usage};
  cert.Extensions.push_back({"2.5.29.15", true, asn1::tlv(asn1::kBitString, bits_content)});
  cert.Extensions.push_back({"2.5.29.14", false, {}});

  CertAlgorithm key_alg = o.key == KeyKind::Ec       ? CertAlgorithm::Ec
                          : o.key == KeyKind::Dsa    ? CertAlgorithm::Dsa
                          : o.key == KeyKind::RsaPss ? CertAlgorithm::RsaPss
                                                     : CertAlgorithm::Rsa;
  auto pub = TElAlgorithmIdentifier::CreateByAlgorithm(key_alg);
  auto sig = TElAlgorithmIdentifier::CreateByAlgorithm(
      o.key == KeyKind::RsaPss ? CertAlgorithm::RsaPss : signature_for(o.key, o.digest));
  if (o.key == KeyKind::RsaPss) {
    crypto::PssParams p{o.digest, o.digest, static_cast<int>(crypto::digest_size(o.digest)), 1};
    pub.pss = p;
    sig.pss = p;
  }
  cert.Generate(pub, sig, o.bits ? o.bits : default_bits(o.key));
  Bytes key = cert.private_key().to_pkcs8_der();
  ScopeExit wipe_key([&] { wipe(key); });
  store.add(cert.certificate(), key);
  return cert.certificate();
}

}  // namespace tessarel
