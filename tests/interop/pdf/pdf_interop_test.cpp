// Signed PDF documents as outside tools see them: poppler's pdfsig (with an NSS database that
// trusts only the test CA), qpdf, and openssl on the dumped signature values.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "pdf_fixtures.h"
#include "platform/crypto/pkcs12.h"
#include "softhsm.h"
#include "test_support.h"

namespace tessarel {
namespace {

struct PdfsigSignature {
  std::string field, common_name, type, validation, certificate;
  bool total = false;
};

// pdfsig exits 0 even for bad signatures: its text is what counts.
std::vector<PdfsigSignature> parse_pdfsig(const std::string& text) {
  std::vector<PdfsigSignature> out;
  std::istringstream in(text);
  auto value = [](const std::string& line) { return line.substr(line.find(": ") + 2); };
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("Signature #", 0) == 0) out.emplace_back();
    if (out.empty()) continue;
    auto& s = out.back();
    if (line.find("Signature Field Name:") != std::string::npos) s.field = value(line);
    if (line.find("Signer Certificate Common Name:") != std::string::npos)
      s.common_name = value(line);
    if (line.find("Signature Type:") != std::string::npos) s.type = value(line);
    if (line.find("Signature Validation:") != std::string::npos) s.validation = value(line);
    if (line.find("Certificate Validation:") != std::string::npos) s.certificate = value(line);
    if (line.find("  - Total document signed") != std::string::npos) s.total = true;
  }
  return out;
}

class PdfInterop : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* tool : {"pdfsig", "certutil", "qpdf", "openssl"})
      if (!test::have_program(tool)) GTEST_SKIP() << tool << " not installed";
    test::CertParams ca_params;
    ca_params.cn = "Tessarel Test CA";
    ca_params.ca = true;
    ca_ = std::make_unique<test::TestCert>(test::make_cert(ca_params));
    test::CertParams signer_params;
    signer_params.cn = "Mario Rossi";
    signer_ = std::make_unique<test::TestCert>(test::make_cert(signer_params, ca_.get()));
    test::write_pem(ca_->cert, dir_ / "ca.pem");
    test::write_file(dir_ / "signer.pfx", crypto::write_pkcs12(signer_->cert, signer_->key, "pw"));
    // An NSS database of the test's own holding only the test CA, trusted for everything.
    std::filesystem::create_directory(dir_ / "nss");
    ASSERT_EQ(
        test::run({"certutil", "-N", "--empty-password", "-d", "sql:" + dir_ / "nss"}).exit_code,
        0);
    ASSERT_EQ(test::run({"certutil", "-A", "-n", "test-ca", "-t", "C,C,C", "-i", dir_ / "ca.pem",
                         "-d", "sql:" + dir_ / "nss"})
                  .exit_code,
              0);
    // The second signer signs from the store with a certificate of the same CA. (pdfsig
    // 22.12 reports "Unknown issue with Certificate" for a second signature by a certificate
    // it has already seen in the same document, so each signature has its own.)
    test::CertParams second_params;
    second_params.cn = "Anna Bianchi";
    test::TestCert second = test::make_cert(second_params, ca_.get());
    test::write_file(dir_ / "second.pfx", crypto::write_pkcs12(second.cert, second.key, "pw"));
    auto r = cli({"cert", "import", dir_ / "second.pfx", "--password", "env:PW"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
  }
  test::CommandResult cli(std::vector<std::string> args) {
    args.insert(args.begin(), {test::cli_path(), "--store", dir_ / "MY"});
    return test::run(args, {"PW=pw"});
  }
  std::vector<PdfsigSignature> pdfsig(const std::string& file) {
    auto r = test::run({"pdfsig", "-nssdir", "sql:" + dir_ / "nss", file});
    EXPECT_NE(r.out.find("Digital Signature Info"), std::string::npos) << r.out << r.err;
    return parse_pdfsig(r.out);
  }
  // Signs with the PFX, then again from the store, as two people would.
  void sign_twice(const std::string& in, const std::string& once, const std::string& twice,
                  const std::vector<std::string>& extra = {}) {
    std::vector<std::string> a = {
        "pdf",        "sign",   in,       "-o",         once, "--pfx", dir_ / "signer.pfx",
        "--password", "env:PW", "--name", "Mario Rossi"};
    a.insert(a.end(), extra.begin(), extra.end());
    auto r = cli(a);
    ASSERT_EQ(r.exit_code, 0) << in << ": " << r.err;
    std::vector<std::string> b = {"pdf", "sign", once, "-o", twice};
    b.insert(b.end(), extra.begin(), extra.end());
    r = cli(b);
    ASSERT_EQ(r.exit_code, 0) << in << ": " << r.err;
  }

  test::TempDir dir_;
  std::unique_ptr<test::TestCert> ca_, signer_;
};

