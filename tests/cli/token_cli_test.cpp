// Smart cards and HSMs through the command line, with SoftHSM2 tokens made in a temporary
// folder: listing, import, signing with keys that stay on the token, the archive, and what a
// card user meets (wrong or locked PIN, a pulled token, a refused key, a broken module).
// Envelopes are checked by openssl and certtool, the closed index by xmlsec1, the keys'
// protection by pkcs11-tool.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <thread>

#include "softhsm.h"
#include "test_support.h"

namespace tessarel {
namespace {

namespace fs = std::filesystem;

class TokenCli : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!test::SoftHsm::available()) GTEST_SKIP() << "SoftHSM2 or pkcs11-tool is not installed";
    pin_ = "--pin=file:" + hsm_.pin_file();
    test::write_file(dir_ / "a.txt", "alpha\n");
    test::write_file(dir_ / "b.txt", "beta\n");
  }
  test::CommandResult cli(std::vector<std::string> args, std::vector<std::string> env = {}) {
    args.insert(args.begin(), test::cli_path());
    auto e = hsm_.env();
    e.insert(e.end(), env.begin(), env.end());
    return test::run(args, e);
  }
  // A PKCS#12 file made by openssl, protected by the password in $PFXPW.
  std::string pfx_of(const test::TestCert& tc, const std::string& name) {
    std::string key = test::write_key_pem(tc.key, dir_ / (name + ".key"));
    std::string crt = test::write_pem(tc.cert, dir_ / (name + ".pem"));
    auto r = test::run({"openssl", "pkcs12", "-export", "-inkey", key, "-in", crt, "-out",
                        dir_ / (name + ".pfx"), "-passout", "env:PFXPW"},
                       {"PFXPW=segreto"});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    fs::remove(key);
    return dir_ / (name + ".pfx");
  }
  bool openssl_verifies(const std::string& envelope, const std::string& pem,
                        const std::string& content = "") {
    std::vector<std::string> a = {"openssl",  "cms", "-verify", "-binary", "-inform",
                                  "DER",      "-in", envelope,  "-CAfile", pem,
                                  "-purpose", "any", "-cades",  "-out",    "/dev/null"};
    if (!content.empty()) a.insert(a.end(), {"-content", content});
    auto r = test::run(a);
    last_ = r.err;
    return r.exit_code == 0;
  }
  bool certtool_verifies(const std::string& envelope, const std::string& pem,
                         const std::string& content = "") {
    std::vector<std::string> a = {"certtool", "--p7-verify", "--load-certificate", pem, "--inder",
                                  "--infile", envelope};
    if (!content.empty()) a.insert(a.end(), {"--load-data", content});
    auto r = test::run(a);
    last_ = r.out + r.err;
    return r.exit_code == 0;
  }
  // CKA_SENSITIVE and CKA_EXTRACTABLE of the private keys with this label, read from the
  // module with C_GetAttributeValue by a program of the tests' own.
  void expect_protected(const std::string& token, const std::string& label) {
    auto r = test::run({KEY_ATTRIBUTES, test::SoftHsm::module(), token},
                       {"SOFTHSM2_CONF=" + hsm_.conf(), "KEY_ATTRIBUTES_PIN=1234"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    int keys = 0;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind(label + "\t", 0) != 0) continue;
      ++keys;
      EXPECT_NE(line.find("\tsensitive=true"), std::string::npos) << line;
      EXPECT_NE(line.find("\textractable=false"), std::string::npos) << line;
    }
    EXPECT_EQ(keys, 1) << "private keys labelled " << label << ":\n" << r.out;
  }
  static std::string first_line(const std::string& s) { return s.substr(0, s.find('\n')); }

  test::SoftHsm hsm_;
  test::TempDir dir_;
  std::string pin_;
  std::string last_;
};

// The serial number SoftHSM2's own tool gives the token with this label.
std::string serial_of(const test::SoftHsm& hsm, const std::string& label) {
  auto r = test::run({"softhsm2-util", "--show-slots"}, hsm.env());
  auto field = [](const std::string& block, const std::string& name) {
    auto at = block.find(name + ":");
    if (at == std::string::npos) return std::string();
    at = block.find_first_not_of(' ', at + name.size() + 1);
    std::string v = block.substr(at, block.find('\n', at) - at);
    return v.substr(0, v.find_last_not_of(' ') + 1);
  };
  for (std::size_t at = r.out.find("\nSlot "); at != std::string::npos;) {
    std::size_t next = r.out.find("\nSlot ", at + 1);
    std::string block = r.out.substr(at, next == std::string::npos ? next : next - at);
    if (field(block, "Label") == label) return field(block, "Serial number");
    at = next;
  }
  return "";
}

