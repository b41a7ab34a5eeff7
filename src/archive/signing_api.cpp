// The signing and checking functions of the public API.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "archive/envelope_layers.h"
#include "archive/envelope_report.h"
#include "boundary/batch_signer.h"
#include "cms/cms_verify.h"
#include "cms/envelope_input.h"
#include "platform/crypto/digest.h"
#include "platform/crypto/trust.h"
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
  VerifyOptions options;
  options.content_file = content_file;
  return VerifyEnvelopeWithOptions(envelope, options);
}

EnvelopeReport VerifyEnvelopeWithOptions(const std::string& envelope,
                                         const VerifyOptions& options) {
  std::unique_ptr<crypto::TrustStore> trust;
  if (options.trust.enabled()) trust = std::make_unique<crypto::TrustStore>(options.trust);
  std::unique_ptr<ExternalContent> given, beside;
  if (!options.content_file.empty())
    given = std::make_unique<ExternalContent>(options.content_file);
  std::vector<EnvelopeLayer> layers =
      OpenEnvelopeLayers(envelope, given.get(), options.content_beside, beside);
  EnvelopeReport r;
  r.trust_checked = trust != nullptr;
  r.valid = true;
  r.trusted = r.trust_checked;
  for (std::size_t i = 0; i < layers.size(); ++i) {
    TElSignedCMSMessage& m = *layers[i].message;
    CmsVerification v = VerifySignedMessage(m, layers[i].given, trust.get());
    EnvelopeLayerReport lr;
    lr.index = static_cast<int>(i) + 1;
    lr.input_form = m.FInputForm.Text();
    lr.valid = v.ok();
    lr.trusted = lr.valid && r.trust_checked;
    lr.detached = v.detached;
    lr.content_size = v.content_size;
    lr.content_is_envelope = layers[i].content_is_envelope;
    lr.problems = v.problems;
    lr.notes = layers[i].notes;
    for (const auto& s : v.signers) {
      if (!s.trusted()) lr.trusted = false;
      lr.signers.push_back(SignerReport(s));
    }
    r.valid = r.valid && lr.valid;
    r.trusted = r.trusted && lr.trusted;
    r.layers.push_back(std::move(lr));
  }
  const EnvelopeLayerReport& outer = r.layers.front();
  r.detached = outer.detached;
  r.content_size = outer.content_size;
  r.signers = outer.signers;
  r.problems = outer.problems;
  r.input_form = outer.input_form;
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

// The content into an output descriptor: large ranges of files are copied inside the
// kernel where the two files allow it; the rest (memory, decoded text, the small segments
// of BER content) is gathered into one buffer and written in large blocks.
std::uint64_t copy_content_to_fd(const TElCMSContent& content, int fd, const std::string& name) {
  constexpr std::size_t kBlock = 1 << 20;
  Bytes buffer(kBlock);
  std::size_t fill = 0;
  auto flush = [&] {
    const std::uint8_t* p = buffer.data();
    for (std::size_t k = fill; k;) {
      ssize_t w = ::write(fd, p, k);
      if (w < 0 && errno == EINTR) continue;
      if (w < 0) throw EInOutError("I/O error writing \"" + name + "\": " + std::strerror(errno));
      p += w;
      k -= static_cast<std::size_t>(w);
    }
    fill = 0;
  };
  std::uint64_t total = 0;
  for (const auto& s : content.sources()) {
    total += s.size;
    if (s.stream && s.stream->fd() >= 0 && s.size >= kBlock) {
      flush();
      if (CopyRange(s.stream->fd(), s.offset, s.size, fd, name)) continue;
    }
    for (std::uint64_t at = 0; at < s.size;) {
      std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(kBlock - fill, s.size - at));
      if (s.stream)
        s.stream->read(s.offset + at, buffer.data() + fill, n);
      else
        std::memcpy(buffer.data() + fill, s.memory + at, n);
      fill += n;
      at += n;
      if (fill == kBlock) flush();
    }
  }
  flush();
  return total;
}

void write_fd(int fd, const std::uint8_t* p, std::size_t k) {
  while (k) {
    ssize_t w = ::write(fd, p, k);
    if (w < 0 && errno == EINTR) continue;
    if (w < 0)
      throw EInOutError(std::string("I/O error writing the content: ") + std::strerror(errno));
    p += w;
    k -= static_cast<std::size_t>(w);
  }
}

