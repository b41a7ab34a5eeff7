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

}  // namespace
}  // namespace tessarel
