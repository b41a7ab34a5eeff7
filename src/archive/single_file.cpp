// Operations on single files that need no open archive: signing, content extraction,
// verification report, certificate wizard.
#include <cmath>
#include <memory>

#include "archive/sign_e_archivia.h"
#include "boundary/batch_signer.h"
#include "boundary/file_digest.h"
#include "cms/cades.h"
#include "cms/cms.h"
#include "cms/cms_verify.h"
#include "platform/crypto/digest.h"
#include "platform/crypto/trust.h"
#include "platform/runtime/datetime.h"
#include "platform/runtime/files.h"
#include "platform/runtime/hex.h"
#include "platform/runtime/strings.h"
#include "tessarel/signing.h"
#include "tessarel/ui.h"
#include "tessarel/wizard.h"

namespace tessarel {

namespace {

const char* const kCrLf = "\r\n";

std::unique_ptr<TElSignedCMSMessage> open_envelope(const std::string& path) {
  auto message = std::make_unique<TElSignedCMSMessage>();
  message->Open(std::make_shared<asn1::FileSource>(path));
  return message;
}

// Whether the first signer's certificate is trusted, at the time its signature was made.
std::string trust_line(TElSignedCMSMessage& message, const TrustOptions& options) {
  crypto::TrustStore store(options);
  CmsVerification v = VerifySignedMessage(message, nullptr, &store);
  if (!v.signers.front().certificate)
    return "trusted: no (the signer's certificate is not in the envelope)";
  const TrustReport& t = v.signers.front().trust;
  return t.trusted ? "trusted: yes" : "trusted: no (" + t.reason + ")";
}

DateTime local_date_of(std::chrono::sys_seconds t) {
  return LocalDateTime(std::chrono::system_clock::time_point(t));
}

}  // namespace

void TSignEArchivia::Firma(const std::string& fpath, const std::string& idCert, bool detached) {
  FidCert = idCert;
  Fdetached = detached;
  FirmaFiles(fpath, fpath, FidCert, Fdetached, nullptr);
}

std::string TSignEArchivia::EstraiContenuto(const std::string& input) {
  std::string result;
  if (lower_ascii(ExtractFileExt(input)) != ".p7m")
    throw Exception("il file deve avere estensione .p7m");
  auto message = open_envelope(input);
  std::string output = RemoveLastExt(input);
  if (SameFile(input, output))
    throw Exception("Il file " + output + " è la busta stessa: il contenuto non viene scritto");
  // A new or regular file is replaced whole, so a failure leaves no half file.
  OutputReplacement writer(output);
  const TElCMSContent& content = *message->FContent;
  Bytes buffer(1 << 20);
  for (std::uint64_t at = 0; at < content.Size();) {
    std::size_t n = content.Read(buffer.data(), buffer.size(), at);
    if (n == 0) throw EElCMSError("Unexpected end of data");
    writer.write(buffer.data(), n);
    at += n;
  }
  writer.commit();
  result = output;
  return result;
}

void TSignEArchivia::VerificaFirma(const std::string& input) {
  std::string ext = lower_ascii(ExtractFileExt(input));
  if (ext != ".p7m" && ext != ".p7s") throw Exception("il file non contiene firma");
  auto message = open_envelope(input);
  std::string report;
  std::string digest_text;
  if (message->FDetached) {
    std::string data_file = RemoveLastExt(input);
    digest_text = HashFileSHA256(data_file);
    report = std::string("Documento firmato digitalmente il modalità detached ") + kCrLf +
             "File dati: " + data_file + kCrLf;
  } else {
    report = std::string("Documento firmato digitalmente") + kCrLf;
    digest_text = BinaryToString(DigestContent(message->FContent.get(), DigestAlgorithm::SHA256));
  }
  report += kCrLf;
  std::vector<Certificate> certificates = message->Certificates();
  if (certificates.empty()) throw Exception("il file non contiene certificati validi");
  if (message->SignatureCount() == 0) {
    currentUi().message_box(MessageKind::Error, MessageButtons::Ok,
                            "Firma non trovata. Verifica non può essere fatta.");
    return;
  }
  TElCMSSignature* signer = message->GetSignature(0);
  // The content is always compared by SHA-256, whatever digest the signer declares.
  if (BinaryToString(signer->FMessageDigest) != digest_text) {
    currentUi().beep();
    throw Exception("Verifica errata: il file non corrisponde all'originale");
  }
  const Certificate& c = certificates.front();
  report += std::string("Informazioni certificato") + kCrLf;
  report += "Firmatario : " + c.subject_cn() + kCrLf;
  report += "Emesso da: " + c.issuer_cn() + kCrLf;
  report += "Valido fino al: " + FormatShortDate(local_date_of(c.not_after())) + kCrLf;
  report += std::string(kCrLf) + "Documento Firmato il : " + FormatShortDate(signer->FSigningTime) +
            " " + FormatTime(signer->FSigningTime) + kCrLf;
  report += std::string(kCrLf) + "Algoritmo " + crypto::digest_name(signer->GetDigestAlgorithm());
  TElCAdESSignatureProcessor processor(signer);
  bool bes = processor.IsBES();
  if (bes)
    report +=
        std::string(" di tipo CAdES - BES") + kCrLf + kCrLf + " Il file risulta valido" + kCrLf;
  else
    report += std::string(" non di tipo CAdES - BES") + kCrLf + kCrLf +
              " Il file risulta valido ma con firma non conforme alle ultime norme";
  // Trust is said only to a host that asked for it, after the report as it always was.
  if (FTrustOptions.enabled())
    report += (bes ? "" : kCrLf) + trust_line(*message, FTrustOptions) + kCrLf;
  currentUi().message_box(MessageKind::Information, MessageButtons::Ok, report);
}

void SetEngineTrustOptions(ISignEArchivia& engine, const TrustOptions& options) {
  auto* own = dynamic_cast<TSignEArchivia*>(&engine);
  if (!own) throw Exception("The engine was not made by GetSignEArchivia");
  own->FTrustOptions = options;
}

std::string TSignEArchivia::GeneraCertificato() {
  return TfrmGenerateCert::DoCreateCertificate();
}

}  // namespace tessarel
