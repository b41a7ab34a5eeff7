// XML documents over libxml2: a small DOM with ordered attributes, safe parsing of
// untrusted files, the library's serializer and Canonical XML 1.0. Only this folder
// includes libxml2 headers.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tessarel/types.h"

namespace tessarel::xml {

class Document;

enum class NodeType { Element, Text, ProcessingInstruction, Comment, CData, Document, Other };

// A handle to a node owned by its document. Copies refer to the same node.
class Node {
 public:
  Node() = default;
  explicit Node(void* raw) : raw_(raw) {}
  explicit operator bool() const { return raw_ != nullptr; }
  bool operator==(const Node& o) const { return raw_ == o.raw_; }
  void* raw() const { return raw_; }

  NodeType type() const;
  bool is_element() const { return raw_ && type() == NodeType::Element; }
  bool is_text() const { return raw_ && type() == NodeType::Text; }
  // Qualified name ("ds:Signature"), local name and namespace URI (elements).
  std::string name() const;
  std::string local_name() const;
  std::string namespace_uri() const;
  // Text of a text, PI or comment node; all text below for an element.
  std::string text() const;
  void set_text(const std::string& text);

  Node parent() const;
  Node first_child() const;
  Node last_child() const;
  Node next_sibling() const;
  Node previous_sibling() const;
  // The first child element with that qualified name.
  Node find_child(const std::string& name) const;
  std::vector<Node> children() const;
  bool has_element_children() const;

  // Attributes in document order.
  int attribute_count() const;
  std::string attribute_name(int index) const;
  std::string attribute_value(int index) const;
  bool has_attribute(const std::string& name) const;
  std::string attribute(const std::string& name) const;
  // Sets an existing attribute in place, or appends a new one last.
  void set_attribute(const std::string& name, const std::string& value);

  void append_child(Node child);
  void insert_before(Node child, Node reference);
  // Takes the node out of its parent; the caller puts it somewhere else or removes it.
  void unlink();
  // Takes the node out of the document and frees it with everything below it; the handle
  // (and handles to its descendants) must not be used afterwards.
  void remove();
  // Puts other in this node's place and frees this node.
  void replace_with(Node other);

 private:
  void* raw_ = nullptr;
};

struct ParseLimits {
  std::uint64_t max_bytes = 512ull << 20;
  unsigned max_depth = 256;
};

// The XML-DSig namespace.
inline constexpr const char* kDsigNamespace = "http://www.w3.org/2000/09/xmldsig#";

// For visibility callbacks: the element a node belongs to (attribute and namespace nodes
// belong to their element).
Node OwnerElement(Node node, Node parent);

class Document {
 public:
  // An empty document.
  Document();
  ~Document();
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

  // Parses untrusted bytes: no network, no DTD, no entity expansion; a document with a
  // DOCTYPE is refused; limits on size and depth. Raises EElXMLSecurityError with the
  // parser's reason and position.
  static std::unique_ptr<Document> Parse(const std::uint8_t* data, std::size_t size,
                                         const std::string& encoding = "utf-8",
                                         const ParseLimits& limits = {});
  static std::unique_ptr<Document> ParseFile(const std::string& path,
                                             const std::string& encoding = "utf-8",
                                             const ParseLimits& limits = {});
  // Parses from an open descriptor, reading it in small pieces (the file is never held whole
  // besides its tree). size is the file's size, checked against the limit first.
  static std::unique_ptr<Document> ParseFd(int fd, std::uint64_t size, const std::string& name,
                                           const std::string& encoding = "utf-8",
                                           const ParseLimits& limits = {});

  Node root() const;
  void set_root(Node element);
  Node node() const;  // the document node itself
  Node first_child() const;

  Node CreateElement(const std::string& name);
  // An element in a namespace, with the prefix declared on it.
  Node CreateElementNS(const std::string& ns_uri, const std::string& prefix,
                       const std::string& local_name);
  // An element in the same namespace (and prefix) as another element.
  Node CreateElementLike(Node like, const std::string& local_name);
  // Text written as is by the serializer (no escaping) when raw is true.
  Node CreateText(const std::string& text, bool raw = false);
  Node CreateProcessingInstruction(const std::string& target, const std::string& data);

  // The library's own serialization (with an XML declaration, UTF-8).
  std::string Serialize() const;
  // Writes the serialization through sink.
  void Serialize(const std::function<void(const char*, std::size_t)>& sink) const;

  // Canonical XML 1.0 without comments of the nodes for which visible() is true (an element
  // being visible does not make its children visible). Written through sink.
  void Canonicalize(const std::function<bool(Node node, Node parent)>& visible,
                    const std::function<void(const char*, std::size_t)>& sink,
                    bool exclusive = false, bool with_comments = false) const;
  // The same for the whole document but the excluded nodes and everything inside them.
  void CanonicalizeWithout(const std::vector<Node>& excluded,
                           const std::function<void(const char*, std::size_t)>& sink,
                           bool exclusive = false, bool with_comments = false) const;
  // Canonical XML 1.0 of one element's subtree, with the namespaces in scope rendered on it.
  std::string CanonicalizeSubtree(Node element, bool exclusive = false,
                                  bool with_comments = false) const;
  // The element whose attribute Id (or ID, id) has that value.
  Node FindById(const std::string& id) const;

  // Whether any raw (unescaped) text node exists, whose markup only a re-parse turns into
  // elements.
  bool HasRawText() const;

  void* raw() const { return doc_; }

 private:
  explicit Document(void* doc) : doc_(doc) {}
  void* doc_ = nullptr;
};

}  // namespace tessarel::xml
