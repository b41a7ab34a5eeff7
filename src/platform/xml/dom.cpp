#include "platform/xml/dom.h"

#include <libxml/tree.h>

namespace tessarel::xml {

struct Document::Impl {
  xmlDocPtr doc = nullptr;
  ~Impl() {
    if (doc) xmlFreeDoc(doc);
  }
};

Document::Document() : impl_(std::make_unique<Impl>()) {
  impl_->doc = xmlNewDoc(BAD_CAST "1.0");
}
Document::~Document() = default;

}  // namespace tessarel::xml
