#include "boundary/xml_signature_removal.h"

#include "xmlsig/xml_signature.h"

namespace tessarel {

namespace {
bool has_signature_below(xml::Node n) {
  for (xml::Node c = n.first_child(); c; c = c.next_sibling()) {
    if (!c.is_element()) continue;
    if (c.local_name() == "Signature" && c.namespace_uri() == xml::kDsigNamespace) return true;
    if (has_signature_below(c)) return true;
  }
  return false;
}
}  // namespace

void RimuoviFirmaXml(xml::Node node) {
  if (!node) return;
  // Up to the first Signature element, a non-element or a parentless element.
  xml::Node at = node;
  while (at.is_element() && at.local_name() != "Signature" && at.parent())
    at = at.parent();
  xml::Node start = at.type() == xml::NodeType::Document ? node : at;
  xml::Node root = start;
  if (start.type() == xml::NodeType::Document) {
    root = xml::Node();
    for (xml::Node c = start.first_child(); c; c = c.next_sibling())
      if (c.is_element()) root = c;
  }
  if (!root || !root.is_element()) return;
  if (root.local_name() != "Signature" && !has_signature_below(root)) return;
  TElXMLVerifier verifier;
  try {
    verifier.Load(root);
    verifier.RemoveSignature();
  } catch (const std::exception&) {
    // A signature that cannot be loaded or removed stays; nothing is reported.
  }
}

}  // namespace tessarel
