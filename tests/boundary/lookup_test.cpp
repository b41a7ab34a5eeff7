// Finding certificates by identifier through the shared store snapshot.
#include <gtest/gtest.h>

#include "boundary/cert_lookup.h"
#include "test_support.h"

namespace tessarel {
namespace {

test::TestCert cert_with_serial(Bytes serial, const std::string& cn, bool ec = true) {
  test::CertParams s;
  s.cn = cn;
  s.serial = std::move(serial);
  if (ec) {
    s.kind = KeyKind::Ec;
    s.bits = 256;
  }
  return test::make_cert(s);
}

TEST(Lookup, IdentifierIsTheSerialInUpperCaseHexAndMatchesExactly) {
  test::ScopedStore store;
  auto a = cert_with_serial({0x00, 0xAB, 0xCD, 0xEF, 0x01}, "A");
  store.add(a);
  EXPECT_EQ(a.cert.id(), "00ABCDEF01");  // the leading zero byte of the encoding is kept
  const Certificate* found = TrovaCertificato("00ABCDEF01");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->subject_cn(), "A");
  EXPECT_EQ(TrovaCertificato("00abcdef01"), nullptr);
  EXPECT_EQ(TrovaCertificato("ABCDEF01"), nullptr);
  EXPECT_EQ(TrovaCertificato("00ABCDEF01 "), nullptr);
}

TEST(Lookup, EmptyIdentifierGivesTheFirstCertificateOrNone) {
  test::ScopedStore store;
  EXPECT_EQ(TrovaCertificato(""), nullptr);
  auto a = cert_with_serial({0x11}, "First");
  auto b = cert_with_serial({0x22}, "Second");
  store.add(a);
  store.add(b);
  const Certificate* first = TrovaCertificato("");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->subject_cn(), "First");
}

TEST(Lookup, TheSnapshotIsKeptUntilTheStoreChangesThenReadAgain) {
  test::ScopedStore store;
  auto a = cert_with_serial({0x31}, "Late");
  EXPECT_EQ(TrovaCertificato("31"), nullptr);  // empty at the first lookup
  ASSERT_NE(CurrentSharedCertStorage(), nullptr);
  EXPECT_EQ(CurrentSharedCertStorage()->Count(), 0);
  open_store(store.path())->add(a.cert, a.pkcs8());  // filled behind the snapshot's back
  EXPECT_NE(TrovaCertificato("31"), nullptr);        // the empty snapshot was rebuilt
  SharedCertStorage* kept = CurrentSharedCertStorage();
  EXPECT_NE(TrovaCertificato("31"), nullptr);
  EXPECT_EQ(CurrentSharedCertStorage(), kept);  // nothing changed: not read again

  // Written by this process (as the wizard or an import does): seen at the next lookup.
  auto b = cert_with_serial({0x32}, "Later");
  open_store(store.path())->add(b.cert, b.pkcs8());
  EXPECT_NE(TrovaCertificato("32"), nullptr);
  EXPECT_TRUE(ChiaveValida("32"));

  // Written by another process: seen too.
  auto r = test::run({test::cli_path(), "--store", store.path(), "cert", "new", "--cn",
                      "From another process", "--bits", "1024"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::string id = r.out.substr(0, r.out.find('\n'));
  ASSERT_FALSE(id.empty());
  const Certificate* other = TrovaCertificato(id);
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(other->subject_cn(), "From another process");
  EXPECT_TRUE(ChiaveValida(id));
}

TEST(Lookup, SameSerialTwiceTheFirstInStoreOrderWins) {
  test::ScopedStore store;
  auto a = cert_with_serial({0x42}, "Issuer one copy");
  auto b = cert_with_serial({0x42}, "Issuer two copy");
  store.add(a);
  store.add(b);
  const Certificate* found = TrovaCertificato("42");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->subject_cn(), "Issuer one copy");
}

}  // namespace
}  // namespace tessarel
