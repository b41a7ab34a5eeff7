// Envelopes as people receive them, made here by OpenSSL and GnuTLS: every common
// algorithm, Base64 and PEM text, BER, envelopes inside envelopes, countersignatures,
// RFC 3161 timestamps and attributes out of DER order. Each has a tampered twin that must
// not verify, and OpenSSL's verdict is compared wherever it can judge.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>

#include "cms/cms.h"
#include "cms_support.h"
#include "platform/asn1/der.h"
#include "platform/crypto/digest.h"
#include "tessarel/signing.h"

namespace tessarel {
namespace {

const std::string kMarker = "FATTURA-ELETTRONICA-0042";

class EnvelopeCorpus : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new test::TempDir();
    keys_ = new std::map<std::string, test::TestCert>();
    std::string data = "<?xml version=\"1.0\"?>\n<p:Fattura>" + kMarker + "</p:Fattura>\n";
    for (int i = 0; i < 200; ++i)
      data += "<Riga n=\"" + std::to_string(i) + "\">importo 12,50 EUR</Riga>\n";
    test::write_file(p("fattura.xml"), data);
    // One signer per key kind, written as PEM for the outside tools.
    struct Kind {
      std::string name;
      KeyKind kind;
      int bits;
      std::string curve;
    } kinds[] = {{"rsa", KeyKind::Rsa, 2048, ""},
                 {"p256", KeyKind::Ec, 256, "P-256"},
                 {"p384", KeyKind::Ec, 384, "P-384"},
                 {"p521", KeyKind::Ec, 521, "P-521"},
                 {"bp256", KeyKind::Ec, 256, "brainpoolP256r1"},
                 {"bp384", KeyKind::Ec, 384, "brainpoolP384r1"},
                 {"dsa", KeyKind::Dsa, 2048, ""},
                 {"ed25519", KeyKind::Ed25519, 0, ""},
                 {"ed448", KeyKind::Ed448, 0, ""},
                 {"counter", KeyKind::Ec, 256, "P-256"}};
    for (const auto& k : kinds) {
      test::CertParams cp;
      cp.cn = "Firmatario " + k.name;
      cp.kind = k.kind;
      cp.bits = k.bits;
      cp.curve = k.curve;
      auto tc = test::make_cert(cp);
      test::write_pem(tc.cert, p(k.name + ".pem"));
      test::write_key_pem(tc.key, p(k.name + ".key"));
      keys_->emplace(k.name, std::move(tc));
    }
    // A time-stamping authority for openssl ts.
    sh("openssl req -x509 -newkey rsa:2048 -nodes -keyout tsa.key -out tsa.pem -days 30 "
       "-subj '/CN=Autorita Marca Temporale' "
       "-addext 'extendedKeyUsage=critical,timeStamping' 2>/dev/null && echo 01 > tsaserial");
    test::write_file(p("tsa.cnf"),
                     "[ tsa ]\ndefault_tsa = tsa_config\n[ tsa_config ]\nserial = ./tsaserial\n"
                     "crypto_device = builtin\nsigner_digest = sha256\n"
                     "default_policy = 1.2.3.4.1\ndigests = sha256, sha512\naccuracy = secs:1\n"
                     "ess_cert_id_alg = sha256\n");
  }
  static void TearDownTestSuite() {
    delete keys_;
    keys_ = nullptr;
    delete dir_;
  }
  static std::string p(const std::string& n) { return *dir_ / n; }
  // A shell command run in the corpus folder; the test stops when it fails.
  static void sh(const std::string& command) {
    auto r = test::run_shell("cd '" + dir_->path() + "' && " + command);
    ASSERT_EQ(r.exit_code, 0) << command << "\n" << r.err;
  }
  static bool openssl_verifies(const std::string& file, const std::string& inform) {
    return test::run({"openssl", "cms", "-verify", "-binary", "-noverify", "-inform", inform, "-in",
                      p(file), "-out", "/dev/null"})
               .exit_code == 0;
  }
  // Flips the first byte of the marker (a byte of the signed content) in a file.
  static void tamper(const std::string& file) {
    Bytes b = test::read_bytes(p(file));
    auto it = std::search(b.begin(), b.end(), kMarker.begin(), kMarker.end());
    ASSERT_NE(it, b.end()) << file;
    *it ^= 0x01;
    test::write_file(p(file), b);
  }
  // Opens an envelope with the library, lets change alter it and writes it back (DER).
  static void rewrite(const std::string& from, const std::string& to,
                      const std::function<void(TElSignedCMSMessage&)>& change) {
    TElSignedCMSMessage m;
    m.Open(std::make_shared<asn1::FileSource>(p(from)));
    change(m);
    test::write_file(p(to), m.SaveToBytes());
  }
  static const test::TestCert& key(const std::string& name) { return keys_->at(name); }

