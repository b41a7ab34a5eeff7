// Closed indexes checked by xmlsec1 with the signing certificate as the trusted one, and
// our own verdict compared with its verdict on tampered copies.
#include <gtest/gtest.h>

#include <filesystem>

#include "index_support.h"
#include "platform/crypto/digest.h"
#include "platform/crypto/pkey.h"
#include "platform/runtime/strings.h"
#include "xmlsig/xml_signature.h"

namespace tessarel {
namespace {

class IndexInterop : public ::testing::Test {
 protected:
  void SetUp() override {
    test::CertParams s;
    s.cn = "Archivista Prova";
    s.org = "Archivio, Firma & Co";  // characters the name strings must escape
    s.country = "IT";
    s.email = "archivio@example.org";
    s.serial = {0x00, 0xA1, 0xB2};
    tc_ = std::make_unique<test::TestCert>(test::make_cert(s));
    store_.add(*tc_);
    pem_ = test::write_pem(tc_->cert, dir_ / "trusted.pem");
    arch_ = dir_ / "arch";
  }
  bool xmlsec_ok(const std::string& file) {
    auto r = test::run({"xmlsec1", "--verify", "--enabled-key-data", "x509", "--trusted-pem", pem_,
                        "--enabled-reference-uris", "empty", file});
    last_ = r.out + r.err;
    return r.exit_code == 0;
  }
  bool ours_ok(const std::string& file) {
    try {
      auto doc = xml::Document::ParseFile(file);
      TElXMLVerifier v;
      v.Load(doc->root());
      XmlSignatureCheck c = v.Verify(*doc);
      return c.ok() && c.certificate && *c.certificate == tc_->cert;
    } catch (const Exception&) {
      return false;
    }
  }
  test::TempDir dir_;
  test::ScopedStore store_;
  std::unique_ptr<test::TestCert> tc_;
  std::string pem_, arch_, last_;
};

TEST_F(IndexInterop, NewIndexVerifies) {
  test::IndexEngine e;
  e.ApriIndice(arch_, tc_->cert.id(), false);
  e.add_record("Contratti", "contratto.xml");
  e.ChiudiIndice();
  std::string index = arch_ + "/index.xml";
  EXPECT_TRUE(xmlsec_ok(index)) << last_ << test::read_file(index);
  EXPECT_TRUE(ours_ok(index));
}

TEST_F(IndexInterop, ManyRecordsNonAsciiTypesAndNamesVerify) {
  test::IndexEngine e;
  e.ApriIndice(arch_, tc_->cert.id(), true);
  for (int i = 0; i < 300; ++i) {
    e.add_record(i % 3 == 0   ? "Fatture"
                 : i % 3 == 1 ? "Contratti"
                              : "Dichiarazioni_Città",
                 "documento è " + std::to_string(i) + ".xml",
                 i % 7 == 0 ? "<Nota tipo=\"n\">prova &amp; più</Nota>" : "");
  }
  e.ChiudiIndice();
  std::string index = arch_ + "/index.xml";
  EXPECT_TRUE(xmlsec_ok(index)) << last_;
  EXPECT_TRUE(ours_ok(index));
  EXPECT_NE(test::read_file(index).find("<Nota tipo=\"n\">prova &amp; più</Nota>"),
            std::string::npos);
}

TEST_F(IndexInterop, ReopenedAndClosedThreeTimesStillVerifies) {
  std::string index = arch_ + "/index.xml";
  for (int round = 0; round < 3; ++round) {
    test::IndexEngine e;
    e.ApriIndice(arch_, tc_->cert.id(), false);
    e.add_record("Tipo" + std::to_string(round), "f" + std::to_string(round) + ".txt");
    e.ChiudiIndice();
    EXPECT_TRUE(xmlsec_ok(index)) << round << ": " << last_;
    EXPECT_TRUE(ours_ok(index)) << round;
  }
  std::string text = test::read_file(index);
  std::size_t signatures = 0;
  for (std::size_t at = text.find("<ds:Signature "); at != std::string::npos;
       at = text.find("<ds:Signature ", at + 1))
    ++signatures;
  EXPECT_EQ(signatures, 1u);
}

TEST_F(IndexInterop, TamperedIndexesFailForBothVerifiers) {
  test::IndexEngine e;
  e.ApriIndice(arch_, tc_->cert.id(), false);
  e.add_record("Contratti", "contratto.xml");
  e.add_record("Contratti", "allegato.pdf");
  e.ChiudiIndice();
  std::string index = arch_ + "/index.xml";
  std::string good = test::read_file(index);
  ASSERT_TRUE(xmlsec_ok(index));
  struct Change {
    const char* what;
    std::string from, to;
  };
  std::vector<Change> changes = {
      {"record", "size=\"5120\"", "size=\"5121\""},
      {"record name", "Name=\"allegato.pdf\"", "Name=\"allegato2.pdf\""},
      {"processing instruction", "href=\"index.xsl\"", "href=\"other.xsl\""},
      {"signature value", "<ds:SignatureValue>", "<ds:SignatureValue>AAAA"},
      {"digest value", "<ds:DigestValue>", "<ds:DigestValue>AAAA"},
      {"signed info", "\t\t<ds:SignatureMethod", "\t\t <ds:SignatureMethod"},
      {"certificate", "<ds:X509Certificate>MII", "<ds:X509Certificate>MIJ"},
  };
  std::string tampered = dir_ / "tampered.xml";
  for (const auto& c : changes) {
    std::string text = good;
    auto at = text.find(c.from);
    ASSERT_NE(at, std::string::npos) << c.what;
    text.replace(at, c.from.size(), c.to);
    test::write_file(tampered, text);
    bool theirs = xmlsec_ok(tampered);
    EXPECT_FALSE(theirs) << c.what;
    EXPECT_EQ(ours_ok(tampered), theirs) << c.what;
  }
  // Changes outside what is signed: both still accept the index.
  std::vector<Change> harmless = {
      {"comment in SignedInfo", "rsa-sha1\"/>", "rsa-sha1\"/><!-- note -->"},
      {"space in KeyInfo", "<ds:KeyInfo>", "<ds:KeyInfo> "},
  };
  for (const auto& c : harmless) {
    std::string text = good;
    text.replace(text.find(c.from), c.from.size(), c.to);
    test::write_file(tampered, text);
    EXPECT_TRUE(xmlsec_ok(tampered)) << c.what << ": " << last_;
    EXPECT_TRUE(ours_ok(tampered)) << c.what;
  }
}

// EC keys sign the index with ECDSA-SHA256, the value as r || s of the curve's width (P-521's
// halves are 66 bytes, so short numbers must be padded). Closed several times per curve, so
// that values with a leading zero byte come up.
TEST_F(IndexInterop, EcKeysSignWithEcdsaThatXmlsec1AcceptsOnEveryCurve) {
  struct Curve {
    int bits;
    std::string curve;
    std::size_t half;
  };
  for (const Curve& c : {Curve{256, "", 32}, Curve{384, "", 48}, Curve{0, "secp521r1", 66},
                         Curve{0, "brainpoolP256r1", 32}}) {
    test::CertParams p;
    p.cn = "Archivista EC " + std::to_string(c.half);
    p.kind = KeyKind::Ec;
    p.bits = c.bits;
    p.curve = c.curve;
    test::TestCert ec = test::make_cert(p);
    store_.add(ec);
    std::string arch = dir_ / ("ec" + std::to_string(c.half) + c.curve);
    std::string pem = test::write_pem(ec.cert, dir_ / "ec.pem");
    std::string index = arch + "/index.xml";
    for (int round = 0; round < 4; ++round) {
      test::IndexEngine e;
      e.ApriIndice(arch, ec.cert.id(), false);
      e.add_record("Fatture", "f" + std::to_string(round) + ".txt");
      e.ChiudiIndice();
      auto x = test::run({"xmlsec1", "--verify", "--enabled-key-data", "x509", "--trusted-pem", pem,
                          "--enabled-reference-uris", "empty", index});
      EXPECT_EQ(x.exit_code, 0) << c.half << c.curve << ": " << x.out << x.err;

      auto doc = xml::Document::ParseFile(index);
      TElXMLVerifier v;
      v.Load(doc->root());
      XmlSignatureCheck check = v.Verify(*doc);
      EXPECT_TRUE(check.ok()) << c.half << c.curve << ": "
                              << (check.problems.empty() ? "" : check.problems[0]);
      std::string text = test::read_file(index);
      EXPECT_NE(text.find("Algorithm=\"http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha256\""),
                std::string::npos);
      auto from = text.find("<ds:SignatureValue>") + 19;
      Bytes value =
          crypto::base64_decode(text.substr(from, text.find("</ds:SignatureValue>") - from));
      EXPECT_EQ(value.size(), 2 * c.half) << c.curve;
    }
  }

  // A value in DER (as keys give it) instead of r || s is not an XML signature value.
  std::string index = dir_ / "ec32/index.xml";
  std::string text = test::read_file(index);
  auto from = text.find("<ds:SignatureValue>") + 19;
  auto to = text.find("</ds:SignatureValue>");
  Bytes plain = crypto::base64_decode(text.substr(from, to - from));
  text.replace(from, to - from, crypto::base64_encode(crypto::dss_signature_from_plain(plain)));
  test::write_file(dir_ / "der.xml", text);
  auto doc = xml::Document::ParseFile(dir_ / "der.xml");
  TElXMLVerifier v;
  v.Load(doc->root());
  XmlSignatureCheck check = v.Verify(*doc);
  EXPECT_TRUE(check.references_valid);
  EXPECT_FALSE(check.signature_valid);
  EXPECT_FALSE(check.ok());
}

}  // namespace
}  // namespace tessarel
