// tessarel archive add, list, verify and delete as scripts use them.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>

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

// Many files in one session, signed ahead on four threads or one file after the other:
// the same lines, records, archived copies and envelopes beside the files (but for their
// signing times); and a cancel in the middle stops both at the same file.
TEST_F(ArchiveCli, ManyFilesGiveTheSameArchiveOnOneThreadAndOnFour) {
  namespace fs = std::filesystem;
  std::vector<std::string> files;
  for (int i = 0; i < 30; ++i) {
    std::string name = i == 7    ? "vuoto.txt"
                       : i == 12 ? "ricevuta-\xC3\xA0-\xE2\x82\xAC.txt"
                                 : "doc" + std::to_string(i) + ".txt";
    files.push_back(dir_ / name);
    if (i != 20) test::write_file(files.back(), i == 7 ? "" : std::string(50 * i, static_cast<char>('a' + i % 26)));
  }
  // The same list archived again, cancelled at the first file already archived.
  auto add = [&](int threads, const std::vector<std::string>& list, const char* existing) {
    std::vector<std::string> args = {test::cli_path(), "--store", store_,
                                     "archive",        "add",     arch_,
                                     "--type",         "Lotti",   "--date",
                                     "2021-06-15",     "--param", "<Nota>lotto &amp; co</Nota>",
                                     "--existing",     existing};
    args.insert(args.end(), list.begin(), list.end());
    return test::run(args, {"TESSAREL_THREADS=" + std::to_string(threads)});
  };
  auto beside = [&] {
    std::map<std::string, Bytes> out;
    for (const auto& e : fs::directory_iterator(dir_.path()))
      if (e.path().extension() == ".p7m") out[e.path().filename()] = test::read_bytes(e.path());
    return out;
  };
  std::vector<std::string> second = {files[0], files[1], dir_ / "nuovo.txt", files[3], files[4]};
  test::write_file(dir_ / "nuovo.txt", "nuovo");
  test::CommandResult first_run[2], second_run[2], listing[2];
  std::map<std::string, Bytes> envelopes[2], copies[2];
  for (int k = 0; k < 2; ++k) {
    int threads = k == 0 ? 1 : 4;
    first_run[k] = add(threads, files, "ask");
    second_run[k] = add(threads, second, "cancel");
    listing[k] = cli({"--json", "archive", "list", arch_});
    EXPECT_EQ(cli({"archive", "verify", arch_}).exit_code, 0) << threads << " threads";
    envelopes[k] = beside();
    for (const auto& e : fs::recursive_directory_iterator(arch_))
      if (e.is_regular_file() && e.path().filename() != "index.xml")
        copies[k][fs::relative(e.path(), arch_)] = test::read_bytes(e.path());
    for (const auto& [name, bytes] : envelopes[k])
      fs::remove(dir_ / name);
    fs::rename(arch_, arch_ + std::to_string(threads));
  }
  // The missing file fails alone; the others are archived.
  EXPECT_EQ(first_run[0].exit_code, 1);
  EXPECT_NE(first_run[0].err.find("21/30 " + files[20] + "\n"), std::string::npos);
  EXPECT_NE(first_run[0].err.find(files[20] + ": "), std::string::npos) << first_run[0].err;
  EXPECT_NE(first_run[0].out.find(files[29] + "\n"), std::string::npos);
  // The second run stops at its first file: nothing after it is signed or archived.
  EXPECT_EQ(second_run[0].exit_code, 1);
  EXPECT_NE(second_run[0].err.find("Operazione Annullata"), std::string::npos);
  EXPECT_EQ(second_run[0].err.find("2/5"), std::string::npos) << second_run[0].err;
  for (int k = 0; k < 2; ++k) {
    EXPECT_FALSE(envelopes[k].count("nuovo.txt.p7m")) << k;
    EXPECT_FALSE(copies[k].count("Lotti/2021/06/nuovo.txt")) << k;
  }
  EXPECT_EQ(first_run[1].exit_code, first_run[0].exit_code);
  EXPECT_EQ(first_run[1].out, first_run[0].out);
  EXPECT_EQ(first_run[1].err, first_run[0].err);
  EXPECT_EQ(second_run[1].exit_code, second_run[0].exit_code);
  EXPECT_EQ(second_run[1].out, second_run[0].out);
  EXPECT_EQ(second_run[1].err, second_run[0].err);
  // Records with the same names, numbers, sizes and data digests, in the same order.
  EXPECT_EQ(listing[1].out, listing[0].out);
  EXPECT_NE(listing[0].out.find("ricevuta-\xC3\xA0-\xE2\x82\xAC.txt"), std::string::npos);
  ASSERT_EQ(envelopes[0].size(), 29u);
  ASSERT_EQ(envelopes[1].size(), envelopes[0].size());
  for (const auto& [name, bytes] : envelopes[0]) {
    ASSERT_TRUE(envelopes[1].count(name)) << name;
    EXPECT_EQ(test::without_signing_time(envelopes[1].at(name)), test::without_signing_time(bytes))
        << name;
    // The archived envelope is the one beside the file, but for the cancelled file, which
    // was signed again before the cancel.
    if (name == "doc0.txt.p7m") continue;
    EXPECT_EQ(copies[0].at("Lotti/2021/06/" + name), bytes) << name;
    EXPECT_EQ(copies[1].at("Lotti/2021/06/" + name), envelopes[1].at(name)) << name;
  }
  ASSERT_EQ(copies[1].size(), copies[0].size());
  for (const auto& [name, bytes] : copies[0]) {
    if (fs::path(name).extension() == ".p7m") continue;
    EXPECT_TRUE(copies[1].count(name) && copies[1].at(name) == bytes) << name;
  }
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
