#include "platform/xml/dom.h"

#include <libxml/c14n.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/tree.h>
#include <libxml/xmlsave.h>

#include <algorithm>
#include <cstring>

#include "platform/runtime/files.h"
#include "tessarel/errors.h"

namespace tessarel::xml {

namespace {

xmlNodePtr N(const Node& n) {
  return static_cast<xmlNodePtr>(n.raw());
}
const xmlChar* X(const std::string& s) {
  return reinterpret_cast<const xmlChar*>(s.c_str());
}
std::string S(const xmlChar* s) {
  return s ? reinterpret_cast<const char*>(s) : "";
}

std::string take(xmlChar* s) {
  std::string out = S(s);
  xmlFree(s);
  return out;
}

xmlAttrPtr nth_attribute(xmlNodePtr n, int index) {
  if (!n || n->type != XML_ELEMENT_NODE) return nullptr;
  xmlAttrPtr a = n->properties;
  for (int i = 0; a && i < index; ++i)
    a = a->next;
  return a;
}

struct ParseState {
  bool doctype = false;
  unsigned depth = 0;
  unsigned max_depth = 0;
  bool too_deep = false;
  startElementNsSAX2Func start = nullptr;
  endElementNsSAX2Func end = nullptr;
};

void refuse_doctype(void* ctx, const xmlChar*, const xmlChar*, const xmlChar*) {
  auto* ctxt = static_cast<xmlParserCtxtPtr>(ctx);
  static_cast<ParseState*>(ctxt->_private)->doctype = true;
  xmlStopParser(ctxt);
}

void start_element(void* ctx, const xmlChar* localname, const xmlChar* prefix, const xmlChar* uri,
                   int nb_namespaces, const xmlChar** namespaces, int nb_attributes,
                   int nb_defaulted, const xmlChar** attributes) {
  auto* ctxt = static_cast<xmlParserCtxtPtr>(ctx);
  auto* st = static_cast<ParseState*>(ctxt->_private);
  if (++st->depth > st->max_depth) {
    st->too_deep = true;
    xmlStopParser(ctxt);
    return;
  }
  st->start(ctx, localname, prefix, uri, nb_namespaces, namespaces, nb_attributes, nb_defaulted,
            attributes);
}

void end_element(void* ctx, const xmlChar* localname, const xmlChar* prefix, const xmlChar* uri) {
  auto* ctxt = static_cast<xmlParserCtxtPtr>(ctx);
  auto* st = static_cast<ParseState*>(ctxt->_private);
  --st->depth;
  st->end(ctx, localname, prefix, uri);
}

// Nothing outside the document is ever read. Set on each parser's own SAX handler: the
// process-wide loader of libxml2 belongs to the host.
xmlParserInputPtr no_external_entity(void*, const xmlChar*, const xmlChar*) {
  return nullptr;
}
void no_external_subset(void*, const xmlChar*, const xmlChar*, const xmlChar*) {}

int write_to_function(void* ctx, const char* buffer, int len) {
  (*static_cast<const std::function<void(const char*, std::size_t)>*>(ctx))(
      buffer, static_cast<std::size_t>(len));
  return len;
}
int close_nothing(void*) {
  return 0;
}

}  // namespace

// ---- Node ----

NodeType Node::type() const {
  switch (N(*this)->type) {
    case XML_ELEMENT_NODE:
      return NodeType::Element;
    case XML_TEXT_NODE:
      return NodeType::Text;
    case XML_PI_NODE:
      return NodeType::ProcessingInstruction;
    case XML_COMMENT_NODE:
      return NodeType::Comment;
    case XML_CDATA_SECTION_NODE:
      return NodeType::CData;
    case XML_DOCUMENT_NODE:
      return NodeType::Document;
    default:
      return NodeType::Other;
  }
}

std::string Node::name() const {
  xmlNodePtr n = N(*this);
  if (!n || !n->name) return "";
  if (n->type == XML_ELEMENT_NODE && n->ns && n->ns->prefix)
    return S(n->ns->prefix) + ":" + S(n->name);
  return S(n->name);
}

std::string Node::local_name() const {
  return N(*this) ? S(N(*this)->name) : "";
}

std::string Node::namespace_uri() const {
  xmlNodePtr n = N(*this);
  return n && n->type == XML_ELEMENT_NODE && n->ns ? S(n->ns->href) : "";
}

std::string Node::text() const {
  xmlNodePtr n = N(*this);
  if (!n) return "";
  if (n->type == XML_TEXT_NODE || n->type == XML_PI_NODE || n->type == XML_COMMENT_NODE ||
      n->type == XML_CDATA_SECTION_NODE)
    return S(n->content);
  return take(xmlNodeGetContent(n));
}

void Node::set_text(const std::string& text) {
  xmlNodePtr n = N(*this);
  if (n->type == XML_ELEMENT_NODE) {
    xmlNodeSetContent(n, nullptr);
    xmlNodeAddContent(n, X(text));
  } else {
    xmlNodeSetContent(n, X(text));
  }
}

Node Node::parent() const {
  return Node(N(*this) ? N(*this)->parent : nullptr);
}
Node Node::first_child() const {
  return Node(N(*this) ? N(*this)->children : nullptr);
}
Node Node::last_child() const {
  return Node(N(*this) ? N(*this)->last : nullptr);
}
Node Node::next_sibling() const {
  return Node(N(*this) ? N(*this)->next : nullptr);
}
Node Node::previous_sibling() const {
  return Node(N(*this) ? N(*this)->prev : nullptr);
}

Node Node::find_child(const std::string& name) const {
  for (Node c = first_child(); c; c = c.next_sibling())
    if (c.is_element() && c.name() == name) return c;
  return Node();
}

std::vector<Node> Node::children() const {
  std::vector<Node> out;
  for (Node c = first_child(); c; c = c.next_sibling())
    out.push_back(c);
  return out;
}

bool Node::has_element_children() const {
  for (Node c = first_child(); c; c = c.next_sibling())
    if (c.is_element()) return true;
  return false;
}

int Node::attribute_count() const {
  int n = 0;
  for (xmlAttrPtr a = N(*this) && N(*this)->type == XML_ELEMENT_NODE ? N(*this)->properties
                                                                     : nullptr;
       a; a = a->next)
    ++n;
  return n;
}

std::string Node::attribute_name(int index) const {
  xmlAttrPtr a = nth_attribute(N(*this), index);
  if (!a) return "";
  if (a->ns && a->ns->prefix) return S(a->ns->prefix) + ":" + S(a->name);
  return S(a->name);
}

std::string Node::attribute_value(int index) const {
  xmlAttrPtr a = nth_attribute(N(*this), index);
  return a ? take(xmlNodeListGetString(a->doc, a->children, 1)) : "";
}

bool Node::has_attribute(const std::string& name) const {
  return N(*this) && N(*this)->type == XML_ELEMENT_NODE && xmlHasProp(N(*this), X(name)) != nullptr;
}

std::string Node::attribute(const std::string& name) const {
  if (!has_attribute(name)) return "";
  return take(xmlGetProp(N(*this), X(name)));
}

void Node::set_attribute(const std::string& name, const std::string& value) {
  if (!xmlSetProp(N(*this), X(name), X(value)))
    throw EElXMLSecurityError("Cannot set attribute " + name);
}

void Node::append_child(Node child) {
  xmlUnlinkNode(N(child));
  // Appending a text node next to another must not merge them: keep each node.
  xmlNodePtr p = N(*this), c = N(child);
  c->parent = p;
  c->doc = p->doc;
  c->next = nullptr;
  c->prev = p->last;
  if (p->last)
    p->last->next = c;
  else
    p->children = c;
  p->last = c;
}

void Node::insert_before(Node child, Node reference) {
  if (!reference) {
    append_child(child);
    return;
  }
  xmlUnlinkNode(N(child));
  xmlNodePtr r = N(reference), c = N(child);
  c->parent = r->parent;
  c->doc = r->doc;
  c->next = r;
  c->prev = r->prev;
  if (r->prev)
    r->prev->next = c;
  else if (r->parent)
    r->parent->children = c;
  r->prev = c;
}

void Node::unlink() {
  xmlUnlinkNode(N(*this));
}

void Node::remove() {
  xmlNodePtr n = N(*this);
  if (!n) return;
  xmlUnlinkNode(n);
  xmlFreeNode(n);
  raw_ = nullptr;
}

void Node::replace_with(Node other) {
  insert_before(other, *this);
  remove();
}

// ---- Document ----

Document::Document() : doc_(xmlNewDoc(reinterpret_cast<const xmlChar*>("1.0"))) {}

Document::~Document() {
  if (doc_) xmlFreeDoc(static_cast<xmlDocPtr>(doc_));
}

namespace {
// One parse with the safety rules; read runs the parser over the input.
std::unique_ptr<xmlDoc, void (*)(xmlDocPtr)> safe_parse(
    const ParseLimits& limits, const std::function<xmlDocPtr(xmlParserCtxtPtr, int)>& read) {
  xmlParserCtxtPtr ctxt = xmlNewParserCtxt();
  if (!ctxt) throw EElXMLSecurityError("Cannot create an XML parser");
  ParseState state;
  state.max_depth = limits.max_depth;
  state.start = ctxt->sax->startElementNs;
  state.end = ctxt->sax->endElementNs;
  ctxt->_private = &state;
  ctxt->sax->internalSubset = refuse_doctype;
  ctxt->sax->externalSubset = no_external_subset;
  ctxt->sax->resolveEntity = no_external_entity;
  ctxt->sax->startElementNs = start_element;
  ctxt->sax->endElementNs = end_element;
  // No NOENT, no DTDLOAD, no HUGE; errors are returned, not printed. COMPACT keeps short
  // texts inside their nodes: one allocation fewer per attribute-heavy record.
  int options = XML_PARSE_NONET | XML_PARSE_NOCDATA | XML_PARSE_NOERROR | XML_PARSE_NOWARNING |
                XML_PARSE_COMPACT;
  xmlDocPtr doc = read(ctxt, options);
  std::string reason;
  if (state.doctype) {
    reason = "documents with a DOCTYPE are not accepted";
  } else if (state.too_deep) {
    reason = "elements nested deeper than " + std::to_string(limits.max_depth) + " levels";
  } else if (!doc || !ctxt->wellFormed) {
    const xmlError* e = xmlCtxtGetLastError(ctxt);
    reason = e && e->message ? S(reinterpret_cast<const xmlChar*>(e->message)) : "not well-formed";
    while (!reason.empty() && (reason.back() == '\n' || reason.back() == ' '))
      reason.pop_back();
    if (e)
      reason += " (line " + std::to_string(e->line) + ", column " + std::to_string(e->int2) + ")";
  }
  xmlFreeParserCtxt(ctxt);
  if (!reason.empty()) {
    if (doc) xmlFreeDoc(doc);
    throw EElXMLSecurityError("XML parse error: " + reason);
  }
  return {doc, xmlFreeDoc};
}
}  // namespace

std::unique_ptr<Document> Document::Parse(const std::uint8_t* data, std::size_t size,
                                          const std::string& encoding, const ParseLimits& limits) {
  if (size > limits.max_bytes)
    throw EElXMLSecurityError("XML document of " + std::to_string(size) +
                              " bytes is larger than the limit of " +
                              std::to_string(limits.max_bytes));
  if (size == 0) throw EElXMLSecurityError("XML parse error: the document is empty");
  auto doc = safe_parse(limits, [&](xmlParserCtxtPtr ctxt, int options) {
    return xmlCtxtReadMemory(ctxt, reinterpret_cast<const char*>(data), static_cast<int>(size),
                             nullptr, encoding.empty() ? nullptr : encoding.c_str(), options);
  });
  return std::unique_ptr<Document>(new Document(doc.release()));
}

std::unique_ptr<Document> Document::ParseFd(int fd, std::uint64_t size, const std::string& name,
                                            const std::string& encoding,
                                            const ParseLimits& limits) {
  if (size > limits.max_bytes)
    throw EElXMLSecurityError("XML document " + name + " of " + std::to_string(size) +
                              " bytes is larger than the limit of " +
                              std::to_string(limits.max_bytes));
  if (size == 0) throw EElXMLSecurityError("XML parse error: the document is empty");
  auto doc = safe_parse(limits, [&](xmlParserCtxtPtr ctxt, int options) {
    // libxml2 closes nothing it did not open: the caller keeps its descriptor.
    return xmlCtxtReadFd(ctxt, fd, nullptr, encoding.empty() ? nullptr : encoding.c_str(), options);
  });
  return std::unique_ptr<Document>(new Document(doc.release()));
}

std::unique_ptr<Document> Document::ParseFile(const std::string& path, const std::string& encoding,
                                              const ParseLimits& limits) {
  InputFile in(path);
  std::uint64_t size = in.size();
  if (size > limits.max_bytes)
    throw EElXMLSecurityError("XML document " + path + " of " + std::to_string(size) +
                              " bytes is larger than the limit of " +
                              std::to_string(limits.max_bytes));
  Bytes data(static_cast<std::size_t>(size));
  if (size) in.pread_exact(data.data(), data.size(), 0);
  return Parse(data.data(), data.size(), encoding, limits);
}

Node Document::root() const {
  return Node(xmlDocGetRootElement(static_cast<xmlDocPtr>(doc_)));
}

void Document::set_root(Node element) {
  xmlDocSetRootElement(static_cast<xmlDocPtr>(doc_), N(element));
}

Node Document::node() const {
  return Node(doc_);
}

Node Document::first_child() const {
  return Node(static_cast<xmlDocPtr>(doc_)->children);
}

Node Document::CreateElement(const std::string& name) {
  xmlNodePtr n = xmlNewDocNode(static_cast<xmlDocPtr>(doc_), nullptr, X(name), nullptr);
  if (!n) throw EElXMLSecurityError("Cannot create element " + name);
  return Node(n);
}

Node Document::CreateElementNS(const std::string& ns_uri, const std::string& prefix,
                               const std::string& local_name) {
  xmlNodePtr n = xmlNewDocNode(static_cast<xmlDocPtr>(doc_), nullptr, X(local_name), nullptr);
  if (!n) throw EElXMLSecurityError("Cannot create element " + local_name);
  xmlNsPtr ns = xmlNewNs(n, X(ns_uri), prefix.empty() ? nullptr : X(prefix));
  xmlSetNs(n, ns);
  return Node(n);
}

Node Document::CreateElementLike(Node like, const std::string& local_name) {
  xmlNodePtr n = xmlNewDocNode(static_cast<xmlDocPtr>(doc_), N(like)->ns, X(local_name), nullptr);
  if (!n) throw EElXMLSecurityError("Cannot create element " + local_name);
  return Node(n);
}

Node OwnerElement(Node node, Node parent) {
  xmlNodePtr n = N(node);
  if (!n || n->type == XML_NAMESPACE_DECL || n->type == XML_ATTRIBUTE_NODE) return parent;
  return node;
}

Node Document::FindById(const std::string& id) const {
  std::function<xmlNodePtr(xmlNodePtr)> walk = [&](xmlNodePtr n) -> xmlNodePtr {
    for (; n; n = n->next) {
      if (n->type != XML_ELEMENT_NODE) continue;
      for (const char* attr : {"Id", "ID", "id"}) {
        xmlChar* v = xmlGetNoNsProp(n, reinterpret_cast<const xmlChar*>(attr));
        bool match = v && id == reinterpret_cast<const char*>(v);
        xmlFree(v);
        if (match) return n;
      }
      if (xmlNodePtr found = walk(n->children)) return found;
    }
    return nullptr;
  };
  return Node(walk(static_cast<xmlDocPtr>(doc_)->children));
}

Node Document::CreateText(const std::string& text, bool raw) {
  xmlNodePtr n = xmlNewDocText(static_cast<xmlDocPtr>(doc_), X(text));
  if (!n) throw EElXMLSecurityError("Cannot create a text node");
  if (raw) n->name = xmlStringTextNoenc;
  return Node(n);
}

Node Document::CreateProcessingInstruction(const std::string& target, const std::string& data) {
  xmlNodePtr n = xmlNewDocPI(static_cast<xmlDocPtr>(doc_), X(target), X(data));
  if (!n) throw EElXMLSecurityError("Cannot create processing instruction " + target);
  return Node(n);
}

void Document::Serialize(const std::function<void(const char*, std::size_t)>& sink) const {
  xmlSaveCtxtPtr save =
      xmlSaveToIO(write_to_function, close_nothing,
                  const_cast<std::function<void(const char*, std::size_t)>*>(&sink), "UTF-8", 0);
  if (!save) throw EElXMLSecurityError("Cannot serialize the XML document");
  long rc = xmlSaveDoc(save, static_cast<xmlDocPtr>(doc_));
  if (xmlSaveClose(save) < 0 || rc < 0)
    throw EElXMLSecurityError("Cannot serialize the XML document");
}

std::string Document::Serialize() const {
  std::string out;
  Serialize([&](const char* p, std::size_t n) { out.append(p, n); });
  return out;
}

namespace {
struct Visibility {
  const std::function<bool(Node, Node)>* visible;
};
int visible_callback(void* user, xmlNodePtr node, xmlNodePtr parent) {
  auto* v = static_cast<Visibility*>(user);
  return (*v->visible)(Node(node), Node(parent)) ? 1 : 0;
}
}  // namespace

void Document::Canonicalize(const std::function<bool(Node, Node)>& visible,
                            const std::function<void(const char*, std::size_t)>& sink,
                            bool exclusive, bool with_comments) const {
  xmlOutputBufferPtr out = xmlOutputBufferCreateIO(
      write_to_function, close_nothing,
      const_cast<std::function<void(const char*, std::size_t)>*>(&sink), nullptr);
  if (!out) throw EElXMLSecurityError("Cannot canonicalize the XML document");
  Visibility v{&visible};
  int rc = xmlC14NExecute(static_cast<xmlDocPtr>(doc_), visible_callback, &v,
                          exclusive ? XML_C14N_EXCLUSIVE_1_0 : XML_C14N_1_0, nullptr,
                          with_comments ? 1 : 0, out);
  int closed = xmlOutputBufferClose(out);
  if (rc < 0 || closed < 0)
    throw EElXMLSecurityError("Canonicalization of the XML document failed");
}

namespace {

// Cuts nodes out of the tree for the length of a scope and puts them back exactly where they
// were, so that the canonicalizer, which walks every node of the document, walks fewer. The
// parent links stay: the namespaces and xml: attributes in scope are looked up through them.
class TreeCut {
 public:
  TreeCut() = default;
  TreeCut(const TreeCut&) = delete;
  TreeCut& operator=(const TreeCut&) = delete;
  ~TreeCut() {
    for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
      *it->where = it->value;
    }
  }
  // Takes n out of its parent's children.
  void remove(xmlNodePtr n) {
    xmlNodePtr parent = n->parent;
    if (n->prev)
      set(&n->prev->next, n->next);
    else
      set(&parent->children, n->next);
    if (n->next)
      set(&n->next->prev, n->prev);
    else
      set(&parent->last, n->prev);
  }
  // Leaves n as the only child of its parent.
  void keep_only(xmlNodePtr n) {
    xmlNodePtr parent = n->parent;
    set(&parent->children, n);
    set(&parent->last, n);
    set(&n->prev, nullptr);
    set(&n->next, nullptr);
  }

