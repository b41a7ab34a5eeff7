// What a later revision changed in an earlier one, and whether signing explains it.
//
// New objects are harmless until an existing object refers to them, so existing objects are
// judged, together with what they newly refer to where that matters: the catalog may gain a
// form (compared by content, wherever it is stored) or security store, the form may gain
// fields, a page may gain widget annotations, a field may get a value and an appearance. Everything
// else that changed (page content, resources, the page tree, an existing signature) is reported.
#include <qpdf/QPDFXRefEntry.hh>
#include "platform/pdf/qpdf_document.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <set>

#include "platform/pdf/pdf_document.h"
#include "platform/pdf/qpdf_document.h"

namespace tessarel::pdf {

namespace {

using XrefTable = std::map<QPDFObjGen, QPDFXRefEntry>;

bool same_entry(const QPDFXRefEntry& a, const QPDFXRefEntry& b) {
  if (a.getType() != b.getType()) return false;
  if (a.getType() == 1) return a.getOffset() == b.getOffset();
  return a.getObjStreamNumber() == b.getObjStreamNumber() &&
         a.getObjStreamIndex() == b.getObjStreamIndex();
}

bool same_content(QPDFObjectHandle a, QPDFObjectHandle b) {
  if (a.isStream() != b.isStream()) return false;
  if (!a.isStream()) return a.unparseResolved() == b.unparseResolved();
  if (a.getDict().unparse() != b.getDict().unparse()) return false;
  auto da = a.getRawStreamData();
  auto db = b.getRawStreamData();
  return da->getSize() == db->getSize() &&
         (da->getSize() == 0 || std::memcmp(da->getBuffer(), db->getBuffer(), da->getSize()) == 0);
}

// Keys whose values differ, leaving out the allowed ones.
std::vector<std::string> changed_keys(QPDFObjectHandle a, QPDFObjectHandle b,
                                      const std::set<std::string>& allowed) {
  std::set<std::string> keys = a.getKeys();
  for (const auto& k : b.getKeys())
    keys.insert(k);
  std::vector<std::string> out;
  for (const auto& k : keys) {
    if (allowed.count(k)) continue;
    QPDFObjectHandle va = a.getKey(k);
    QPDFObjectHandle vb = b.getKey(k);
    if (va.unparse() != vb.unparse()) out.push_back(k);
  }
  return out;
}

std::string join(const std::vector<std::string>& v) {
  std::string s;
  for (const auto& x : v)
    s += (s.empty() ? "" : ", ") + x;
  return s;
}

bool is_field_or_widget(QPDFObjectHandle h) {
  if (!h.isDictionary()) return false;
  QPDFObjectHandle sub = h.getKey("/Subtype");
  return h.hasKey("/FT") || h.hasKey("/T") || (sub.isName() && sub.getName() == "/Widget");
}

class ChangeCheck {
 public:
  ChangeCheck(QPDF& older, QPDF& newer) : old_(older), new_(newer) {}

  std::vector<std::string> run() {
    XrefTable otab = old_.getXRefTable();
    XrefTable ntab = new_.getXRefTable();
    QPDFObjectHandle nroot_ref = new_.getTrailer().getKey("/Root");
    QPDFObjectHandle oroot_ref = old_.getTrailer().getKey("/Root");
    if (nroot_ref.getObjGen() != oroot_ref.getObjGen())
      problems_.push_back("the document catalog was replaced");
    root_ = nroot_ref.getObjGen();
    QPDFObjectHandle acro = new_.getRoot().getKey("/AcroForm");
    if (acro.isIndirect()) acro_ = acro.getObjGen();
    QPDFObjectHandle info = new_.getTrailer().getKey("/Info");
    if (info.isIndirect()) info_ = info.getObjGen();

    for (const auto& [og, entry] : otab)
      if (!ntab.count(og))
        problems_.push_back("object " + std::to_string(og.getObj()) + " " +
                            std::to_string(og.getGen()) + " was deleted");
    // Object streams whose bytes moved: what they hold must be compared one by one.
    std::set<int> moved_streams;
    for (const auto& [og, entry] : ntab) {
      auto it = otab.find(og);
      if (entry.getType() == 1 && it != otab.end() && !same_entry(entry, it->second))
        moved_streams.insert(og.getObj());
    }
    for (const auto& [og, entry] : ntab) {
      auto it = otab.find(og);
      if (it == otab.end()) continue;
      bool compressed_moved =
          entry.getType() == 2 && moved_streams.count(entry.getObjStreamNumber());
      if (same_entry(entry, it->second) && !compressed_moved) continue;
      QPDFObjectHandle o = old_.getObject(og);
      QPDFObjectHandle n = new_.getObject(og);
      std::string type = type_of(n);
      if (type == "ObjStm" || type == "XRef") continue;
      if (same_content(o, n)) continue;
      judge(og, o, n);
    }
    return problems_;
  }