TEST_F(PdfInterop, EveryProducerSignedTwiceIsValidForPdfsigQpdfAndUs) {
  int produced = 0;
  for (const std::string& kind : test::producer_kinds()) {
    std::string in = test::produce_pdf(kind, dir_.path());
    if (in.empty()) {
      ADD_FAILURE() << "producer " << kind << " is not installed (scripts/debian-packages)";
      continue;
    }
    ++produced;
    std::string once = dir_ / (kind + "-1.pdf");
    std::string twice = dir_ / (kind + "-2.pdf");
    sign_twice(in, once, twice);
    std::string original = test::read_file(in);
    if (kind == "gs-updated") {  // ghostscript's revision and the update after it
      std::regex eof("%%EOF");
      EXPECT_EQ(std::distance(std::sregex_iterator(original.begin(), original.end(), eof),
                              std::sregex_iterator()),
                2);
    }
    std::string first = test::read_file(once);
    std::string second = test::read_file(twice);
    EXPECT_EQ(first.substr(0, original.size()), original) << kind;
    EXPECT_EQ(second.substr(0, first.size()), first) << kind;

    for (const auto& f : {once, twice}) {
      auto check = test::run({"qpdf", "--check", f});
      EXPECT_EQ(check.exit_code, 0) << kind << ": " << check.out << check.err;
    }
    // qpdf finds objects of the appended section at offsets past the first signed file.
    auto xref = test::run({"qpdf", "--show-xref", twice});
    std::regex offset(R"(offset = (\d+))");
    bool appended = false;
    for (auto it = std::sregex_iterator(xref.out.begin(), xref.out.end(), offset);
         it != std::sregex_iterator(); ++it)
      appended = appended || std::stoull((*it)[1]) >= first.size();
    EXPECT_TRUE(appended) << kind << ": " << xref.out;

    auto sigs = pdfsig(twice);
    ASSERT_EQ(sigs.size(), 2u) << kind;
    for (const auto& s : sigs) {
      EXPECT_EQ(s.validation, "Signature is Valid.") << kind << " " << s.field;
      EXPECT_EQ(s.certificate, "Certificate is Trusted.") << kind << " " << s.field;
      EXPECT_EQ(s.type, "adbe.pkcs7.detached") << kind;
    }
    EXPECT_EQ(sigs[0].common_name, "Mario Rossi") << kind;
    EXPECT_EQ(sigs[1].common_name, "Anna Bianchi") << kind;
    EXPECT_EQ(sigs[0].field, "Signature1");
    EXPECT_EQ(sigs[1].field, "Signature2");
    EXPECT_FALSE(sigs[0].total) << kind;
    EXPECT_TRUE(sigs[1].total) << kind;

    auto ours = cli({"pdf", "verify", "--json", twice});
    EXPECT_EQ(ours.exit_code, 0) << kind << ": " << ours.out << ours.err;
    std::regex intact("\"intact\": true");
    EXPECT_EQ(std::distance(std::sregex_iterator(ours.out.begin(), ours.out.end(), intact),
                            std::sregex_iterator()),
              2)
        << ours.out;
  }
  EXPECT_GE(produced, 4);
}

