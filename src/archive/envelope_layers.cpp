#include "archive/envelope_layers.h"

#include "cms/envelope_input.h"
#include "platform/runtime/files.h"
#include "platform/runtime/strings.h"

namespace tessarel {

ExternalContent::ExternalContent(const std::string& path)
    : source(std::make_shared<asn1::FileSource>(path)) {
  content.Init(source, 0, source->size());
}

std::string DetachedDataBeside(const std::string& envelope, int layer) {
  std::string name = envelope;
  for (int i = 1; i < layer; ++i) {
    std::string ext = lower_ascii(ExtractFileExt(name));
    if (ext != ".p7m" && ext != ".p7s") return "";
    name = RemoveLastExt(name);
  }
  std::string data = RemoveLastExt(name);
  return data == name ? "" : data;
}

std::vector<EnvelopeLayer> OpenEnvelopeLayers(const std::string& path, ExternalContent* given,
                                              bool look_beside,
                                              std::unique_ptr<ExternalContent>& beside) {
  std::vector<EnvelopeLayer> out;
  EnvelopeLayer first;
  first.message = std::make_unique<TElSignedCMSMessage>();
  first.message->Open(std::make_shared<asn1::FileSource>(path));
  out.push_back(std::move(first));
  bool external_used = false;
  while (true) {
    EnvelopeLayer& l = out.back();
    std::shared_ptr<const asn1::ByteSource> next;
    if (l.message->FEContentPresent) {
      next = l.message->ContentSource();
    } else if (!external_used) {
      ExternalContent* external = given;
      if (!external && look_beside) {
        std::string data = DetachedDataBeside(path, static_cast<int>(out.size()));
        if (!data.empty() && FileExists(data)) {
          beside = std::make_unique<ExternalContent>(data);
          external = beside.get();
        }
      }
      if (external) {
        l.given = &external->content;
        external_used = true;
        next = external->source;
      }
    }
    if (!next || next->size() == 0 || !LooksLikeEnvelope(*next)) break;
    if (static_cast<int>(out.size()) >= kMaxEnvelopeLayers) {
      l.notes.push_back("more envelopes are nested in the content; only " +
                        std::to_string(kMaxEnvelopeLayers) + " layers are read");
      break;
    }
    auto inner = std::make_unique<TElSignedCMSMessage>();
    try {
      inner->Open(next);
    } catch (const EElCMSError& e) {
      std::string why = e.what();
      l.notes.push_back("the content looks like an envelope but cannot be read as one: " +
                        why.substr(0, why.find('\n')));
      break;
    }
    l.content_is_envelope = true;
    EnvelopeLayer nested;
    nested.message = std::move(inner);
    out.push_back(std::move(nested));
  }
  if (given && !external_used) out.back().given = &given->content;
  return out;
}

}  // namespace tessarel