// What extraction reads: writing the content over its own envelope would destroy the
// signature.
std::vector<GuardedInput> extraction_inputs(const std::string& envelope) {
  return {{envelope, "the envelope itself"}};
}

// The layer to extract (0: the innermost) among the envelope's layers.
std::vector<EnvelopeLayer> layers_for_extraction(const std::string& envelope, int layer,
                                                 int& chosen) {
  if (layer < 0) throw Exception("Layers are counted from 1 (the outermost); 0 is the innermost");
  std::unique_ptr<ExternalContent> none;
  std::vector<EnvelopeLayer> layers = OpenEnvelopeLayers(envelope, nullptr, false, none);
  int count = static_cast<int>(layers.size());
  if (layer > count)
    throw Exception("The envelope " + envelope + " has " + std::to_string(count) +
                    (count == 1 ? " layer" : " layers") + ", not " + std::to_string(layer));
  chosen = layer == 0 ? count : layer;
  if (!layers[static_cast<std::size_t>(chosen - 1)].message->FEContentPresent)
    throw Exception(chosen == 1
                        ? "The envelope " + envelope + " carries no content (a detached signature)"
                        : "Layer " + std::to_string(chosen) + " of " + envelope +
                              " carries no content (a detached signature)");
  return layers;
}

}  // namespace

std::string EnvelopeContentName(const std::string& envelope, int layers) {
  std::string name = envelope;
  int removed = 0;
  auto base_starts = [&](std::size_t cut) { return cut > 0 && name[cut - 1] != '/'; };
  while (removed < layers && name.size() > 4 &&
         lower_ascii(name.substr(name.size() - 4)) == ".p7m" && base_starts(name.size() - 4)) {
    name.resize(name.size() - 4);
    ++removed;
  }
  if (removed == 0) {
    auto dot = name.rfind('.');
    auto slash = name.rfind('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash) ||
        !base_starts(dot))
      throw Exception("Cannot derive the content's name from " + envelope +
                      ": give an output file");
    name.resize(dot);
  }
  return name;
}

std::uint64_t ExtractEnvelopeContent(const std::string& envelope, const std::string& output) {
  auto message = open_attached(envelope);
  OutputReplacement writer(output, extraction_inputs(envelope));
  std::uint64_t n = copy_content(*message->FContent,
                                 [&](const std::uint8_t* p, std::size_t k) { writer.write(p, k); });
  writer.commit();
  return n;
}

std::uint64_t ExtractEnvelopeContentToFd(const std::string& envelope, int fd) {
  RefuseOutputOntoInputs(fd, "the output", extraction_inputs(envelope));
  auto message = open_attached(envelope);
  return copy_content(*message->FContent,
                      [&](const std::uint8_t* p, std::size_t k) { write_fd(fd, p, k); });
}

ExtractedContent ExtractEnvelopeLayer(const std::string& envelope, const std::string& output,
                                      int layer) {
  ExtractedContent r;
  std::vector<EnvelopeLayer> layers = layers_for_extraction(envelope, layer, r.layer);
  r.layers = static_cast<int>(layers.size());
  r.output = output.empty() ? EnvelopeContentName(envelope, r.layer) : output;
  OutputReplacement writer(r.output, extraction_inputs(envelope));
  r.size = copy_content_to_fd(*layers[static_cast<std::size_t>(r.layer - 1)].message->FContent,
                              writer.fd(), r.output);
  writer.commit();
  return r;
}

ExtractedContent ExtractEnvelopeLayerToFd(const std::string& envelope, int fd, int layer) {
  RefuseOutputOntoInputs(fd, "the output", extraction_inputs(envelope));
  ExtractedContent r;
  std::vector<EnvelopeLayer> layers = layers_for_extraction(envelope, layer, r.layer);
  r.layers = static_cast<int>(layers.size());
  r.size = copy_content_to_fd(*layers[static_cast<std::size_t>(r.layer - 1)].message->FContent, fd,
                              "standard output");
  return r;
}

}  // namespace tessarel
