// Envelopes inside envelopes: one reader for every place that checks an envelope, so that
// `verify`, `extract` and the archive check see the same layers.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "cms/cms.h"

namespace tessarel {

// How many envelopes inside envelopes are opened at most.
inline constexpr int kMaxEnvelopeLayers = 8;

// Content given from outside: a file opened once, read as a source and as content.
struct ExternalContent {
  std::shared_ptr<asn1::FileSource> source;
  TElCMSContent content;
  explicit ExternalContent(const std::string& path);
};

// One envelope of a nest, with the content given from outside for it (the data of a
// detached layer, or the bytes the innermost content must equal).
struct EnvelopeLayer {
  std::unique_ptr<TElSignedCMSMessage> message;
  const TElCMSContent* given = nullptr;
  bool content_is_envelope = false;
  std::vector<std::string> notes;
};

// Where the data of a detached signature found as layer `layer` (1 the outermost) of the
// envelope file lies: the name without one .p7m or .p7s per attached layer around it, then
// without its last extension (x.pdf for x.pdf.p7s and for x.pdf.p7s.p7m); "" when the name
// does not allow it.
std::string DetachedDataBeside(const std::string& envelope, int layer);

// Opens the envelope and every envelope nested in its content, outermost first. The data
// of a detached layer is the given content, else (with look_beside) the file beside it,
// opened only then and kept in beside; a given content that no detached layer took belongs
// to the innermost layer.
std::vector<EnvelopeLayer> OpenEnvelopeLayers(const std::string& path, ExternalContent* given,
                                              bool look_beside,
                                              std::unique_ptr<ExternalContent>& beside);

}  // namespace tessarel
