// tessarel sign, verify and extract as scripts use them.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/crypto/pkcs12.h"
#include "test_support.h"

namespace tessarel {
namespace {

class CmsCli : public ::testing::Test {
 protected:
  void SetUp() override {
    store_ = dir_ / "MY";
    auto r = cli({"cert", "new", "--cn", "Firma Da Riga", "--key", "ec"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    id_ = r.out.substr(0, r.out.size() - 1);
    test::write_file(dir_ / "a.txt", "alpha\n");
    test::write_file(dir_ / "b.txt", "beta\n");
  }
  test::CommandResult cli(std::vector<std::string> args) {
    args.insert(args.begin(), {test::cli_path(), "--store", store_});
    return test::run(args);
  }
  test::TempDir dir_;
  std::string store_;
  std::string id_;
};

TEST_F(CmsCli, SignVerifyExtractRoundTrip) {
  auto r = cli({"sign", "--cert", id_, dir_ / "a.txt", dir_ / "b.txt"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, dir_ / "a.txt.p7m\n" + dir_ / "b.txt.p7m\n");
  EXPECT_NE(r.err.find("2/2 "), std::string::npos) << "progress on stderr";
  EXPECT_NE(r.err.find("Firma Terminata"), std::string::npos);

  r = cli({"verify", dir_ / "a.txt.p7m"});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_EQ(r.out.rfind("VALID", 0), 0u) << r.out;

  r = cli({"verify", "--json", dir_ / "a.txt.p7m"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.out.find("\"valid\": true"), std::string::npos);
  EXPECT_NE(r.out.find("\"cades_bes\": true"), std::string::npos);
  EXPECT_NE(r.out.find("\"certificate\": \"" + id_ + "\""), std::string::npos);

  std::filesystem::rename(dir_ / "a.txt", dir_ / "a.orig");
  r = cli({"extract", dir_ / "a.txt.p7m"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, dir_ / "a.txt\n");
  EXPECT_EQ(test::read_file(dir_ / "a.txt"), "alpha\n");
  r = cli({"extract", dir_ / "b.txt.p7m", "-o", dir_ / "elsewhere.txt"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(test::read_file(dir_ / "elsewhere.txt"), "beta\n");
}

TEST_F(CmsCli, DetachedSignaturesFindTheirDataAndTamperingExitsOne) {
  auto r = cli({"sign", "--detached", dir_ / "a.txt"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, dir_ / "a.txt.p7s\n");
  EXPECT_EQ(cli({"verify", dir_ / "a.txt.p7s"}).exit_code, 0);
  test::write_file(dir_ / "a.txt", "alpha changed\n");
  r = cli({"verify", dir_ / "a.txt.p7s"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("does not match"), std::string::npos) << r.out;
  r = cli({"verify", dir_ / "a.txt.p7s", "--content", dir_ / "b.txt"});
  EXPECT_EQ(r.exit_code, 1);
  r = cli({"extract", dir_ / "a.txt.p7s"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("carries no content"), std::string::npos) << r.err;
}

TEST_F(CmsCli, MissingFilesAndBadEnvelopesAreClearErrors) {
  auto r = cli({"sign", dir_ / "a.txt", dir_ / "none.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.out, dir_ / "a.txt.p7m\n");
  EXPECT_NE(r.err.find("no such file: " + (dir_ / "none.txt")), std::string::npos) << r.err;
  test::write_file(dir_ / "junk.p7m", "this is not an envelope");
  r = cli({"verify", dir_ / "junk.p7m"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("Failed to load CMS message, error"), std::string::npos) << r.err;
  r = cli({"sign", "--cert", "ABCDEF", dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("ABCDEF"), std::string::npos);
  EXPECT_EQ(cli({"verify", dir_ / "no-such.p7m"}).exit_code,
            2);  // a missing argument file is a usage error
}

// A certificate whose key is RSA-PSS (id-RSASSA-PSS) signs with RSASSA-PSS, with the
// parameters its key fixes; openssl checks the envelope.
TEST_F(CmsCli, RsaPssCertificatesSignWithPss) {
  auto r = cli({"cert", "new", "--cn", "Firma PSS", "--key", "rsa-pss"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::string id = r.out.substr(0, r.out.size() - 1);
  r = cli({"cert", "show", "--pem", id});
  test::write_file(dir_ / "pss.pem", r.out);
  r = cli({"sign", "--cert", id, dir_ / "a.txt"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  auto v = test::run({"openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in",
                      dir_ / "a.txt.p7m", "-CAfile", dir_ / "pss.pem", "-purpose", "any", "-cades",
                      "-out", "/dev/null"});
  EXPECT_EQ(v.exit_code, 0) << v.err;
  auto p = test::run(
      {"openssl", "cms", "-cmsout", "-print", "-inform", "DER", "-in", dir_ / "a.txt.p7m"});
  EXPECT_NE(p.out.find("algorithm: rsassaPss"), std::string::npos) << p.out;
  EXPECT_EQ(cli({"verify", dir_ / "a.txt.p7m"}).exit_code, 0);
}

TEST_F(CmsCli, TextFormsPipesAndEnvelopesInsideEnvelopes) {
  std::string doc = dir_ / "però.txt";
  test::write_file(doc, "alpha\n");
  ASSERT_EQ(cli({"sign", "--cert", id_, doc}).exit_code, 0);
  // Base64 of Base64 on a pipe.
  auto r = test::run_shell("openssl base64 -e -in '" + doc + ".p7m' | openssl base64 -e | '" +
                           test::cli_path() + "' verify -");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("\nform: Base64, twice (DER)\n"), std::string::npos) << r.out;
  // Signed again: an envelope inside an envelope.
  ASSERT_EQ(cli({"sign", "--cert", id_, doc + ".p7m"}).exit_code, 0);
  std::string nest = doc + ".p7m.p7m";
  r = cli({"verify", nest});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(r.out.rfind("VALID: 2 envelopes, one inside the other", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("layer 1 of 2: VALID (attached, "), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("layer 2 of 2: VALID (attached, 6 bytes of content; form: DER)"),
            std::string::npos)
      << r.out;
  r = cli({"verify", "--json", nest});
  EXPECT_NE(r.out.find("\"layers\": [\n  {\"index\": 1, \"input_form\": \"DER\", \"valid\": true"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("{\"index\": 2, "), std::string::npos);
  auto parsed = test::run_shell("'" + test::cli_path() + "' verify --json '" + nest +
                                "' | python3 -c 'import json,sys; d=json.load(sys.stdin); "
                                "print(len(d[\"layers\"]), d[\"layers\"][1][\"content_size\"])'");
  EXPECT_EQ(parsed.out, "2 6\n") << parsed.err;
  EXPECT_NE(r.out.find("\"content_is_envelope\": true"), std::string::npos);

  // extract takes off both layers, naming the document after the envelope.
  std::filesystem::rename(doc, dir_ / "original.txt");
  r = cli({"extract", nest});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, doc + "\n");
  EXPECT_EQ(test::read_file(doc), "alpha\n");
  EXPECT_NE(r.err.find("(layer 2 of 2)"), std::string::npos) << r.err;
  r = cli({"extract", nest, "--layer", "1", "-o", dir_ / "inner.p7m"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(test::read_bytes(dir_ / "inner.p7m"), test::read_bytes(doc + ".p7m"));
  r = cli({"extract", nest, "--layer", "3"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("has 2 layers, not 3"), std::string::npos) << r.err;
  // From standard input, as Base64, to standard output.
  r = test::run_shell("openssl base64 -e -in '" + nest + "' | '" + test::cli_path() +
                      "' extract - -o -");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "alpha\n");
}

TEST_F(CmsCli, WhatIsNotAnEnvelopeIsNamedOnTheFirstLine) {
  struct Case {
    std::string name, content, first_line;
  } cases[] = {
      {"doc.pdf.p7m", "%PDF-1.7\n%\xE2\xE3\n1 0 obj\n", "this is a PDF file, not a CMS envelope"},
      {"mail.p7m",
       "From: a@example.org\nMIME-Version: 1.0\nContent-Type: application/pkcs7-mime; "
       "smime-type=signed-data\n\nMIAGCSqGSIb3DQEHAqCAMIACAQEx\n",
       "S/MIME mail message: save the attachment first"},
      {"b64.p7m", "SGVsbG8sIHdvcmxkIQo=\n", "Base64 text that does not decode to an envelope"},
      {"note.p7m", "una fattura qualsiasi\n", "this is text, not a CMS envelope"},
      {"cert.p7m", "-----BEGIN CERTIFICATE-----\nMIIB\n-----END CERTIFICATE-----\n",
       "this is PEM text holding a CERTIFICATE, not a CMS envelope"},
      {"vuoto è.p7m", "", "the file is empty, not a CMS envelope"},
  };
  for (const auto& c : cases) {
    test::write_file(dir_ / c.name, c.content);
    auto r = cli({"verify", dir_ / c.name});
    EXPECT_EQ(r.exit_code, 1) << c.name;
    EXPECT_EQ(r.err.rfind("tessarel: error: " + c.first_line +
                              "\nFailed to load CMS message, "
                              "error ",
                          0),
              0u)
        << r.err;
    EXPECT_TRUE(r.out.empty());
    r = cli({"extract", dir_ / c.name});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_NE(r.err.find(c.first_line), std::string::npos);
  }
  EXPECT_FALSE(std::filesystem::exists(dir_ / "doc.pdf"))
      << "nothing is written for a non-envelope";

  // Nothing at all on a pipe.
  auto r = test::run_shell("printf '' | '" + test::cli_path() + "' verify -");
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err.rfind("tessarel: error: the file is empty, not a CMS envelope\n", 0), 0u)
      << r.err;

  // A whole signed mail as a mail program saves it: the relays' headers fill far more than
  // the first few kilobytes before the MIME headers come.
  r = test::run_shell(
      "cd '" + dir_.path() +
      "' && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "
      "mittente.key -out mittente.pem -days 2 -subj /CN=Mittente 2>/dev/null && "
      "(for i in $(seq 80); do echo \"Received: from relay$i.example.org (relay$i.example.org "
      "[192.0.2.$i]) by mx.example.org with ESMTPS id 4Xy$i\"; done; openssl cms -sign -nodetach "
      "-in a.txt -signer mittente.pem -inkey mittente.key) > posta.eml");
  ASSERT_EQ(r.exit_code, 0) << r.err;
  ASSERT_GT(test::read_file(dir_ / "posta.eml").find("MIME-Version:"), 4096u);
  for (const std::string& how :
       {"'" + (dir_ / "posta.eml") + "'", "- < '" + (dir_ / "posta.eml") + "'"}) {
    r = test::run_shell("'" + test::cli_path() + "' verify " + how);
    EXPECT_EQ(r.exit_code, 1) << how;
    EXPECT_EQ(r.err.rfind("tessarel: error: S/MIME mail message: save the attachment first\n", 0),
              0u)
        << r.err;
  }
  // A plain mail with as many headers is a mail, not text.
  std::string plain;
  for (int i = 0; i < 80; ++i)
    plain += "Received: from relay" + std::to_string(i) + ".example.org by mx.example.org\n";
  test::write_file(dir_ / "lettera.eml",
                   plain + "MIME-Version: 1.0\nContent-Type: text/plain\n\nCiao\n");
  r = cli({"verify", dir_ / "lettera.eml"});
  EXPECT_EQ(r.err.rfind("tessarel: error: this is a mail message, not a CMS envelope\n", 0), 0u)
      << r.err;
}

// Base64 as editors, mail programs and scripts leave it: a byte-order mark, white space
// around each line, and text encoded more often than the reader takes it off.
TEST_F(CmsCli, Base64AsEditorsAndScriptsLeaveIt) {
  std::string doc = dir_ / "fattura è.xml";
  test::write_file(doc, "<Fattura>42</Fattura>\n");
  ASSERT_EQ(cli({"sign", "--cert", id_, doc}).exit_code, 0);
  std::string env = "'" + doc + ".p7m'";
  struct Case {
    std::string name, make, form;
  } cases[] = {
      {"bom.b64", "(printf '\\357\\273\\277'; base64 -w 76 " + env + ")", "Base64 (DER)"},
      {"space.b64", "base64 -w 64 " + env + " | sed 's/$/ /'", "Base64 (DER)"},
      {"tab-crlf.b64", "base64 -w 76 " + env + " | sed 's/$/\t\r/'", "Base64 (DER)"},
      {"indented.b64",
       "(printf '\\357\\273\\277\\n'; base64 -w 64 " + env + " | sed 's/^/  /; s/$/ /')",
       "Base64 (DER)"},
      {"spaces-twice.b64", "base64 -w 64 " + env + " | sed 's/$/ /' | base64 -w 76 | sed 's/$/\t/'",
       "Base64, twice (DER)"},
      {"four.b64", "base64 " + env + " | base64 | base64 | base64", "Base64, 4 times (DER)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string file = dir_ / c.name;
    ASSERT_EQ(test::run_shell(c.make + " > '" + file + "'").exit_code, 0);
    auto r = cli({"verify", file});
    EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("\nform: " + c.form + "\n"), std::string::npos) << r.out;
    r = test::run_shell("'" + test::cli_path() + "' extract - -o - < '" + file + "'");
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(r.out, "<Fattura>42</Fattura>\n");
  }
  // One layer more than is read: said as such, from a file and from a pipe.
  ASSERT_EQ(test::run_shell("base64 '" + (dir_ / "four.b64") + "' > '" + (dir_ / "five.b64") + "'")
                .exit_code,
            0);
  const std::string five =
      "tessarel: error: Base64 text encoded 5 times over: no more than 4 layers of text "
      "encoding are read\n";
  auto r = cli({"verify", dir_ / "five.b64"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err.rfind(five, 0), 0u) << r.err;
  r = test::run_shell("cat '" + (dir_ / "five.b64") + "' | '" + test::cli_path() +
                      "' extract - -o -");
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err.rfind(five, 0), 0u) << r.err;
  EXPECT_TRUE(r.out.empty());
}

// A detached signature signed again into an attached envelope (x.pdf.p7s.p7m): the data of
// the inner signature is x.pdf, found by taking both extensions off, and the x.pdf.p7s that
// may still lie beside is not taken for it.
TEST_F(CmsCli, ADetachedSignatureInsideAnAttachedEnvelopeFindsItsData) {
  std::string doc = dir_ / "verbale è.pdf";
  test::write_file(doc, "%PDF-1.4 verbale\n");
  ASSERT_EQ(cli({"sign", "--detached", "--cert", id_, doc}).exit_code, 0);
  ASSERT_EQ(cli({"sign", "--cert", id_, doc + ".p7s"}).exit_code, 0);
  std::string nest = doc + ".p7s.p7m";
  for (bool inner_beside : {true, false}) {
    SCOPED_TRACE(inner_beside ? "x.pdf.p7s beside" : "x.pdf.p7s removed");
    if (!inner_beside) std::filesystem::remove(doc + ".p7s");
    auto r = cli({"verify", nest});
    EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
    EXPECT_EQ(r.out.rfind("VALID: 2 envelopes, one inside the other (innermost: detached, 17 "
                          "bytes of content)\n",
                          0),
              0u)
        << r.out;
    EXPECT_NE(r.out.find("layer 2 of 2: VALID (detached, 17 bytes of content; form: DER)"),
              std::string::npos)
        << r.out;
  }
  test::write_file(doc, "%PDF-1.4 verbale?\n");
  auto r = cli({"verify", nest});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("layer 1 of 2: VALID"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("layer 2 of 2: NOT VALID"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("does not match"), std::string::npos) << r.out;
  std::filesystem::remove(doc);
  r = cli({"verify", nest});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("no content file was given"), std::string::npos) << r.out;
  // The document given by name still works, wherever it lies.
  test::write_file(dir_ / "copia.pdf", "%PDF-1.4 verbale\n");
  r = cli({"verify", nest, "--content", dir_ / "copia.pdf"});
  EXPECT_EQ(r.exit_code, 0) << r.out;
}

}  // namespace
}  // namespace tessarel
