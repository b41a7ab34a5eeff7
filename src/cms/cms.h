// CMS SignedData (RFC 5652) with CAdES-BES signed attributes: the message, its signatures,
// its content, writing (DER) and reading (BER or DER, from any producer).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cms/envelope_input.h"
#include "platform/asn1/ber.h"
#include "tessarel/certificate.h"
#include "tessarel/errors.h"
#include "tessarel/store.h"
#include "tessarel/types.h"

namespace tessarel {

namespace cms_oid {
inline constexpr const char* kData = "1.2.840.113549.1.7.1";
inline constexpr const char* kSignedData = "1.2.840.113549.1.7.2";
inline constexpr const char* kContentType = "1.2.840.113549.1.9.3";
inline constexpr const char* kMessageDigest = "1.2.840.113549.1.9.4";
inline constexpr const char* kSigningTime = "1.2.840.113549.1.9.5";
inline constexpr const char* kCounterSignature = "1.2.840.113549.1.9.6";
inline constexpr const char* kSigningCertificate = "1.2.840.113549.1.9.16.2.12";
inline constexpr const char* kSigningCertificateV2 = "1.2.840.113549.1.9.16.2.47";
inline constexpr const char* kContentHints = "1.2.840.113549.1.9.16.2.4";
inline constexpr const char* kContentIdentifier = "1.2.840.113549.1.9.16.2.7";
inline constexpr const char* kSignaturePolicy = "1.2.840.113549.1.9.16.2.15";
inline constexpr const char* kCommitmentType = "1.2.840.113549.1.9.16.2.16";
inline constexpr const char* kSignerLocation = "1.2.840.113549.1.9.16.2.17";
inline constexpr const char* kSignatureTimestamp = "1.2.840.113549.1.9.16.2.14";
inline constexpr const char* kRsaEncryption = "1.2.840.113549.1.1.1";
inline constexpr const char* kRsaPss = "1.2.840.113549.1.1.10";
inline constexpr const char* kMgf1 = "1.2.840.113549.1.1.8";
inline constexpr const char* kDsa = "1.2.840.10040.4.1";
}  // namespace cms_oid

// RSASSA-PSS-params (RFC 4055). Reading fills in the defaults of absent fields (SHA-1, MGF1
// with SHA-1, salt 20); false when the parameters cannot be read.
bool ReadPssParams(const Bytes& params, DigestAlgorithm& hash, DigestAlgorithm& mgf, int& salt);
Bytes EncodePssParams(DigestAlgorithm hash, DigestAlgorithm mgf, int salt);

// One attribute: its type and the DER encodings of its values.
struct TElPKCS7Attribute {
  std::string oid;
  std::vector<Bytes> values;
};

// The signing options of a signature (a set of bits).
enum TSBCMSSigningOption : std::uint16_t {
  csoInsertMessageDigests = 1 << 0,
  csoInsertSigningTime = 1 << 1,
  csoInsertContentType = 1 << 2,
  csoUseGeneralizedTimeFormat = 1 << 3,
  csoIncludeCertToMessage = 1 << 4,
  csoIncludeCertToAttributes = 1 << 5,
  csoForceSigningCertificateV2Usage = 1 << 7,
  csoAnnexKArchiveTimestampV2Mode = 1 << 8,
};

// The option sets in use, by what they are for.
// A new signature, until its signer sets its own.
inline constexpr std::uint16_t kDefaultSigningOptions =
    csoInsertMessageDigests | csoInsertSigningTime | csoInsertContentType |
    csoIncludeCertToMessage | csoIncludeCertToAttributes | csoForceSigningCertificateV2Usage |
    csoAnnexKArchiveTimestampV2Mode;
// A signature read from an envelope.
inline constexpr std::uint16_t kReadSignatureOptions =
    csoInsertMessageDigests | csoInsertSigningTime | csoInsertContentType |
    csoIncludeCertToMessage | csoIncludeCertToAttributes | csoAnnexKArchiveTimestampV2Mode;
// Attached and detached CAdES-BES envelopes (batch signing) and the CMS value of a PDF
// signature that is not PAdES: the signing time as GeneralizedTime, the certificate in the
// message and in a signing-certificate-v2 attribute.
inline constexpr std::uint16_t kCadesBesSigningOptions =
    csoInsertMessageDigests | csoInsertSigningTime | csoInsertContentType |
    csoUseGeneralizedTimeFormat | csoIncludeCertToMessage | csoIncludeCertToAttributes |
    csoForceSigningCertificateV2Usage;
// The CMS value of a PAdES baseline PDF signature: no signing time, which lives in the
// signature dictionary (/M) instead.
inline constexpr std::uint16_t kPadesSigningOptions =
    csoInsertMessageDigests | csoInsertContentType | csoIncludeCertToMessage |
    csoIncludeCertToAttributes | csoForceSigningCertificateV2Usage;
static_assert(kDefaultSigningOptions == 0x01B7 && kReadSignatureOptions == 0x0137 &&
              kCadesBesSigningOptions == 0x00BF && kPadesSigningOptions == 0x00B5);

enum class TSBCMSSignatureState { cssSigned = 0, cssUnsigned = 1 };
enum class TSBCMSSigningCertificateType {
  sctESSSigningCertificate = 0,
  sctOtherSigningCertificate = 1,
  sctESSSigningCertificateV2 = 2
};
enum class TSBCMSSignerIdentifierType { sitESSCertID = 0, sitOtherCertID = 1, sitESSCertIDV2 = 2 };

struct TElCMSHash {
  DigestAlgorithm FHashAlgorithm = DigestAlgorithm::SHA256;
  Bytes FHashValue;
};

struct TElCMSSignerIdentifier {
  TElCMSHash FHash;
  Bytes FIssuer;  // GeneralNames, DER (empty when the identifier carries no issuer)
  Bytes FSerialNumber;
  TSBCMSSignerIdentifierType FSignerIdentifierType = TSBCMSSignerIdentifierType::sitESSCertIDV2;
};

// A CAdES property carried by a signed or unsigned attribute.
struct TElCMSProperty {
  bool FIncluded = false;
  bool FSigned = false;
  Bytes FValue;  // the attribute value, DER
};

struct TElCMSSigningCertificate : TElCMSProperty {
  std::vector<TElCMSSignerIdentifier> FCertIDs;
  TSBCMSSigningCertificateType FSigningCertificateType =
      TSBCMSSigningCertificateType::sctESSSigningCertificate;
  void Clear() { *this = TElCMSSigningCertificate(); }
};

// SignerInfo as encoded: identifier, algorithms, attributes, signature value.
struct TElPKCS7Signer {
  int Version = 1;
  Bytes Issuer;                // Name, DER (issuerAndSerialNumber)
  Bytes SerialNumber;          // INTEGER content octets
  Bytes SubjectKeyIdentifier;  // when the signer is named by [0] SubjectKeyIdentifier
  std::string DigestAlgorithm;
  Bytes DigestAlgorithmParams;  // the parameters element, DER; empty when absent
  std::vector<TElPKCS7Attribute> AuthenticatedAttributes;
  // The signed attributes as hashed: DER of the SET OF with the SET tag. For a message
  // that was read, the bytes as stored (with the SET tag).
  Bytes AuthenticatedAttributesPlain;
  // For a message that was read: the DER re-encoding of the stored attributes (sorted,
  // definite lengths), which RFC 5652 asks signers to hash; empty when the stored bytes
  // already are DER.
  Bytes AuthenticatedAttributesDer;
  std::string DigestEncryptionAlgorithm;
  Bytes DigestEncryptionAlgorithmParams;
  Bytes EncryptedDigest;
  std::vector<TElPKCS7Attribute> UnauthenticatedAttributes;

