// An engine whose index can be edited directly, for tests of opening, closing and signing
// before records are added through the archiving operations.
#pragma once

#include <regex>
#include <string>

#include "archive/sign_e_archivia.h"
#include "test_support.h"

namespace tessarel::test {

class IndexEngine : public TSignEArchivia {
 public:
  void mark_modified() { isModified = true; }
  // Appends a record the way archiving writes one (group created when missing).
  void add_record(const std::string& tipo, const std::string& name, const std::string& param = "") {
    xml::Document& doc = *FXMLDocument;
    xml::Node root = doc.root();
    xml::Node group = root.find_child(tipo);
    if (!group) {
      group = doc.CreateElement(tipo);
      root.append_child(group);
      IndentElement(group, 0);
    }
    int id = 0;
    if (xml::Node last = group.last_child(); last && last.attribute_count() > 0)
      id = std::stoi(last.attribute("Id")) + 1;
    xml::Node d = doc.CreateElement("Documento");
    group.append_child(d);
    d.set_attribute("Name", name);
    d.set_attribute("Data", "2021-03-03");
    d.set_attribute("Id", std::to_string(id));
    if (!param.empty()) d.append_child(doc.CreateText(param, true));
    xml::Node f = doc.CreateElement("File_Dati");
    d.append_child(f);
    f.set_attribute("link", tipo + "\\2021\\03\\" + name);
    f.set_attribute("size", "5120");
    f.set_attribute("Hash_SHA256", std::string(64, 'A'));
    f.set_attribute("detached", "F");
    IndentElement(d, 0);
    isModified = true;
  }
};

// The index text with the parts that change on every close masked.
inline std::string masked(const std::string& index) {
  std::string s =
      std::regex_replace(index, std::regex("modificato_il=\"[^\"]*\""), "modificato_il=\"*\"");
  s = std::regex_replace(s, std::regex("<ds:DigestValue>[^<]*</ds:DigestValue>"),
                         "<ds:DigestValue>*</ds:DigestValue>");
  return std::regex_replace(s, std::regex("<ds:SignatureValue>[^<]*</ds:SignatureValue>"),
                            "<ds:SignatureValue>*</ds:SignatureValue>");
}

}  // namespace tessarel::test
