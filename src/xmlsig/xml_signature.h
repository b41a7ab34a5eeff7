// Enveloped XML signatures: the signer that writes ds:Signature, the verifier that loads,
// checks and removes one.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/xml/dom.h"
#include "tessarel/certificate.h"
#include "tessarel/errors.h"
#include "tessarel/store.h"

namespace tessarel {

enum class TElXMLDigestMethod {
  xdmMD5 = 0,
  xdmSHA1,
  xdmSHA224,
  xdmSHA256,
  xdmSHA384,
  xdmSHA512,
  xdmRIPEMD160,
  xdmGOST
};
enum class TElXMLSignatureMethod {
  xsmDSS = 0,
  xsmRSA_MD5,
  xsmRSA_SHA1,
  xsmRSA_SHA256,
  xsmRSA_SHA384,
  xsmRSA_SHA512,
  xsmRSA_RIPEMD160,
  xsmECDSA,
  xsmGOST1994,
  xsmGOST2001
};
// Canonicalization methods; the values are the codes hosts and stored settings use.
enum class TElXMLCanonicalizationMethod : int {
  xcmNone = 0,
  xcmC14N = 1,  // Canonical XML 1.0
  xcmC14NWithComments = 2,
  xcmExclusiveC14N = 3,
  xcmExclusiveC14NWithComments = 4,
  xcmMinimal = 5,
  xcmC14N11 = 6,  // Canonical XML 1.1
  xcmC14N11WithComments = 7
};
enum class TElXMLSignatureType { xstDetached = 0, xstEnveloping = 1, xstEnveloped = 2 };
enum class TElXMLSigMethodType { xmtSig = 0, xmtMAC = 1 };
enum class TElXMLMACMethod {
  xmmHMAC_MD5 = 0,
  xmmHMAC_SHA1,
  xmmHMAC_SHA224,
  xmmHMAC_SHA256,
  xmmHMAC_SHA384,
  xmmHMAC_SHA512,
  xmmHMAC_RIPEMD160
};

// URIs.
namespace dsig {
inline constexpr const char* kC14N = "http://www.w3.org/TR/2001/REC-xml-c14n-20010315";
inline constexpr const char* kC14NWithComments =
    "http://www.w3.org/TR/2001/REC-xml-c14n-20010315#WithComments";
inline constexpr const char* kEnveloped = "http://www.w3.org/2000/09/xmldsig#enveloped-signature";
inline constexpr const char* kSha1 = "http://www.w3.org/2000/09/xmldsig#sha1";
inline constexpr const char* kRsaSha1 = "http://www.w3.org/2000/09/xmldsig#rsa-sha1";
}  // namespace dsig

// Canonicalization methods and their URIs; xcmNone for a URI that names none of them.
std::string CanonicalizationURI(TElXMLCanonicalizationMethod method);
TElXMLCanonicalizationMethod CanonicalizationCode(const std::string& uri);
std::string SignatureMethodURI(TElXMLSignatureMethod m);
std::string DigestMethodURI(TElXMLDigestMethod m);

// A distinguished name as ds:X509IssuerName and ds:X509SubjectName write it: the
// attributes from the last to the first, "NAME=value" joined by ", ", escaped.
std::string DistinguishedNameText(const std::vector<NameAttribute>& attributes);

// An element's own enveloped signature: its ds:Signature child, or a null node. Signatures
// deeper down belong to the content (a record may carry one of its own).
xml::Node OwnSignature(xml::Node element);

class TElXMLTransform {
 public:
  virtual ~TElXMLTransform() = default;
  std::string FTransformAlgorithmURI;
};

class TElXMLEnvelopedSignatureTransform : public TElXMLTransform {
 public:
  TElXMLEnvelopedSignatureTransform() { FTransformAlgorithmURI = dsig::kEnveloped; }
  bool FStrictMode = false;
};

class TElXMLTransformChain {
 public:
  void Add(std::unique_ptr<TElXMLTransform> t) { FTransforms.push_back(std::move(t)); }
  std::vector<std::unique_ptr<TElXMLTransform>> FTransforms;
};

class TElXMLReference {
 public:
  TElXMLDigestMethod FDigestMethod = TElXMLDigestMethod::xdmSHA1;
  Bytes FDigestValue;
  std::string FURI;
  bool FHasURI = false;
  xml::Node FURINode;
  TElXMLTransformChain FTransformChain;
  void SetURI(const std::string& uri) {
    FURI = uri;
    FHasURI = true;
  }
};

class TElXMLReferenceList {
 public:
  void Add(std::unique_ptr<TElXMLReference> r) { FReferences.push_back(std::move(r)); }
  int Count() const { return static_cast<int>(FReferences.size()); }
  TElXMLReference& Reference(int i) { return *FReferences.at(static_cast<std::size_t>(i)); }
  std::vector<std::unique_ptr<TElXMLReference>> FReferences;
};

// The certificate (and its key) whose X.509 data the KeyInfo carries.
class TElXMLKeyInfoX509Data {
 public:
  enum Param : unsigned {
    xkidX509IssuerSerial = 1,
    xkidX509SKI = 2,
    xkidX509SubjectName = 4,
    xkidX509Certificate = 8,
    xkidX509CRL = 16
  };
  std::optional<Certificate> FCertificate;
  const SigningKey* FKey = nullptr;  // the certificate's private key
  unsigned FIncludeDataParams = xkidX509IssuerSerial | xkidX509SubjectName | xkidX509Certificate;
  bool FIncludeKeyValue = true;
};

class TElXMLSigner {
 public:
  // Called for each element the signer writes: nesting level inside the signature (the
  // Signature element is level 1), and the white space to put before the start tag and
  // before the end tag.
  using FormatElementHandler = std::function<void(
      TElXMLSigner& sender, xml::Node element, int level, const std::string& path,
      std::string& start_whitespace, std::string& end_whitespace)>;

