#include "boundary/xml_signature_removal.h"

#include "xmlsig/xml_signature.h"

namespace tessarel {

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
  // Only the document's own signature goes; a record's signature is content.
  if (root.local_name() != "Signature") root = OwnSignature(root);
  if (!root) return;
  TElXMLVerifier verifier;
  try {
    verifier.Load(root);
    verifier.RemoveSignature();
  } catch (const std::exception&) {
    // A signature that cannot be loaded or removed stays; nothing is reported.
  }
}

}  // namespace tessarel