  // Sorts and re-encodes the signed attributes into AuthenticatedAttributesPlain.
  void RecalculateAuthenticatedAttributes();
  // The SignerInfo, DER.
  Bytes Encode() const;
};

// The content of a message: byte ranges of memory or of a source read on demand.
class TElCMSContent {
 public:
  // A source without a stream is memory (possibly empty, with a null pointer).
  struct Source {
    const std::uint8_t* memory = nullptr;
    std::shared_ptr<const asn1::ByteSource> stream;
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
  };
  void Init(const std::uint8_t* buffer, std::uint64_t size);
  void Init(std::shared_ptr<const asn1::ByteSource> stream, std::uint64_t offset,
            std::uint64_t size);
  void Add(std::shared_ptr<const asn1::ByteSource> stream, std::uint64_t offset,
           std::uint64_t size);
  std::uint64_t Size() const;
  // Copies up to size bytes from the logical offset; returns how many were copied.
  std::size_t Read(std::uint8_t* buffer, std::size_t size, std::uint64_t offset) const;
  const std::vector<Source>& sources() const { return FSources; }

 private:
  std::vector<Source> FSources;
};

class TElSignedCMSMessage;

// One signature (SignerInfo) and its CAdES properties.
class TElCMSSignature {
 public:
  explicit TElCMSSignature(TElSignedCMSMessage* subject) : FSubject(subject) {}

  TElPKCS7Signer FPKCS7Signer;
  TElSignedCMSMessage* FSubject;
  TSBCMSSignatureState FState = TSBCMSSignatureState::cssUnsigned;
  std::uint16_t FSigningOptions = kDefaultSigningOptions;
  Bytes FContentType;         // OID content octets; empty means id-data
  DateTime FSigningTime = 0;  // days since 1899-12-30, UTC
  TElCMSSigningCertificate FSigningCertificate;
  Bytes FMessageDigest;
  std::vector<TElPKCS7Attribute> FCustomSignedAttributes;
  std::vector<TElPKCS7Attribute> FCustomUnsignedAttributes;
  bool FUsePSS = false;
  DigestAlgorithm FFingerprintAlgorithm = DigestAlgorithm::SHA1;
  // Called with (processed, total) while the content is hashed; false stops the signing.
  std::function<bool(std::uint64_t, std::uint64_t)> OnProgress;