 private:
  void judge(QPDFObjGen og, QPDFObjectHandle o, QPDFObjectHandle n) {
    std::string type = type_of(n);
    if (og == root_) {
      report(n, changed_keys(o, n, {"/AcroForm", "/DSS", "/Extensions"}));
      // The form is compared by content wherever it lives: a catalog that points at a new
      // form object brings everything that object says. Only the same object, kept, is
      // left to be judged on its own when it changed.
      QPDFObjectHandle of = o.getKey("/AcroForm");
      QPDFObjectHandle nf = n.getKey("/AcroForm");
      if (!(of.isIndirect() && nf.isIndirect() && of.getObjGen() == nf.getObjGen()))
        judge_form(of, nf);
    } else if (og == acro_) {
      judge_form(o, n);
    } else if (og == info_) {
      report(n, changed_keys(o, n, {"/ModDate", "/Producer"}));
    } else if (type == "Sig" || type == "DocTimeStamp") {
      problems_.push_back("an existing signature value (" + describe(n) + ") was changed");
    } else if (type == "Page" && o.isDictionary() && n.isDictionary()) {
      std::vector<std::string> keys = changed_keys(o, n, {"/Annots"});
      if (!keys.empty()) problems_.push_back(page_name(og) + " was changed: " + join(keys));
      judge_list(o.getKey("/Annots"), n.getKey("/Annots"), page_name(og) + "'s annotations");
    } else if (is_field_or_widget(o) && is_field_or_widget(n)) {
      report(n, changed_keys(o, n, {"/V", "/AP", "/AS", "/Kids", "/MK"}));
      QPDFObjectHandle ov = o.getKey("/V");
      if (ov.isDictionary() && type_of(ov) == "Sig" && ov.unparse() != n.getKey("/V").unparse())
        problems_.push_back("the signature of field " + n.getKey("/T").getUTF8Value() +
                            " was replaced");
      judge_list(o.getKey("/Kids"), n.getKey("/Kids"), describe(n) + "'s kids");
    } else if (o.isArray() && n.isArray()) {
      judge_list(o, n, describe(n), true);
    } else if (n.isStream()) {
      std::string page = content_page(og);
      problems_.push_back(page.empty() ? describe(n) + " was changed"
                                       : "the content of " + page + " was changed");
    } else {
      problems_.push_back(describe(n) + " was changed");
    }
  }

  void judge_form(QPDFObjectHandle o, QPDFObjectHandle n) {
    if (!n.isDictionary()) {
      if (o.isDictionary()) problems_.push_back("the form of the document was removed");
      return;
    }
    // A form that did not exist is compared with an empty one: it may only bring fields.
    QPDFObjectHandle before = o.isDictionary() ? o : QPDFObjectHandle::newDictionary();
    std::vector<std::string> keys =
        changed_keys(before, n, {"/Fields", "/SigFlags", "/DR", "/DA", "/NeedAppearances"});
    if (!keys.empty()) problems_.push_back("the form dictionary was changed: " + join(keys));
    judge_list(before.getKey("/Fields"), n.getKey("/Fields"), "the form's field list");
  }