 private:
  void set(xmlNodePtr* where, xmlNodePtr value) {
    saved_.push_back({where, *where});
    *where = value;
  }
  struct Saved {
    xmlNodePtr* where;
    xmlNodePtr value;
  };
  std::vector<Saved> saved_;
};

bool cuttable(xmlNodePtr n) {
  return n && n->parent && n->type != XML_ATTRIBUTE_NODE && n->type != XML_NAMESPACE_DECL &&
         n->type != XML_DOCUMENT_NODE;
}

}  // namespace

void Document::CanonicalizeWithout(const std::vector<Node>& excluded,
                                   const std::function<void(const char*, std::size_t)>& sink,
                                   bool exclusive, bool with_comments) const {
  std::vector<xmlNodePtr> out;
  for (const auto& e : excluded) {
    xmlNodePtr n = N(e);
    if (!cuttable(n)) {
      // What cannot be cut out is filtered node by node.
      auto visible = [&](Node node, Node parent) {
        for (Node up = OwnerElement(node, parent); up; up = up.parent())
          for (const auto& x : excluded)
            if (up == x) return false;
        return true;
      };
      Canonicalize(visible, sink, exclusive, with_comments);
      return;
    }
    out.push_back(n);
  }
  // A node inside another that goes is gone with it; one listed twice goes once.
  TreeCut cut;
  for (std::size_t i = 0; i < out.size(); ++i) {
    xmlNodePtr n = out[i];
    bool gone = std::find(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(i), n) !=
                out.begin() + static_cast<std::ptrdiff_t>(i);
    for (xmlNodePtr up = n->parent; up && !gone; up = up->parent)
      gone = std::find(out.begin(), out.end(), up) != out.end();
    if (!gone) cut.remove(n);
  }
  xmlOutputBufferPtr buffer = xmlOutputBufferCreateIO(
      write_to_function, close_nothing,
      const_cast<std::function<void(const char*, std::size_t)>*>(&sink), nullptr);
  if (!buffer) throw EElXMLSecurityError("Cannot canonicalize the XML document");
  int rc = xmlC14NExecute(static_cast<xmlDocPtr>(doc_), nullptr, nullptr,
                          exclusive ? XML_C14N_EXCLUSIVE_1_0 : XML_C14N_1_0, nullptr,
                          with_comments ? 1 : 0, buffer);
  int closed = xmlOutputBufferClose(buffer);
  if (rc < 0 || closed < 0)
    throw EElXMLSecurityError("Canonicalization of the XML document failed");
}