  // The digest algorithm: stored as the OID in the SignerInfo; read back by mapping the OID
  // (hash OIDs first, then signature OIDs' hash; Unknown otherwise).
  void SetDigestAlgorithm(DigestAlgorithm alg);
  DigestAlgorithm GetDigestAlgorithm() const;

  // Signs with the certificate and its private key (null: "Private key not found").
  void Sign(const Certificate& cert, const SigningKey* key,
            const std::vector<Certificate>& chain = {});
  // Sign in two steps, for batches whose private-key operations run on another thread than
  // the rest: everything up to the value the key signs (returned), then the key's operation.
  Bytes PrepareSign(const Certificate& cert, const SigningKey* key,
                    const std::vector<Certificate>& chain = {});
  void CompleteSign(const Certificate& cert, const SigningKey* key, const Bytes& to_sign);

  // Fills the properties from the SignerInfo's attributes (after reading).
  void FillProperties();
};

class TElSignedCMSMessage {
 public:
  TElSignedCMSMessage();
  ~TElSignedCMSMessage();
  TElSignedCMSMessage(const TElSignedCMSMessage&) = delete;
  TElSignedCMSMessage& operator=(const TElSignedCMSMessage&) = delete;

  // New message over content the caller keeps alive and unchanged until Save returns.
  void CreateNew(const std::uint8_t* buffer, std::uint64_t size);
  void CreateNew(std::shared_ptr<const asn1::ByteSource> stream, std::uint64_t offset,
                 std::uint64_t size);
  int AddSignature();
  TElCMSSignature* GetSignature(int index);
  int SignatureCount() const { return static_cast<int>(FSignatures.size()); }
  // Writes the message (DER) through sink.
  void Save(const std::function<void(const std::uint8_t*, std::size_t)>& sink);
  // Writes the message into a file being written (descriptor out_fd, at its current end);
  // content read from a file is copied inside the kernel. The same bytes as Save.
  void SaveToFile(int out_fd, const std::string& out_name);
  Bytes SaveToBytes();
  void Clear();

  // Reads a message: DER or BER, as such or as Base64 or PEM text (see envelope_input.h).
  // Raises EElCMSError "Failed to load CMS message, error N: ..." when the data is not one;
  // for input that is no envelope at all, the first line says what it is and that message
  // follows on the second. "No signed data found" for another content type.
  void Open(std::shared_ptr<const asn1::ByteSource> source);
  // The form the message was read in.
  EnvelopeForm FInputForm;
  // The content as a source of its own, to read an envelope inside this one.
  std::shared_ptr<const asn1::ByteSource> ContentSource() const;

  // Content, certificates (in the order of the certificates field) and state.
  std::unique_ptr<TElCMSContent> FContent;
  // True when the message carries no content (none, or an empty one).
  bool FDetached = false;
  // True when the message has an eContent element, even an empty one: an attached
  // envelope of an empty file, as opposed to a detached signature.
  bool FEContentPresent = false;
  Bytes FContentType;  // eContentType, OID content octets
  std::int32_t FContentVersion = 0;
  std::vector<Bytes> FCertificates;  // each certificate's encoding
  // The certificates that parse as X.509, in order.
  std::vector<Certificate> Certificates() const;
  // The source the message was read from (null for a new message).
  std::shared_ptr<const asn1::ByteSource> FStream;
  // Digest algorithms listed in the SignedData (OIDs).
  std::vector<std::string> FDigestAlgorithms;

  std::vector<std::unique_ptr<TElCMSSignature>> FSignatures;

 private:
  void SaveParts(const std::function<void(const std::uint8_t*, std::size_t)>& sink,
                 const std::function<bool(int, std::uint64_t, std::uint64_t)>& copy_range);
};

// Reads one SignerInfo (for the envelope's signers and for countersignatures). Raises
// asn1::BerError when it is not one.
void ReadSignerInfo(const asn1::ByteSource& source, const asn1::BerNode& node,
                    TElPKCS7Signer& signer);

// The digest of the content with the signature's algorithm, read in blocks.
Bytes DigestContent(const TElCMSContent* content, DigestAlgorithm alg,
                    const std::function<bool(std::uint64_t, std::uint64_t)>& progress = {});

// Digest algorithm of an OID: a hash OID, else the hash of a signature OID; Unknown otherwise.
DigestAlgorithm DigestAlgorithmOfOid(const std::string& oid);

}  // namespace tessarel
