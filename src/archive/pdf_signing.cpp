// Signing PDF documents: FirmaPdf for hosts, SignPdf for the command line.
#include "archive/pdf_signing.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <optional>

#include "archive/sign_e_archivia.h"
#include "cms/cms.h"
#include "platform/crypto/pkcs12.h"
#include "platform/pdf/pdf_text.h"
#include "platform/pdf/pdf_update.h"
#include "platform/runtime/datetime.h"
#include "platform/runtime/files.h"
#include "platform/runtime/scope.h"
#include "tessarel/pdf.h"
#include "tessarel/ui.h"

namespace tessarel {

namespace {

// The key of a PFX, held in memory for the one signature.
class PfxKey : public SigningKey {
 public:
  explicit PfxKey(crypto::PrivateKey key) : key_(std::move(key)) {}
  KeyKind kind() const override { return key_.kind(); }
  int bits() const override { return key_.bits(); }
  Bytes sign_digest(DigestAlgorithm alg, const Bytes& digest) const override {
    return key_.sign_digest(alg, digest);
  }

 private:
  crypto::PrivateKey key_;
};

// Stands in for the real key while the CMS value is sized: it answers with a placeholder of
// the largest size the real key can produce, so the size comes out without using the key.
class SizingKey : public SigningKey {
 public:
  explicit SizingKey(const SigningKey& real) : kind_(real.kind()), bits_(real.bits()) {}
  KeyKind kind() const override { return kind_; }
  int bits() const override { return bits_; }
  Bytes sign_digest(DigestAlgorithm, const Bytes&) const override {
    return Bytes(MaxSignatureSize(kind_, bits_), 0xFF);
  }