TEST_F(TokenCli, TokenListFindsModulesThroughP11KitAndGivesAUriThatSelectsTheToken) {
  hsm_.add_token("Firma Qualificata \xC3\xA8");
  std::string serial = serial_of(hsm_, "Firma Qualificata \xC3\xA8");
  ASSERT_FALSE(serial.empty());
  auto r = cli({"token", "list"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("module softhsm2"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("token \"Firma Qualificata \xC3\xA8\", serial " + serial + ","),
            std::string::npos)
      << r.out;
  std::size_t u = r.out.find("pkcs11:model=");
  ASSERT_NE(u, std::string::npos) << r.out;
  std::string uri = r.out.substr(u, r.out.find('\n', u) - u);
  EXPECT_NE(uri.find("token=Firma%20Qualificata%20%C3%A8"), std::string::npos) << uri;
  EXPECT_NE(uri.find(";serial=" + serial + ";"), std::string::npos) << uri;

  // The URI as store: the token is there, empty.
  r = cli({"--store", uri, "cert", "list"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("no certificates in " + uri), std::string::npos) << r.err;

  r = cli({"token", "list", "--json", "--module", test::SoftHsm::module()});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out.find("opensc"), std::string::npos) << "only the module asked for";
  EXPECT_NE(r.out.find("\"label\": \"Firma Qualificata \xC3\xA8\", \"serial\": \"" + serial + "\""),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("\"login_required\": true"), std::string::npos);

  r = cli({"token", "list", "--module", "/nonexistent/module.so"});
  EXPECT_NE(r.out.find("not usable: Cannot load the PKCS#11 module"), std::string::npos) << r.out;
}

TEST_F(TokenCli, ImportedRsaKeySignsEnvelopesThatOpensslAndCerttoolAccept) {
  std::string store = hsm_.add_token("Firma");
  test::TestCert tc = test::make_cert({});
  std::string pem = test::write_pem(tc.cert, dir_ / "signer.pem");
  std::string pfx = pfx_of(tc, "signer");

  auto r = cli({"--store", store, pin_, "cert", "import", pfx, "--password", "env:PFXPW"},
               {"PFXPW=segreto"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, tc.cert.id() + "\n");
  expect_protected("Firma", tc.cert.subject_cn());

  r = cli({"--store", store, pin_, "cert", "list"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out.rfind(tc.cert.id() + "  key", 0), 0u) << r.out;
  r = cli({"--store", store, pin_, "cert", "show", tc.cert.id()});
  EXPECT_NE(r.out.find("Private key:  present, matches"), std::string::npos) << r.out;

  r = cli({"--store", store, pin_, "sign", dir_ / "a.txt", dir_ / "b.txt"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, dir_ / "a.txt.p7m\n" + dir_ / "b.txt.p7m\n");
  r = cli({"--store", store, pin_, "sign", "--detached", "--cert", tc.cert.id(), dir_ / "b.txt"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  for (const char* f : {"a.txt.p7m", "b.txt.p7m"}) {
    EXPECT_TRUE(openssl_verifies(dir_ / f, pem)) << f << ": " << last_;
    EXPECT_TRUE(certtool_verifies(dir_ / f, pem)) << f << ": " << last_;
  }
  EXPECT_TRUE(openssl_verifies(dir_ / "b.txt.p7s", pem, dir_ / "b.txt")) << last_;
  EXPECT_TRUE(certtool_verifies(dir_ / "b.txt.p7s", pem, dir_ / "b.txt")) << last_;
  EXPECT_EQ(cli({"verify", dir_ / "a.txt.p7m"}).exit_code, 0);

  // The key stays where it is: no export, and its protection is unchanged by use.
  r = cli({"--store", store, pin_, "cert", "export", tc.cert.id(), "-o", dir_ / "out.pfx",
           "--password", "pass:"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("stays on the token \"Firma\" and cannot be exported"), std::string::npos)
      << r.err;
  EXPECT_FALSE(fs::exists(dir_ / "out.pfx"));
  EXPECT_FALSE(fs::exists(dir_ / "out.pfx.tmp"));
  expect_protected("Firma", tc.cert.subject_cn());

  // Importing again adds nothing.
  r = cli({"--store", store, pin_, "cert", "import", pfx, "--password", "env:PFXPW"},
          {"PFXPW=segreto"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  std::string listing = hsm_.list_objects("Firma");
  EXPECT_EQ(listing.find("Certificate Object"), listing.rfind("Certificate Object")) << listing;

  // Removal takes the certificate and its key pair off the token.
  r = cli({"--store", store, pin_, "cert", "remove", "--yes", tc.cert.id()});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  listing = hsm_.list_objects("Firma");
  EXPECT_EQ(listing.find("Object;"), std::string::npos) << listing;
}

TEST_F(TokenCli, EcdsaAndRsaPssKeysSignWithTheMechanismTheirCertificateAsksFor) {
  std::string store = hsm_.add_token("Misti");
  // P-256, put on the token by pkcs11-tool, without a public key object.
  test::CertParams ep;
  ep.cn = "Firma EC";
  ep.kind = KeyKind::Ec;
  ep.bits = 256;
  test::TestCert ec = test::make_cert(ep);
  hsm_.put_key("Misti", ec, "0e01", "ec");
  hsm_.put_cert("Misti", ec.cert, "0e01", "ec");
  std::string ec_pem = test::write_pem(ec.cert, dir_ / "ec.pem");

  auto r = cli({"--store", store, pin_, "sign", "--cert", ec.cert.id(), dir_ / "a.txt"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_TRUE(openssl_verifies(dir_ / "a.txt.p7m", ec_pem)) << last_;
  EXPECT_TRUE(certtool_verifies(dir_ / "a.txt.p7m", ec_pem)) << last_;
  EXPECT_NE(last_.find("ECDSA-SHA256"), std::string::npos) << last_;

  // An RSA key whose certificate says id-RSASSA-PSS, made by openssl.
  auto made = test::run_shell(
      "cd " + dir_.path() +
      " && openssl req -x509 -newkey rsa-pss -pkeyopt rsa_keygen_bits:2048 -nodes -keyout "
      "pss.key -out pss.pem -subj '/CN=Firma PSS' -days 30 2>&1 && openssl pkcs12 -export "
      "-inkey pss.key -in pss.pem -out pss.pfx -passout pass: 2>&1 && rm pss.key");
  ASSERT_EQ(made.exit_code, 0) << made.out;
  Certificate pss = Certificate::from_pem(test::read_file(dir_ / "pss.pem"));
  ASSERT_EQ(pss.key_kind(), KeyKind::RsaPss);
  r = cli({"--store", store, pin_, "cert", "import", dir_ / "pss.pfx", "--password", "pass:"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  expect_protected("Misti", "Firma PSS");
  r = cli({"--store", store, pin_, "sign", "--cert", pss.id(), dir_ / "b.txt"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_TRUE(openssl_verifies(dir_ / "b.txt.p7m", dir_ / "pss.pem")) << last_;
  auto printed = test::run(
      {"openssl", "cms", "-cmsout", "-print", "-inform", "DER", "-in", dir_ / "b.txt.p7m"});
  EXPECT_NE(printed.out.find("rsassaPss"), std::string::npos) << printed.out;
  EXPECT_EQ(cli({"verify", dir_ / "b.txt.p7m"}).exit_code, 0);
}

TEST_F(TokenCli, ArchiveClosedWithATokenKeyVerifiesWithXmlsec1) {
  std::string store = hsm_.add_token("Archivio");
  // RSA imported by us; P-256 put there by pkcs11-tool (the index is signed with ECDSA).
  test::TestCert rsa = test::make_cert({});
  ASSERT_EQ(
      cli({"--store", store, pin_, "cert", "import", pfx_of(rsa, "s"), "--password", "env:PFXPW"},
          {"PFXPW=segreto"})
          .exit_code,
      0);
  test::CertParams ep;
  ep.cn = "Archivio EC";
  ep.kind = KeyKind::Ec;
  ep.bits = 256;
  test::TestCert ec = test::make_cert(ep);
  hsm_.put_key("Archivio", ec, "ec01", "ec");
  hsm_.put_cert("Archivio", ec.cert, "ec01", "ec");

  for (const test::TestCert* tc : {&rsa, &ec}) {
    std::string name = tc == &rsa ? "rsa" : "ec";
    std::string pem = test::write_pem(tc->cert, dir_ / (name + ".pem"));
    std::string arch = dir_ / ("archivio-" + name);
    // Two commands: the second close signs an index reopened from the first.
    for (const char* file : {"a.txt", "b.txt"}) {
      auto r = cli({"--store", store, pin_, "archive", "add", arch, "--type", "Contratti", "--date",
                    "2024-02-03", "--cert", tc->cert.id(), dir_ / file});
      ASSERT_EQ(r.exit_code, 0) << name << ": " << r.err;
      r = cli({"--store", store, pin_, "archive", "verify", arch, "--cert", tc->cert.id()});
      EXPECT_EQ(r.exit_code, 0) << name << ": " << r.out << r.err;
      auto x = test::run({"xmlsec1", "--verify", "--enabled-key-data", "x509", "--trusted-pem", pem,
                          "--enabled-reference-uris", "empty", arch + "/index.xml"});
      EXPECT_EQ(x.exit_code, 0) << name << ": " << x.out << x.err;
      EXPECT_TRUE(openssl_verifies(arch + "/Contratti/2024/02/" + file + ".p7m", pem)) << last_;
    }
    EXPECT_NE(test::read_file(arch + "/index.xml")
                  .find(tc == &rsa ? "xmldsig#rsa-sha1" : "xmldsig-more#ecdsa-sha256"),
              std::string::npos)
        << name;
  }
  // Two files in one command: signed ahead on the threads, each signature made on the
  // token's one session.
  std::string arch = dir_ / "archivio-batch";
  std::string pem = dir_ / "rsa.pem";
  auto r = cli({"--store", store, pin_, "archive", "add", arch, "--type", "Contratti", "--date",
                "2024-02-03", "--cert", rsa.cert.id(), dir_ / "a.txt", dir_ / "b.txt"},
               {"TESSAREL_THREADS=4"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, dir_ / "a.txt\n" + dir_ / "b.txt\n");
  auto x = test::run({"xmlsec1", "--verify", "--enabled-key-data", "x509", "--trusted-pem", pem,
                      "--enabled-reference-uris", "empty", arch + "/index.xml"});
  EXPECT_EQ(x.exit_code, 0) << x.out << x.err;
  EXPECT_TRUE(openssl_verifies(arch + "/Contratti/2024/02/a.txt.p7m", pem)) << last_;
  EXPECT_TRUE(openssl_verifies(arch + "/Contratti/2024/02/b.txt.p7m", pem)) << last_;
}

TEST_F(TokenCli, PinSourcesAndAWrongPinThatWritesNothing) {
  std::string store = hsm_.add_token("Pin");
  test::TestCert tc = test::make_cert({});
  ASSERT_EQ(
      cli({"--store", store, pin_, "cert", "import", pfx_of(tc, "s"), "--password", "env:PFXPW"},
          {"PFXPW=segreto"})
          .exit_code,
      0);

  // Never on the command line.
  for (const char* bad : {"--pin=1234", "--pin=pass:1234", "--pin=pass:"}) {
    auto r = cli({"--store", store, bad, "sign", dir_ / "a.txt"});
    EXPECT_EQ(r.exit_code, 2) << bad;
    EXPECT_FALSE(fs::exists(dir_ / "a.txt.p7m"));
  }

  auto r = cli({"--store", store, "--pin=file:" + hsm_.pin_file("sbagliato77"), "sign",
                dir_ / "a.txt", dir_ / "b.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("Wrong PIN for the token \"Pin\""), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("sbagliato77"), std::string::npos) << "the PIN is never shown";
  EXPECT_FALSE(fs::exists(dir_ / "a.txt.p7m"));
  EXPECT_FALSE(fs::exists(dir_ / "b.txt.p7m"));

  // Without a PIN and without a terminal: no question, a clear refusal, nothing written.
  r = cli({"--store", store, "sign", dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("No PIN was given for the token \"Pin\""), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(dir_ / "a.txt.p7m"));

  r = cli({"--store", store, "--pin=env:TOKEN_PIN", "sign", dir_ / "a.txt"}, {"TOKEN_PIN=1234"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  // fd: from a pipe, with the store from the environment.
  r = test::run_shell("echo 1234 | SOFTHSM2_CONF=" + hsm_.conf() + " TESSAREL_STORE='" + store +
                      "' " + test::cli_path() + " --pin fd:0 sign " + dir_ / "b.txt" + " 2>&1");
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_TRUE(fs::exists(dir_ / "b.txt.p7m"));
}

TEST_F(TokenCli, TriesRunOutThenTheLockedPinIsReportedAndNothingIsSigned) {
  // A card's retry counter (3, as an SO would set it) around SoftHSM2.
  hsm_.add_token("Carta");
  test::TestCert tc = test::make_cert({});
  hsm_.put_key("Carta", tc, "01", "firma");
  hsm_.put_cert("Carta", tc.cert, "01", "firma");
  std::string store = std::string("pkcs11:token=Carta?module-path=") + PIN_COUNTER_MODULE;
  std::vector<std::string> env = {"PIN_COUNTER_STATE=" + (dir_ / "tries"), "PIN_COUNTER_LIMIT=3"};
  std::string wrong = "--pin=file:" + hsm_.pin_file("0000");
  const char* expected[] = {"few tries are left before it locks", "one more wrong PIN locks it",
                            "the PIN is now locked"};
  for (const char* e : expected) {
    auto r = cli({"--store", store, wrong, "cert", "list"}, env);
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_NE(r.err.find(std::string("Wrong PIN for the token \"Carta\"; ") + e), std::string::npos)
        << r.err;
  }
  auto r = cli({"--store", store, pin_, "sign", dir_ / "a.txt"}, env);
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("The PIN of the token \"Carta\" is locked; it must be unblocked with the "
                       "security officer's PIN"),
            std::string::npos)
      << r.err;
  EXPECT_FALSE(fs::exists(dir_ / "a.txt.p7m"));
  r = cli({"token", "list", "--module", PIN_COUNTER_MODULE}, env);
  EXPECT_NE(r.out.find("PIN LOCKED"), std::string::npos) << r.out;
}

TEST_F(TokenCli, ALoginThatFailsWithoutLookingAtThePinIsTriedAgainAWrongPinIsNot) {
  hsm_.add_token("Occupata");
  test::TestCert tc = test::make_cert({});
  hsm_.put_key("Occupata", tc, "01", "firma");
  hsm_.put_cert("Occupata", tc.cert, "01", "firma");
  std::string store = std::string("pkcs11:token=Occupata?module-path=") + PIN_COUNTER_MODULE;
  std::string log = dir_ / "logins";
  auto env = [&](const char* general_errors) {
    return std::vector<std::string>{"PIN_COUNTER_STATE=" + (dir_ / "tries"), "PIN_COUNTER_LIMIT=5",
                                    "PIN_LOGIN_LOG=" + log,
                                    std::string("PIN_LOGIN_GENERAL_ERRORS=") + general_errors};
  };
  // Busy once: the second try logs in.
  auto r = cli({"--store", store, pin_, "sign", dir_ / "a.txt"}, env("1"));
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(test::read_file(log), "user pin\nuser pin\n");
  EXPECT_TRUE(openssl_verifies(dir_ / "a.txt.p7m", test::write_pem(tc.cert, dir_ / "s.pem")))
      << last_;
  // Busy for good: a bounded number of tries, then the module's answer, and nothing signed.
  fs::remove(log);
  r = cli({"--store", store, pin_, "sign", dir_ / "b.txt"}, env("100"));
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("Cannot log in to the token \"Occupata\": CKR_GENERAL_ERROR"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(test::read_file(log), "user pin\nuser pin\nuser pin\n");
  EXPECT_FALSE(fs::exists(dir_ / "b.txt.p7m"));
  // A wrong PIN is an answer: asked once, one try of the card's counter used.
  fs::remove(log);
  r = cli({"--store", store, "--pin=file:" + hsm_.pin_file("0000"), "sign", dir_ / "b.txt"},
          env("0"));
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("Wrong PIN for the token \"Occupata\""), std::string::npos) << r.err;
  EXPECT_EQ(test::read_file(log), "user pin\n");
  EXPECT_EQ(test::read_file(dir_ / "tries"), "1\n");
  EXPECT_FALSE(fs::exists(dir_ / "b.txt.p7m"));
}

TEST_F(TokenCli, APinPadReaderLogsInOnItsKeypadOnceAndThePinIsNeverAsked) {
  // SoftHSM2 behind a reader with a keypad: a login without a PIN is the user typing it there.
  hsm_.add_token("Tastierino");
  test::TestCert tc = test::make_cert({});
  std::string pem = test::write_pem(tc.cert, dir_ / "s.pem");
  hsm_.put_key("Tastierino", tc, "01", "firma");
  hsm_.put_cert("Tastierino", tc.cert, "01", "firma");
  std::string store = std::string("pkcs11:token=Tastierino?module-path=") + PIN_COUNTER_MODULE;
  std::vector<std::string> env = {"PIN_COUNTER_STATE=" + (dir_ / "tries"), "PIN_PAD=1234",
                                  "PIN_LOGIN_LOG=" + (dir_ / "logins")};

  auto r = cli({"token", "list", "--module", PIN_COUNTER_MODULE}, env);
  EXPECT_NE(r.out.find("PIN pad"), std::string::npos) << r.out;

  // No --pin and no terminal: nothing to ask, and nothing needs asking.
  r = cli({"--store", store, "sign", dir_ / "a.txt", dir_ / "b.txt"}, env);
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const std::string line = "Enter the PIN of the token \"Tastierino\" on the reader's keypad";
  auto at = r.err.find(line);
  EXPECT_NE(at, std::string::npos) << r.err;
  EXPECT_EQ(r.err.find(line, at + 1), std::string::npos) << "asked twice: " << r.err;
  EXPECT_EQ(r.err.find("No PIN was given"), std::string::npos) << r.err;
  EXPECT_EQ(test::read_file(dir_ / "logins"), "user keypad\n") << "one login, without a PIN";
  for (const char* f : {"a.txt.p7m", "b.txt.p7m"})
    EXPECT_TRUE(openssl_verifies(dir_ / f, pem)) << f << ": " << last_;

  // A PIN given on the command line is not passed past the keypad either.
  fs::remove(dir_ / "logins");
  r = cli({"--store", store, pin_, "sign", "--detached", dir_ / "a.txt"}, env);
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(test::read_file(dir_ / "logins"), "user keypad\n");
  EXPECT_TRUE(openssl_verifies(dir_ / "a.txt.p7s", pem, dir_ / "a.txt")) << last_;

  // A key that wants the PIN before every signature: each time on the keypad too.
  test::CertParams qp;
  qp.cn = "Firma Qualificata";
  qp.kind = KeyKind::Ec;
  qp.bits = 256;
  test::TestCert q = test::make_cert(qp);
  hsm_.put_key("Tastierino", q, "02", "qualificata", {"--always-auth"});
  hsm_.put_cert("Tastierino", q.cert, "02", "qualificata");
  fs::remove(dir_ / "logins");
  r = cli({"--store", store, "sign", "--detached", "--cert", q.cert.id(), dir_ / "a.txt",
           dir_ / "b.txt"},
          env);
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(test::read_file(dir_ / "logins"), "user keypad\ncontext keypad\ncontext keypad\n");
  std::string qpem = test::write_pem(q.cert, dir_ / "q.pem");
  EXPECT_TRUE(openssl_verifies(dir_ / "b.txt.p7s", qpem, dir_ / "b.txt")) << last_;
}

TEST_F(TokenCli, ATokenPulledBetweenTwoCallsIsReportedGone) {
  std::string store = hsm_.add_token("Chiavetta");
  test::TestCert tc = test::make_cert({});
  ASSERT_EQ(
      cli({"--store", store, pin_, "cert", "import", pfx_of(tc, "s"), "--password", "env:PFXPW"},
          {"PFXPW=segreto"})
          .exit_code,
      0);
  ASSERT_EQ(cli({"--store", store, pin_, "sign", dir_ / "a.txt"}).exit_code, 0);
  hsm_.delete_token("Chiavetta");
  auto r = cli({"--store", store, pin_, "sign", "--cert", tc.cert.id(), dir_ / "b.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("no token present matches " + store), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(dir_ / "b.txt.p7m"));
}

TEST_F(TokenCli, CertificatesSharingAKeyIdAndACertificateWithoutKey) {
  std::string store = hsm_.add_token("Condiviso");
  test::CertParams p1, p2, p3;
  p1.cn = "Primo";
  p2.cn = "Secondo";
  p3.cn = "Senza chiave";
  test::TestCert c1 = test::make_cert(p1), c2 = test::make_cert(p2), c3 = test::make_cert(p3);
  // Same CKA_ID and label for both certificates; only the first one's key is there.
  hsm_.put_key("Condiviso", c1, "01", "doppio");
  hsm_.put_cert("Condiviso", c1.cert, "01", "doppio");
  hsm_.put_cert("Condiviso", c2.cert, "01", "doppio");
  hsm_.put_cert("Condiviso", c3.cert, "03", "solo");

  auto r = cli({"--store", store, pin_, "cert", "list"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find(c3.cert.id() + "  -  "), std::string::npos) << r.out;
  EXPECT_EQ(cli({"--store", store, pin_, "cert", "list"}).out, r.out) << "the order is stable";

  r = cli({"--store", store, pin_, "cert", "show", c1.cert.id()});
  EXPECT_NE(r.out.find("present, matches"), std::string::npos) << r.out;
  r = cli({"--store", store, pin_, "cert", "show", c2.cert.id()});
  EXPECT_NE(r.out.find("present, NOT usable"), std::string::npos) << r.out;
  r = cli({"--store", store, pin_, "cert", "show", c3.cert.id()});
  EXPECT_NE(r.out.find("Private key:  none"), std::string::npos) << r.out;

  for (const auto* c : {&c2, &c3}) {
    r = cli({"--store", store, pin_, "sign", "--cert", c->cert.id(), dir_ / "a.txt"});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_NE(r.err.find("its private key is not usable"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(dir_ / "a.txt.p7m"));
  }
  r = cli({"--store", store, pin_, "sign", "--cert", c1.cert.id(), dir_ / "a.txt"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_TRUE(openssl_verifies(dir_ / "a.txt.p7m", test::write_pem(c1.cert, dir_ / "c1.pem")))
      << last_;
}

TEST_F(TokenCli, AKeyTheTokenRefusesToUseGivesAClearErrorAndNoEnvelope) {
  std::string store = hsm_.add_token("Ristretto");
  test::CertParams ep;
  ep.kind = KeyKind::Ec;
  ep.bits = 256;
  test::TestCert ec = test::make_cert(ep);
  // The token lets this key sign only with hashing done on the token.
  hsm_.put_key("Ristretto", ec, "aa", "ec", {"--allowed-mechanisms", "ECDSA-SHA256"});
  hsm_.put_public_key("Ristretto", ec, "aa", "ec");
  hsm_.put_cert("Ristretto", ec.cert, "aa", "ec");
  auto r = cli({"--store", store, pin_, "sign", dir_ / "a.txt", dir_ / "b.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("The token \"Ristretto\" refuses to sign with the key of certificate " +
                       ec.cert.id()),
            std::string::npos)
      << r.err;
  EXPECT_FALSE(fs::exists(dir_ / "a.txt.p7m"));
  EXPECT_FALSE(fs::exists(dir_ / "b.txt.p7m"));
}

TEST_F(TokenCli, ModulesThatDoNotLoadAndBadUrisAreNamed) {
  auto r = cli({"--store", "pkcs11:?module-path=/nonexistent/pkcs11.so", "cert", "list"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("Cannot load the PKCS#11 module \"/nonexistent/pkcs11.so\""),
            std::string::npos)
      << r.err;
  // A real shared library that is not a PKCS#11 module.
  std::string lib = TESSAREL_LIBRARY_PATH;
  r = cli({"--store", "pkcs11:?module-path=" + lib, "sign", dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("is not a PKCS#11 module"), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(dir_ / "a.txt.p7m"));
  r = cli({"--store", "pkcs11:tokn=x", "cert", "list"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("Unknown attribute \"tokn\""), std::string::npos) << r.err;
}

TEST_F(TokenCli, TheModuleMayStandAmongThePathAttributesOrInTheQuery) {
  std::string store = hsm_.add_token("Percorso");
  test::TestCert tc = test::make_cert({});
  std::string pem = test::write_pem(tc.cert, dir_ / "s.pem");
  ASSERT_EQ(
      cli({"--store", store, pin_, "cert", "import", pfx_of(tc, "s"), "--password", "env:PFXPW"},
          {"PFXPW=segreto"})
          .exit_code,
      0);
  const std::string module = test::SoftHsm::module();
  for (const std::string& uri :
       std::vector<std::string>{"pkcs11:token=Percorso;module-path=" + module,
                                "pkcs11:module-path=" + module + ";token=Percorso",
                                "pkcs11:token=Percorso?module-path=" + module,
                                "pkcs11:token=Percorso;module-name=softhsm2"}) {
    auto r = cli({"--store", uri, pin_, "sign", dir_ / "a.txt"});
    ASSERT_EQ(r.exit_code, 0) << uri << ": " << r.err;
    EXPECT_TRUE(openssl_verifies(dir_ / "a.txt.p7m", pem)) << uri << ": " << last_;
    fs::remove(dir_ / "a.txt.p7m");
  }
  // The module named in the path is the one used, not a configured one that also has the token.
  auto r = cli({"--store", "pkcs11:token=Percorso;module-path=/nonexistent/p11.so", pin_, "sign",
                dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("Cannot load the PKCS#11 module \"/nonexistent/p11.so\""), std::string::npos)
      << r.err;
  r = cli({"--store", "pkcs11:token=Percorso;module-name=nessuno", pin_, "sign", dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("No PKCS#11 module named \"nessuno\""), std::string::npos) << r.err;
  // Named in both places: refused rather than one of them silently winning.
  r = cli({"--store", "pkcs11:token=Percorso;module-path=" + module + "?module-path=" + module,
           pin_, "sign", dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("The attribute module-path appears twice"), std::string::npos) << r.err;
  r = cli({"--store", "pkcs11:token=Percorso;module-path=libsofthsm2.so", pin_, "sign",
           dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("must be an absolute path"), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(dir_ / "a.txt.p7m"));
}

TEST_F(TokenCli, AModuleThatDoesNotStartIsReportedOnceAndNotStartedAgainAtEveryLook) {
  std::string store = hsm_.add_token("Rotto");
  // SoftHSM2 refuses to start without its configuration file.
  std::vector<std::string> broken = {"SOFTHSM2_CONF=" + (dir_ / "missing.conf")};
  auto count = [](const std::string& text, const std::string& what) {
    int n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
      ++n;
    return n;
  };
  // Each command looks at the tokens several times (the certificates, the key, the stamp).
  const std::pair<std::vector<std::string>, int> commands[] = {
      {{"sign", dir_ / "a.txt", dir_ / "b.txt"}, 1},
      {{"cert", "list"}, 0},
      {{"archive", "add", dir_ / "arch", "--type", "T", dir_ / "a.txt"}, 1}};
  for (auto [args, exit_code] : commands) {
    args.insert(args.begin(), {"--store", store, pin_});
    auto r = cli(args, broken);
    EXPECT_EQ(r.exit_code, exit_code) << args[3] << ": " << r.err;
    EXPECT_EQ(count(r.err, "skipping module softhsm2"), 1) << args[3] << ": " << r.err;
    EXPECT_EQ(count(r.err, "does not start: CKR_GENERAL_ERROR"), 1) << args[3] << ": " << r.err;
    EXPECT_EQ(count(r.err, "no token present matches " + store), 1) << args[3] << ": " << r.err;
  }
  EXPECT_FALSE(fs::exists(dir_ / "a.txt.p7m"));
  EXPECT_FALSE(fs::exists(dir_ / "b.txt.p7m"));
  EXPECT_FALSE(fs::exists(dir_ / "arch/index.xml"));
}

TEST_F(TokenCli, ThePinIsAskedOnTheTerminalWithTheTokensNameAndNotEchoed) {
  std::string store = hsm_.add_token("Terminale");
  test::TestCert tc = test::make_cert({});
  ASSERT_EQ(
      cli({"--store", store, pin_, "cert", "import", pfx_of(tc, "s"), "--password", "env:PFXPW"},
          {"PFXPW=segreto"})
          .exit_code,
      0);
  hsm_.use_in_this_process();  // the terminal run inherits this environment
  auto r = test::on_terminal({test::cli_path(), "--store", store, "sign", dir_ / "a.txt"},
                             "Inserire la Password:", "1234\n");
  EXPECT_EQ(r.exit_code, 0) << r.screen;
  EXPECT_NE(r.screen.find("Richiesta Password - token Terminale"), std::string::npos) << r.screen;
  EXPECT_EQ(r.screen.find("1234"), std::string::npos) << r.screen;
  EXPECT_TRUE(fs::exists(dir_ / "a.txt.p7m"));

  // The picker over the token, the PIN from a file.
  r = test::on_terminal({test::cli_path(), "--store", store, pin_, "cert", "pick"}, "> ",
                        "0\nok\n");
  EXPECT_EQ(r.exit_code, 0) << r.screen;
  EXPECT_NE(r.screen.find(tc.cert.id()), std::string::npos) << r.screen;
  // The list's caption names the token.
  EXPECT_NE(r.screen.find("Certificati installati nel token \"Terminale\""), std::string::npos)
      << r.screen;
}

TEST_F(TokenCli, TwoProcessesSignWithTheSameTokenAtOnce) {
  std::string store = hsm_.add_token("Condivisa");
  test::TestCert tc = test::make_cert({});
  std::string pem = test::write_pem(tc.cert, dir_ / "s.pem");
  ASSERT_EQ(
      cli({"--store", store, pin_, "cert", "import", pfx_of(tc, "s"), "--password", "env:PFXPW"},
          {"PFXPW=segreto"})
          .exit_code,
      0);
  std::vector<std::string> files;
  for (int i = 0; i < 20; ++i) {
    files.push_back(dir_ / ("f" + std::to_string(i) + ".txt"));
    test::write_file(files.back(), std::string(100 + i, 'x'));
  }
  // Each process reads its PIN from a FIFO, so that both have found the token before either
  // logs in: SoftHSM2 can miss a token for good in a process that starts while another
  // process is logging in to it, which is no fault of ours. Then both sign at once.
  std::vector<pid_t> children;
  std::vector<std::string> fifos;
  for (int half = 0; half < 2; ++half) {
    fifos.push_back(dir_ / ("pin" + std::to_string(half)));
    ASSERT_EQ(::mkfifo(fifos.back().c_str(), 0600), 0);
    std::vector<std::string> args = {
        test::cli_path(), "--store", store, "--pin=file:" + fifos.back(), "-q", "sign"};
    for (int i = half; i < 20; i += 2)
      args.push_back(files[static_cast<std::size_t>(i)]);
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::setenv("SOFTHSM2_CONF", hsm_.conf().c_str(), 1);
      std::vector<char*> argv;
      for (auto& a : args)
        argv.push_back(a.data());
      argv.push_back(nullptr);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    children.push_back(pid);
  }
  // A FIFO opens for writing without blocking only once its reader has opened it.
  std::vector<int> writers;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  for (const auto& fifo : fifos) {
    int fd = -1;
    while ((fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0 &&
           std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_GE(fd, 0) << "a signer never asked for its PIN";
    writers.push_back(fd);
  }
  for (int fd : writers) {
    if (fd < 0) continue;
    EXPECT_EQ(::write(fd, "1234\n", 5), 5);
    ::close(fd);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  }
  for (const auto& f : files)
    EXPECT_TRUE(openssl_verifies(f + ".p7m", pem)) << f << ": " << last_;
}

// A batch signed with a token key on four threads: the files are read and digested ahead,
// every signature is made on the token's one session; what the user sees and gets is what
// one thread gives, and a missing PIN still signs nothing.
TEST_F(TokenCli, ABatchOnFourThreadsSignsEveryFileOnTheToken) {
  std::string store = hsm_.add_token("Lotto");
  test::TestCert tc = test::make_cert({});
  std::string pem = test::write_pem(tc.cert, dir_ / "s.pem");
  ASSERT_EQ(
      cli({"--store", store, pin_, "cert", "import", pfx_of(tc, "s"), "--password", "env:PFXPW"},
          {"PFXPW=segreto"})
          .exit_code,
      0);
  std::vector<std::string> args = {"--store", store, pin_, "sign", "--cert", tc.cert.id()};
  for (int i = 0; i < 16; ++i) {
    args.push_back(dir_ / ("f" + std::to_string(i) + ".txt"));
    if (i != 9) test::write_file(args.back(), std::string(static_cast<std::size_t>(i * 300), 'x'));
  }
  test::CommandResult runs[2];
  std::vector<Bytes> made[2];
  for (int k = 0; k < 2; ++k) {
    runs[k] = cli(args, {k == 0 ? "TESSAREL_THREADS=1" : "TESSAREL_THREADS=4"});
    for (int i = 0; i < 16; ++i) {
      if (i == 9) continue;
      std::string f = dir_ / ("f" + std::to_string(i) + ".txt");
      EXPECT_TRUE(openssl_verifies(f + ".p7m", pem)) << f << ": " << last_;
      made[k].push_back(test::read_bytes(f + ".p7m"));
      fs::remove(f + ".p7m");
    }
  }
  EXPECT_EQ(runs[0].exit_code, 1) << runs[0].err;  // f9 is missing
  EXPECT_EQ(runs[1].exit_code, runs[0].exit_code);
  EXPECT_EQ(runs[1].out, runs[0].out);
  EXPECT_EQ(runs[1].err, runs[0].err);
  ASSERT_EQ(made[0].size(), 15u);
  ASSERT_EQ(made[1].size(), 15u);
  for (std::size_t i = 0; i < made[0].size(); ++i)
    EXPECT_EQ(test::without_signing_time(made[1][i]), test::without_signing_time(made[0][i])) << i;

  // Without a PIN: refused at the first file, nothing written on any thread.
  auto r = cli({"--store", store, "sign", args[6], args[7], args[8]}, {"TESSAREL_THREADS=4"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("No PIN was given for the token \"Lotto\""), std::string::npos) << r.err;
  for (int i = 6; i <= 8; ++i)
    EXPECT_FALSE(fs::exists(args[static_cast<std::size_t>(i)] + ".p7m"))
        << args[static_cast<std::size_t>(i)];
}

}  // namespace
}  // namespace tessarel