  static test::TempDir* dir_;
  static std::map<std::string, test::TestCert>* keys_;
};
test::TempDir* EnvelopeCorpus::dir_ = nullptr;
std::map<std::string, test::TestCert>* EnvelopeCorpus::keys_ = nullptr;

std::string openssl_sign(const std::string& signer, const std::string& extra) {
  return "openssl cms -sign -binary -nodetach -outform DER -in fattura.xml -signer " + signer +
         ".pem -inkey " + signer + ".key " + extra;
}
std::string certtool_sign(const std::string& signer, const std::string& extra) {
  return "certtool --p7-sign --p7-include-cert --outder --load-privkey " + signer +
         ".key --load-certificate " + signer + ".pem --infile fattura.xml " + extra;
}

// RFC 8419 Ed448 with signed attributes: SHAKE256 (512 bits) of the content in the
// message digest, pure Ed448 over the attributes. Neither outside tool makes these.
Bytes ed448_with_attributes(const Bytes& content, const test::TestCert& tc) {
  TElSignedCMSMessage m;
  m.CreateNew(content.data(), content.size());
  TElPKCS7Signer& s = m.GetSignature(m.AddSignature())->FPKCS7Signer;
  s.DigestAlgorithm = "2.16.840.1.101.3.4.2.18";  // id-shake256-len
  s.DigestAlgorithmParams = asn1::tlv(asn1::kInteger, asn1::integer_content(512));
  std::string when = "260301120000Z";
  s.AuthenticatedAttributes = {
      {cms_oid::kContentType,
       {asn1::tlv(asn1::kObjectIdentifier, asn1::encode_oid(cms_oid::kData))}},
      {cms_oid::kSigningTime,
       {asn1::tlv(asn1::kUtcTime, reinterpret_cast<const std::uint8_t*>(when.data()),
                  when.size())}},
      {cms_oid::kMessageDigest,
       {asn1::tlv(asn1::kOctetString, crypto::digest(DigestAlgorithm::SHAKE256, content))}}};
  s.RecalculateAuthenticatedAttributes();
  s.EncryptedDigest = tc.key.sign_eddsa(s.AuthenticatedAttributesPlain);
  s.DigestEncryptionAlgorithm = "1.3.101.113";
  s.Issuer = tc.cert.issuer_der();
  s.SerialNumber = tc.cert.serial();
  m.FCertificates.push_back(tc.cert.der());
  return m.SaveToBytes();
}

