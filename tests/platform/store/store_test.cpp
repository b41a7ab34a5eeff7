// The file store: order, permissions, concurrent writers, crashed writers, foreign files,
// PKCS#12 import and export.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "platform/crypto/pkcs12.h"
#include "platform/store/file_store.h"
#include "tessarel/errors.h"
#include "tessarel/store.h"
#include "test_support.h"

namespace tessarel {
namespace {

using test::CertParams;
using test::TempDir;
using test::TestCert;

std::vector<TestCert> ec_certs(int n) {
  std::vector<TestCert> out;
  for (int i = 0; i < n; ++i) {
    CertParams s;
    s.cn = "Entry " + std::to_string(i);
    s.kind = KeyKind::Ec;
    s.bits = 256;
    out.push_back(test::make_cert(s));
  }
  return out;
}

std::vector<std::string> ids(const std::vector<Certificate>& certs) {
  std::vector<std::string> out;
  for (const auto& c : certs)
    out.push_back(c.id());
  return out;
}

// Collects warnings for the duration of a test.
struct WarningCatcher {
  std::vector<std::string> seen;
  WarningCatcher() {
    set_warning_handler([this](const std::string& w) { seen.push_back(w); });
  }
  ~WarningCatcher() { set_warning_handler(nullptr); }
};

mode_t mode_of(const std::string& p) {
  struct stat st {};
  stat(p.c_str(), &st);
  return st.st_mode & 07777;
}

TEST(FileStore, KeepsInsertionOrderAcrossInstancesAndProcesses) {
  TempDir dir;
  std::string path = dir / "MY";
  auto certs = ec_certs(5);
  FileCertStore store(path);
  for (const auto& c : certs)
    store.add(c.cert, c.pkcs8());
  std::vector<std::string> expected;
  for (const auto& c : certs)
    expected.push_back(c.cert.id());
  EXPECT_EQ(ids(FileCertStore(path).certificates()), expected);

  // Another process lists the same order.
  auto r = test::run({test::cli_path(), "--store", path, "cert", "list"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::vector<std::string> listed;
  std::istringstream lines(r.out);
  for (std::string line; std::getline(lines, line);)
    listed.push_back(line.substr(0, line.find(' ')));
  EXPECT_EQ(listed, expected);
}

TEST(FileStore, FolderAndKeyPermissionsAreOwnerOnly) {
  TempDir dir;
  std::string path = dir / "deep/MY";
  auto certs = ec_certs(1);
  FileCertStore(path).add(certs[0].cert, certs[0].pkcs8());
  std::string name = FileCertStore::entry_name(certs[0].cert);
  EXPECT_EQ(mode_of(path), 0700u);
  EXPECT_EQ(mode_of(path + "/" + name + ".key"), 0600u);
  EXPECT_EQ(mode_of(path + "/manifest"), 0600u);
}

TEST(FileStore, AddingTwiceKeepsOneEntryAndAddsAMissingKey) {
  TempDir dir;
  FileCertStore store(dir / "MY");
  auto certs = ec_certs(2);
  store.add(certs[0].cert, {});
  store.add(certs[1].cert, certs[1].pkcs8());
  EXPECT_FALSE(store.has_private_key(certs[0].cert));
  store.add(certs[0].cert, certs[0].pkcs8());
  EXPECT_EQ(ids(store.certificates()),
            (std::vector<std::string>{certs[0].cert.id(), certs[1].cert.id()}));
  EXPECT_TRUE(store.key_valid(certs[0].cert));
}

TEST(FileStore, RefusesAKeyOfAnotherCertificateAndWritesNothing) {
  TempDir dir;
  FileCertStore store(dir / "MY");
  auto certs = ec_certs(2);
  EXPECT_THROW(store.add(certs[0].cert, certs[1].pkcs8()), Exception);
  EXPECT_TRUE(store.certificates().empty());
  EXPECT_FALSE(std::filesystem::exists(dir / "MY"));
}

TEST(FileStore, KeyValidityMeansPresentReadableAndMatching) {
  TempDir dir;
  FileCertStore store(dir / "MY");
  auto certs = ec_certs(3);
  store.add(certs[0].cert, certs[0].pkcs8());
  store.add(certs[1].cert, {});
  store.add(certs[2].cert, certs[2].pkcs8());
  EXPECT_TRUE(store.key_valid(certs[0].cert));
  EXPECT_NE(store.signing_key(certs[0].cert), nullptr);
  EXPECT_FALSE(store.has_private_key(certs[1].cert));
  EXPECT_FALSE(store.key_valid(certs[1].cert));
  EXPECT_EQ(store.signing_key(certs[1].cert), nullptr);

  WarningCatcher warnings;
  // A key file replaced by another certificate's key: present, but not valid.
  std::string key2 = dir / ("MY/" + FileCertStore::entry_name(certs[2].cert) + ".key");
  test::write_file(key2, certs[0].pkcs8());
  EXPECT_TRUE(store.has_private_key(certs[2].cert));
  EXPECT_FALSE(store.key_valid(certs[2].cert));
  EXPECT_EQ(store.signing_key(certs[2].cert), nullptr);
  // A truncated key file: present, unreadable, not valid.
  test::write_file(key2, std::string("\x30\x82\x01", 3));
  EXPECT_FALSE(store.key_valid(certs[2].cert));
  EXPECT_FALSE(warnings.seen.empty());
}

TEST(FileStore, SignsWithTheStoredKey) {
  TempDir dir;
  FileCertStore store(dir / "MY");
  test::CertParams params;
  params.bits = 2048;
  auto rsa = test::make_cert(params);
  store.add(rsa.cert, rsa.pkcs8());
  auto key = store.signing_key(rsa.cert);
  ASSERT_NE(key, nullptr);
  Bytes digest(32, 0x5A);
  Bytes sig = key->sign_digest(DigestAlgorithm::SHA256, digest);
  EXPECT_EQ(sig.size(), 256u);
  EXPECT_TRUE(crypto::PublicKey::from_certificate(rsa.cert).verify_digest(DigestAlgorithm::SHA256,
                                                                          digest, sig));
  digest[0] ^= 1;
  EXPECT_FALSE(crypto::PublicKey::from_certificate(rsa.cert).verify_digest(DigestAlgorithm::SHA256,
                                                                           digest, sig));
}

TEST(FileStore, RemoveKeepsTheOthersInOrder) {
  TempDir dir;
  FileCertStore store(dir / "MY");
  auto certs = ec_certs(4);
  for (auto& c : certs)
    store.add(c.cert, c.pkcs8());
  EXPECT_TRUE(store.remove(certs[1].cert));
  EXPECT_FALSE(store.remove(certs[1].cert));
  EXPECT_EQ(ids(store.certificates()),
            (std::vector<std::string>{certs[0].cert.id(), certs[2].cert.id(), certs[3].cert.id()}));
  std::string name = FileCertStore::entry_name(certs[1].cert);
  EXPECT_FALSE(std::filesystem::exists(dir / ("MY/" + name + ".key")));
  EXPECT_FALSE(std::filesystem::exists(dir / ("MY/" + name + ".crt")));
}

TEST(FileStore, ForeignAndDamagedFilesAreSkippedWithAWarning) {
  TempDir dir;
  std::string path = dir / "MY";
  FileCertStore store(path);
  auto certs = ec_certs(3);
  for (auto& c : certs)
    store.add(c.cert, c.pkcs8());
  test::write_file(path + "/notes.txt", "not a certificate");
  test::write_file(path + "/" + std::string(40, 'A') + ".crt", "garbage");
  // The middle entry's certificate is truncated.
  std::string middle = path + "/" + FileCertStore::entry_name(certs[1].cert) + ".crt";
  Bytes der = certs[1].cert.der();
  der.resize(der.size() / 2);
  test::write_file(middle, der);
  // A malformed manifest line.
  std::ofstream(path + "/manifest", std::ios::app) << "../../etc/passwd\n";

  WarningCatcher warnings;
  EXPECT_EQ(ids(store.certificates()),
            (std::vector<std::string>{certs[0].cert.id(), certs[2].cert.id()}));
  std::string all;
  for (auto& w : warnings.seen)
    all += w + "\n";
  EXPECT_NE(all.find("notes.txt"), std::string::npos) << all;
  EXPECT_NE(all.find(middle), std::string::npos) << all;
  EXPECT_NE(all.find("../../etc/passwd"), std::string::npos) << all;
}

TEST(FileStore, ConcurrentWritersLoseNothing) {
  TempDir dir;
  std::string path = dir / "MY";
  constexpr int kProcs = 4, kEach = 8;
  auto certs = ec_certs(kProcs * kEach);
  std::vector<pid_t> pids;
  for (int p = 0; p < kProcs; ++p) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      try {
        for (int i = 0; i < kEach; ++i) {
          auto& c = certs[static_cast<std::size_t>(p * kEach + i)];
          FileCertStore(path).add(c.cert, c.pkcs8());
        }
      } catch (...) {
        _exit(1);
      }
      _exit(0);
    }
    pids.push_back(pid);
  }
  for (pid_t pid : pids) {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  FileCertStore store(path);
  auto listed = ids(store.certificates());
  EXPECT_EQ(listed.size(), certs.size());
  for (auto& c : certs) {
    EXPECT_NE(std::find(listed.begin(), listed.end(), c.cert.id()), listed.end());
    EXPECT_TRUE(store.key_valid(c.cert));
  }
  // Each writer's entries keep their relative order.
  for (int p = 0; p < kProcs; ++p) {
    long last = -1;
    for (int i = 0; i < kEach; ++i) {
      auto pos = std::find(listed.begin(), listed.end(),
                           certs[static_cast<std::size_t>(p * kEach + i)].cert.id()) -
                 listed.begin();
      EXPECT_GT(pos, last);
      last = pos;
    }
  }
}

TEST(FileStore, AKilledWriterNeverLeavesAHalfEntry) {
  TempDir dir;
  std::string path = dir / "MY";
  auto certs = ec_certs(60);
  std::mt19937 rng(12345);
  WarningCatcher warnings;
  std::size_t added_before = 0;
  for (int round = 0; round < 12; ++round) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      for (auto& c : certs)
        FileCertStore(path).add(c.cert, c.pkcs8());
      _exit(0);
    }
    usleep(std::uniform_int_distribution<useconds_t>(500, 15000)(rng));
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);