TEST_F(PdfInterop, SignatureValuesVerifyWithOpensslOverTheByteRanges) {
  test::write_file(dir_ / "a.pdf", test::hand_pdf());
  for (bool pades : {false, true}) {
    std::string out = dir_ / (pades ? "pades.pdf" : "pkcs7.pdf");
    std::vector<std::string> args = {"pdf", "sign", dir_ / "a.pdf", "-o", out};
    if (pades) args.push_back("--pades");
    ASSERT_EQ(cli(args).exit_code, 0);
    auto sigs = pdfsig(out);
    ASSERT_EQ(sigs.size(), 1u);
    EXPECT_EQ(sigs[0].type, pades ? "ETSI.CAdES.detached" : "adbe.pkcs7.detached");
    EXPECT_EQ(sigs[0].validation, "Signature is Valid.");

    // The value as pdfsig dumps it, checked by openssl over the bytes the range names.
    std::string dump = dir_ / (pades ? "dump-pades" : "dump-pkcs7");
    std::filesystem::create_directory(dump);
    auto r = test::run_shell("cd '" + dump + "' && pdfsig -dump '" + out + "'");
    ASSERT_EQ(r.exit_code, 0) << r.err;
    std::string value = dump + "/" + std::filesystem::path(out).filename().string() + ".sig0";
    std::string pdf = test::read_file(out);
    std::smatch m;
    ASSERT_TRUE(std::regex_search(pdf, m, std::regex(R"(/ByteRange \[0 (\d+) (\d+) (\d+)\])")));
    std::size_t a = std::stoul(m[1]), b = std::stoul(m[2]), c = std::stoul(m[3]);
    test::write_file(dir_ / "ranges.bin", pdf.substr(0, a) + pdf.substr(b, c));
    r = test::run({"openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in", value,
                   "-content", dir_ / "ranges.bin", "-CAfile", dir_ / "ca.pem", "-purpose", "any",
                   "-out", "/dev/null"});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    // PAdES B-B: the time is in the dictionary only; the CMS names its certificate (ESS v2).
    r = test::run({"openssl", "cms", "-cmsout", "-print", "-inform", "DER", "-in", value});
    EXPECT_NE(r.out.find("id-smime-aa-signingCertificateV2"), std::string::npos);
    EXPECT_EQ(r.out.find("signingTime") == std::string::npos, pades) << r.out;
    EXPECT_NE(pdf.find("/M(D:"), std::string::npos);
  }
}

