// tessarel sign, verify and extract as scripts use them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <random>
#include <thread>

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

// A batch signed on one thread and on four. What a user sees must not depend on it: the same
// progress lines in the same order, the same output, exit code and files left behind, and
// envelopes equal byte for byte but for the signing time (and so the signature value).
// Root reads every file, so the command runs as nobody when the tests run as root.
class CmsCliBatch : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::chmod(dir_.path().c_str(), 0755), 0);
    own(dir_.path());
    auto r = cli({"cert", "new", "--cn", "Firma In Blocco", "--key", "rsa", "--bits", "2048"}, 1);
    ASSERT_EQ(r.exit_code, 0) << r.err;
    id_ = r.out.substr(0, r.out.size() - 1);
    r = cli({"cert", "show", "--pem", id_}, 1);
    pem_ = dir_ / "signer.pem";
    test::write_file(pem_, r.out);
  }
  test::CommandResult cli(std::vector<std::string> args, int threads) {
    args.insert(args.begin(), {test::cli_path(), "--store", dir_ / "MY"});
    if (::geteuid() == 0)
      args.insert(args.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    return test::run(args, {"TESSAREL_THREADS=" + std::to_string(threads)});
  }
  // The command's user owns what the test makes for it.
  void own(const std::string& path) {
    if (::geteuid() == 0) {
      ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0) << path;
    }
  }
  std::string file(const std::string& name, std::size_t size) {
    std::string content(size, '\0');
    for (auto& c : content)
      c = static_cast<char>(rng_());
    test::write_file(dir_ / name, content);
    own(dir_ / name);
    return dir_ / name;
  }
  // Every envelope in the folder, read.
  std::map<std::string, Bytes> envelopes() {
    std::map<std::string, Bytes> out;
    for (const auto& e : std::filesystem::directory_iterator(dir_.path())) {
      std::string name = e.path().filename().string();
      if (name.ends_with(".p7m") || name.ends_with(".p7s"))
        out[name] = test::read_bytes(e.path().string());
    }
    return out;
  }
  void remove(const std::map<std::string, Bytes>& files) {
    for (const auto& [name, bytes] : files)
      std::filesystem::remove(dir_ / name);
  }
  static Bytes masked(Bytes b) { return test::without_signing_time(std::move(b)); }
  bool openssl_verifies(const std::string& envelope, const std::string& content) {
    std::vector<std::string> a = {"openssl",  "cms", "-verify", "-binary", "-inform",
                                  "DER",      "-in", envelope,  "-CAfile", pem_,
                                  "-purpose", "any", "-cades",  "-out",    dir_ / "openssl.out"};
    if (envelope.ends_with(".p7s")) a.insert(a.end(), {"-content", content});
    auto r = test::run(a);
    bool same = envelope.ends_with(".p7s") ||
                test::read_bytes(dir_ / "openssl.out") == test::read_bytes(content);
    std::filesystem::remove(dir_ / "openssl.out");
    return r.exit_code == 0 && same;
  }

  test::TempDir dir_;
  std::string id_, pem_;
  std::mt19937 rng_{17};
};

// Feeds a named pipe once the program opens it for reading (gives up after a while).
class PipeFeeder {
 public:
  PipeFeeder(const std::string& path, std::string content)
      : thread_([path, content = std::move(content)] {
          auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
          int fd = -1;
          while ((fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK)) < 0 &&
                 std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
          if (fd < 0) return;
          ::fcntl(fd, F_SETFL, 0);
          EXPECT_EQ(::write(fd, content.data(), content.size()),
                    static_cast<ssize_t>(content.size()));
          ::close(fd);
        }) {}
  ~PipeFeeder() { thread_.join(); }

 private:
  std::thread thread_;
};