TEST_F(EnvelopeCorpus, EveryAlgorithmAndFormVerifiesAndItsTamperedTwinDoesNot) {
  struct Entry {
    std::string name;
    std::string make;       // shell command writing $out (from fattura.xml or from $in)
    std::string from;       // the entry whose envelope is $in; empty: signs fattura.xml
    std::string form;       // the input form the report must name
    std::string inform;     // openssl's -inform; empty: openssl cannot judge this one
    std::string signature;  // a part of the signature algorithm's label
    int layers = 1;
  };
  const std::string b64 = "openssl base64 -e -in $in";
  std::vector<Entry> corpus = {
      {"rsa-sha1", openssl_sign("rsa", "-md sha1 -out $out"), "", "DER", "DER", "RSA"},
      {"rsa-sha224", openssl_sign("rsa", "-md sha224 -out $out"), "", "DER", "DER", "RSA"},
      {"rsa-sha256", openssl_sign("rsa", "-md sha256 -out $out"), "", "DER", "DER", "RSA"},
      {"rsa-sha384", openssl_sign("rsa", "-md sha384 -out $out"), "", "DER", "DER", "RSA"},
      {"rsa-sha512", openssl_sign("rsa", "-md sha512 -out $out"), "", "DER", "DER", "RSA"},
      {"rsa-sha3-256", openssl_sign("rsa", "-md sha3-256 -out $out"), "", "DER", "DER", "RSA"},
      {"rsa-sha3-384", openssl_sign("rsa", "-md sha3-384 -out $out"), "", "DER", "DER", "RSA"},
      {"rsa-sha3-512", openssl_sign("rsa", "-md sha3-512 -out $out"), "", "DER", "DER", "RSA"},
      {"cades", openssl_sign("rsa", "-cades -out $out"), "", "DER", "DER", "RSA"},
      {"pss-sha256", openssl_sign("rsa", "-keyopt rsa_padding_mode:pss -out $out"), "", "DER",
       "DER", "RSASSA-PSS"},
      {"pss-sha384-mgf1-sha1-salt20",
       openssl_sign("rsa",
                    "-md sha384 -keyopt rsa_padding_mode:pss -keyopt rsa_mgf1_md:sha1 "
                    "-keyopt rsa_pss_saltlen:20 -out $out"),
       "", "DER", "DER", "RSASSA-PSS"},
      {"pss-sha512-salt-max",
       openssl_sign("rsa",
                    "-md sha512 -keyopt rsa_padding_mode:pss -keyopt rsa_pss_saltlen:max "
                    "-out $out"),
       "", "DER", "DER", "RSASSA-PSS"},
      {"ecdsa-p256", openssl_sign("p256", "-md sha256 -out $out"), "", "DER", "DER", "ECDSA"},
      {"ecdsa-p384", openssl_sign("p384", "-md sha384 -out $out"), "", "DER", "DER", "ECDSA"},
      {"ecdsa-p521", openssl_sign("p521", "-md sha512 -out $out"), "", "DER", "DER", "ECDSA"},
      {"ecdsa-brainpool256", openssl_sign("bp256", "-md sha256 -out $out"), "", "DER", "DER",
       "ECDSA"},
      {"ecdsa-brainpool384", openssl_sign("bp384", "-md sha384 -out $out"), "", "DER", "DER",
       "ECDSA"},
      {"ecdsa-sha3-256", certtool_sign("p256", "--p7-time --hash sha3-256 --outfile $out"), "",
       "DER", "DER", "ECDSA with SHA3-256"},
      {"dsa-sha256", openssl_sign("dsa", "-md sha256 -out $out"), "", "DER", "DER", "DSA"},
      {"certtool-rsa-sha384", certtool_sign("rsa", "--p7-time --hash sha384 --outfile $out"), "",
       "DER", "DER", "RSA"},
      {"ed25519", certtool_sign("ed25519", "--outfile $out"), "", "DER", "", "Ed25519"},
      {"ed25519-attributes", certtool_sign("ed25519", "--p7-time --outfile $out"), "", "DER", "",
       "Ed25519"},
      {"ed448", certtool_sign("ed448", "--outfile $out"), "", "DER", "", "Ed448"},
      {"ed448-attributes", "", "", "DER", "", "Ed448"},
      {"ber-stream", openssl_sign("rsa", "-stream -out $out"), "", "BER", "DER", "RSA"},
      {"base64-64", b64 + " -out $out", "rsa-sha256", "Base64 (DER)", "", "RSA"},
      {"base64-one-line", b64 + " -A -out $out", "rsa-sha256", "Base64 (DER)", "", "RSA"},
      {"base64-76-crlf", "base64 -w 76 $in | sed 's/$/\\r/' > $out", "ecdsa-p384", "Base64 (DER)",
       "", "ECDSA"},
      {"base64-twice", b64 + " | openssl base64 -e -out $out", "pss-sha256", "Base64, twice (DER)",
       "", "RSASSA-PSS"},
      {"base64-of-ber", b64 + " -out $out", "ber-stream", "Base64 (BER)", "", "RSA"},
      {"pem-cms", "openssl cms -cmsout -inform DER -in $in -outform PEM -out $out", "dsa-sha256",
       "PEM CMS (DER)", "PEM", "DSA"},
      {"pem-pkcs7", "openssl pkcs7 -inform DER -in $in -outform PEM -out $out", "ecdsa-p256",
       "PEM PKCS7 (DER)", "PEM", "ECDSA"},
      {"pem-signed-data",
       "openssl pkcs7 -inform DER -in $in -outform PEM | sed 's/PKCS7/PKCS #7 SIGNED DATA/' > $out",
       "ed25519", "PEM PKCS #7 SIGNED DATA (DER)", "", "Ed25519"},
      {"nested-2",
       "openssl cms -sign -binary -nodetach -outform DER -in $in -signer p256.pem -inkey p256.key "
       "-out $out",
       "rsa-sha256", "DER", "DER", "ECDSA", 2},
      {"nested-3-mixed",
       b64 + " -out mid.b64 && openssl cms -sign -binary -nodetach -outform DER -in mid.b64 "
             "-signer dsa.pem -inkey dsa.key -out mid.p7m && openssl cms -sign -binary -nodetach "
             "-outform PEM -in mid.p7m -signer p384.pem -inkey p384.key -md sha384 -out $out",
       "pss-sha256", "PEM CMS (DER)", "PEM", "ECDSA", 3},
  };
  ASSERT_GE(corpus.size(), 30u);
  Bytes content = test::read_bytes(p("fattura.xml"));
  for (bool twin : {false, true}) {
    for (const auto& e : corpus) {
      std::string out = e.name + (twin ? "-tampered" : "") + ".p7m";
      std::string in = e.from + (twin ? "-tampered" : "") + ".p7m";
      if (e.name == "ed448-attributes") {
        test::write_file(p(out), ed448_with_attributes(content, key("ed448")));
      } else {
        std::string cmd = e.make;
        for (auto [k, v] : {std::pair<std::string, std::string>{"$out", out}, {"$in", in}})
          for (auto at = cmd.find(k); at != std::string::npos; at = cmd.find(k))
            cmd.replace(at, k.size(), v);
        sh(cmd);
      }
      // A twin is tampered once, in its binary envelope; the forms made from it inherit that.
      if (twin && e.from.empty()) tamper(out);
    }
  }
  for (const auto& e : corpus) {
    SCOPED_TRACE(e.name);
    EnvelopeReport r = VerifyEnvelope(p(e.name + ".p7m"));
    EXPECT_TRUE(r.valid) << (r.signers.empty() || r.signers[0].problems.empty()
                                 ? (r.problems.empty() ? "" : r.problems[0])
                                 : r.signers[0].problems[0]);
    EXPECT_EQ(r.input_form, e.form);
    ASSERT_EQ(static_cast<int>(r.layers.size()), e.layers);
    ASSERT_EQ(r.signers.size(), 1u);
    EXPECT_NE(r.signers[0].signature_algorithm.find(e.signature), std::string::npos)
        << r.signers[0].signature_algorithm;
    EXPECT_EQ(r.layers.back().content_size, content.size());
    EnvelopeReport bad = VerifyEnvelope(p(e.name + "-tampered.p7m"));
    EXPECT_FALSE(bad.valid);
    if (!e.inform.empty()) {
      EXPECT_TRUE(openssl_verifies(e.name + ".p7m", e.inform));
      // OpenSSL checks the outermost layer, which for a nest still holds: it signed
      // whatever inner envelope it was given.
      if (e.layers == 1) {
        EXPECT_FALSE(openssl_verifies(e.name + "-tampered.p7m", e.inform));
      } else {
        EXPECT_TRUE(bad.layers.front().valid);
        EXPECT_FALSE(bad.layers.back().valid);
      }
    }
  }
  // The innermost content of the deepest nest is the document, byte for byte.
  std::string doc = p("nested-3-mixed.xml");
  ExtractedContent x = ExtractEnvelopeLayer(p("nested-3-mixed.p7m"), doc);
  EXPECT_EQ(x.layers, 3);
  EXPECT_EQ(x.layer, 3);
  EXPECT_EQ(test::read_bytes(doc), content);
  EnvelopeReport nest = VerifyEnvelope(p("nested-3-mixed.p7m"));
  ASSERT_EQ(nest.layers.size(), 3u);
  EXPECT_EQ(nest.layers[1].input_form, "DER");
  EXPECT_EQ(nest.layers[2].input_form, "Base64 (DER)");
  EXPECT_TRUE(nest.layers[0].content_is_envelope && nest.layers[1].content_is_envelope);
  EXPECT_FALSE(nest.layers[2].content_is_envelope);
}