TEST_F(PdfInterop, TamperingIsReportedByUsAndByPdfsig) {
  test::write_file(dir_ / "a.pdf", test::hand_pdf());
  std::string good = dir_ / "good.pdf";
  ASSERT_EQ(cli({"pdf", "sign", dir_ / "a.pdf", "-o", good, "--name", "Mario Rossi"}).exit_code, 0);
  std::string pdf = test::read_file(good);

  // A byte inside the first range: the page's text.
  std::string first = pdf;
  first[first.find("Documento di prova") + 14] = 'a';  // "prova" -> "paova"
  test::write_file(dir_ / "first.pdf", first);
  // A byte inside the second range: the widget's rectangle, after the signature value.
  std::string second = pdf;
  std::size_t rect = second.find("/Rect[36 36 ");
  ASSERT_NE(rect, std::string::npos);
  second[rect + 6] = '4';
  test::write_file(dir_ / "second.pdf", second);
  for (const char* name : {"first.pdf", "second.pdf"}) {
    auto r = cli({"pdf", "verify", dir_ / name});
    EXPECT_EQ(r.exit_code, 1) << name;
    EXPECT_NE(r.out.find("NOT INTACT"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("document digest: FAILED"), std::string::npos) << r.out;
    auto sigs = pdfsig(dir_ / name);
    ASSERT_EQ(sigs.size(), 1u) << name;
    EXPECT_EQ(sigs[0].validation, "Digest Mismatch.") << name;
  }

  // An update appended after the signature that changes what the page shows: the signed
  // bytes are intact, so pdfsig only notes that the signature does not cover everything.
  test::write_file(dir_ / "later.pdf", pdf);
  test::append_stream_update(dir_ / "later.pdf",
                             test::first_page_content_object(dir_ / "later.pdf"),
                             "BT /F1 40 Tf 72 400 Td (ANNULLATO) Tj ET");
  auto r = cli({"pdf", "verify", dir_ / "later.pdf"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("the content of page 1 was changed"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("document digest: ok"), std::string::npos) << r.out;
  auto sigs = pdfsig(dir_ / "later.pdf");
  ASSERT_EQ(sigs.size(), 1u);
  EXPECT_FALSE(sigs[0].total);

  // The catalog pointed at a new form object that brings an XFA form, which a reader shows
  // instead of the signed pages: compared with the old form, whatever objects hold them.
  test::write_file(dir_ / "xfa.pdf", pdf);
  std::string root = test::show_object(dir_ / "xfa.pdf", "trailer");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(root, m, std::regex(R"(/Root (\d+) 0 R)"))) << root;
  int root_number = std::stoi(m[1]);
  std::string catalog = test::show_object(dir_ / "xfa.pdf", m[1]);
  ASSERT_TRUE(std::regex_search(catalog, m, std::regex(R"(/AcroForm (\d+) 0 R)"))) << catalog;
  std::string form = test::show_object(dir_ / "xfa.pdf", m[1]);
  std::string xfa = "<xdp:xdp xmlns:xdp=\"http://ns.adobe.com/xdp/\"/>";
  test::append_update(
      dir_ / "xfa.pdf",
      {{root_number,
        std::regex_replace(catalog, std::regex(R"(/AcroForm \d+ 0 R)"), "/AcroForm 99 0 R")},
       {98, "<</Length " + std::to_string(xfa.size()) + ">>\nstream\n" + xfa + "\nendstream"},
       {99, form.substr(0, form.rfind(">>")) + "/XFA 98 0 R >>"}});
  r = cli({"pdf", "verify", dir_ / "xfa.pdf"});
  EXPECT_EQ(r.exit_code, 1) << r.out;
  EXPECT_NE(r.out.find("the form dictionary was changed: /XFA"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("later revisions: CHANGED MORE"), std::string::npos) << r.out;

  // A page whose annotation list is an object of its own gains a stamp over the text.
  test::HandPdf h;
  h.indirect_annots = true;
  test::write_file(dir_ / "annots.pdf", test::hand_pdf(h));
  ASSERT_EQ(cli({"pdf", "sign", dir_ / "annots.pdf", "--name", "Mario Rossi"}).exit_code, 0);
  std::string annots = test::show_object(dir_ / "annots.pdf", "8");
  ASSERT_EQ(annots.back(), ']') << annots;
  test::append_update(
      dir_ / "annots.pdf",
      {{8, annots.substr(0, annots.size() - 1) + " 97 0 R ]"},
       {97, "<</Type/Annot/Subtype/FreeText/Rect[0 0 595 842]/Contents(ANNULLATO)>>"}});
  r = cli({"pdf", "verify", dir_ / "annots.pdf"});
  EXPECT_EQ(r.exit_code, 1) << r.out;
  EXPECT_NE(r.out.find("gained object 97 0"), std::string::npos) << r.out;
}

// Keys on a SoftHSM2 token (made in the test's folder): an RSA and a P-256 key sign PDF
// documents that qpdf and pdfsig accept; a wrong or missing PIN leaves the input as it was
// and writes no output.
TEST_F(PdfInterop, TokenKeysSignDocumentsThatPdfsigAndQpdfAcceptAndAFailedLoginWritesNothing) {
  if (!test::SoftHsm::available()) GTEST_SKIP() << "SoftHSM2 or pkcs11-tool is not installed";
  test::SoftHsm hsm;
  std::string store = hsm.add_token("Firma PDF");
  test::CertParams rp, ep;
  rp.cn = "Carlo Verdi";
  ep.cn = "Elena Neri";
  ep.kind = KeyKind::Ec;
  ep.bits = 256;
  test::TestCert rsa = test::make_cert(rp, ca_.get()), ec = test::make_cert(ep, ca_.get());
  hsm.put_key("Firma PDF", rsa, "01", "rsa");
  hsm.put_cert("Firma PDF", rsa.cert, "01", "rsa");
  hsm.put_key("Firma PDF", ec, "02", "ec");
  hsm.put_cert("Firma PDF", ec.cert, "02", "ec");
  std::string pin = "--pin=file:" + hsm.pin_file();
  auto token_cli = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {test::cli_path(), "--store", store});
    return test::run(args, hsm.env());
  };
  std::string original = test::hand_pdf();
  test::write_file(dir_ / "in.pdf", original);

  struct Case {
    const test::TestCert* signer;
    bool pades;
    const char* out;
  };
  for (const Case& c : {Case{&rsa, false, "rsa.pdf"}, Case{&ec, false, "ec.pdf"},
                        Case{&ec, true, "ec-pades.pdf"}}) {
    std::string out = dir_ / c.out;
    std::vector<std::string> args = {pin,  "pdf", "sign",   dir_ / "in.pdf",
                                     "-o", out,   "--cert", c.signer->cert.id()};
    if (c.pades) args.push_back("--pades");
    auto r = token_cli(args);
    ASSERT_EQ(r.exit_code, 0) << c.out << ": " << r.err;
    auto check = test::run({"qpdf", "--check", out});
    EXPECT_EQ(check.exit_code, 0) << c.out << ": " << check.out << check.err;
    auto sigs = pdfsig(out);
    ASSERT_EQ(sigs.size(), 1u) << c.out;
    EXPECT_EQ(sigs[0].validation, "Signature is Valid.") << c.out;
    EXPECT_EQ(sigs[0].certificate, "Certificate is Trusted.") << c.out;
    EXPECT_EQ(sigs[0].common_name, c.signer->cert.subject_cn()) << c.out;
    EXPECT_EQ(sigs[0].type, c.pades ? "ETSI.CAdES.detached" : "adbe.pkcs7.detached") << c.out;
    EXPECT_EQ(test::read_file(out).substr(0, original.size()), original) << c.out;
  }

  // A wrong PIN, then no PIN at all (no terminal to ask on): the document in place and the
  // output named are both left as they were.
  test::write_file(dir_ / "existing.pdf", "not touched");
  std::string wrong = "--pin=file:" + hsm.pin_file("9999");
  for (const std::string& how : {wrong, std::string("--ui=none")}) {
    for (const std::string& out : {std::string(), dir_ / "new.pdf", dir_ / "existing.pdf"}) {
      std::vector<std::string> args = {how,      "pdf",        "sign", dir_ / "in.pdf",
                                       "--cert", rsa.cert.id()};
      if (!out.empty()) args.insert(args.end(), {"-o", out});
      auto r = token_cli(args);
      EXPECT_EQ(r.exit_code, 1) << how << " " << out;
      if (how == wrong) {
        EXPECT_NE(r.err.find("Wrong PIN for the token \"Firma PDF\""), std::string::npos) << r.err;
      } else {
        EXPECT_NE(r.err.find("No PIN was given for the token \"Firma PDF\""), std::string::npos)
            << r.err;
        EXPECT_NE(r.err.find("Certificate " + rsa.cert.id() +
                             " not found, or its private key is not usable"),
                  std::string::npos)
            << r.err;
        EXPECT_EQ(r.err.find("Private key not found"), std::string::npos) << r.err;
      }
      EXPECT_EQ(test::read_file(dir_ / "in.pdf"), original);
      EXPECT_FALSE(std::filesystem::exists(dir_ / "new.pdf"));
      EXPECT_EQ(test::read_file(dir_ / "existing.pdf"), "not touched");
    }
  }
  // Nothing half-written beside the outputs.
  for (const auto& e : std::filesystem::directory_iterator(dir_.path()))
    EXPECT_EQ(e.path().filename().string().find(".tmp"), std::string::npos) << e.path();
}

}  // namespace
}  // namespace tessarel