 private:
  KeyKind kind_;
  int bits_;
};

std::size_t der_length_size(std::size_t n) {
  return n < 0x80 ? 1 : n < 0x100 ? 2 : n < 0x10000 ? 3 : 4;
}

// Dss-Sig-Value: SEQUENCE of two INTEGERs as long as the group order, plus a sign byte.
std::size_t dss_signature_size(int order_bits) {
  std::size_t integer = static_cast<std::size_t>(order_bits + 7) / 8 + 1;
  std::size_t element = 1 + der_length_size(integer) + integer;
  return 1 + der_length_size(2 * element) + 2 * element;
}

void configure(TElCMSSignature* s, DateTime signing_time, bool pades) {
  s->FFingerprintAlgorithm = DigestAlgorithm::SHA256;
  s->SetDigestAlgorithm(DigestAlgorithm::SHA256);
  s->FUsePSS = false;
  // PAdES baseline: the time lives in the signature dictionary (/M), never in the CMS value.
  s->FSigningOptions = pades ? kPadesSigningOptions : kCadesBesSigningOptions;
  s->FSigningTime = signing_time;
  s->FContentType.clear();
}

// Copies the signed temporary file onto the destination. A regular destination is replaced
// atomically, so a failed copy leaves it as it was; data that existed is forced to disk
// before it is replaced. A link, a device or a hard-linked file keeps what it is.
void deliver(const std::string& temp, const std::string& dest) {
  bool existed = FileExists(dest);
  OutputReplacement writer(dest);
  InputFile in(temp);
  CopyAll(in, writer.fd(), dest);
  writer.commit(existed);
}

std::string compose_reason(const std::string& reason, const std::string& name) {
  if (!reason.empty() && !name.empty()) return reason + " di " + name;
  return reason;
}

PdfSignatureSettings settings_for(const std::string& reason, const std::string& name,
                                  bool invisible, const Certificate& cert) {
  PdfSignatureSettings s;
  s.reason = compose_reason(reason, name);
  s.name = name;
  // Without a name the visible text names the certificate's holder.
  if (!invisible) s.display = "Firmato: " + (name.empty() ? cert.subject_cn() : name);
  return s;
}

PdfSigner from_pfx(const Bytes& pfx, const std::string& password) {
  crypto::Pkcs12Contents c = crypto::read_pkcs12(pfx, password);
  return {c.certificate, std::make_shared<PfxKey>(std::move(c.key)), c.chain};
}

}  // namespace

std::size_t MaxSignatureSize(KeyKind kind, int bits) {
  switch (kind) {
    case KeyKind::Rsa:
    case KeyKind::RsaPss:
      return static_cast<std::size_t>(bits + 7) / 8;
    case KeyKind::Ec:
      return dss_signature_size(bits);
    case KeyKind::Dsa:
      // The subgroup order is 160 bits for 1024-bit keys and at most 256 bits above.
      return dss_signature_size(bits <= 1024 ? 160 : 256);
    default:
      return 1024;
  }
}

std::string SignPdfDocument(pdf::Document& doc, const std::string& path, const PdfSigner& signer,
                            const PdfSignatureSettings& settings) {
  auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  DateTime signing_time = DateTimeFromSys(now);

  // The CMS value's size, computed with a placeholder signature of the key's largest size.
  std::size_t cms_size = 0;
  {
    static const std::uint8_t kNothing = 0;
    TElSignedCMSMessage sizing;
    sizing.FDetached = true;
    sizing.CreateNew(&kNothing, 0);
    TElCMSSignature* s = sizing.GetSignature(sizing.AddSignature());
    configure(s, signing_time, settings.pades);
    std::unique_ptr<SizingKey> key =
        signer.key ? std::make_unique<SizingKey>(*signer.key) : nullptr;
    s->Sign(signer.cert, key.get(), signer.chain);
    cms_size = sizing.SaveToBytes().size();
  }

  pdf::SignatureRequest request;
  request.sub_filter = settings.pades ? "ETSI.CAdES.detached" : "adbe.pkcs7.detached";
  request.name = settings.name;
  request.reason = settings.reason;
  request.date = pdf::pdf_date(now.time_since_epoch().count());
  request.appearance_text = settings.display;
  request.contents_size = cms_size;
  pdf::PreparedSignature prepared = pdf::prepare_signature(doc, request);

  // One pass over the document: the original bytes from the file, the update from memory.
  auto file = std::make_shared<asn1::FileSource>(path);
  if (file->size() != prepared.base)
    throw EInOutError("I/O error reading \"" + path + "\": the file changed while being signed");
  auto update = std::make_shared<asn1::MemorySource>(prepared.update);
  TElSignedCMSMessage message;
  message.FDetached = true;
  message.CreateNew(file, 0, prepared.base);
  message.FContent->Add(update, 0, prepared.contents - prepared.base);
  message.FContent->Add(update, prepared.contents_end - prepared.base,
                        prepared.total() - prepared.contents_end);
  TElCMSSignature* s = message.GetSignature(message.AddSignature());
  configure(s, signing_time, settings.pades);
  s->OnProgress = settings.progress;
  s->Sign(signer.cert, signer.key.get(), signer.chain);
  pdf::put_contents(prepared, message.SaveToBytes());
  pdf::append_update(path, prepared);
  return prepared.field;
}

bool TSignEArchivia::FirmaPdf(const std::string& fname, const std::string& fnamedest,
                              const std::string& reason, const std::string& pazname,
                              std::istream* stream, bool passw, const std::string& certCA,
                              bool certInvisible) {
  bool result = false;
  Ui& ui = currentUi();
  auto error_box = [&](const std::string& text) {
    ui.message_box(MessageKind::Error, MessageButtons::Ok, text);
  };
  Bytes pfx;
  ScopeExit wipe_pfx([&] { wipe(pfx); });
  if (certCA.empty()) {
    if (stream) pfx = ReadStream(*stream);
    if (pfx.empty()) return false;
  }

  std::string temp;
  try {
    temp = GenerateTempFilename();
  } catch (const std::exception&) {
    error_box("Errore nella creazione del file temporaneo");
    return false;
  }
  ScopeExit remove_temp([&] { ::unlink(temp.c_str()); });
  try {
    CopyFileStream(fname, temp);
  } catch (const std::exception&) {
    error_box("Errore nella creazione del file temporaneo");
    return false;
  }

  try {
    auto doc = pdf::Document::open(temp, {}, fname);
    std::optional<PdfSigner> signer;
    if (certCA.empty()) {
      std::string password;
      ScopeExit wipe_password([&] { wipe(password); });
      if (passw) {
        TPasswordRequestForm form;
        if (ui.password(form) != ModalResult::Ok) return false;
        password = form.edtPassword;
      }
      signer = from_pfx(pfx, password);
    } else {
      auto store = personal_store();
      for (const Certificate& c : store->certificates()) {
        if (c.id() != certCA) continue;
        signer = PdfSigner{c, store->signing_key(c), {}};
        break;
      }
      if (!signer) {
        error_box("Certificato non trovato");
        return false;
      }
    }
    SignPdfDocument(*doc, temp, *signer,
                    settings_for(reason, pazname, certInvisible, signer->cert));
    result = true;
  } catch (const pdf::PdfEncryptedError&) {
    error_box("Cannot sign the encrypted document");
    return false;
  } catch (const std::exception& e) {
    error_box(std::string("Error: ") + e.what());
    result = false;
  }

  if (result) {
    try {
      deliver(temp, fnamedest.empty() ? fname : fnamedest);
    } catch (const std::exception&) {
      error_box("Failed to save temporary file");
    }
  }
  return result;
}

namespace {

// What the output may not be written over: the files this signing reads, the document
// itself (unless it is signed in place) and, when the key comes from it, the store.
std::vector<GuardedInput> guarded_inputs(const std::string& input, const std::string& output,
                                         const PdfSignOptions& options, CertStore* store) {
  std::vector<GuardedInput> guarded = options.inputs;
  if (!output.empty())
    guarded.push_back(
        {input, "the document being signed; leave the output out to sign it in place"});
  if (store)
    for (auto& f : store->files())
      guarded.push_back({f, "a file of the certificate store " + store->location()});
  return guarded;
}

PdfSigner signer_from_store(CertStore& store, const std::string& cert_id) {
  std::vector<Certificate> all = store.certificates();
  auto it = all.begin();
  if (!cert_id.empty())
    it = std::find_if(all.begin(), all.end(),
                      [&](const Certificate& c) { return c.id() == cert_id; });
  if (it == all.end())
    throw Exception(cert_id.empty()
                        ? "the personal store " + store.location() + " holds no certificate"
                        : "certificate " + cert_id + " is not in the personal store");
  std::unique_ptr<SigningKey> key = store.signing_key(*it);
  // Said before any copy is made, and as plainly as when files are signed (a token whose
  // PIN was not given has said so already).
  if (!key)
    throw Exception("Certificate " + it->id() + " not found, or its private key is not usable");
  return PdfSigner{*it, std::move(key), {}};
}

// Percent lines while the document is digested, each percentage once.
std::function<bool(std::uint64_t, std::uint64_t)> hashing_progress() {
  int last = -1;
  return [last](std::uint64_t done, std::uint64_t total) mutable {
    int percent = total ? static_cast<int>(done * 100 / total) : 100;
    if (percent != last) currentUi().progress_text("hashing " + std::to_string(percent) + "%");
    last = percent;
    return true;
  };
}

}  // namespace

PdfSignResult SignPdf(const std::string& input, const std::string& output,
                      const PdfSignOptions& options) {
  std::string dest = output.empty() ? input : output;
  std::shared_ptr<CertStore> store;
  if (options.pfx.empty()) store = personal_store();
  std::vector<GuardedInput> guarded = guarded_inputs(input, output, options, store.get());
  RefuseOutputOntoInputs(dest, guarded);

  // The certificate first: a wrong password or identifier costs no copy of the document.
  std::optional<PdfSigner> signer;
  if (!options.pfx.empty())
    signer = from_pfx(options.pfx, options.pfx_password);
  else
    signer = signer_from_store(*store, options.cert_id);
  // A regular output is signed as a copy made beside it and renamed over it at the end: one
  // copy of the document instead of two, and readers of the output see the old file or the
  // signed one, never a part. Any other output (a device, a FIFO, a hard-linked file) gets
  // the signed document from a private temporary copy once it is complete. Replacing data
  // that existed is forced to disk first.
  bool existed = FileExists(dest);
  InputFile in(input);
  OutputReplacement writer(dest, guarded);
  std::string temp = writer.temp_path();
  std::string private_temp;
  ScopeExit remove_private([&] {
    if (!private_temp.empty()) ::unlink(private_temp.c_str());
  });
  if (writer.replaces()) {
    CopyAll(in, writer.fd(), temp);
  } else {
    private_temp = MakeTempFile("tessarel-pdf");
    temp = private_temp;
    OutputFile copy(temp, 0600);
    CopyAll(in, copy.fd(), temp);
    copy.close();
  }
  auto doc = pdf::Document::open(temp, {}, options.input_name.empty() ? input : options.input_name);

  PdfSignatureSettings settings =
      settings_for(options.reason, options.name, options.invisible, signer->cert);
  settings.pades = options.pades;
  if (options.progress) settings.progress = hashing_progress();
  PdfSignResult result;
  result.field = SignPdfDocument(*doc, temp, *signer, settings);
  result.signer = signer->cert.subject_text();
  result.output = dest;
  doc.reset();
  if (!writer.replaces()) {
    InputFile signed_copy(temp);
    CopyAll(signed_copy, writer.fd(), dest);
  }
  writer.commit(existed);
  struct stat st {};
  if (::stat(dest.c_str(), &st) == 0) result.size = static_cast<std::uint64_t>(st.st_size);
  return result;
}

}  // namespace tessarel