TEST_F(EnvelopeCorpus, CountersignatureAndTimestampAreCheckedAgainstTheSignatureValue) {
  sh(openssl_sign("rsa", "-cades -out signed.p7m"));
  TElSignedCMSMessage parent;
  parent.Open(std::make_shared<asn1::FileSource>(p("signed.p7m")));
  Bytes value = parent.GetSignature(0)->FPKCS7Signer.EncryptedDigest;
  test::write_file(p("value.bin"), value);
  test::write_file(p("other.bin"), std::string("another signature value"));
  // OpenSSL signs the signature value detached; its SignerInfo becomes the countersignature.
  sh("openssl cms -sign -binary -outform DER -in value.bin -signer counter.pem -inkey counter.key "
     "-out counter.p7s");
  TElSignedCMSMessage counter;
  counter.Open(std::make_shared<asn1::FileSource>(p("counter.p7s")));
  TElPKCS7Signer counter_signer = counter.GetSignature(0)->FPKCS7Signer;
  // RFC 3161 tokens from openssl ts over the signature value, and over something else.
  for (const char* what : {"value", "other"})
    sh(std::string("openssl ts -query -data ") + what + ".bin -sha256 -cert -no_nonce -out " +
       what + ".tsq && openssl ts -reply -queryfile " + what +
       ".tsq -signer tsa.pem -inkey tsa.key -config tsa.cnf -token_out -out " + what +
       ".tst 2>/dev/null");
  sh("openssl ts -verify -data value.bin -in value.tst -token_in -CAfile tsa.pem");
  auto with = [&](const std::string& out, const TElPKCS7Signer& cs, const std::string& token) {
    rewrite("signed.p7m", out, [&](TElSignedCMSMessage& m) {
      auto& attrs = m.GetSignature(0)->FPKCS7Signer.UnauthenticatedAttributes;
      attrs.push_back({cms_oid::kCounterSignature, {cs.Encode()}});
      attrs.push_back({cms_oid::kSignatureTimestamp, {test::read_bytes(p(token))}});
      m.FCertificates.push_back(key("counter").cert.der());
    });
  };
  with("both.p7m", counter_signer, "value.tst");
  EnvelopeReport r = VerifyEnvelope(p("both.p7m"));
  ASSERT_EQ(r.signers.size(), 1u);
  const auto& s = r.signers[0];
  EXPECT_TRUE(r.valid) << (s.problems.empty() ? "" : s.problems[0]);
  ASSERT_EQ(s.countersignatures.size(), 1u);
  EXPECT_TRUE(s.countersignatures[0].valid);
  EXPECT_EQ(s.countersignatures[0].subject, "CN=Firmatario counter");
  ASSERT_EQ(s.timestamps.size(), 1u);
  EXPECT_EQ(s.timestamps[0].authority, "CN=Autorita Marca Temporale");
  EXPECT_TRUE(s.timestamps[0].imprint_matches);
  EXPECT_TRUE(s.timestamps[0].signature_valid);
  EXPECT_EQ(s.timestamps[0].time.size(), 20u) << s.timestamps[0].time;  // YYYY-MM-DDThh:mm:ssZ
  // OpenSSL still accepts the envelope: unsigned attributes are outside the signature.
  EXPECT_TRUE(openssl_verifies("both.p7m", "DER"));

  // A countersignature whose value was changed, and a token made for another value.
  TElPKCS7Signer broken = counter_signer;
  broken.EncryptedDigest.back() ^= 0x01;
  with("bad-counter.p7m", broken, "value.tst");
  r = VerifyEnvelope(p("bad-counter.p7m"));
  EXPECT_FALSE(r.valid);
  EXPECT_FALSE(r.signers[0].countersignatures[0].valid);
  EXPECT_TRUE(r.signers[0].signature_valid);  // the signer itself is intact
  with("bad-stamp.p7m", counter_signer, "other.tst");
  r = VerifyEnvelope(p("bad-stamp.p7m"));
  EXPECT_FALSE(r.valid);
  EXPECT_FALSE(r.signers[0].timestamps[0].imprint_matches);
  EXPECT_TRUE(r.signers[0].timestamps[0].signature_valid);
  EXPECT_NE(test::run_shell("cd '" + dir_->path() +
                            "' && openssl ts -verify -data value.bin -in other.tst -token_in "
                            "-CAfile tsa.pem 2>/dev/null")
                .exit_code,
            0);

  // A token whose own signature was changed: its imprint still names the value.
  TElSignedCMSMessage token;
  token.Open(std::make_shared<asn1::FileSource>(p("value.tst")));
  token.GetSignature(0)->FPKCS7Signer.EncryptedDigest.back() ^= 0x01;
  test::write_file(p("forged.tst"), token.SaveToBytes());
  EXPECT_NE(test::run_shell("cd '" + dir_->path() +
                            "' && openssl ts -verify -data value.bin -in forged.tst -token_in "
                            "-CAfile tsa.pem 2>/dev/null")
                .exit_code,
            0);
  with("forged-stamp.p7m", counter_signer, "forged.tst");
  r = VerifyEnvelope(p("forged-stamp.p7m"));
  EXPECT_FALSE(r.valid);
  EXPECT_TRUE(r.signers[0].timestamps[0].imprint_matches);
  EXPECT_FALSE(r.signers[0].timestamps[0].signature_valid);

  // What the command line says about each, and its exit code.
  auto cli = [](const std::string& file) {
    return test::run({test::cli_path(), "verify", p(file)});
  };
  auto out = cli("both.p7m");
  EXPECT_EQ(out.exit_code, 0) << out.out;
  const std::string stamp =
      "  timestamp: " + VerifyEnvelope(p("both.p7m")).signers[0].timestamps[0].time +
      " by CN=Autorita Marca Temporale: ";
  EXPECT_NE(out.out.find(stamp + "imprint ok, signature ok\n"), std::string::npos) << out.out;
  EXPECT_NE(
      out.out.find("  countersignature: VALID\n    counter-signer 0: CN=Firmatario counter\n"),
      std::string::npos)
      << out.out;
  out = cli("bad-counter.p7m");
  EXPECT_EQ(out.exit_code, 1);
  EXPECT_EQ(out.out.rfind("NOT VALID (", 0), 0u) << out.out;
  EXPECT_NE(
      out.out.find("  countersignature: NOT VALID\n    counter-signer 0: CN=Firmatario counter\n"),
      std::string::npos)
      << out.out;
  EXPECT_NE(out.out.find(stamp + "imprint ok, signature ok\n"), std::string::npos) << out.out;
  out = cli("bad-stamp.p7m");
  EXPECT_EQ(out.exit_code, 1);
  EXPECT_NE(out.out.find("  timestamp: "), std::string::npos) << out.out;
  EXPECT_NE(out.out.find(": imprint FAILED, signature ok\n"), std::string::npos) << out.out;
  EXPECT_NE(out.out.find("  countersignature: VALID\n"), std::string::npos) << out.out;
  out = cli("forged-stamp.p7m");
  EXPECT_EQ(out.exit_code, 1);
  EXPECT_NE(out.out.find(stamp + "imprint ok, signature FAILED\n"), std::string::npos) << out.out;
  EXPECT_NE(out.out.find("    problem: timestamp: "), std::string::npos) << out.out;
}

