// tessarel pdf sign | verify as people and scripts use them.
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "pdf_fixtures.h"
#include "platform/crypto/pkcs12.h"
#include "test_support.h"

namespace tessarel {
namespace {

class PdfCli : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directory(tmp_);
    auto r = cli({"cert", "new", "--cn", "Mario Rossi"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    id_ = r.out.substr(0, r.out.size() - 1);
    test::write_file(in_, original_);
  }
  test::CommandResult cli(std::vector<std::string> args, std::vector<std::string> env = {}) {
    args.insert(args.begin(), {test::cli_path(), "--store", dir_ / "MY"});
    env.push_back("TMPDIR=" + tmp_);
    return test::run(args, env);
  }
  // No temporary file left: none in $TMPDIR, none beside the outputs.
  bool temp_folder_empty() const {
    for (const auto& e : std::filesystem::recursive_directory_iterator(dir_.path()))
      if (e.path().filename().string().find(".tmp-") != std::string::npos) return false;
    return std::filesystem::is_empty(tmp_);
  }

  test::TempDir dir_;
  std::string tmp_ = dir_ / "tmp";
  std::string id_;
  std::string original_ = test::hand_pdf();
  std::string in_ = dir_ / "documento.pdf";
};

TEST_F(PdfCli, SignThenVerifyTextAndJson) {
  std::string out = dir_ / "firmato.pdf";
  auto r = cli({"pdf", "sign", in_, "-o", out, "--name", "Mario Rossi", "--reason", "Visto"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, out + "\n");
  EXPECT_NE(r.err.find("signed as Signature1 by CN=Mario Rossi"), std::string::npos) << r.err;
  EXPECT_EQ(test::read_file(in_), original_);
  EXPECT_EQ(test::read_file(out).substr(0, original_.size()), original_);

  r = cli({"pdf", "verify", out});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_EQ(r.out.rfind(out + ": VALID, 1 signature", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("signature Signature1: intact"), std::string::npos);
  EXPECT_NE(r.out.find("reason: Visto di Mario Rossi"), std::string::npos);
  EXPECT_NE(r.out.find("certificate: " + id_), std::string::npos);

  r = cli({"pdf", "verify", "--json", out});
  EXPECT_EQ(r.exit_code, 0);
  test::write_file(dir_ / "r.json", r.out);
  auto py = test::run({"/usr/bin/python3", "-c",
                       "import json,sys; d=json.load(open(sys.argv[1])); s=d['signatures'][0]; "
                       "print(d['valid'], s['field'], s['intact'], s['whole_document'], "
                       "s['certificate'], s['byte_range'][0])",
                       dir_ / "r.json"});
  EXPECT_EQ(py.out, "True Signature1 True True " + id_ + " 0\n") << r.out << py.err;

  // An unsigned document: nothing to vouch for.
  r = cli({"pdf", "verify", in_});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("holds no signature"), std::string::npos) << r.err;
  EXPECT_TRUE(temp_folder_empty());
}

TEST_F(PdfCli, InPlacePipesAndNames) {
  // Without -o the document itself is replaced once signed.
  auto r = cli({"pdf", "sign", in_, "--invisible"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, in_ + "\n");
  std::string once = test::read_file(in_);
  EXPECT_EQ(once.substr(0, original_.size()), original_);
  // -o naming the input is refused rather than guessed at.
  r = cli({"pdf", "sign", in_, "-o", in_});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("tessarel: error: "), std::string::npos);
  EXPECT_EQ(test::read_file(in_), once);

  // Standard input to standard output; non-ASCII file and signer names.
  std::string out = dir_ / "firmato àè.pdf";
  r = test::run_shell("TMPDIR='" + tmp_ + "' '" + test::cli_path() + "' --store '" + dir_ / "MY" +
                      "' pdf sign --pades --name 'Żaneta Müller' - < '" + in_ + "' > '" + out +
                      "'");
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(test::read_file(out).substr(0, once.size()), once);
  r = cli({"pdf", "verify", out});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_NE(r.out.find("name: Żaneta Müller"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("format: ETSI.CAdES.detached"), std::string::npos) << r.out;
  r = cli({"pdf", "sign", out, "-o", "-", "--quiet"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out.substr(0, test::read_file(out).size()), test::read_file(out));
  EXPECT_TRUE(temp_folder_empty());
}

TEST_F(PdfCli, PfxFilesAndTheirPasswords) {
  test::CertParams p;
  p.cn = "Firma Da Pfx";
  test::TestCert tc = test::make_cert(p);
  test::write_file(dir_ / "k.pfx", crypto::write_pkcs12(tc.cert, tc.key, "segreta"));
  std::string out = dir_ / "out.pdf";
  auto r = cli({"pdf", "sign", in_, "-o", out, "--pfx", dir_ / "k.pfx", "--password", "env:PW"},
               {"PW=segreta"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.err.find("by CN=Firma Da Pfx"), std::string::npos);
  std::filesystem::remove(out);

  r = cli({"pdf", "sign", in_, "-o", out, "--pfx", dir_ / "k.pfx", "--password", "env:PW"},
          {"PW=sbagliata"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("tessarel: error: "), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(out));
  // No password source and no terminal: nothing is asked, nothing waits.
  r = cli({"pdf", "sign", in_, "-o", out, "--pfx", dir_ / "k.pfx"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("password entry cancelled"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(out));
  // A password on the command line would be visible to every user.
  r = cli({"pdf", "sign", in_, "-o", out, "--pfx", dir_ / "k.pfx", "--password", "pass:segreta"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_EQ(cli({"pdf", "sign", in_, "--pfx", dir_ / "k.pfx", "--cert", id_}).exit_code, 2);
  EXPECT_EQ(cli({"pdf", "sign", in_, "--password", "env:PW"}).exit_code, 2);
  EXPECT_EQ(cli({"pdf", "sign", in_, "--cert", "00BADBAD"}).exit_code, 1);
  EXPECT_EQ(test::read_file(in_), original_);
  EXPECT_TRUE(temp_folder_empty());
}

TEST_F(PdfCli, BadDocumentsAreClearErrorsAndLeaveNothing) {
  std::string out = dir_ / "out.pdf";
  // The last cross-reference offset moved past the end of the file.
  std::string past = original_;
  std::size_t at = past.rfind("startxref\n") + 10;
  past.replace(at, past.find('\n', at) - at, "99999999");
  std::vector<std::pair<std::string, std::string>> bad = {
      {"testo.pdf", "solo testo\n"},
      {"vuoto.pdf", ""},
      {"tronco.pdf", original_.substr(0, original_.size() - 30)},
      {"oltre.pdf", past},
  };
  if (test::have_program("qpdf")) {
    ASSERT_EQ(test::run({"qpdf", "--encrypt", "", "titolare", "256", "--", in_, dir_ / "c.pdf"})
                  .exit_code,
              0);
    bad.push_back({"cifrato.pdf", test::read_file(dir_ / "c.pdf")});
  }
  for (const auto& [name, bytes] : bad) {
    test::write_file(dir_ / name, bytes);
    auto r = cli({"pdf", "sign", dir_ / name, "-o", out});
    EXPECT_EQ(r.exit_code, 1) << name;
    EXPECT_EQ(r.err.rfind("tessarel: error: ", 0), 0u) << name << ": " << r.err;
    EXPECT_EQ(test::read_file(dir_ / name), bytes) << name;
    EXPECT_FALSE(std::filesystem::exists(out)) << name;
    r = cli({"pdf", "verify", dir_ / name});
    EXPECT_EQ(r.exit_code, 1) << name;
  }
  auto r = cli({"pdf", "sign", dir_ / "oltre.pdf", "-o", out});
  EXPECT_NE(r.err.find("cross-reference offset (99999999) points past the end of the file"),
            std::string::npos)
      << r.err;
  r = cli({"pdf", "sign", dir_ / "vuoto.pdf", "-o", out});
  EXPECT_NE(r.err.find("vuoto.pdf is empty: it is not a PDF document"), std::string::npos) << r.err;
  if (test::have_program("qpdf")) {
    r = cli({"pdf", "sign", dir_ / "cifrato.pdf", "-o", out});
    EXPECT_NE(r.err.find("Cannot sign the encrypted document"), std::string::npos) << r.err;
    // Checking is not signing: its own words.
    r = cli({"pdf", "verify", dir_ / "cifrato.pdf"});
    EXPECT_NE(r.err.find("cifrato.pdf is encrypted: its signatures cannot be checked"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(r.err.find("Cannot sign"), std::string::npos) << r.err;
  }
  // Standard input that is empty, or not a PDF: said of standard input, not of the
  // temporary copy it went through.
  for (const std::string input : {"printf ''", "echo ciao"}) {
    r = test::run_shell(input + " | TMPDIR='" + tmp_ + "' '" + test::cli_path() + "' --store '" +
                        dir_ / "MY" + "' pdf sign - -o '" + out + "'");
    EXPECT_EQ(r.exit_code, 1) << input;
    EXPECT_NE(
        r.err.find(input == "echo ciao"
                       ? "tessarel: error: standard input is not a PDF document"
                       : "tessarel: error: standard input is empty: it is not a PDF document"),
        std::string::npos)
        << r.err;
    EXPECT_EQ(r.err.find(tmp_), std::string::npos) << r.err;
    EXPECT_FALSE(std::filesystem::exists(out));
  }
  r = cli({"pdf", "sign", dir_ / "assente.pdf", "-o", out});
  EXPECT_EQ(r.exit_code, 1);
  r = cli({"pdf", "sign", in_, "-o", dir_ / "nessuna cartella/out.pdf"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("Cannot create file"), std::string::npos) << r.err;
  // A store certificate whose key is gone.
  for (auto& e : std::filesystem::directory_iterator(dir_ / "MY"))
    if (e.path().extension() == ".key") std::filesystem::remove(e.path());
  r = cli({"pdf", "sign", in_, "-o", out, "--cert", id_});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "tessarel: error: Certificate " + id_ +
                       " not found, or its private key is not usable\n");
  EXPECT_FALSE(std::filesystem::exists(out));
  EXPECT_EQ(test::read_file(in_), original_);
  EXPECT_TRUE(temp_folder_empty());
}

TEST_F(PdfCli, TwoProcessesSigningOneDocumentInPlace) {
  // Each signs its own copy and replaces the file atomically: the last one wins, and the
  // file is a whole, valid signed document whatever the timing.
  test::CommandResult a, b;
  std::thread t([&] { a = cli({"pdf", "sign", in_, "--name", "Uno"}); });
  b = cli({"pdf", "sign", in_, "--name", "Due"});
  t.join();
  EXPECT_EQ(a.exit_code, 0) << a.err;
  EXPECT_EQ(b.exit_code, 0) << b.err;
  auto r = cli({"pdf", "verify", in_});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(test::read_file(in_).substr(0, original_.size()), original_);
  EXPECT_TRUE(temp_folder_empty());
}

}  // namespace
}  // namespace tessarel

namespace tessarel {
namespace {

TEST_F(PdfCli, TrustIsCheckedAgainstTheGivenAnchorsOnly) {
  test::CertParams ca_params;
  ca_params.cn = "CA di Prova";
  ca_params.ca = true;
  ca_params.key_usage = (1u << kKeyCertSign) | (1u << kCrlSign);
  test::TestCert ca = test::make_cert(ca_params);
  test::CertParams signer_params;
  signer_params.cn = "Firmatario Certificato";
  signer_params.key_usage = (1u << kDigitalSignature) | (1u << kNonRepudiation);
  test::TestCert signer = test::make_cert(signer_params, &ca);
  test::write_file(dir_ / "k.pfx", crypto::write_pkcs12(signer.cert, signer.key, ""));
  test::write_pem(ca.cert, dir_ / "ca.pem");
  test::CertParams other_params;
  other_params.cn = "Altra CA";
  other_params.ca = true;
  test::write_pem(test::make_cert(other_params).cert, dir_ / "other.pem");

  std::string out = dir_ / "firmato.pdf";
  auto r = cli({"pdf", "sign", in_, "-o", out, "--pfx", dir_ / "k.pfx", "--password", "pass:"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  // The signer's certificate travels in the signature; only its issuer is given as anchor.
  r = cli({"pdf", "verify", out, "--trust", dir_ / "ca.pem"});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("trusted: yes"), std::string::npos) << r.out;
  r = cli({"pdf", "verify", out, "--trust", dir_ / "other.pem"});
  EXPECT_EQ(r.exit_code, 1) << r.out;
  EXPECT_NE(r.out.find("trusted: no ("), std::string::npos) << r.out;
  r = cli({"--json", "pdf", "verify", out, "--trust", dir_ / "other.pem"});
  EXPECT_NE(r.out.find("\"trust_checked\": true, \"trusted\": false"), std::string::npos) << r.out;
  // Without trust options the signature is intact and trust is not claimed.
  r = cli({"pdf", "verify", out});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_NE(r.out.find("trust not checked"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace tessarel