  void SetCanonicalizationMethod(TElXMLCanonicalizationMethod method);
  TElXMLCanonicalizationMethod CanonicalizationMethod() const { return FCanonicalizationMethod; }
  void SetReferences(TElXMLReferenceList* list) { FReferences = list; }

  TElXMLSignatureMethod FSignatureMethod = TElXMLSignatureMethod::xsmRSA_SHA1;
  TElXMLSigMethodType FSignatureMethodType = TElXMLSigMethodType::xmtSig;
  TElXMLMACMethod FMACMethod = TElXMLMACMethod::xmmHMAC_SHA1;
  TElXMLSignatureType FSignatureType = TElXMLSignatureType::xstEnveloped;
  bool FIncludeKey = true;
  std::string FKeyName;
  TElXMLKeyInfoX509Data* FKeyData = nullptr;
  FormatElementHandler FOnFormatElement;
  // The canonical SignedInfo that was signed.
  Bytes FSignedInfo;

  // Digests of the references (for URI "": the whole document; an enveloped transform
  // leaves out the signature this signer wrote, and no other).
  void UpdateReferencesDigest(xml::Document& doc);
  // Checks the key against the method and prepares the signature.
  void GenerateSignature();
  // Writes ds:Signature as the last element of target, then signs its SignedInfo.
  void Save(xml::Document& doc, xml::Node target);

 private:
  TElXMLCanonicalizationMethod FCanonicalizationMethod = TElXMLCanonicalizationMethod::xcmC14N;
  TElXMLReferenceList* FReferences = nullptr;
  bool generated_ = false;
  // The ds:Signature element once Save has placed it.
  xml::Node signature_node_;
};

// The outcome of checking an enveloped signature.
struct XmlSignatureCheck {
  bool signature_found = false;
  bool references_valid = false;  // every reference digest matches the document
  bool signature_valid = false;   // the signature value verifies with the KeyInfo's certificate
  std::optional<Certificate> certificate;
  std::vector<std::string> problems;
  bool ok() const {
    return signature_found && references_valid && signature_valid && problems.empty();
  }
};

class TElXMLVerifier {
 public:
  // Finds ds:Signature at or below element and reads it. Raises EElXMLSecurityError.
  void Load(xml::Node element);
  // Takes the loaded signature out of its document.
  void RemoveSignature();
  // Checks the loaded signature against its document (enveloped, URI "" references).
  XmlSignatureCheck Verify(const xml::Document& doc);

  xml::Node FSourceNode;
  unsigned FSignatureType = 0;  // bits: 1 << xstDetached, 1 << xstEnveloping, 1 << xstEnveloped
  TElXMLCanonicalizationMethod FCanonicalizationMethod = TElXMLCanonicalizationMethod::xcmC14N;
  TElXMLSignatureMethod FSignatureMethod = TElXMLSignatureMethod::xsmRSA_SHA1;
  TElXMLSigMethodType FSignatureMethodType = TElXMLSigMethodType::xmtSig;
  std::string FKeyName;

 private:
  struct LoadedReference {
    std::string uri;
    bool has_uri = false;
    std::vector<std::string> transforms;
    std::string digest_method;
    Bytes digest_value;
  };
  // The parts of Load: SignedInfo (methods and references), one reference, KeyInfo.
  void ReadSignedInfo(xml::Node sig, xml::Node signed_info);
  static LoadedReference ReadReference(xml::Node reference);
  void ReadKeyInfo(xml::Node sig);
  // The parts of Verify: the KeyInfo's certificate, the reference digests, the signature
  // value.
  void ReadCertificate(XmlSignatureCheck& out) const;
  bool CheckReferences(const xml::Document& doc, std::vector<std::string>& problems) const;
  bool CheckReference(const LoadedReference& ref, const xml::Document& doc,
                      std::vector<std::string>& problems) const;
  void CheckSignatureValue(const xml::Document& doc, XmlSignatureCheck& out) const;

  std::vector<LoadedReference> references_;
  std::string signature_method_uri_;
  Bytes signature_value_;
  Bytes certificate_der_;
};

// Canonical XML 1.0 (without comments) of the whole document except the given signature
// elements and everything inside them, written through sink.
void CanonicalizeWithout(const xml::Document& doc, const std::vector<xml::Node>& excluded,
                         const std::function<void(const char*, std::size_t)>& sink);

}  // namespace tessarel
