// Taking an enveloped XML signature out of a document held in memory.
#pragma once

#include "platform/xml/dom.h"

namespace tessarel {

// Removes the ds:Signature at or below the given node's top element. Silent: no signature
// means no change, and a signature that cannot be loaded or removed stays.
void RimuoviFirmaXml(xml::Node node);

}  // namespace tessarel
