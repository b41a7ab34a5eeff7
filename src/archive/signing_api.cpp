// The signing and checking functions of the public API.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "boundary/batch_signer.h"
#include "cms/cms_verify.h"
#include "platform/crypto/digest.h"
#include "platform/runtime/datetime.h"
#include "platform/runtime/files.h"
#include "platform/runtime/strings.h"
#include "tessarel/errors.h"
#include "tessarel/signing.h"
#include "tessarel/ui.h"

namespace tessarel {

std::vector<std::string> SignFiles(const std::vector<std::string>& files, const std::string& idCert,
                                   bool detached, bool progress) {
  if (files.empty()) return {};
  std::string list;
  for (const auto& f : files) {
    if (f.find_first_of("\r\n") != std::string::npos)
      throw Exception("File names with line breaks cannot be signed: " + f);
    list += f + "\n";
  }
  Ui* ui = progress ? &currentUi() : nullptr;
  int last_percent = -1;
  auto bytes = [&](std::uint64_t done, std::uint64_t total) {
    int percent = total ? static_cast<int>(done * 100 / total) : 100;
    if (percent != last_percent && ui)
      ui->progress_text("hashing " + std::to_string(percent) + "%");
    last_percent = percent;
  };
  auto result =
      FirmaFiles(list, list, idCert, detached, ui, progress ? std::function(bytes) : nullptr);
  if (!result)
    throw Exception(idCert.empty()
                        ? "No certificate with a usable private key in the store"
                        : "Certificate " + idCert + " not found, or its private key is not usable");
  return StringList(*result).items();
}

EnvelopeReport VerifyEnvelope(const std::string& envelope, const std::string& content_file) {
  TElSignedCMSMessage message;
  message.Open(std::make_shared<asn1::FileSource>(envelope));
  std::unique_ptr<TElCMSContent> external;
  if (!content_file.empty()) {
    auto source = std::make_shared<asn1::FileSource>(content_file);
    external = std::make_unique<TElCMSContent>();
    external->Init(source, 0, source->size());
  }
  CmsVerification v = VerifySignedMessage(message, external.get());
  EnvelopeReport r;
  r.valid = v.ok();
  r.detached = v.detached;
  r.content_size = v.content_size;
  r.problems = v.problems;
  for (const auto& s : v.signers) {
    EnvelopeSignerReport e;
    e.index = s.index;
    if (s.certificate) {
      e.certificate_id = s.certificate->id();
      e.subject = s.certificate->subject_text();
      e.issuer = s.certificate->issuer_text();
    }
    e.digest_algorithm = crypto::digest_name(s.digest);
    if (s.signing_time != 0) {
      CivilTime c = DecodeDateTime(s.signing_time);
      char buf[40];
      std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02dZ", c.year, c.month, c.day,
                    c.hour, c.minute, c.second);
      e.signing_time = buf;
    }
    e.signature_valid = s.signature_valid;
    e.digest_checked = s.digest_checked;
    e.digest_matches = s.digest_matches;
    e.content_type_matches = s.content_type_matches;
    e.signing_certificate_present = s.signing_certificate_present;
    e.signing_certificate_matches = s.signing_certificate_matches;
    e.cades_bes = s.cades_bes;
    e.weak_algorithm = s.weak_algorithm;
    e.problems = s.problems;
    r.signers.push_back(std::move(e));
  }
  return r;
}

namespace {

// The envelope opened for extraction: it must carry its content.
std::unique_ptr<TElSignedCMSMessage> open_attached(const std::string& envelope) {
  auto message = std::make_unique<TElSignedCMSMessage>();
  message->Open(std::make_shared<asn1::FileSource>(envelope));
  if (!message->FEContentPresent)
    throw Exception("The envelope " + envelope + " carries no content (a detached signature)");
  return message;
}

template <typename Write>
std::uint64_t copy_content(const TElCMSContent& content, Write&& write) {
  Bytes buffer(1 << 20);
  std::uint64_t at = 0;
  while (at < content.Size()) {
    std::size_t n = content.Read(buffer.data(), buffer.size(), at);
    if (n == 0) throw EElCMSError("Unexpected end of data");
    write(buffer.data(), n);
    at += n;
  }
  return at;
}

}  // namespace

std::uint64_t ExtractEnvelopeContent(const std::string& envelope, const std::string& output) {
  // Writing the content over its own envelope would destroy the signature.
  if (SameFile(envelope, output))
    throw Exception("The output " + output + " is the envelope itself; choose another file");
  auto message = open_attached(envelope);
  OutputReplacement writer(output);
  std::uint64_t n = copy_content(*message->FContent,
                                 [&](const std::uint8_t* p, std::size_t k) { writer.write(p, k); });
  writer.commit();
  return n;
}

std::uint64_t ExtractEnvelopeContentToFd(const std::string& envelope, int fd) {
  struct stat out {
  }, in{};
  if (::fstat(fd, &out) == 0 && ::stat(envelope.c_str(), &in) == 0 && S_ISREG(out.st_mode) &&
      out.st_dev == in.st_dev && out.st_ino == in.st_ino)
    throw Exception("The output is the envelope " + envelope + " itself; choose another file");
  auto message = open_attached(envelope);
  return copy_content(*message->FContent, [&](const std::uint8_t* p, std::size_t k) {
    while (k) {
      ssize_t w = ::write(fd, p, k);
      if (w < 0 && errno == EINTR) continue;
      if (w < 0)
        throw EInOutError(std::string("I/O error writing the content: ") + std::strerror(errno));
      p += w;
      k -= static_cast<std::size_t>(w);
    }
  });
}

}  // namespace tessarel
