#include "boundary/batch_signer.h"

#include <unistd.h>

#include <cstdio>
#include <memory>

#include "boundary/cert_lookup.h"
#include "cms/cms.h"
#include "platform/asn1/ber.h"
#include "platform/asn1/der.h"
#include "platform/runtime/datetime.h"
#include "platform/runtime/files.h"
#include "platform/runtime/strings.h"

namespace tessarel {

std::optional<std::string> FirmaFiles(
    const std::string& fpath, const std::string& outPaths, const std::string& idCert, bool detached,
    Ui* progress, const std::function<void(std::uint64_t, std::uint64_t)>& bytes_progress) {
  StringList inputs(fpath);
  StringList outputs(outPaths);
  const Certificate* found = TrovaCertificato(idCert);
  if (!found) return std::nullopt;
  Certificate cert = *found;
  // The key is loaded once for the whole batch.
  std::shared_ptr<SigningKey> key = ChiaveDiFirma(cert);
  if (!key) return std::nullopt;

  TElSignedCMSMessage message;
  message.FDetached = detached;
  for (int i = 0; i < inputs.Count(); ++i) {
    const std::string& input = inputs[i];
    if (!FileExists(input)) continue;
    if (progress) {
      char counter[64];
      std::snprintf(counter, sizeof counter, "%d/%d ", i + 1, inputs.Count());
      progress->progress_text(counter + input);
    }
    // Small files are read whole; large ones are read from disk while hashing and writing.
    Bytes content;
    auto file = std::make_shared<asn1::FileSource>(input);
    if (file->size() <= kStreamingThreshold) {
      content.resize(static_cast<std::size_t>(file->size()));
      if (!content.empty()) file->file().pread_exact(content.data(), content.size(), 0);
      message.CreateNew(content.data(), content.size());
    } else {
      message.CreateNew(file, 0, file->size());
    }
    int index = message.AddSignature();
    TElCMSSignature* sig = message.GetSignature(index);
    if (!sig) {
      currentUi().message_box(MessageKind::Error, MessageButtons::Ok,
                              "Errore nella funzione AddSignature  " + fpath);
      return std::nullopt;
    }
    sig->FFingerprintAlgorithm = DigestAlgorithm::SHA256;
    sig->SetDigestAlgorithm(DigestAlgorithm::SHA256);
    sig->FUsePSS = false;
    sig->FSigningOptions = 0x00BF;
    sig->FSigningTime = UTCNow();
    sig->FContentType = asn1::encode_oid(cms_oid::kData);
    if (bytes_progress && file->size() > kStreamingThreshold)
      sig->OnProgress = [&](std::uint64_t done, std::uint64_t total) {
        bytes_progress(done, total);
        return true;
      };
    sig->Sign(cert, key.get());

    std::string& out = outputs.at(i);
    out += detached ? ".p7s" : ".p7m";
    // A new or lone envelope file is written under a temporary name and renamed into place,
    // so a failure leaves no half envelope and an older envelope as it was; an envelope name
    // that leads back to the file being signed (a link) is refused, since writing would
    // destroy what is signed. Links, devices and hard-linked files keep what they are.
    {
      OutputReplacement writer(out, {{input, "the file being signed"}});
      message.SaveToFile(writer.fd(), out);
      writer.commit();
    }
    message.Clear();
  }
  if (progress) progress->progress_text("Firma Terminata");
  if (outputs.Count() < 2) return outputs.Count() == 0 ? std::string() : outputs[0];
  return outputs.Text();
}

}  // namespace tessarel