TEST_F(EnvelopeCorpus, AttributesOutOfDerOrderVerifyWithANote) {
  sh(openssl_sign("rsa", "-cades -out ordered.p7m"));
  TElSignedCMSMessage m;
  m.Open(std::make_shared<asn1::FileSource>(p("ordered.p7m")));
  const TElPKCS7Signer& s = m.GetSignature(0)->FPKCS7Signer;
  ASSERT_GE(s.AuthenticatedAttributes.size(), 4u);
  // The same attributes, stored last first.
  Bytes reversed_content;
  for (auto it = s.AuthenticatedAttributes.rbegin(); it != s.AuthenticatedAttributes.rend(); ++it) {
    Bytes c = asn1::tlv(asn1::kObjectIdentifier, asn1::encode_oid(it->oid));
    Bytes values;
    for (const auto& v : it->values)
      values.insert(values.end(), v.begin(), v.end());
    Bytes set = asn1::tlv(asn1::kSet, values);
    c.insert(c.end(), set.begin(), set.end());
    Bytes a = asn1::tlv(asn1::kSequence, c);
    reversed_content.insert(reversed_content.end(), a.begin(), a.end());
  }
  Bytes reversed = asn1::tlv(asn1::kSet, reversed_content);
  ASSERT_NE(reversed, s.AuthenticatedAttributesPlain);
  // Stored out of order, signed over the DER order (as older signers did).
  rewrite("ordered.p7m", "unordered.p7m", [&](TElSignedCMSMessage& e) {
    e.GetSignature(0)->FPKCS7Signer.AuthenticatedAttributesPlain = reversed;
  });
  // Stored out of order and signed as stored.
  Bytes digest = crypto::sha256(reversed);
  rewrite("ordered.p7m", "unordered-as-stored.p7m", [&](TElSignedCMSMessage& e) {
    auto& signer = e.GetSignature(0)->FPKCS7Signer;
    signer.AuthenticatedAttributesPlain = reversed;
    signer.EncryptedDigest = key("rsa").key.sign_digest(DigestAlgorithm::SHA256, digest);
  });
  // Out of order with a changed signing time: the signature covers neither order.
  Bytes changed = reversed;
  Bytes time_oid = asn1::encode_oid(cms_oid::kSigningTime);
  auto at = std::search(changed.begin(), changed.end(), time_oid.begin(), time_oid.end());
  ASSERT_NE(at, changed.end());
  *(at + static_cast<long>(time_oid.size()) + 6) ^= 0x01;  // a digit of the time
  rewrite("ordered.p7m", "unordered-tampered.p7m", [&](TElSignedCMSMessage& e) {
    e.GetSignature(0)->FPKCS7Signer.AuthenticatedAttributesPlain = changed;
  });

  EnvelopeReport r = VerifyEnvelope(p("unordered.p7m"));
  EXPECT_TRUE(r.valid);
  EXPECT_EQ(r.signers[0].notes,
            std::vector<std::string>{"signed attributes were not in DER order"});
  r = VerifyEnvelope(p("unordered-as-stored.p7m"));
  EXPECT_TRUE(r.valid);
  EXPECT_TRUE(r.signers[0].notes.empty());
  r = VerifyEnvelope(p("unordered-tampered.p7m"));
  EXPECT_FALSE(r.valid);
  EXPECT_FALSE(r.signers[0].signature_valid);
  EXPECT_TRUE(VerifyEnvelope(p("ordered.p7m")).signers[0].notes.empty());

  // The command line says so under the signer, and only there.
  auto cli = test::run({test::cli_path(), "verify", p("unordered.p7m")});
  EXPECT_EQ(cli.exit_code, 0) << cli.out;
  EXPECT_NE(cli.out.find("\n  note: signed attributes were not in DER order\n"), std::string::npos)
      << cli.out;
  for (const char* file : {"ordered.p7m", "unordered-as-stored.p7m"}) {
    cli = test::run({test::cli_path(), "verify", p(file)});
    EXPECT_EQ(cli.exit_code, 0) << file;
    EXPECT_EQ(cli.out.find("note:"), std::string::npos) << cli.out;
  }
  cli = test::run({test::cli_path(), "verify", p("unordered-tampered.p7m")});
  EXPECT_EQ(cli.exit_code, 1);
  EXPECT_EQ(cli.out.find("not in DER order"), std::string::npos) << cli.out;
}

