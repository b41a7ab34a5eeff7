// Export of a certificate with its key into a blob field of a real SQLite record, checked
// with independent PKCS#12 readers.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "platform/crypto/pkcs12.h"
#include "tessarel/dataset.h"
#include "tessarel/errors.h"
#include "tessarel/exports.h"
#include "test_support.h"

namespace tessarel {
namespace {

class PfxExport : public ::testing::Test {
 protected:
  void SetUp() override {
    db_path_ = dir_ / "host.sqlite";
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(db_path_.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db,
                           "CREATE TABLE utenti (nome TEXT, cert BLOB, note TEXT);"
                           "INSERT INTO utenti VALUES ('uno', X'0102', 'n1');"
                           "INSERT INTO utenti VALUES ('due', X'0304', 'n2');",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
  }

  Bytes blob(int rowid, const char* column = "cert") {
    sqlite3* db = nullptr;
    sqlite3_open(db_path_.c_str(), &db);
    sqlite3_stmt* st = nullptr;
    std::string sql = std::string("SELECT ") + column + " FROM utenti WHERE rowid = ?";
    sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr);
    sqlite3_bind_int(st, 1, rowid);
    Bytes out;
    if (sqlite3_step(st) == SQLITE_ROW) {
      auto* p = static_cast<const std::uint8_t*>(sqlite3_column_blob(st, 0));
      out.assign(p, p + sqlite3_column_bytes(st, 0));
    }
    sqlite3_finalize(st);
    sqlite3_close(db);
    return out;
  }

  test::TempDir dir_;
  std::string db_path_;
  test::ScopedStore store_;
};

TEST_F(PfxExport, BlobOpensWithTheEmptyPasswordInIndependentReaders) {
  test::CertParams params;
  params.cn = "Anna Verdi";
  auto tc = test::make_cert(params);
  store_.add(tc);
  {
    SqliteDataSet ds(db_path_, "utenti", 2);
    SalvaCertificatopfx("Anna Verdi", &ds, "cert");
    EXPECT_FALSE(ds.editing()) << "the record was not posted";
  }
  Bytes pfx = blob(2);
  ASSERT_GT(pfx.size(), 100u);
  EXPECT_EQ(blob(1), (Bytes{0x01, 0x02})) << "another record changed";
  EXPECT_EQ(blob(2, "note"), Bytes({'n', '2'}));

  auto parsed = crypto::read_pkcs12(pfx, "");
  EXPECT_EQ(parsed.certificate, tc.cert);
  EXPECT_TRUE(parsed.key.matches(tc.cert));

  std::string pfx_path = dir_ / "out.pfx";
  test::write_file(pfx_path, pfx);
  auto r = test::run({"openssl", "pkcs12", "-in", pfx_path, "-passin", "pass:", "-nodes"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("BEGIN CERTIFICATE"), std::string::npos);
  EXPECT_NE(r.out.find("BEGIN PRIVATE KEY"), std::string::npos);

  // Python's cryptography package (Debian's, under the system interpreter).
  std::string script =
      "import sys\n"
      "from cryptography.hazmat.primitives.serialization import pkcs12, Encoding\n"
      "key, cert, extra = pkcs12.load_key_and_certificates(open(sys.argv[1],'rb').read(), b'')\n"
      "assert key.public_key().public_numbers() == cert.public_key().public_numbers()\n"
      "print(cert.public_bytes(Encoding.DER).hex().upper())\n";
  test::write_file(dir_ / "check.py", script);
  r = test::run({"/usr/bin/python3", dir_ / "check.py", pfx_path});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::string der_hex;
  for (auto b : tc.cert.der()) {
    char buf[3];
    std::snprintf(buf, sizeof buf, "%02X", b);
    der_hex += buf;
  }
  EXPECT_EQ(r.out, der_hex + "\n");
}

TEST_F(PfxExport, OnlyTheFirstCertificateWithThatNameIsExported) {
  test::CertParams params;
  params.cn = "Omonimo";
  params.kind = KeyKind::Ec;
  params.bits = 256;
  auto first = test::make_cert(params);
  auto second = test::make_cert(params);
  store_.add(first);
  store_.add(second);
  SqliteDataSet ds(db_path_, "utenti", 1);
  SalvaCertificatopfx("Omonimo", &ds, "cert");
  EXPECT_EQ(crypto::read_pkcs12(blob(1), "").certificate, first.cert);
}

TEST_F(PfxExport, NoMatchLeavesTheRecordUntouched) {
  test::CertParams params;
  params.cn = "Anna Verdi";
  store_.add(test::make_cert(params));
  SqliteDataSet ds(db_path_, "utenti", 1);
  SalvaCertificatopfx("anna verdi", &ds, "cert");  // names compare case-sensitively
  SalvaCertificatopfx("", &ds, "cert");
  SalvaCertificatopfx("Nobody", nullptr, "cert");  // the dataset is not even looked at
  EXPECT_FALSE(ds.editing());
  EXPECT_EQ(blob(1), (Bytes{0x01, 0x02}));
}

TEST_F(PfxExport, BadFieldsAreDatabaseErrorsAndChangeNothing) {
  test::CertParams params;
  params.cn = "Anna Verdi";
  auto tc = test::make_cert(params);
  store_.add(tc);
  {
    SqliteDataSet ds(db_path_, "utenti", 1);
    try {
      SalvaCertificatopfx("Anna Verdi", &ds, "certificato");
      FAIL() << "unknown field accepted";
    } catch (const EDatabaseError& e) {
      EXPECT_NE(std::string(e.what()).find("certificato"), std::string::npos) << e.what();
    }
  }
  {
    SqliteDataSet ds(db_path_, "utenti", 1);
    EXPECT_THROW(SalvaCertificatopfx("Anna Verdi", &ds, "note"), EDatabaseError);
  }
  EXPECT_EQ(blob(1), (Bytes{0x01, 0x02}));
  EXPECT_EQ(blob(1, "note"), Bytes({'n', '1'}));
  EXPECT_THROW(SqliteDataSet(db_path_, "missing_table", 1), EDatabaseError);
  EXPECT_THROW(SqliteDataSet(db_path_, "utenti", 99), EDatabaseError);
}

TEST_F(PfxExport, ACertificateWithoutItsKeyIsRefusedBeforeTheRecordIsTouched) {
  test::CertParams params;
  params.cn = "Senza Chiave";
  store_.add(test::make_cert(params), false);
  SqliteDataSet ds(db_path_, "utenti", 1);
  EXPECT_THROW(SalvaCertificatopfx("Senza Chiave", &ds, "cert"), Exception);
  EXPECT_FALSE(ds.editing());
  EXPECT_EQ(blob(1), (Bytes{0x01, 0x02}));
}

}  // namespace
}  // namespace tessarel