  // A list may only grow, and only by fields or widget annotations. itself: the list is the
  // changed object being judged, rather than a value held by one.
  void judge_list(QPDFObjectHandle o, QPDFObjectHandle n, const std::string& what,
                  bool itself = false) {
    // An indirect list kept by its holder is judged as an object of its own when it changed.
    if (!itself && o.isIndirect() && n.isIndirect() && o.getObjGen() == n.getObjGen()) return;
    std::vector<QPDFObjectHandle> before =
        o.isArray() ? o.getArrayAsVector() : std::vector<QPDFObjectHandle>();
    std::vector<QPDFObjectHandle> after =
        n.isArray() ? n.getArrayAsVector() : std::vector<QPDFObjectHandle>();
    std::multiset<std::string> added;
    for (auto& h : after)
      added.insert(h.unparse());
    for (auto& h : before) {
      auto it = added.find(h.unparse());
      if (it == added.end())
        problems_.push_back(what + " lost an entry (" + h.unparse() + ")");
      else
        added.erase(it);
    }
    for (auto& h : after) {
      auto it = added.find(h.unparse());
      if (it == added.end()) continue;
      added.erase(it);
      if (!is_field_or_widget(h))
        problems_.push_back(what + " gained " +
                            (h.isIndirect() ? describe(h) : std::string("an entry")) +
                            " that is neither a form field nor a widget");
    }
  }

  void report(QPDFObjectHandle n, const std::vector<std::string>& keys) {
    if (keys.empty()) return;
    std::string what = n.getObjGen() == root_   ? "the document catalog"
                       : n.getObjGen() == acro_ ? "the form dictionary"
                       : n.getObjGen() == info_ ? "the document information"
                                                : describe(n);
    problems_.push_back(what + " was changed: " + join(keys));
  }

  // The pages of the newer revision, numbered from 1 (built on first need).
  void index_pages() {
    if (indexed_) return;
    indexed_ = true;
    std::set<QPDFObjGen> seen;
    std::vector<QPDFObjectHandle> stack{new_.getRoot().getKey("/Pages")};
    int number = 0;
    // Depth first, left to right, with a bound against loops and absurd trees.
    while (!stack.empty() && number < 1000000) {
      QPDFObjectHandle node = stack.back();
      stack.pop_back();
      if (!node.isDictionary() || (node.isIndirect() && !seen.insert(node.getObjGen()).second))
        continue;
      QPDFObjectHandle kids = node.getKey("/Kids");
      if (kids.isArray()) {
        for (int i = kids.getArrayNItems() - 1; i >= 0; --i)
          stack.push_back(kids.getArrayItem(i));
        continue;
      }
      ++number;
      pages_[node.getObjGen()] = number;
      QPDFObjectHandle contents = node.getKey("/Contents");
      std::vector<QPDFObjectHandle> streams;
      if (contents.isArray())
        streams = contents.getArrayAsVector();
      else
        streams.push_back(contents);
      for (auto& s : streams)
        if (s.isIndirect()) contents_[s.getObjGen()] = number;
    }
  }

  std::string page_name(QPDFObjGen og) {
    index_pages();
    auto it = pages_.find(og);
    return it == pages_.end() ? "a page (object " + std::to_string(og.getObj()) + ")"
                              : "page " + std::to_string(it->second);
  }

  std::string content_page(QPDFObjGen og) {
    index_pages();
    auto it = contents_.find(og);
    return it == contents_.end() ? std::string() : "page " + std::to_string(it->second);
  }

  QPDF& old_;
  QPDF& new_;
  QPDFObjGen root_, acro_, info_;
  bool indexed_ = false;
  std::map<QPDFObjGen, int> pages_;
  std::map<QPDFObjGen, int> contents_;
  std::vector<std::string> problems_;
};

}  // namespace

std::vector<std::string> Document::changes_beyond_signing(Document& older) {
  std::vector<std::string> problems;
  impl_->guarded([&] { problems = ChangeCheck(older.impl().qpdf, impl_->qpdf).run(); });
  return problems;
}

}  // namespace tessarel::pdf