    FileCertStore store(path);
    auto listed = store.certificates();
    EXPECT_GE(listed.size(), added_before);
    added_before = listed.size();
    for (auto& c : listed)
      EXPECT_TRUE(store.key_valid(c)) << c.id();
  }
  for (auto& w : warnings.seen) {
    EXPECT_EQ(w.find("unreadable"), std::string::npos) << w;
    EXPECT_EQ(w.find("does not match"), std::string::npos) << w;
  }
  // The next writer cleans up what a killed one left behind.
  FileCertStore(path).add(certs[0].cert, certs[0].pkcs8());
  for (auto& e : std::filesystem::directory_iterator(path)) {
    std::string n = e.path().filename().string();
    EXPECT_EQ(n.find(".tmp-"), std::string::npos) << n;
  }
}

TEST(Pkcs12, ImportWithTheRightPasswordOnlyAndExportRoundTrip) {
  TempDir dir;
  FileCertStore store(dir / "MY");
  CertParams params;
  params.cn = "Import Me";
  auto tc = test::make_cert(params);
  Bytes pfx = crypto::write_pkcs12(tc.cert, tc.key, "s3cret pw");

  try {
    import_pkcs12(store, pfx, "wrong");
    FAIL() << "a wrong password was accepted";
  } catch (const Exception& e) {
    EXPECT_NE(std::string(e.what()).find("Wrong password"), std::string::npos) << e.what();
  }
  EXPECT_TRUE(store.certificates().empty());
  EXPECT_FALSE(std::filesystem::exists(dir / "MY"));

  Bytes garbage(pfx.begin(), pfx.begin() + static_cast<long>(pfx.size() / 2));
  EXPECT_THROW(import_pkcs12(store, garbage, "s3cret pw"), Exception);

  Certificate imported = import_pkcs12(store, pfx, "s3cret pw");
  EXPECT_EQ(imported, tc.cert);
  EXPECT_TRUE(store.key_valid(tc.cert));

  Bytes exported = store.export_pkcs12(tc.cert, "");
  auto back = crypto::read_pkcs12(exported, "");
  EXPECT_EQ(back.certificate, tc.cert);
  EXPECT_TRUE(back.key.matches(tc.cert));
}

TEST(Pkcs12, LegacyEncryptedFilesImport) {
  if (!test::have_program("openssl")) GTEST_SKIP() << "openssl not installed";
  TempDir dir;
  auto tc = test::make_cert(CertParams{});
  test::write_pem(tc.cert, dir / "c.pem");
  test::write_key_pem(tc.key, dir / "k.pem");
  auto r = test::run({"openssl", "pkcs12", "-export", "-legacy", "-in", dir / "c.pem", "-inkey",
                      dir / "k.pem", "-passout", "pass:old", "-out", dir / "legacy.pfx"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  FileCertStore store(dir / "MY");
  EXPECT_EQ(import_pkcs12(store, test::read_bytes(dir / "legacy.pfx"), "old"), tc.cert);
  EXPECT_TRUE(store.key_valid(tc.cert));
}

}  // namespace
}  // namespace tessarel