std::string Document::CanonicalizeSubtree(Node element, bool exclusive, bool with_comments) const {
  xmlNodePtr top = N(element);
  // Only the path from the document down to the element is walked; everything beside it
  // would be invisible anyway.
  TreeCut cut;
  if (cuttable(top))
    for (xmlNodePtr n = top; n->parent && n->type != XML_DOCUMENT_NODE; n = n->parent)
      cut.keep_only(n);
  std::function<bool(Node, Node)> inside = [top](Node node, Node parent) {
    xmlNodePtr n = N(node);
    // Namespace and attribute nodes are judged by their element.
    if (!n || n->type == XML_NAMESPACE_DECL || n->type == XML_ATTRIBUTE_NODE) n = N(parent);
    for (; n; n = n->parent)
      if (n == top) return true;
    return false;
  };
  std::string out;
  Canonicalize(
      inside, [&](const char* p, std::size_t n) { out.append(p, n); }, exclusive, with_comments);
  return out;
}

bool Document::HasRawText() const {
  std::function<bool(xmlNodePtr)> walk = [&](xmlNodePtr n) {
    for (; n; n = n->next) {
      if (n->type == XML_TEXT_NODE && n->name == xmlStringTextNoenc) return true;
      if (n->children && n->type == XML_ELEMENT_NODE && walk(n->children)) return true;
    }
    return false;
  };
  return walk(static_cast<xmlDocPtr>(doc_)->children);
}

}  // namespace tessarel::xml
