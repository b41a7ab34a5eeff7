// Signature removal rules, distinguished-name strings, and the signer's refusals.
#include <gtest/gtest.h>

#include "boundary/xml_signature_removal.h"
#include "cms_support.h"
#include "xmlsig/xml_signature.h"

namespace tessarel {
namespace {

std::unique_ptr<xml::Document> parse(const std::string& s) {
  return xml::Document::Parse(reinterpret_cast<const std::uint8_t*>(s.data()), s.size());
}

const char* kSigned =
    "<r><a>1</a><ds:Signature xmlns:ds=\"http://www.w3.org/2000/09/xmldsig#\"><ds:SignedInfo>"
    "<ds:CanonicalizationMethod Algorithm=\"http://www.w3.org/TR/2001/REC-xml-c14n-20010315\"/>"
    "<ds:Reference URI=\"\"><ds:DigestValue>AAAA</ds:DigestValue></ds:Reference></ds:SignedInfo>"
    "<ds:SignatureValue>AAAA</ds:SignatureValue></ds:Signature></r>";

TEST(Removal, AnEnvelopedSignatureGoesAndTheRestStays) {
  auto doc = parse(kSigned);
  RimuoviFirmaXml(doc->root());
  EXPECT_EQ(doc->Serialize(), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<r><a>1</a></r>\n");
  // Starting from a node inside the signature leads to the same removal.
  auto inner = parse(kSigned);
  xml::Node signed_info = inner->root().last_child().first_child();
  ASSERT_EQ(signed_info.local_name(), "SignedInfo");
  RimuoviFirmaXml(signed_info);
  EXPECT_EQ(inner->Serialize(), doc->Serialize());
  // Starting from the document node too.
  auto whole = parse(kSigned);
  RimuoviFirmaXml(whole->node());
  EXPECT_EQ(whole->Serialize(), doc->Serialize());
}

TEST(Removal, NoSignatureOrOneInAnotherNamespaceChangesNothing) {
  for (std::string text :
       {std::string("<r><a>1</a></r>"), std::string("<r><Signature><x/></Signature></r>"),
        std::string("<r><o:Signature xmlns:o=\"urn:other\"/></r>")}) {
    auto doc = parse(text);
    std::string before = doc->Serialize();
    RimuoviFirmaXml(doc->root());
    EXPECT_EQ(doc->Serialize(), before) << text;
  }
}

TEST(Removal, TheVerifierRefusesASecondRemovalAndMissingElements) {
  auto doc = parse(kSigned);
  TElXMLVerifier v;
  v.Load(doc->root());
  v.RemoveSignature();
  try {
    v.RemoveSignature();
    FAIL();
  } catch (const EElXMLSecurityError& e) {
    EXPECT_STREQ(e.what(), "Signature not loaded or already removed.");
  }
  EXPECT_THROW(v.Load(xml::Node()), EElXMLSecurityError);
  auto none = parse("<r/>");
  EXPECT_THROW(v.Load(none->root()), EElXMLSecurityError);
}

TEST(Names, LastAttributeFirstWithShortNamesAndEscapes) {
  std::vector<NameAttribute> attrs = {
      {"2.5.4.6", 19, "IT", 0, "IT"},
      {"2.5.4.10", 12, "Rossi, Bianchi & C.", 1, "Rossi, Bianchi & C."},
      {"2.5.4.3", 12, " #1=uno+due<tre>;\"q\"\\ ", 2, " #1=uno+due<tre>;\"q\"\\ "},
      {"1.2.840.113549.1.9.1", 22, "a@b.it", 3, "a@b.it"},
      {"2.5.4.5", 19, "X1", 4, "X1"},
  };
  EXPECT_EQ(DistinguishedNameText(attrs),
            "2.5.4.5=X1, E=a@b.it, CN=\\20#1\\=uno\\+due\\<tre\\>\\;\\\"q\\\"\\\\\\20, O=Rossi\\, "
            "Bianchi & C., C=IT");
  EXPECT_EQ(DistinguishedNameText({{"2.5.4.3", 12, "#hash\ttab", 0, "#hash\ttab"}}),
            "CN=\\#hash\\09tab");
}

TEST(Signer, RefusesWithoutKeyDataOrForAnotherKeyKind) {
  TElXMLSigner s;
  EXPECT_THROW(s.GenerateSignature(), EElXMLSecurityError);
  try {
    s.SetCanonicalizationMethod(TElXMLCanonicalizationMethod::xcmNone);
    FAIL();
  } catch (const EElXMLSecurityError& e) {
    EXPECT_STREQ(e.what(), "No canonicalization method used.");
  }
  test::CertParams params;
  params.kind = KeyKind::Ec;
  params.bits = 256;
  auto ec = test::make_cert(params);
  test::KeyOf key(ec.key);
  TElXMLKeyInfoX509Data data;
  data.FCertificate = ec.cert;
  data.FKey = &key;
  s.FKeyData = &data;
  try {
    s.GenerateSignature();
    FAIL();
  } catch (const EElXMLSecurityError& e) {
    EXPECT_STREQ(e.what(), "Signature method not supported for this type of the certificate.");
  }
}

// The canonical forms that signing and checking take (the document without its signature,
// and the SignedInfo alone) skip the rest of the tree for speed; they must equal what the
// node-by-node filter gives, on a document with everything inclusive canonicalization
// carries across: namespaces and xml: attributes declared above, a default namespace,
// processing instructions and comments beside the root. The tree is left as it was.
TEST(Canonical, WithoutTheSignatureAndSignedInfoAloneEqualTheNodeByNodeFilter) {
  auto doc = parse(
      "<?xml-stylesheet type=\"text/xsl\" href=\"index.xsl\"?>\n<!-- prima -->\n"
      "<r xmlns=\"urn:d\" xmlns:p=\"urn:p\" xml:lang=\"it\"><p:a p:x=\"1\">t&amp;&#xE8;</p:a>\n"
      "<ds:Signature xmlns:ds=\"http://www.w3.org/2000/09/xmldsig#\"><ds:SignedInfo "
      "xml:space=\"preserve\"><ds:Reference URI=\"\"/><!-- dentro --></ds:SignedInfo>"
      "<ds:SignatureValue>AA</ds:SignatureValue></ds:Signature>\n<b><c xmlns=\"\"/></b>"
      "<ds:Signature xmlns:ds=\"http://www.w3.org/2000/09/xmldsig#\"/></r>\n<!-- dopo -->");
  std::string before = doc->Serialize();
  xml::Node sig = OwnSignature(doc->root());
  xml::Node second = doc->root().last_child();
  xml::Node si = sig.first_child();
  ASSERT_EQ(si.local_name(), "SignedInfo");
  auto collect = [](std::string& out) {
    return [&out](const char* p, std::size_t n) { out.append(p, n); };
  };
  for (bool exclusive : {false, true}) {
    for (bool comments : {false, true}) {
      for (const std::vector<xml::Node>& excluded :
           {std::vector<xml::Node>{sig}, std::vector<xml::Node>{second, sig, si, sig}}) {
        std::string fast, general;
        doc->CanonicalizeWithout(excluded, collect(fast), exclusive, comments);
        doc->Canonicalize(
            [&](xml::Node node, xml::Node parent) {
              for (xml::Node n = xml::OwnerElement(node, parent); n; n = n.parent())
                for (const auto& e : excluded)
                  if (n == e) return false;
              return true;
            },
            collect(general), exclusive, comments);
        EXPECT_EQ(fast, general) << exclusive << comments << excluded.size();
        EXPECT_EQ(fast.find("SignatureValue"), std::string::npos);
      }
      std::string general;
      doc->Canonicalize(
          [&](xml::Node node, xml::Node parent) {
            for (xml::Node n = xml::OwnerElement(node, parent); n; n = n.parent())
              if (n == si) return true;
            return false;
          },
          collect(general), exclusive, comments);
      EXPECT_EQ(doc->CanonicalizeSubtree(si, exclusive, comments), general)
          << exclusive << comments;
    }
  }
  EXPECT_EQ(doc->CanonicalizeSubtree(si),
            "<ds:SignedInfo xmlns=\"urn:d\" xmlns:ds=\"http://www.w3.org/2000/09/xmldsig#\" "
            "xmlns:p=\"urn:p\" xml:lang=\"it\" xml:space=\"preserve\"><ds:Reference "
            "URI=\"\"></ds:Reference></ds:SignedInfo>");
  EXPECT_EQ(doc->Serialize(), before);
}

}  // namespace
}  // namespace tessarel