TEST_F(CmsCliBatch, OneThreadAndFourGiveTheSameProgressOutputAndEnvelopes) {
  std::vector<std::string> list;
  list.push_back(file("uno.txt", 3000));
  list.push_back(file("vuoto.txt", 0));
  list.push_back(file("fattura-\xC3\xA8-\xC3\xBC-\xE6\x97\xA5\xE6\x9C\xAC.txt", 1200));
  list.push_back(dir_ / "manca.txt");  // missing
  list.push_back(file("con spazio.bin", 70000));
  // Written by an earlier entry of this batch: read as that entry left it.
  list.push_back(dir_ / "uno.txt.p7m");
  list.push_back(file("due.txt", 10));
  ASSERT_EQ(::mkfifo((dir_ / "tubo").c_str(), 0644), 0);
  own(dir_ / "tubo");
  list.push_back(dir_ / "tubo");
  for (int i = 0; i < 24; ++i)
    list.push_back(file("f" + std::to_string(i) + ".bin", static_cast<std::size_t>(i * 397)));
  // An existing envelope that this batch replaces before signing it as an input.
  list.push_back(dir_ / "due.txt.p7m");
  list.push_back(dir_ / "f3.bin");  // twice

  std::vector<std::string> args = {"sign", "--cert", id_};
  args.insert(args.end(), list.begin(), list.end());
  test::CommandResult runs[2];
  std::map<std::string, Bytes> made[2];
  for (int k = 0; k < 2; ++k) {
    test::write_file(dir_ / "due.txt.p7m", "an old envelope");
    own(dir_ / "due.txt.p7m");
    {
      PipeFeeder feeder(dir_ / "tubo", "dal tubo\n");
      runs[k] = cli(args, k == 0 ? 1 : 4);
    }
    made[k] = envelopes();
    if (k == 0) remove(made[k]);
  }
  EXPECT_EQ(runs[0].exit_code, 1) << runs[0].err;  // the missing file
  EXPECT_EQ(runs[1].exit_code, runs[0].exit_code);
  EXPECT_EQ(runs[1].out, runs[0].out);
  EXPECT_EQ(runs[1].err, runs[0].err);
  // Progress: every file there, in list order, then the end.
  std::string expected;
  for (std::size_t i = 0; i < list.size(); ++i)
    if (i != 3)
      expected += std::to_string(i + 1) + "/" + std::to_string(list.size()) + " " + list[i] + "\n";
  expected += "Firma Terminata\n";
  EXPECT_NE(runs[1].err.find(expected), std::string::npos) << runs[1].err;
  EXPECT_NE(runs[1].err.find("no such file: " + list[3]), std::string::npos) << runs[1].err;

  ASSERT_EQ(made[0].size(), made[1].size());
  EXPECT_EQ(made[0].size(), list.size() - 2);  // one missing, uno.txt twice
  for (const auto& [name, bytes] : made[1]) {
    ASSERT_TRUE(made[0].count(name)) << name;
    std::string content = dir_ / name.substr(0, name.size() - 4);
    if (name == "uno.txt.p7m.p7m" || name == "due.txt.p7m.p7m") {
      // Their content is an envelope made in the same run, with its own signing time.
      EXPECT_EQ(masked(made[0].at(name)).size(), bytes.size()) << name;
    } else {
      EXPECT_EQ(masked(made[0].at(name)), masked(bytes)) << name;
    }
  }
  // The envelopes that signed envelopes of this run hold them as that run wrote them.
  for (const char* nested : {"uno.txt.p7m", "due.txt.p7m"})
    EXPECT_TRUE(openssl_verifies(dir_ / (std::string(nested) + ".p7m"), dir_ / nested)) << nested;
  for (std::string name : {"uno.txt.p7m", "vuoto.txt.p7m", "con spazio.bin.p7m", "f23.bin.p7m"})
    EXPECT_TRUE(openssl_verifies(dir_ / name, dir_ / name.substr(0, name.size() - 4))) << name;
  test::write_file(dir_ / "tubo.expected", "dal tubo\n");
  EXPECT_TRUE(openssl_verifies(dir_ / "tubo.p7m", dir_ / "tubo.expected"));
}

TEST_F(CmsCliBatch, AFileThatCannotBeReadStopsBothAtTheSamePlace) {
  std::vector<std::string> list;
  for (int i = 0; i < 40; ++i) {
    std::string name = "doc" + std::to_string(i) + ".txt";
    list.push_back(i == 17 ? dir_ / name : file(name, static_cast<std::size_t>(100 + i)));
  }
  test::write_file(list[17], "secret");
  ASSERT_EQ(::chmod(list[17].c_str(), 0), 0);
  std::vector<std::string> args = {"sign", "--detached", "--cert", id_};
  args.insert(args.end(), list.begin(), list.end());
  test::CommandResult runs[2];
  std::map<std::string, Bytes> made[2];
  for (int k = 0; k < 2; ++k) {
    runs[k] = cli(args, k == 0 ? 1 : 4);
    made[k] = envelopes();
    if (k == 0) remove(made[k]);
  }
  EXPECT_EQ(runs[0].exit_code, 1);
  EXPECT_NE(runs[0].err.find("18/40 " + list[17] + "\n"), std::string::npos) << runs[0].err;
  EXPECT_NE(runs[0].err.find("Permission denied"), std::string::npos) << runs[0].err;
  EXPECT_EQ(runs[0].err.find("19/40"), std::string::npos) << runs[0].err;
  EXPECT_EQ(runs[1].exit_code, runs[0].exit_code);
  EXPECT_EQ(runs[1].out, runs[0].out);
  EXPECT_EQ(runs[1].err, runs[0].err);
  // The files before it signed, none after it: the same set either way.
  ASSERT_EQ(made[0].size(), 17u);
  ASSERT_EQ(made[1].size(), 17u);
  for (const auto& [name, bytes] : made[1]) {
    ASSERT_TRUE(made[0].count(name)) << name;
    EXPECT_EQ(masked(made[0].at(name)), masked(bytes)) << name;
  }
  EXPECT_TRUE(openssl_verifies(dir_ / "doc16.txt.p7s", dir_ / "doc16.txt"));
}

}  // namespace
}  // namespace tessarel