TEST_F(EnvelopeCorpus, AnAlgorithmNobodyKnowsIsUnsupportedNotFailed) {
  sh(openssl_sign("p256", "-out known.p7m"));
  rewrite("known.p7m", "unknown.p7m", [](TElSignedCMSMessage& m) {
    m.GetSignature(0)->FPKCS7Signer.DigestEncryptionAlgorithm = "1.2.643.7.1.1.3.2";
  });
  EnvelopeReport r = VerifyEnvelope(p("unknown.p7m"));
  EXPECT_FALSE(r.valid);
  const auto& s = r.signers[0];
  EXPECT_EQ(s.unsupported_algorithm, "1.2.643.7.1.1.3.2");
  EXPECT_EQ(s.problems, std::vector<std::string>{"unsupported algorithm 1.2.643.7.1.1.3.2"});
  EXPECT_TRUE(s.digest_matches);  // everything else was still checked
  auto cli = test::run({test::cli_path(), "verify", p("unknown.p7m")});
  EXPECT_EQ(cli.exit_code, 1);
  EXPECT_NE(cli.out.find("signature value: not checked: unsupported algorithm 1.2.643.7.1.1.3.2"),
            std::string::npos)
      << cli.out;
  EXPECT_EQ(cli.out.find("FAILED"), std::string::npos) << cli.out;
}

}  // namespace
}  // namespace tessarel
