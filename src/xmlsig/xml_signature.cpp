#include "xmlsig/xml_signature.h"

#include <algorithm>
#include <cstdio>

#include "platform/crypto/digest.h"
#include "platform/crypto/keygen.h"
#include "platform/crypto/pkey.h"

namespace tessarel {

namespace {

constexpr const char* kMissingElement = "Element not found";

[[noreturn]] void security_error(const std::string& m) {
  throw EElXMLSecurityError(m);
}

// Indexed by TElXMLCanonicalizationMethod.
const char* const kC14NUris[] = {
    "",
    dsig::kC14N,
    dsig::kC14NWithComments,
    "http://www.w3.org/2001/10/xml-exc-c14n#",
    "http://www.w3.org/2001/10/xml-exc-c14n#WithComments",
    "http://www.w3.org/2000/09/xmldsig#minimal",
    "http://www.w3.org/2006/12/xml-c14n11",
    "http://www.w3.org/2006/12/xml-c14n11#WithComments",
};

struct DigestUri {
  TElXMLDigestMethod method;
  const char* uri;
  DigestAlgorithm alg;
};
const DigestUri kDigestUris[] = {
    {TElXMLDigestMethod::xdmMD5, "http://www.w3.org/2001/04/xmldsig-more#md5",
     DigestAlgorithm::MD5},
    {TElXMLDigestMethod::xdmSHA1, dsig::kSha1, DigestAlgorithm::SHA1},
    {TElXMLDigestMethod::xdmSHA224, "http://www.w3.org/2001/04/xmldsig-more#sha224",
     DigestAlgorithm::SHA224},
    {TElXMLDigestMethod::xdmSHA256, "http://www.w3.org/2001/04/xmlenc#sha256",
     DigestAlgorithm::SHA256},
    {TElXMLDigestMethod::xdmSHA384, "http://www.w3.org/2001/04/xmldsig-more#sha384",
     DigestAlgorithm::SHA384},
    {TElXMLDigestMethod::xdmSHA512, "http://www.w3.org/2001/04/xmlenc#sha512",
     DigestAlgorithm::SHA512},
    {TElXMLDigestMethod::xdmRIPEMD160, "http://www.w3.org/2001/04/xmlenc#ripemd160",
     DigestAlgorithm::RIPEMD160},
};

struct MethodUri {
  TElXMLSignatureMethod method;
  const char* uri;
  DigestAlgorithm hash;
};
const MethodUri kMethodUris[] = {
    {TElXMLSignatureMethod::xsmDSS, "http://www.w3.org/2000/09/xmldsig#dsa-sha1",
     DigestAlgorithm::SHA1},
    {TElXMLSignatureMethod::xsmRSA_MD5, "http://www.w3.org/2001/04/xmldsig-more#rsa-md5",
     DigestAlgorithm::MD5},
    {TElXMLSignatureMethod::xsmRSA_SHA1, dsig::kRsaSha1, DigestAlgorithm::SHA1},
    {TElXMLSignatureMethod::xsmRSA_SHA256, "http://www.w3.org/2001/04/xmldsig-more#rsa-sha256",
     DigestAlgorithm::SHA256},
    {TElXMLSignatureMethod::xsmRSA_SHA384, "http://www.w3.org/2001/04/xmldsig-more#rsa-sha384",
     DigestAlgorithm::SHA384},
    {TElXMLSignatureMethod::xsmRSA_SHA512, "http://www.w3.org/2001/04/xmldsig-more#rsa-sha512",
     DigestAlgorithm::SHA512},
    {TElXMLSignatureMethod::xsmRSA_RIPEMD160,
     "http://www.w3.org/2001/04/xmldsig-more/rsa-ripemd160", DigestAlgorithm::RIPEMD160},
    {TElXMLSignatureMethod::xsmECDSA, "http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha256",
     DigestAlgorithm::SHA256},
};

// What the verifier accepts: the methods above and the other common DSA and ECDSA ones.
struct VerifyMethod {
  const char* uri;
  KeyKind kind;
  DigestAlgorithm hash;
};
const VerifyMethod kVerifyMethods[] = {
    {"http://www.w3.org/2001/04/xmldsig-more#rsa-md5", KeyKind::Rsa, DigestAlgorithm::MD5},
    {dsig::kRsaSha1, KeyKind::Rsa, DigestAlgorithm::SHA1},
    {"http://www.w3.org/2001/04/xmldsig-more#rsa-sha224", KeyKind::Rsa, DigestAlgorithm::SHA224},
    {"http://www.w3.org/2001/04/xmldsig-more#rsa-sha256", KeyKind::Rsa, DigestAlgorithm::SHA256},
    {"http://www.w3.org/2001/04/xmldsig-more#rsa-sha384", KeyKind::Rsa, DigestAlgorithm::SHA384},
    {"http://www.w3.org/2001/04/xmldsig-more#rsa-sha512", KeyKind::Rsa, DigestAlgorithm::SHA512},
    {"http://www.w3.org/2001/04/xmldsig-more/rsa-ripemd160", KeyKind::Rsa,
     DigestAlgorithm::RIPEMD160},
    {"http://www.w3.org/2000/09/xmldsig#dsa-sha1", KeyKind::Dsa, DigestAlgorithm::SHA1},
    {"http://www.w3.org/2009/xmldsig11#dsa-sha256", KeyKind::Dsa, DigestAlgorithm::SHA256},
    {"http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha1", KeyKind::Ec, DigestAlgorithm::SHA1},
    {"http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha224", KeyKind::Ec, DigestAlgorithm::SHA224},
    {"http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha256", KeyKind::Ec, DigestAlgorithm::SHA256},
    {"http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha384", KeyKind::Ec, DigestAlgorithm::SHA384},
    {"http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha512", KeyKind::Ec, DigestAlgorithm::SHA512},
};

DigestAlgorithm digest_of(TElXMLDigestMethod m) {
  for (const auto& d : kDigestUris)
    if (d.method == m) return d.alg;
  security_error("Digest method not supported.");
}

bool is_rsa_method(TElXMLSignatureMethod m) {
  return m == TElXMLSignatureMethod::xsmRSA_MD5 || m == TElXMLSignatureMethod::xsmRSA_SHA1 ||
         m == TElXMLSignatureMethod::xsmRSA_SHA256 || m == TElXMLSignatureMethod::xsmRSA_SHA384 ||
         m == TElXMLSignatureMethod::xsmRSA_SHA512 || m == TElXMLSignatureMethod::xsmRSA_RIPEMD160;
}

DigestAlgorithm method_hash(TElXMLSignatureMethod m) {
  for (const auto& d : kMethodUris)
    if (d.method == m) return d.hash;
  security_error("Signature method not supported.");
}

bool is_dsig(const xml::Node& n, const char* local) {
  return n.is_element() && n.local_name() == local && n.namespace_uri() == xml::kDsigNamespace;
}

xml::Node dsig_child(const xml::Node& n, const char* local) {
  for (xml::Node c = n.first_child(); c; c = c.next_sibling())
    if (is_dsig(c, local)) return c;
  return xml::Node();
}

bool whitespace_only(const std::string& s) {
  return std::all_of(s.begin(), s.end(),
                     [](char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; });
}

std::string escape_dn_value(const std::string& v) {
  std::string out;
  for (std::size_t i = 0; i < v.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(v[i]);
    bool edge_space = c <= 32 && (i == 0 || i + 1 == v.size());
    if (edge_space || c < 32 || c == 127) {
      char buf[4];
      std::snprintf(buf, sizeof buf, "\\%02X", c);
      out += buf;
    } else if ((i == 0 && c == '#') ||
               std::string(",=+<>\\;\"").find(static_cast<char>(c)) != std::string::npos) {
      out += '\\';
      out += static_cast<char>(c);
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// Element description, written into the document through the format handler.
struct ElementPlan {
  std::string name;
  std::vector<std::pair<std::string, std::string>> attributes;
  std::string text;
  std::vector<ElementPlan> children;
  bool empty_attribute_uri = false;
};

}  // namespace

std::string CanonicalizationURI(TElXMLCanonicalizationMethod method) {
  int code = static_cast<int>(method);
  if (code < 1 || code > 7) security_error("No canonicalization method used.");
  return kC14NUris[code];
}

TElXMLCanonicalizationMethod CanonicalizationCode(const std::string& uri) {
  for (int i = 1; i <= 7; ++i)
    if (uri == kC14NUris[i]) return static_cast<TElXMLCanonicalizationMethod>(i);
  return TElXMLCanonicalizationMethod::xcmNone;
}

std::string SignatureMethodURI(TElXMLSignatureMethod m) {
  for (const auto& d : kMethodUris)
    if (d.method == m) return d.uri;
  security_error("Signature method not supported.");
}

std::string DigestMethodURI(TElXMLDigestMethod m) {
  for (const auto& d : kDigestUris)
    if (d.method == m) return d.uri;
  security_error("Digest method not supported.");
}

std::string DistinguishedNameText(const std::vector<NameAttribute>& attributes) {
  static const std::pair<const char*, const char*> kNames[] = {
      {"2.5.4.3", "CN"},
      {"2.5.4.6", "C"},
      {"2.5.4.10", "O"},
      {"2.5.4.11", "OU"},
      {"1.2.840.113549.1.9.1", "E"},
      {"2.5.4.7", "L"},
      {"2.5.4.8", "ST"},
      {"2.5.4.9", "STREET"},
      {"0.9.2342.19200300.100.1.1", "UID"},
      {"0.9.2342.19200300.100.1.25", "DC"}};
  std::string out;
  for (auto it = attributes.rbegin(); it != attributes.rend(); ++it) {
    std::string name = it->oid;
    for (const auto& [oid, short_name] : kNames)
      if (it->oid == oid) name = short_name;
    if (!out.empty()) out += ", ";
    out += name + "=" + escape_dn_value(it->text);
  }
  return out;
}

xml::Node OwnSignature(xml::Node element) {
  return element ? dsig_child(element, "Signature") : xml::Node();
}

void CanonicalizeWithout(const xml::Document& doc, const std::vector<xml::Node>& excluded,
                         const std::function<void(const char*, std::size_t)>& sink) {
  doc.CanonicalizeWithout(excluded, sink);
}

// ---- signer ----

void TElXMLSigner::SetCanonicalizationMethod(TElXMLCanonicalizationMethod method) {
  if (method == TElXMLCanonicalizationMethod::xcmNone)
    security_error("No canonicalization method used.");
  CanonicalizationURI(method);
  FCanonicalizationMethod = method;
}

void TElXMLSigner::UpdateReferencesDigest(xml::Document& doc) {
  if (!FReferences) return;
  for (auto& ref : FReferences->FReferences) {
    // The enveloped transform leaves out only the Signature element that holds it (once
    // Save has placed it): other signatures in the document (a record may carry its own)
    // are content like any other.
    bool enveloped = false;
    for (const auto& t : ref->FTransformChain.FTransforms)
      if (t->FTransformAlgorithmURI == dsig::kEnveloped) enveloped = true;
    std::vector<xml::Node> excluded;
    if (enveloped && signature_node_) excluded.push_back(signature_node_);
    crypto::Hasher hasher(digest_of(ref->FDigestMethod));
    std::uint64_t bytes = 0;
    auto sink = [&](const char* p, std::size_t n) {
      hasher.update(p, n);
      bytes += n;
    };
    if (ref->FURI.empty()) {
      CanonicalizeWithout(doc, excluded, sink);
    } else {
      xml::Node target = ref->FURI[0] == '#' ? doc.FindById(ref->FURI.substr(1)) : xml::Node();
      if (!target) security_error("Reference target not found: " + ref->FURI);
      std::string c = doc.CanonicalizeSubtree(target);
      sink(c.data(), c.size());
    }
    if (bytes == 0) security_error("Transform chain returned no data.");
    ref->FDigestValue = hasher.finish();
  }
}

void TElXMLSigner::GenerateSignature() {
  if (!FKeyData) security_error("No key data available.");
  if (!FKeyData->FCertificate) security_error("No key data available.");
  if (!FKeyData->FKey) security_error("The signing certificate has no private key");
  SignatureMethodURI(FSignatureMethod);
  KeyKind key = FKeyData->FKey->kind();
  KeyKind cert = FKeyData->FCertificate->key_kind();
  if (is_rsa_method(FSignatureMethod)) {
    if (cert != KeyKind::Rsa)
      security_error("Signature method not supported for this type of the certificate.");
    if (key != KeyKind::Rsa) security_error("RSA key data expected.");
  } else if (FSignatureMethod == TElXMLSignatureMethod::xsmDSS) {
    if (cert != KeyKind::Dsa)
      security_error("Signature method not supported for this type of the certificate.");
    if (key != KeyKind::Dsa) security_error("DSA key data expected.");
  } else if (FSignatureMethod == TElXMLSignatureMethod::xsmECDSA) {
    if (cert != KeyKind::Ec)
      security_error("Signature method not supported for this type of the certificate.");
    if (key != KeyKind::Ec) security_error("ECDSA key data expected.");
  } else {
    security_error("Signature method not supported.");
  }
  generated_ = true;
}

namespace {

ElementPlan reference_plan(const TElXMLReference& ref) {
  ElementPlan r{"Reference", {}, "", {}};
  if (ref.FHasURI) r.attributes.push_back({"URI", ref.FURI});
  if (!ref.FTransformChain.FTransforms.empty()) {
    ElementPlan transforms{"Transforms", {}, "", {}};
    for (const auto& t : ref.FTransformChain.FTransforms)
      transforms.children.push_back(
          {"Transform", {{"Algorithm", t->FTransformAlgorithmURI}}, "", {}});
    r.children.push_back(transforms);
  }
  r.children.push_back(
      {"DigestMethod", {{"Algorithm", DigestMethodURI(ref.FDigestMethod)}}, "", {}});
  r.children.push_back({"DigestValue", {}, crypto::base64_encode(ref.FDigestValue), {}});
  return r;
}

// The digest values are the references' digests so far: Save writes the final ones once the
// signature stands where it will stay.
ElementPlan signed_info_plan(TElXMLCanonicalizationMethod canonicalization,
                             TElXMLSignatureMethod method, const TElXMLReferenceList& references) {
  ElementPlan signed_info{"SignedInfo", {}, "", {}};
  signed_info.children.push_back(
      {"CanonicalizationMethod", {{"Algorithm", CanonicalizationURI(canonicalization)}}, "", {}});
  signed_info.children.push_back(
      {"SignatureMethod", {{"Algorithm", SignatureMethodURI(method)}}, "", {}});
  for (const auto& ref : references.FReferences)
    signed_info.children.push_back(reference_plan(*ref));
  return signed_info;
}

// The public key in the clear, for the kinds that have a KeyValue form (RSA, DSA).
std::optional<ElementPlan> key_value_plan(const Certificate& cert, const crypto::PublicKey& pub) {
  if (cert.key_kind() == KeyKind::Rsa)
    return ElementPlan{"KeyValue",
                       {},
                       "",
                       {{"RSAKeyValue",
                         {},
                         "",
                         {{"Modulus", {}, crypto::base64_encode(pub.rsa_modulus()), {}},
                          {"Exponent", {}, crypto::base64_encode(pub.rsa_exponent()), {}}}}}};
  if (cert.key_kind() == KeyKind::Dsa)
    return ElementPlan{"KeyValue",
                       {},
                       "",
                       {{"DSAKeyValue",
                         {},
                         "",
                         {{"P", {}, crypto::base64_encode(pub.dsa_p()), {}},
                          {"Q", {}, crypto::base64_encode(pub.dsa_q()), {}},
                          {"G", {}, crypto::base64_encode(pub.dsa_g()), {}},
                          {"Y", {}, crypto::base64_encode(pub.dsa_y()), {}}}}}};
  return std::nullopt;
}

// The parts of the certificate that params asks for; no children when it asks for none.
ElementPlan x509_data_plan(const Certificate& cert, unsigned params) {
  ElementPlan x509{"X509Data", {}, "", {}};
  if (params & TElXMLKeyInfoX509Data::xkidX509IssuerSerial)
    x509.children.push_back({"X509IssuerSerial",
                             {},
                             "",
                             {{"X509IssuerName", {}, DistinguishedNameText(cert.issuer()), {}},
                              {"X509SerialNumber", {}, cert.serial_decimal(), {}}}});
  if ((params & TElXMLKeyInfoX509Data::xkidX509SKI) && !cert.subject_key_identifier().empty())
    x509.children.push_back(
        {"X509SKI", {}, crypto::base64_encode(cert.subject_key_identifier()), {}});
  if (params & TElXMLKeyInfoX509Data::xkidX509SubjectName)
    x509.children.push_back({"X509SubjectName", {}, DistinguishedNameText(cert.subject()), {}});
  if (params & TElXMLKeyInfoX509Data::xkidX509Certificate)
    x509.children.push_back({"X509Certificate", {}, crypto::base64_encode(cert.der()), {}});
  return x509;
}

// No children when there is neither a key name nor a key to show.
ElementPlan key_info_plan(const std::string& key_name, bool include_key,
                          const TElXMLKeyInfoX509Data& key_data) {
  ElementPlan key_info{"KeyInfo", {}, "", {}};
  if (!key_name.empty()) key_info.children.push_back({"KeyName", {}, key_name, {}});
  if (include_key) {
    const Certificate& cert = *key_data.FCertificate;
    auto pub = crypto::PublicKey::from_certificate(cert);
    if (key_data.FIncludeKeyValue)
      if (auto key_value = key_value_plan(cert, pub)) key_info.children.push_back(*key_value);
    ElementPlan x509 = x509_data_plan(cert, key_data.FIncludeDataParams);
    if (!x509.children.empty()) key_info.children.push_back(x509);
  }
  return key_info;
}

// Writes planned elements into the document: the first with the ds prefix and namespace,
// the others like it. Each element is written with its children, then the signer's handler
// gives the white space around it.
class PlanWriter {
 public:
  PlanWriter(xml::Document& doc, TElXMLSigner& signer) : doc_(doc), signer_(signer) {}

  xml::Node write(const ElementPlan& s, int level, const std::string& path, std::string& start_ws) {
    xml::Node e = ns_holder_ ? doc_.CreateElementLike(ns_holder_, s.name)
                             : doc_.CreateElementNS(xml::kDsigNamespace, "ds", s.name);
    if (!ns_holder_) ns_holder_ = e;
    for (const auto& [name, value] : s.attributes)
      e.set_attribute(name, value);
    for (const auto& c : s.children) {
      std::string child_ws;
      xml::Node child = write(c, level + 1, path + "/" + c.name, child_ws);
      if (!child_ws.empty()) e.append_child(doc_.CreateText(child_ws));
      e.append_child(child);
    }
    if (!s.text.empty()) e.append_child(doc_.CreateText(s.text));
    std::string end_ws;
    if (signer_.FOnFormatElement)
      signer_.FOnFormatElement(signer_, e, level, path, start_ws, end_ws);
    if (!end_ws.empty()) e.append_child(doc_.CreateText(end_ws));
    return e;
  }

 private:
  xml::Document& doc_;
  TElXMLSigner& signer_;
  xml::Node ns_holder_;
};

// The signature goes last in the target. Trailing white space of the target is replaced by
// the signature's own line breaks, so signing, stripping and signing again gives the same
// file.
void place_last(xml::Document& doc, xml::Node target, xml::Node sig, const std::string& start_ws) {
  while (target.last_child() && target.last_child().is_text() &&
         whitespace_only(target.last_child().text())) {
    xml::Node ws = target.last_child();
    ws.remove();
  }
  if (!start_ws.empty()) target.append_child(doc.CreateText(start_ws));
  target.append_child(sig);
  if (!start_ws.empty()) target.append_child(doc.CreateText("\n"));
}

// The references' digests into the DigestValue elements of the written SignedInfo, in order.
void write_digest_values(xml::Node signed_info, TElXMLReferenceList& references) {
  int index = 0;
  for (xml::Node r = signed_info.first_child(); r; r = r.next_sibling()) {
    if (!is_dsig(r, "Reference")) continue;
    xml::Node dv = dsig_child(r, "DigestValue");
    if (dv && index < references.Count())
      dv.set_text(crypto::base64_encode(references.Reference(index).FDigestValue));
    ++index;
  }
}

// The 1.1 and minimal methods are written as their URIs say but canonicalized as Canonical
// XML 1.0 without comments.
Bytes canonical_signed_info(const xml::Document& doc, xml::Node signed_info,
                            TElXMLCanonicalizationMethod method) {
  using M = TElXMLCanonicalizationMethod;
  bool exclusive = method == M::xcmExclusiveC14N || method == M::xcmExclusiveC14NWithComments;
  bool comments = method == M::xcmC14NWithComments || method == M::xcmExclusiveC14NWithComments;
  std::string canonical = doc.CanonicalizeSubtree(signed_info, exclusive, comments);
  return Bytes(canonical.begin(), canonical.end());
}

// The SignatureValue's bytes for the canonical SignedInfo.
Bytes signature_value(const TElXMLKeyInfoX509Data& key_data, TElXMLSignatureMethod method,
                      const Bytes& signed_info) {
  DigestAlgorithm h = method_hash(method);
  Bytes value = key_data.FKey->sign_digest(h, crypto::digest(h, signed_info));
  // Keys give DSA and ECDSA signatures in DER; XML signatures carry r || s, each number as
  // wide as the group order.
  if (method == TElXMLSignatureMethod::xsmDSS || method == TElXMLSignatureMethod::xsmECDSA)
    value = crypto::dss_signature_to_plain(
        value, crypto::PublicKey::from_certificate(*key_data.FCertificate).dss_half_size());
  return value;
}

}  // namespace

void TElXMLSigner::Save(xml::Document& doc, xml::Node target) {
  if (!target) security_error(kMissingElement);
  if (!generated_) GenerateSignature();
  ElementPlan signature{"Signature",
                        {},
                        "",
                        {signed_info_plan(FCanonicalizationMethod, FSignatureMethod, *FReferences),
                         {"SignatureValue", {}, "", {}}}};
  ElementPlan key_info = key_info_plan(FKeyName, FIncludeKey, *FKeyData);
  if (!key_info.children.empty()) signature.children.push_back(key_info);
  std::string start_ws;
  xml::Node sig = PlanWriter(doc, *this).write(signature, 1, "Signature", start_ws);
  place_last(doc, target, sig, start_ws);

  xml::Node si = dsig_child(sig, "SignedInfo");
  if (!si) security_error("Invalid element: SignedInfo");
  // The white space placed around the signature belongs to the signed document: the
  // digests are taken again now that the signature stands where it will stay.
  signature_node_ = sig;
  UpdateReferencesDigest(doc);
  write_digest_values(si, *FReferences);
  FSignedInfo = canonical_signed_info(doc, si, FCanonicalizationMethod);
  Bytes value = signature_value(*FKeyData, FSignatureMethod, FSignedInfo);
  dsig_child(sig, "SignatureValue").append_child(doc.CreateText(crypto::base64_encode(value)));
}

// ---- verifier ----

namespace {

xml::Node find_descendant(xml::Node n, const char* local, const char* ns) {
  for (xml::Node c = n.first_child(); c; c = c.next_sibling()) {
    if (!c.is_element()) continue;
    if (c.local_name() == local && c.namespace_uri() == ns) return c;
    if (xml::Node f = find_descendant(c, local, ns)) return f;
  }
  return xml::Node();
}

// The element itself when it is a signature, else its own signature, else the first one
// below it (an EBICS AuthSignature when there is no ds:Signature).
xml::Node find_signature(xml::Node element) {
  if (element.is_element() && element.local_name() == "Signature" &&
      (element.namespace_uri() == xml::kDsigNamespace || element.name() == "ds:Signature"))
    return element;
  if (xml::Node own = OwnSignature(element)) return own;
  if (xml::Node sig = find_descendant(element, "Signature", xml::kDsigNamespace)) return sig;
  return find_descendant(element, "AuthSignature", "http://www.ebics.org/H003");
}

// Text that is not Base64 gives no bytes: the check then reports what is missing.
Bytes decode_or_empty(const std::string& text) {
  try {
    return crypto::base64_decode(text);
  } catch (const Exception&) {
    return {};
  }
}

// Whether a "#id" URI names one of the signature's own ds:Object elements.
bool refers_into_objects(xml::Node sig, const std::string& uri) {
  bool inside = false;
  if (!uri.empty() && uri[0] == '#') {
    for (xml::Node o = sig.first_child(); o; o = o.next_sibling())
      if (is_dsig(o, "Object") && o.attribute("Id") == uri.substr(1)) inside = true;
  }
  return inside;
}

}  // namespace

void TElXMLVerifier::Load(xml::Node element) {
  references_.clear();
  FKeyName.clear();
  signature_value_.clear();
  certificate_der_.clear();
  FSourceNode = xml::Node();
  FSignatureType = 0;
  if (!element) security_error(kMissingElement);
  xml::Node sig = find_signature(element);
  if (!sig) security_error("Invalid element: no Signature found in " + element.name());
  xml::Node si = dsig_child(sig, "SignedInfo");
  if (!si) security_error("Invalid element: Signature without SignedInfo");
  ReadSignedInfo(sig, si);
  if (xml::Node sv = dsig_child(sig, "SignatureValue"))
    signature_value_ = decode_or_empty(sv.text());
  ReadKeyInfo(sig);
  FSourceNode = sig;
}

void TElXMLVerifier::ReadSignedInfo(xml::Node sig, xml::Node si) {
  xml::Node cm = dsig_child(si, "CanonicalizationMethod");
  FCanonicalizationMethod =
      cm ? CanonicalizationCode(cm.attribute("Algorithm")) : TElXMLCanonicalizationMethod::xcmNone;
  xml::Node sm = dsig_child(si, "SignatureMethod");
  signature_method_uri_ = sm ? sm.attribute("Algorithm") : "";
  FSignatureMethodType = signature_method_uri_.find("hmac") != std::string::npos
                             ? TElXMLSigMethodType::xmtMAC
                             : TElXMLSigMethodType::xmtSig;
  for (const auto& m : kMethodUris)
    if (signature_method_uri_ == m.uri) FSignatureMethod = m.method;
  for (xml::Node r = si.first_child(); r; r = r.next_sibling()) {
    if (!is_dsig(r, "Reference")) continue;
    LoadedReference ref = ReadReference(r);
    // A reference into the signature's own objects makes it enveloping; one into the rest
    // of the document, enveloped.
    FSignatureType |= refers_into_objects(sig, ref.uri)
                          ? (1u << static_cast<unsigned>(TElXMLSignatureType::xstEnveloping))
                          : (1u << static_cast<unsigned>(TElXMLSignatureType::xstEnveloped));
    references_.push_back(std::move(ref));
  }
}

TElXMLVerifier::LoadedReference TElXMLVerifier::ReadReference(xml::Node r) {
  LoadedReference ref;
  ref.has_uri = r.has_attribute("URI");
  ref.uri = r.attribute("URI");
  if (xml::Node ts = dsig_child(r, "Transforms"))
    for (xml::Node t = ts.first_child(); t; t = t.next_sibling())
      if (is_dsig(t, "Transform")) ref.transforms.push_back(t.attribute("Algorithm"));
  if (xml::Node dm = dsig_child(r, "DigestMethod")) ref.digest_method = dm.attribute("Algorithm");
  if (xml::Node dv = dsig_child(r, "DigestValue")) ref.digest_value = decode_or_empty(dv.text());
  return ref;
}

void TElXMLVerifier::ReadKeyInfo(xml::Node sig) {
  xml::Node ki = dsig_child(sig, "KeyInfo");
  if (!ki) return;
  if (xml::Node kn = dsig_child(ki, "KeyName")) FKeyName = kn.text();
  if (xml::Node xd = dsig_child(ki, "X509Data"))
    if (xml::Node xc = dsig_child(xd, "X509Certificate"))
      certificate_der_ = decode_or_empty(xc.text());
}

void TElXMLVerifier::RemoveSignature() {
  if (!FSourceNode) security_error("Signature not loaded or already removed.");
  xml::Node sig = FSourceNode;
  if (FSignatureType & (1u << static_cast<unsigned>(TElXMLSignatureType::xstEnveloping))) {
    // The objects' content goes back where the signature was.
    for (xml::Node o = sig.first_child(); o; o = o.next_sibling()) {
      if (!is_dsig(o, "Object")) continue;
      for (xml::Node c = o.first_child(); c;) {
        xml::Node next = c.next_sibling();
        if (!(c.is_element() && (c.local_name() == "QualifyingProperties" ||
                                 c.local_name() == "QualifyingPropertiesReferences")))
          sig.parent().insert_before(c, sig);
        c = next;
      }
    }
  }
  sig.remove();
  FSourceNode = xml::Node();
}

namespace {

DigestAlgorithm digest_by_uri(const std::string& uri) {
  DigestAlgorithm alg = DigestAlgorithm::Unknown;
  for (const auto& d : kDigestUris)
    if (uri == d.uri) alg = d.alg;
  return alg;
}

const VerifyMethod* verify_method_by_uri(const std::string& uri) {
  const VerifyMethod* method = nullptr;
  for (const auto& m : kVerifyMethods)
    if (uri == m.uri) method = &m;
  return method;
}

// Whether the signature value verifies with the key over the canonical SignedInfo.
bool signature_verifies(const crypto::PublicKey& pub, const VerifyMethod& method,
                        const Bytes& signed_info, const Bytes& value) {
  if (method.kind == KeyKind::Rsa)
    return crypto::verify_message(pub.get(), method.hash, signed_info, value);
  // r || s of the group order's width; anything else (DER among them) is malformed.
  if (value.size() != 2 * pub.dss_half_size()) return false;
  return pub.verify_digest(method.hash, crypto::digest(method.hash, signed_info),
                           crypto::dss_signature_from_plain(value));
}

}  // namespace

XmlSignatureCheck TElXMLVerifier::Verify(const xml::Document& doc) {
  XmlSignatureCheck out;
  if (!FSourceNode) {
    out.problems.push_back("no signature loaded");
    return out;
  }
  out.signature_found = true;
  ReadCertificate(out);
  out.references_valid = CheckReferences(doc, out.problems);
  CheckSignatureValue(doc, out);
  return out;
}

void TElXMLVerifier::ReadCertificate(XmlSignatureCheck& out) const {
  if (certificate_der_.empty()) {
    out.problems.push_back("the signature carries no X509Certificate");
    return;
  }
  try {
    out.certificate = Certificate::from_der(certificate_der_);
  } catch (const Exception&) {
    out.problems.push_back("the X509Certificate of the signature is not a certificate");
  }
}

bool TElXMLVerifier::CheckReferences(const xml::Document& doc,
                                     std::vector<std::string>& problems) const {
  if (references_.empty()) problems.push_back("the signature has no reference");
  bool refs_ok = !references_.empty();
  for (const auto& ref : references_)
    if (!CheckReference(ref, doc, problems)) refs_ok = false;
  return refs_ok;
}

bool TElXMLVerifier::CheckReference(const LoadedReference& ref, const xml::Document& doc,
                                    std::vector<std::string>& problems) const {
  DigestAlgorithm alg = digest_by_uri(ref.digest_method);
  if (alg == DigestAlgorithm::Unknown) {
    problems.push_back("unsupported digest method " + ref.digest_method);
    return false;
  }
  bool enveloped = false, supported = true;
  for (const auto& t : ref.transforms) {
    if (t == dsig::kEnveloped)
      enveloped = true;
    else if (t != dsig::kC14N)
      supported = false;
  }
  if (!supported) {
    problems.push_back("unsupported transform in a reference");
    return false;
  }
  crypto::Hasher hasher(alg);
  auto sink = [&](const char* p, std::size_t n) { hasher.update(p, n); };
  if (ref.uri.empty()) {
    std::vector<xml::Node> excluded;
    if (enveloped) excluded.push_back(FSourceNode);
    CanonicalizeWithout(doc, excluded, sink);
  } else if (ref.uri[0] == '#') {
    xml::Node target = doc.FindById(ref.uri.substr(1));
    if (!target) {
      problems.push_back("reference " + ref.uri + " points at nothing");
      return false;
    }
    std::string c = doc.CanonicalizeSubtree(target);
    sink(c.data(), c.size());
  } else {
    problems.push_back("external reference " + ref.uri + " not followed");
    return false;
  }
  if (hasher.finish() != ref.digest_value) {
    problems.push_back("the document does not match the signed digest (reference \"" + ref.uri +
                       "\")");
    return false;
  }
  return true;
}

void TElXMLVerifier::CheckSignatureValue(const xml::Document& doc, XmlSignatureCheck& out) const {
  xml::Node si = dsig_child(FSourceNode, "SignedInfo");
  // Canonical XML 1.0 and Exclusive, with or without comments.
  if (FCanonicalizationMethod < TElXMLCanonicalizationMethod::xcmC14N ||
      FCanonicalizationMethod > TElXMLCanonicalizationMethod::xcmExclusiveC14NWithComments) {
    out.problems.push_back("unsupported canonicalization method");
    return;
  }
  if (!out.certificate) return;
  Bytes data = canonical_signed_info(doc, si, FCanonicalizationMethod);
  const VerifyMethod* method = verify_method_by_uri(signature_method_uri_);
  auto pub = crypto::PublicKey::from_certificate(*out.certificate);
  if (!method) {
    out.problems.push_back("unsupported signature method " + signature_method_uri_);
    return;
  }
  if (pub.kind() != method->kind) {
    out.problems.push_back("the signature method " + signature_method_uri_ +
                           " does not fit the key of the signature's certificate");
    return;
  }
  out.signature_valid = signature_verifies(pub, *method, data, signature_value_);
  if (!out.signature_valid)
    out.problems.push_back("the signature value does not verify with the signature's certificate");
}

}  // namespace tessarel
