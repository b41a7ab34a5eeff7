// tessarel archive add, list, verify and delete as scripts use them.
#include <gtest/gtest.h>

#include <filesystem>

#include "test_support.h"

namespace tessarel {
namespace {

class ArchiveCli : public ::testing::Test {
 protected:
  void SetUp() override {
    store_ = dir_ / "MY";
    auto r = cli({"cert", "new", "--cn", "Archivio CLI", "--key", "rsa", "--bits", "2048"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    arch_ = dir_ / "arch";
    for (const char* n : {"a.txt", "b.txt", "c.txt"})
      test::write_file(dir_ / n, std::string("content of ") + n);
  }
  test::CommandResult cli(std::vector<std::string> args) {
    args.insert(args.begin(), {test::cli_path(), "--store", store_});
    return test::run(args);
  }
  test::TempDir dir_;
  std::string store_, arch_;
};

TEST_F(ArchiveCli, AddListVerifyDelete) {
  auto r = cli({"archive", "add", arch_, "--type", "Contratti", "--date", "2021-03-03", "--param",
                "<Nota>cli</Nota>", dir_ / "a.txt", dir_ / "b.txt"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, dir_ / "a.txt\n" + dir_ / "b.txt\n");
  r = cli({"archive", "add", arch_, "--type", "Fatture", "--detached", dir_ / "c.txt"});
  ASSERT_EQ(r.exit_code, 0) << r.err;

  r = cli({"archive", "list", arch_});
  ASSERT_EQ(r.exit_code, 0);
  EXPECT_NE(r.out.find("Contratti\t0\t"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Contratti\\2021\\03\\b.txt.p7m"), std::string::npos) << r.out;
  r = cli({"--json", "archive", "list", arch_});
  EXPECT_NE(r.out.find("\"type\": \"Fatture\""), std::string::npos);
  EXPECT_NE(r.out.find("\"detached\": true"), std::string::npos);

  r = cli({"archive", "verify", arch_});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_EQ(r.out.rfind("OK: index signature valid", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("3 records, 6 files checked, 0 problems"), std::string::npos) << r.out;

  // A detached data file changed after archiving.
  std::string archived_c;
  for (auto& e : std::filesystem::recursive_directory_iterator(arch_ + "/Fatture"))
    if (e.path().filename() == "c.txt") archived_c = e.path().string();
  ASSERT_FALSE(archived_c.empty());
  test::write_file(archived_c, "changed");
  r = cli({"--json", "archive", "verify", arch_});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("\"ok\": false"), std::string::npos);
  EXPECT_NE(r.out.find("does not match the signed message digest"), std::string::npos) << r.out;

  // Deleting without a terminal needs the record named and the confirmation given.
  r = cli({"archive", "delete", arch_, "--type", "Contratti"});
  EXPECT_EQ(r.exit_code, 2);
  // Unconfirmed, nothing is deleted, and the exit code says so.
  r = cli({"archive", "delete", arch_, "--type", "Contratti", "--id", "1"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("nothing was deleted"), std::string::npos) << r.err;
  EXPECT_TRUE(std::filesystem::exists(arch_ + "/Contratti/2021/03/b.txt"))
      << "deleted without confirmation";
  r = cli({"archive", "delete", arch_, "--type", "Contratti", "--id", "1", "--yes"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_FALSE(std::filesystem::exists(arch_ + "/Contratti/2021/03/b.txt"));
  EXPECT_NE(r.err.find("Operazione teminata"), std::string::npos) << r.err;
  r = cli({"archive", "list", arch_});
  EXPECT_EQ(r.out.find("b.txt"), std::string::npos);
}

TEST_F(ArchiveCli, ExistingFilesFollowTheChosenAnswer) {
  ASSERT_EQ(cli({"archive", "add", arch_, "--type", "T", "--date", "2021-05-05", dir_ / "a.txt"})
                .exit_code,
            0);
  test::write_file(dir_ / "a.txt", "second version");
  auto r = cli({"archive", "add", arch_, "--type", "T", "--date", "2021-05-05", "--existing",
                "skip", dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(test::read_file(arch_ + "/T/2021/05/a.txt"), "content of a.txt");
  r = cli({"archive", "add", arch_, "--type", "T", "--date", "2021-05-05", "--existing", "cancel",
           dir_ / "a.txt", dir_ / "b.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("Operazione Annullata"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(arch_ + "/T/2021/05/b.txt"));
  r = cli({"archive", "add", arch_, "--type", "T", "--date", "2021-05-05", "--existing",
           "overwrite", dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(test::read_file(arch_ + "/T/2021/05/a.txt"), "second version");
  EXPECT_EQ(cli({"archive", "verify", arch_}).exit_code, 0);
}

TEST_F(ArchiveCli, BadTypesDatesAndFoldersAreClearErrors) {
  auto r = cli({"archive", "add", arch_, "--type", "../fuori", dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("non valido"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(dir_ / "fuori"));
  EXPECT_EQ(cli({"archive", "add", arch_, "--type", "T", "--date", "2021-02-30", dir_ / "a.txt"})
                .exit_code,
            2);
  r = cli({"archive", "add", arch_, "--type", "T", dir_ / "missing.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("missing.txt"), std::string::npos);
  EXPECT_EQ(cli({"archive", "verify", dir_ / "no-archive"}).exit_code, 1);
  EXPECT_EQ(cli({"archive", "list", dir_ / "no-archive"}).exit_code, 1);
}

TEST_F(ArchiveCli, AnEcKeyClosesTheIndexWithEcdsaThatXmlsec1Accepts) {
  auto r = cli({"cert", "new", "--cn", "Archivio EC", "--key", "ec"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::string id = r.out.substr(0, r.out.find('\n'));
  r = cli({"cert", "export", id, "-o", dir_ / "ec.pfx", "--password", "pass:"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  auto pem = test::run({"openssl", "pkcs12", "-in", dir_ / "ec.pfx", "-nokeys", "-passin",
                        "pass:", "-out", dir_ / "ec.pem"});
  ASSERT_EQ(pem.exit_code, 0) << pem.err;

  // Twice, so that the second close signs an index reopened from the first.
  for (const char* file : {"a.txt", "b.txt"}) {
    r = cli({"archive", "add", arch_, "--type", "Fatture", "--cert", id, dir_ / file});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    r = cli({"archive", "verify", arch_});
    EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
    EXPECT_EQ(r.out.rfind("OK: index signature valid (CN=Archivio EC)", 0), 0u) << r.out;
    auto x =
        test::run({"xmlsec1", "--verify", "--enabled-key-data", "x509", "--trusted-pem",
                   dir_ / "ec.pem", "--enabled-reference-uris", "empty", arch_ + "/index.xml"});
    EXPECT_EQ(x.exit_code, 0) << file << ": " << x.out << x.err;
  }
  EXPECT_NE(test::read_file(arch_ + "/index.xml").find("xmldsig-more#ecdsa-sha256"),
            std::string::npos);
}

// A key that cannot sign the index (DSA has no method here): the documents are already in
// the archive, so the index that lists them is written unsigned, the command fails, and the
// next close with a usable key signs everything.
TEST_F(ArchiveCli, AnIndexThatCannotBeSignedIsStillWrittenAndTheArchiveStaysUsable) {
  auto r = cli({"cert", "new", "--cn", "Archivio DSA", "--key", "dsa"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::string dsa = r.out.substr(0, r.out.find('\n'));
  r = cli({"archive", "add", arch_, "--type", "Contratti", "--date", "2021-04-04", "--cert", dsa,
           dir_ / "a.txt", dir_ / "b.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("Signature method not supported for this type of the certificate."),
            std::string::npos)
      << r.err;
  for (const char* f : {"a.txt", "a.txt.p7m", "b.txt", "b.txt.p7m"})
    EXPECT_TRUE(std::filesystem::exists(arch_ + "/Contratti/2021/04/" + f)) << f;
  ASSERT_TRUE(std::filesystem::exists(arch_ + "/index.xml"));
  std::string unsigned_index = test::read_file(arch_ + "/index.xml");
  EXPECT_EQ(unsigned_index.find("Signature"), std::string::npos) << unsigned_index;
  r = cli({"archive", "list", arch_});
  EXPECT_NE(r.out.find("Contratti\\2021\\04\\a.txt.p7m"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Contratti\\2021\\04\\b.txt.p7m"), std::string::npos) << r.out;
  r = cli({"archive", "verify", arch_});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("no ds:Signature element"), std::string::npos) << r.out;
  for (const auto& e : std::filesystem::directory_iterator(arch_))
    EXPECT_EQ(e.path().filename().string().find(".tmp-"), std::string::npos) << e.path();

  // The archive is free at once (no wait for a lock), and the next close signs all records.
  r = cli({"archive", "add", arch_, "--type", "Contratti", "--date", "2021-04-04", dir_ / "c.txt"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.err.find("in use"), std::string::npos) << r.err;
  r = cli({"archive", "verify", arch_});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("3 records, 6 files checked, 0 problems"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace tessarel
