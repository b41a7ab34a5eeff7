// What a user meets from the command line when the input is unusual: empty files, pipes,
// outputs that are links, devices or the input itself, several archivers at once, and
// record parameters and types that would break the index.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>

#include "pdf_fixtures.h"
#include "test_support.h"

namespace tessarel {
namespace {

namespace fs = std::filesystem;

class SafetyCli : public ::testing::Test {
 protected:
  void SetUp() override {
    store_ = dir_ / "MY";
    auto r = cli({"cert", "new", "--cn", "Utente Prova", "--bits", "2048"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    id_ = r.out.substr(0, r.out.find('\n'));
    // The signer's certificate and key as PEM, for openssl and xmlsec1.
    for (auto& e : fs::directory_iterator(store_)) {
      std::string ext = e.path().extension().string();
      if (ext != ".crt" && ext != ".key") continue;
      auto pem = test::run({"openssl", ext == ".crt" ? "x509" : "pkey", "-inform", "DER", "-in",
                            e.path().string(), "-out",
                            dir_ / (ext == ".crt" ? "signer.pem" : "signer.key")});
      ASSERT_EQ(pem.exit_code, 0) << pem.err;
    }
    arch_ = dir_ / "archivio";
  }
  test::CommandResult cli(std::vector<std::string> args) {
    args.insert(args.begin(), {test::cli_path(), "--store", store_});
    return test::run(args);
  }
  test::CommandResult shell(const std::string& command) {
    return test::run_shell("cd '" + dir_.path() + "' && " + command);
  }
  std::string tessarel() const { return "'" + test::cli_path() + "' --store '" + store_ + "'"; }
  bool openssl_verifies(const std::string& envelope, const std::string& content = "") {
    std::vector<std::string> args{
        "openssl",  "cms", "-verify", "-binary",           "-inform",
        "DER",      "-in", envelope,  "-CAfile",           dir_ / "signer.pem",
        "-purpose", "any", "-out",    dir_ / "openssl.out"};
    if (!content.empty()) args.insert(args.end(), {"-content", content});
    return test::run(args).exit_code == 0;
  }
  std::string xmlsec_index(const std::string& index) {
    // The index signature is the root's own ds:Signature child; records may carry others.
    auto r = test::run({"xmlsec1", "--verify", "--enabled-key-data", "x509", "--trusted-pem",
                        dir_ / "signer.pem", "--enabled-reference-uris", "empty", "--node-xpath",
                        "/*/*[local-name()='Signature' and "
                        "namespace-uri()='http://www.w3.org/2000/09/xmldsig#']",
                        index});
    return r.exit_code == 0 ? "OK" : r.err;
  }
  // The store's own files: the manifest, the lock file and every entry file.
  std::vector<std::string> store_files() {
    std::vector<std::string> out;
    for (auto& e : fs::directory_iterator(store_))
      out.push_back(e.path().string());
    return out;
  }
  std::size_t records() {
    auto r = cli({"archive", "list", arch_});
    return static_cast<std::size_t>(std::count(r.out.begin(), r.out.end(), '\n'));
  }

  test::TempDir dir_;
  std::string store_, id_, arch_;
};

TEST_F(SafetyCli, AnEmptyFileGivesAValidAttachedEnvelopeEverywhere) {
  test::write_file(dir_ / "e.txt", "");
  auto r = cli({"sign", dir_ / "e.txt"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  Bytes p7m = test::read_bytes(dir_ / "e.txt.p7m");
  // encapContentInfo: id-data followed by [0] holding an empty OCTET STRING.
  const Bytes encap = {0x30, 0x0F, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7,
                       0x0D, 0x01, 0x07, 0x01, 0xA0, 0x02, 0x04, 0x00};
  EXPECT_NE(std::search(p7m.begin(), p7m.end(), encap.begin(), encap.end()), p7m.end());
  EXPECT_TRUE(openssl_verifies(dir_ / "e.txt.p7m"));
  EXPECT_EQ(fs::file_size(dir_ / "openssl.out"), 0u);

  r = cli({"verify", dir_ / "e.txt.p7m"});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(r.out.rfind("VALID (attached, 0 bytes of content)", 0), 0u) << r.out;
  r = cli({"extract", dir_ / "e.txt.p7m", "-o", dir_ / "e.out"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_TRUE(fs::exists(dir_ / "e.out"));
  EXPECT_EQ(fs::file_size(dir_ / "e.out"), 0u);

  // An empty attached envelope made by openssl reads the same way.
  ASSERT_EQ(test::run({"openssl", "cms", "-sign", "-binary", "-nodetach", "-outform", "DER", "-in",
                       dir_ / "e.txt", "-signer", dir_ / "signer.pem", "-inkey",
                       dir_ / "signer.key", "-out", dir_ / "openssl-empty.p7m"})
                .exit_code,
            0);
  r = cli({"verify", dir_ / "openssl-empty.p7m"});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(r.out.rfind("VALID (attached, 0 bytes of content)", 0), 0u) << r.out;

  // Archiving an empty file: signed, copied, recorded, and the archive checks.
  r = cli({"archive", "add", arch_, "--type", "Vuoti", dir_ / "e.txt"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  r = cli({"archive", "verify", arch_});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_NE(r.out.find("1 records, 2 files checked, 0 problems"), std::string::npos) << r.out;
}

TEST_F(SafetyCli, EnvelopesAndContentsArriveThroughPipes) {
  test::write_file(dir_ / "a.txt", "alpha\n");
  ASSERT_EQ(cli({"sign", dir_ / "a.txt"}).exit_code, 0);
  ASSERT_EQ(cli({"sign", "--detached", dir_ / "a.txt"}).exit_code, 0);
  auto r = shell("cat a.txt.p7m | " + tessarel() + " verify -");
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_EQ(r.out.rfind("VALID (attached, 6 bytes of content)", 0), 0u) << r.out;
  r = test::run({"/bin/bash", "-c",
                 "cd '" + dir_.path() + "' && " + tessarel() + " verify <(cat a.txt.p7m)"});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  r = test::run({"/bin/bash", "-c",
                 "cd '" + dir_.path() + "' && " + tessarel() +
                     " verify <(cat a.txt.p7s) --content <(cat a.txt)"});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_EQ(r.out.rfind("VALID (detached, 6 bytes of content)", 0), 0u) << r.out;
  r = shell("cat a.txt.p7m | " + tessarel() + " extract - -o - > piped.out");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(test::read_file(dir_ / "piped.out"), "alpha\n");
  // Without -o, a name cannot be derived from standard input: a usage of its own.
  r = shell("cat a.txt.p7m | " + tessarel() + " extract -");
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("give -o FILE"), std::string::npos) << r.err;
}

TEST_F(SafetyCli, AGivenContentMustBeTheAttachedOne) {
  test::write_file(dir_ / "a.txt", "alpha\n");
  test::write_file(dir_ / "other.txt", "something else\n");
  ASSERT_EQ(cli({"sign", dir_ / "a.txt"}).exit_code, 0);
  auto r = cli({"verify", dir_ / "a.txt.p7m", "--content", dir_ / "other.txt"});
  EXPECT_EQ(r.exit_code, 1) << r.out;
  EXPECT_EQ(r.out.rfind("NOT VALID", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("differs from the content the envelope carries"), std::string::npos);
  r = cli({"verify", dir_ / "a.txt.p7m", "--content", dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 0) << r.out;
}

TEST_F(SafetyCli, NoCommandWritesOntoItsOwnInput) {
  test::write_file(dir_ / "a.txt", "alpha\n");
  ASSERT_EQ(cli({"sign", dir_ / "a.txt"}).exit_code, 0);
  Bytes envelope = test::read_bytes(dir_ / "a.txt.p7m");
  fs::create_hard_link(dir_ / "a.txt.p7m", dir_ / "hard.p7m");
  fs::create_symlink(dir_ / "a.txt.p7m", dir_ / "soft.p7m");
  for (std::string out :
       std::vector<std::string>{dir_ / "a.txt.p7m", dir_ / "hard.p7m", dir_ / "soft.p7m"}) {
    auto r = cli({"extract", dir_ / "a.txt.p7m", "-o", out});
    EXPECT_EQ(r.exit_code, 1) << out;
    EXPECT_NE(r.err.find("envelope itself"), std::string::npos) << r.err;
    EXPECT_EQ(test::read_bytes(dir_ / "a.txt.p7m"), envelope) << out;
  }
  // An envelope name that is a link to the file being signed.
  test::write_file(dir_ / "b.txt", "beta\n");
  fs::create_symlink(dir_ / "b.txt", dir_ / "b.txt.p7m");
  auto r = cli({"sign", dir_ / "b.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("It is the file being signed"), std::string::npos) << r.err;
  EXPECT_EQ(test::read_file(dir_ / "b.txt"), "beta\n");

  // Signing a PDF and exporting a key read a document, a PKCS#12 file, a password file and
  // the store: none of them may become the output, by any name.
  test::write_file(dir_ / "doc.pdf", test::hand_pdf());
  test::write_file(dir_ / "pw", "segreta\n");
  std::string pw = "file:" + dir_ / "pw";
  r = cli({"cert", "export", id_, "-o", dir_ / "k.pfx", "--password", pw});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  fs::create_hard_link(dir_ / "k.pfx", dir_ / "k-hard.pfx");
  fs::create_symlink(dir_ / "doc.pdf", dir_ / "doc-link.pdf");
  std::vector<std::string> entries = store_files();
  ASSERT_GE(entries.size(), 4u);  // manifest, .lock, the certificate and its key
  for (const auto& e : entries)
    if (e.ends_with(".crt")) fs::create_hard_link(e, dir_ / "entry-link.crt");
  std::map<std::string, Bytes> before;
  for (const auto& f : entries)
    before[f] = test::read_bytes(f);
  for (const char* f : {"k.pfx", "pw", "doc.pdf"})
    before[dir_ / f] = test::read_bytes(dir_ / f);

  auto refused = [&](const std::vector<std::string>& args, const std::string& output,
                     const std::string& what) {
    auto refusal = cli(args);
    EXPECT_EQ(refusal.exit_code, 1) << output << ": " << refusal.err;
    EXPECT_NE(refusal.err.find("It is " + what), std::string::npos)
        << output << ": " << refusal.err;
  };
  for (const std::string& out : {dir_ / "k.pfx", dir_ / "k-hard.pfx"})
    refused({"pdf", "sign", dir_ / "doc.pdf", "-o", out, "--pfx", dir_ / "k.pfx", "--password", pw},
            out, "the PKCS#12 file with the signing key");
  refused({"pdf", "sign", dir_ / "doc.pdf", "-o", dir_ / "pw", "--pfx", dir_ / "k.pfx",
           "--password", pw},
          "pw", "the password file");
  refused({"pdf", "sign", dir_ / "doc.pdf", "-o", dir_ / "doc-link.pdf"}, "doc-link.pdf",
          "the document being signed");
  refused({"cert", "export", id_, "-o", dir_ / "pw", "--password", pw}, "pw", "the password file");
  std::vector<std::string> store_outputs = entries;
  store_outputs.push_back(dir_ / "entry-link.crt");
  for (const auto& out : store_outputs) {
    refused({"cert", "export", id_, "-o", out, "--password", pw}, out,
            "a file of the certificate store");
    refused({"pdf", "sign", dir_ / "doc.pdf", "--cert", id_, "-o", out}, out,
            "a file of the certificate store");
  }
  // A password read from a descriptor open on the very file named as the output.
  r = shell(tessarel() + " cert export " + id_ + " -o pw --password fd:3 3< pw");
  EXPECT_EQ(r.exit_code, 1) << r.err;
  EXPECT_NE(r.err.find("It is the password file"), std::string::npos) << r.err;

  for (const auto& [file, bytes] : before)
    EXPECT_EQ(test::read_bytes(file), bytes) << file << " was written over";
  // The store still signs with its certificate.
  r = cli({"cert", "list"});
  EXPECT_NE(r.out.find(id_ + "  key"), std::string::npos) << r.out << r.err;
  EXPECT_EQ(cli({"pdf", "sign", dir_ / "doc.pdf", "-o", dir_ / "signed.pdf"}).exit_code, 0);
}

TEST_F(SafetyCli, OutputsThatAreNotPlainNewFilesKeepWhatTheyAre) {
  test::write_file(dir_ / "a.txt", "alpha\n");
  ASSERT_EQ(cli({"sign", dir_ / "a.txt"}).exit_code, 0);
  std::string env = dir_ / "a.txt.p7m";

  // An existing private file keeps its mode; a hard link keeps both names on one file.
  test::write_file(dir_ / "private.txt", "an older and longer content");
  ::chmod((dir_ / "private.txt").c_str(), 0600);
  fs::create_hard_link(dir_ / "private.txt", dir_ / "private-link.txt");
  ASSERT_EQ(cli({"extract", env, "-o", dir_ / "private.txt"}).exit_code, 0);
  EXPECT_EQ(fs::status(dir_ / "private.txt").permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(test::read_file(dir_ / "private-link.txt"), "alpha\n");
  EXPECT_EQ(fs::hard_link_count(dir_ / "private.txt"), 2u);

  // A lone regular file keeps its mode through the atomic replacement.
  test::write_file(dir_ / "lone.txt", "old");
  ::chmod((dir_ / "lone.txt").c_str(), 0640);
  ASSERT_EQ(cli({"extract", env, "-o", dir_ / "lone.txt"}).exit_code, 0);
  EXPECT_EQ(fs::status(dir_ / "lone.txt").permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
  EXPECT_EQ(test::read_file(dir_ / "lone.txt"), "alpha\n");

  // A symbolic link stays a link; the file it names gets the content.
  test::write_file(dir_ / "target.txt", "old");
  fs::create_symlink(dir_ / "target.txt", dir_ / "link.txt");
  ASSERT_EQ(cli({"extract", env, "-o", dir_ / "link.txt"}).exit_code, 0);
  EXPECT_TRUE(fs::is_symlink(dir_ / "link.txt"));
  EXPECT_EQ(test::read_file(dir_ / "target.txt"), "alpha\n");

  // A character device (a null device made here) stays a device.
  std::string null_dev = dir_ / "null";
  if (::mknod(null_dev.c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0) {
    EXPECT_EQ(cli({"extract", env, "-o", null_dev}).exit_code, 0);
    EXPECT_TRUE(fs::is_character_file(null_dev));
  }

  // A FIFO is written into; its reader, there before the writer, gets the content.
  std::string fifo = dir_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  ::fcntl(reader, F_SETFL, 0);
  auto r = cli({"extract", env, "-o", fifo});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  std::string received;
  char buf[64];
  // With no writer left, the read ends at once: a replaced FIFO cannot make this wait.
  for (ssize_t n; (n = ::read(reader, buf, sizeof buf)) > 0;)
    received.append(buf, static_cast<std::size_t>(n));
  ::close(reader);
  EXPECT_TRUE(fs::is_fifo(fifo));
  EXPECT_EQ(received, "alpha\n");

  // Standard output.
  r = cli({"extract", env, "-o", "-"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "alpha\n");

  // An envelope name that is a device refusing the data (a full device made here): the
  // error is said and the device stays.
  test::write_file(dir_ / "c.txt", "gamma\n");
  std::string full_dev = dir_ / "c.txt.p7m";
  if (::mknod(full_dev.c_str(), S_IFCHR | 0666, makedev(1, 7)) == 0) {
    r = cli({"sign", dir_ / "c.txt"});
    EXPECT_EQ(r.exit_code, 1) << r.err;
    EXPECT_TRUE(fs::is_character_file(full_dev));
  }
}

TEST_F(SafetyCli, SignedDocumentsAndExportedKeysKeepWhatTheirOutputsAre) {
  test::write_file(dir_ / "doc.pdf", test::hand_pdf());
  test::write_file(dir_ / "pw", "segreta\n");
  std::string pw = "file:" + dir_ / "pw";
  using Write = std::function<test::CommandResult(const std::string&)>;
  using Check = std::function<bool(const std::string&)>;
  Write sign_pdf = [&](const std::string& out) {
    return cli({"pdf", "sign", dir_ / "doc.pdf", "-o", out, "--quiet"});
  };
  Write export_pfx = [&](const std::string& out) {
    return cli({"cert", "export", id_, "-o", out, "--password", pw, "--quiet"});
  };
  Check is_pdf_signed = [&](const std::string& file) {
    return cli({"pdf", "verify", file}).exit_code == 0;
  };
  Check is_pfx = [&](const std::string& file) {
    return test::run({"openssl", "pkcs12", "-in", file, "-passin", pw, "-nokeys", "-out",
                      dir_ / "pfx.pem"})
               .exit_code == 0;
  };
  auto mode = [](const std::string& f) { return fs::status(f).permissions() & fs::perms::all; };
  const auto owner_rw = fs::perms::owner_read | fs::perms::owner_write;

  // A new key file is its owner's alone; an existing file keeps the mode it was given.
  ASSERT_EQ(export_pfx(dir_ / "new.pfx").exit_code, 0);
  EXPECT_EQ(mode(dir_ / "new.pfx"), owner_rw);
  EXPECT_TRUE(is_pfx(dir_ / "new.pfx"));
  for (const std::string name : {"old.pfx", "old.pdf"}) {
    test::write_file(dir_ / name, "old");
    ::chmod((dir_ / name).c_str(), 0640);
    ASSERT_EQ((name == "old.pfx" ? export_pfx : sign_pdf)(dir_ / name).exit_code, 0);
    EXPECT_EQ(mode(dir_ / name), owner_rw | fs::perms::group_read) << name;
  }
  EXPECT_TRUE(is_pfx(dir_ / "old.pfx"));
  EXPECT_TRUE(is_pdf_signed(dir_ / "old.pdf"));

  // Symbolic links stay links (one to a file not made yet among them); the files they name
  // get the content. Hard links keep both names on one file.
  for (const std::string ext : {".pdf", ".pfx"}) {
    auto write = ext == ".pdf" ? sign_pdf : export_pfx;
    auto check = ext == ".pdf" ? is_pdf_signed : is_pfx;
    test::write_file(dir_ / ("target" + ext), "old");
    fs::create_symlink(dir_ / ("target" + ext), dir_ / ("link" + ext));
    fs::create_symlink(dir_ / ("later" + ext), dir_ / ("dangling" + ext));
    test::write_file(dir_ / ("one" + ext), "old");
    fs::create_hard_link(dir_ / ("one" + ext), dir_ / ("two" + ext));
    for (const std::string name : {"link", "dangling", "one"})
      EXPECT_EQ(write(dir_ / (name + ext)).exit_code, 0) << name << ext;
    EXPECT_TRUE(fs::is_symlink(dir_ / ("link" + ext))) << ext;
    EXPECT_TRUE(fs::is_symlink(dir_ / ("dangling" + ext))) << ext;
    EXPECT_TRUE(check(dir_ / ("target" + ext))) << ext;
    EXPECT_TRUE(check(dir_ / ("later" + ext))) << ext;
    EXPECT_EQ(fs::hard_link_count(dir_ / ("one" + ext)), 2u) << ext;
    EXPECT_TRUE(check(dir_ / ("two" + ext))) << ext;
  }
  EXPECT_EQ(mode(dir_ / "later.pfx"), owner_rw);

  // A device stays a device; a FIFO's reader gets the whole output.
  std::string null_dev = dir_ / "null";
  if (::mknod(null_dev.c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0) {
    EXPECT_EQ(sign_pdf(null_dev).exit_code, 0);
    EXPECT_EQ(export_pfx(null_dev).exit_code, 0);
    EXPECT_TRUE(fs::is_character_file(null_dev));
  }
  std::string fifo = dir_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string ext : {".pdf", ".pfx"}) {
    int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    ::fcntl(reader, F_SETFL, 0);
    auto r = (ext == ".pdf" ? sign_pdf : export_pfx)(fifo);
    EXPECT_EQ(r.exit_code, 0) << r.err;
    std::string received;
    char buf[4096];
    for (ssize_t n; (n = ::read(reader, buf, sizeof buf)) > 0;)
      received.append(buf, static_cast<std::size_t>(n));
    ::close(reader);
    EXPECT_TRUE(fs::is_fifo(fifo));
    test::write_file(dir_ / ("from-fifo" + ext), received);
    EXPECT_TRUE((ext == ".pdf" ? is_pdf_signed : is_pfx)(dir_ / ("from-fifo" + ext))) << ext;
  }

  // Standard output.
  auto r = cli({"cert", "export", id_, "-o", "-", "--password", pw});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  test::write_file(dir_ / "stdout.pfx", r.out);
  EXPECT_TRUE(is_pfx(dir_ / "stdout.pfx"));
  // Nothing left beside the outputs.
  for (auto& e : fs::directory_iterator(dir_.path()))
    EXPECT_EQ(e.path().filename().string().find(".tmp-"), std::string::npos) << e.path();
}

TEST_F(SafetyCli, ConcurrentArchiversLoseNothing) {
  constexpr int kWriters = 16;
  // Every writer waits at a start line (a lock the shell holds), so they all open the
  // archive at the same moment; each archives two documents.
  std::string command = "exec 9> start.lock; flock -x 9; ";
  for (int i = 0; i < kWriters; ++i) {
    std::string n = std::to_string(i);
    test::write_file(dir_ / ("d" + n + "a.txt"), "documento " + n + "a");
    test::write_file(dir_ / ("d" + n + "b.txt"), "documento " + n + "b");
    command += "(flock -s start.lock true; " + tessarel() + " --quiet archive add '" + arch_ +
               "' --type T d" + n + "a.txt d" + n + "b.txt > out" + n + " 2> err" + n +
               "; echo $? > rc" + n + ") 9>&- & ";
  }
  command += "sleep 1; flock -u 9; wait";
  ASSERT_EQ(shell(command).exit_code, 0);
  int succeeded = 0;
  for (int i = 0; i < kWriters; ++i) {
    std::string rc = test::read_file(dir_ / ("rc" + std::to_string(i)));
    EXPECT_EQ(rc, "0\n") << test::read_file(dir_ / ("err" + std::to_string(i)));
    succeeded += rc == "0\n";
  }
  EXPECT_EQ(records(), static_cast<std::size_t>(2 * succeeded));
  auto r = cli({"archive", "verify", arch_});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_NE(r.out.find(std::to_string(2 * kWriters) + " records, " + std::to_string(4 * kWriters) +
                       " files checked, 0 problems"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(xmlsec_index(arch_ + "/index.xml"), "OK");
}

// A process killed while it writes a large output (SIGKILL: no handler runs) leaves neither
// a part of the output nor a temporary file behind, in the document's folder or the archive.
TEST_F(SafetyCli, AWriterKilledMidFileLeavesNoPartBehind) {
  ASSERT_EQ(shell("truncate -s 512M grande.bin").exit_code, 0);
  // Starts the command, waits until it holds a file open right in folder (other than the
  // input and the archive's lock: the output being written), kills it, and says whether it
  // was caught writing.
  auto kill_while_writing = [&](const std::string& command, const std::string& folder) {
    return shell(command +
                 " & pid=$!; seen=no; "
                 "while kill -0 $pid 2>/dev/null; do "
                 "  if ls -l /proc/$pid/fd 2>/dev/null | grep -v 'grande.bin$' | "
                 "     grep -v 'index.xml.lock$' | grep -q -- '-> " +
                 folder +
                 "/[^/]*$'; then "
                 "    kill -9 $pid; seen=yes; break; fi; sleep 0.005; done; "
                 "wait $pid; echo $seen");
  };
  auto r = kill_while_writing(tessarel() + " --quiet sign grande.bin", dir_.path());
  ASSERT_EQ(r.out, "yes\n") << "the signer was not caught writing: " << r.err;
  std::vector<std::string> left;
  for (auto& e : fs::directory_iterator(dir_.path()))
    left.push_back(e.path().filename().string());
  std::sort(left.begin(), left.end());
  EXPECT_EQ(left, (std::vector<std::string>{"MY", "grande.bin", "signer.key", "signer.pem"}));

  // An archive with a record already: the copy of the large document is cut short.
  test::write_file(dir_ / "a.txt", "alpha\n");
  ASSERT_EQ(cli({"archive", "add", arch_, "--type", "T", dir_ / "a.txt"}).exit_code, 0);
  std::string index_before = test::read_file(arch_ + "/index.xml");
  r = kill_while_writing(tessarel() + " --quiet archive add '" + arch_ + "' --type T grande.bin",
                         arch_ + "/T/[0-9]*/[0-9]*");
  ASSERT_EQ(r.out, "yes\n") << "the archiver was not caught copying: " << r.err;
  EXPECT_EQ(test::read_file(arch_ + "/index.xml"), index_before);
  for (auto& e : fs::recursive_directory_iterator(arch_)) {
    std::string name = e.path().filename().string();
    EXPECT_TRUE(name == "T" || name == "index.xml" || name == "index.xml.lock" || name == "a.txt" ||
                name == "a.txt.p7m" || e.is_directory())
        << e.path();
  }
  // The archive goes on: the kernel freed the lock, the next writer archives and the index
  // verifies with its two records.
  ASSERT_EQ(cli({"archive", "add", arch_, "--type", "T", "--existing", "overwrite", dir_ / "a.txt"})
                .exit_code,
            0);
  test::write_file(dir_ / "b.txt", "beta\n");
  ASSERT_EQ(cli({"archive", "add", arch_, "--type", "T", dir_ / "b.txt"}).exit_code, 0);
  EXPECT_EQ(records(), 2u);
  EXPECT_EQ(xmlsec_index(arch_ + "/index.xml"), "OK");
}

// Outputs are put in place without a temporary name through /proc's links to open files.
// Where those links are missing (no /proc) or do not work (a sandbox), the same commands
// give the same files: run here in a private mount namespace whose /proc is a folder of
// the test's own.
TEST_F(SafetyCli, OutputsArePutInPlaceWithoutProcLinksToo) {
  if (shell("unshare -m true").exit_code != 0) GTEST_SKIP() << "no private mount namespace here";
  test::write_file(dir_ / "a.txt", "alpha\n");
  for (std::string proc : {"no-proc", "proc-without-links"}) {
    SCOPED_TRACE(proc);
    fs::create_directories(dir_ / (proc + "/self"));
    if (proc == "proc-without-links") fs::create_directories(dir_ / (proc + "/self/fd"));
    // A sanitizer build reads its options from /proc/self/environ, and its leak check needs
    // the real /proc: this tells it to leave leaks unchecked (other builds ignore the file).
    test::write_file(dir_ / (proc + "/self/environ"),
                     std::string("ASAN_OPTIONS=detect_leaks=0") + '\0');
    fs::remove(dir_ / "a.txt.p7m");
    auto in_sandbox = [&](const std::string& command) {
      return shell("unshare -m sh -c \"mount --bind '" + (dir_ / proc) + "' /proc && " + command +
                   "\"");
    };
    std::string arch = dir_ / ("archivio-" + proc);
    auto r = in_sandbox(tessarel() + " --quiet sign a.txt");
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_TRUE(openssl_verifies(dir_ / "a.txt.p7m"));
    // Replacing keeps the mode the user gave the file.
    ASSERT_EQ(::chmod((dir_ / "a.txt.p7m").c_str(), 0640), 0);
    r = in_sandbox(tessarel() + " --quiet sign a.txt && " + tessarel() + " --quiet archive add '" +
                   arch + "' --type T --date 2024-02-03 a.txt");
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_TRUE(openssl_verifies(dir_ / "a.txt.p7m"));
    struct stat st {};
    ASSERT_EQ(::stat((dir_ / "a.txt.p7m").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(test::read_file(arch + "/T/2024/02/a.txt"), "alpha\n");
    EXPECT_TRUE(openssl_verifies(arch + "/T/2024/02/a.txt.p7m"));
    EXPECT_EQ(xmlsec_index(arch + "/index.xml"), "OK");
    for (auto& e : fs::recursive_directory_iterator(dir_.path()))
      EXPECT_EQ(e.path().filename().string().find(".tmp-"), std::string::npos) << e.path();
  }
}

TEST_F(SafetyCli, AnArchiveInUseMakesOthersWaitThenFailClearly) {
  test::write_file(dir_ / "a.txt", "alpha\n");
  ASSERT_EQ(cli({"archive", "add", arch_, "--type", "T", dir_ / "a.txt"}).exit_code, 0);
  // A temporary index file as a writer leaves it while replacing the index.
  std::string temp = arch_ + "/.index.xml.tmp-AbC123";
  test::write_file(temp, "<IndiceFile/>");
  std::string lock = arch_ + "/index.xml.lock";
  // flock(1) holds the archive as another engine would, until its sleep ends.
  auto holder = shell("(flock -x '" + lock + "' sleep 3 &) ; sleep 0.3; " + tessarel() +
                      " archive add '" + arch_ + "' --type T --wait 0.5 a.txt");
  EXPECT_EQ(holder.exit_code, 1);
  EXPECT_NE(holder.err.find("is in use by another program; waiting up to 0.5 s"), std::string::npos)
      << holder.err;
  EXPECT_NE(holder.err.find("L'archivio " + arch_ + " è in uso da un altro programma"),
            std::string::npos)
      << holder.err;
  EXPECT_TRUE(fs::exists(temp)) << "a live writer's temporary file was deleted";
  // Once the holder is gone (its lock freed by the kernel), the next writer goes on and
  // removes what the gone writer left.
  auto r = shell("flock -x '" + lock + "' true; " + tessarel() + " archive add '" + arch_ +
                 "' --type T --existing overwrite a.txt");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_FALSE(fs::exists(temp));
  EXPECT_EQ(records(), 1u);
}

TEST_F(SafetyCli, ParametersAndTypesThatWouldBreakTheIndexAreRefusedFirst) {
  test::write_file(dir_ / "a.txt", "alpha\n");
  for (std::string param :
       std::vector<std::string>{"<a>", "<a></b>", "x & <", "<?xml version='1.0'?><a/>",
                                "<!DOCTYPE a><a/>", "\xff\xfe"}) {
    auto r = cli({"archive", "add", arch_, "--type", "T", "--param", param, dir_ / "a.txt"});
    EXPECT_EQ(r.exit_code, 1) << param;
    EXPECT_NE(r.err.find("Parametro XML del record non valido"), std::string::npos) << r.err;
    // Not even the new archive's folder (or its lock file) is left behind.
    EXPECT_FALSE(fs::exists(arch_)) << "left behind although refused: " << param;
  }
  // Outside NameStartChar/NameChar (° is U+00B0, · U+00B7 cannot start, U+037E is not a
  // name character, a colon would be a prefix), and bytes that are not UTF-8.
  for (std::string type : std::vector<std::string>{"Protocollo_N\xc2\xb0", "\xc2\xb7x", "x\xcd\xbe",
                                                   "1abc", "a:b", "Citt\xe0", "-x"}) {
    auto r = cli({"archive", "add", arch_, "--type", type, dir_ / "a.txt"});
    EXPECT_EQ(r.exit_code, 1) << type;
    EXPECT_NE(r.err.find("Tipo di documento non valido"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(arch_)) << type;
  }
  // A certificate that is not there, or has no key: refused before any folder is made,
  // the missing parents of a nested archive folder included.
  std::string nested = dir_ / "nuovi/archivio";
  auto r = cli({"archive", "add", nested, "--type", "T", "--cert", "00BADBAD", dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("Certificato non trovato"), std::string::npos) << r.err;
  r = cli({"archive", "add", nested, "--type", "Protocollo_N\xc2\xb0", dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_FALSE(fs::exists(dir_ / "nuovi"));
  fs::path key;
  for (auto& e : fs::directory_iterator(store_))
    if (e.path().extension() == ".key") key = e.path();
  fs::rename(key, dir_ / "key.aside");
  r = cli({"archive", "add", nested, "--type", "T", "--cert", id_, dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("Chiave non trovata"), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(dir_ / "nuovi"));
  fs::rename(dir_ / "key.aside", key);
  // Inside the ranges: accepted, written, and the index reads back and verifies.
  for (std::string type : std::vector<std::string>{"Citt\xc3\xa0", "x\xc2\xb7y", "\xce\xa9mega",
                                                   "_x-1.2", "\xe6\x96\x87\xe6\x9b\xb8"}) {
    auto added =
        cli({"archive", "add", arch_, "--type", type, "--existing", "overwrite", dir_ / "a.txt"});
    EXPECT_EQ(added.exit_code, 0) << type << added.err;
  }
  // A refusal in an archive that exists leaves it as it was, lock file and all.
  r = cli({"archive", "add", arch_, "--type", "a:b", dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_TRUE(fs::exists(arch_ + "/index.xml.lock"));
  r = cli({"archive", "verify", arch_});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_EQ(records(), 5u);
  EXPECT_EQ(xmlsec_index(arch_ + "/index.xml"), "OK");
}

TEST_F(SafetyCli, ARecordParameterKeepsItsOwnSignatureThroughReopening) {
  // A parameter carrying an XML signature of its own, as some hosts store receipts.
  const std::string param =
      "<Ricevuta><ds:Signature xmlns:ds=\"http://www.w3.org/2000/09/xmldsig#\">"
      "<ds:SignedInfo><ds:Reference URI=\"#r\"/></ds:SignedInfo>"
      "<ds:SignatureValue>QUJD</ds:SignatureValue></ds:Signature></Ricevuta>";
  for (int i = 0; i < 3; ++i) {
    std::string name = "r" + std::to_string(i) + ".txt";
    test::write_file(dir_ / name, "ricevuta " + std::to_string(i));
    auto r = cli({"archive", "add", arch_, "--type", "Ricevute", "--param",
                  i == 0 ? param : std::string(), dir_ / name});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    std::string index = test::read_file(arch_ + "/index.xml");
    EXPECT_NE(index.find(param), std::string::npos) << "cycle " << i << ":\n" << index;
    EXPECT_EQ(xmlsec_index(arch_ + "/index.xml"), "OK") << "cycle " << i;
    r = cli({"archive", "verify", arch_});
    EXPECT_EQ(r.exit_code, 0) << r.out;
  }
}

TEST_F(SafetyCli, DeletingNothingExitsOne) {
  test::write_file(dir_ / "a.txt", "alpha\n");
  ASSERT_EQ(cli({"archive", "add", arch_, "--type", "T", dir_ / "a.txt"}).exit_code, 0);
  auto r = cli({"archive", "delete", arch_, "--type", "Nessuno", "--id", "0", "--yes"});
  EXPECT_EQ(r.exit_code, 1) << r.err;
  r = cli({"archive", "delete", arch_, "--type", "T", "--id", "7", "--yes"});
  EXPECT_EQ(r.exit_code, 1) << r.err;
  EXPECT_NE(r.err.find("id non trovato"), std::string::npos) << r.err;
  EXPECT_EQ(records(), 1u);
  r = cli({"archive", "delete", arch_, "--type", "T", "--id", "0", "--yes"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(records(), 0u);
}

TEST_F(SafetyCli, OverwritingWithoutATerminalIsSaid) {
  test::write_file(dir_ / "a.txt", "first\n");
  ASSERT_EQ(cli({"archive", "add", arch_, "--type", "T", dir_ / "a.txt"}).exit_code, 0);
  test::write_file(dir_ / "a.txt", "second\n");
  auto r = cli({"archive", "add", arch_, "--type", "T", dir_ / "a.txt"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(
      r.err.find("overwriting the archived copy of " + dir_ / "a.txt" + " (no terminal to ask)"),
      std::string::npos)
      << r.err;
}

TEST_F(SafetyCli, ReportsSayWhatWasNotCheckedAndWhatIsWeak) {
  test::write_file(dir_ / "a.txt", "alpha\n");
  ASSERT_EQ(cli({"sign", "--detached", dir_ / "a.txt"}).exit_code, 0);
  fs::rename(dir_ / "a.txt", dir_ / "elsewhere.txt");
  auto r = cli({"verify", dir_ / "a.txt.p7s"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("content digest: not checked: no content given"), std::string::npos)
      << r.out;
  EXPECT_EQ(r.out.find("content digest: FAILED"), std::string::npos) << r.out;

  // SHA-1 by openssl: intact, but said to be weak.
  ASSERT_EQ(test::run({"openssl", "cms", "-sign", "-binary", "-nodetach", "-md", "sha1", "-outform",
                       "DER", "-in", dir_ / "elsewhere.txt", "-signer", dir_ / "signer.pem",
                       "-inkey", dir_ / "signer.key", "-out", dir_ / "sha1.p7m"})
                .exit_code,
            0);
  r = cli({"verify", dir_ / "sha1.p7m"});
  EXPECT_EQ(r.exit_code, 0) << r.out;
  EXPECT_NE(r.out.find("warning: SHA-1 is a weak digest algorithm"), std::string::npos) << r.out;
  r = cli({"verify", "--json", dir_ / "sha1.p7m"});
  EXPECT_NE(r.out.find("\"weak_algorithm\": \"SHA-1\""), std::string::npos) << r.out;

  // An Ed25519 signer (certtool makes such envelopes): the algorithm is named, not blamed
  // on the key.
  auto made = shell(
      "openssl req -x509 -newkey ed25519 -nodes -keyout ed.key -out ed.pem -subj /CN=Ed -days 2 "
      "2>/dev/null && certtool --p7-sign --load-privkey ed.key --load-certificate ed.pem "
      "--infile elsewhere.txt --outfile ed.p7m --outder");
  ASSERT_EQ(made.exit_code, 0) << made.err;
  r = cli({"verify", dir_ / "ed.p7m"});
  EXPECT_EQ(r.out.find("does not fit"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Ed25519 (1.3.101.112)"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace tessarel
