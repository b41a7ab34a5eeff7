// XML documents over libxml2. Only src/platform/xml includes libxml2 headers.
#pragma once

#include <memory>

namespace tessarel::xml {

// An XML document held in memory; owns the libxml2 document.
class Document {
 public:
  Document();
  ~Document();
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

  struct Impl;
  Impl& impl() { return *impl_; }

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace tessarel::xml
