// Helpers shared by the tests: temporary folders, private certificate stores, test
// certificates made directly with OpenSSL (independently of the library's own generator),
// and running outside programs.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/crypto/pkey.h"
#include "tessarel/certificate.h"
#include "tessarel/types.h"
#include "tessarel/ui.h"

namespace tessarel::test {

// A fresh folder under the temporary folder, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void write_file(const std::string& path, const std::string& content);
void write_file(const std::string& path, const Bytes& content);
std::string read_file(const std::string& path);
Bytes read_bytes(const std::string& path);

// An envelope made with an RSA-2048 key with the digits of its generalized signing time and
// its signature value (the last 256 bytes) blanked: what two signings of the same file at
// different times still have in common. Fails the test when there is no signing time.
Bytes without_signing_time(Bytes envelope);

struct CertParams {
  std::string cn = "Test Signer";
  std::string org;
  std::string country;
  std::string email;
  KeyKind kind = KeyKind::Rsa;
  int bits = 2048;                         // RSA/DSA bits; EC: 256 or 384
  std::string curve;                       // EC: a curve by name ("brainpoolP256r1")
  Bytes serial;                            // INTEGER content octets; empty: 16 random bytes
  std::optional<std::uint16_t> key_usage;  // bits as in Certificate::key_usage()
  bool ca = false;
  int days = 365;
  int not_before_offset_days = -1;
  // Further subject attributes written exactly: short name ("L", "O"...), ASN.1 string
  // type (V_ASN1_T61STRING...) and the value's bytes.
  struct RawEntry {
    std::string field;
    int type;
    std::string bytes;
  };
  std::vector<RawEntry> raw_subject;
};

struct TestCert {
  Certificate cert;
  crypto::PrivateKey key;
  Bytes pkcs8() const { return key.to_pkcs8_der(); }
};

// A self-signed certificate (or one issued by issuer) made with OpenSSL's X509 API.
TestCert make_cert(const CertParams& params, const TestCert* issuer = nullptr);
// Writes the certificate as PEM into a file and returns the path.
std::string write_pem(const Certificate& cert, const std::string& path);
// Writes the key as unencrypted PKCS#8 PEM.
std::string write_key_pem(const crypto::PrivateKey& key, const std::string& path);

// Points the library at a private store in a temporary folder for the test's lifetime and
// forgets the shared store snapshot before and after.
class ScopedStore {
 public:
  ScopedStore();
  ~ScopedStore();
  const std::string& path() const { return path_; }
  // Adds a certificate (with its key unless with_key is false) to the store.
  void add(const TestCert& tc, bool with_key = true);

 private:
  TempDir dir_;
  std::string path_;
};

// Installs a Ui for the test's lifetime.
class ScopedUi {
 public:
  explicit ScopedUi(std::shared_ptr<Ui> ui);
  ~ScopedUi();
};

struct CommandResult {
  int exit_code = -1;
  std::string out;
  std::string err;
};
// Runs a program (no shell) with stdin from /dev/null; captures stdout and stderr.
CommandResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});
// Runs a shell command line.
CommandResult run_shell(const std::string& command);
// Runs fn in a child process whose files may not grow past limit bytes (a full disk,
// as the process sees it); returns the child's exit code, or 128 + signal.
int with_file_size_limit(std::size_t limit, const std::function<int()>& fn);

// A real, small file system (tmpfs) mounted at a folder for the life of the object, so a
// test can run out of space for real. Mounting needs root; mounted() says whether it worked.
class SmallFileSystem {
 public:
  SmallFileSystem(const std::string& folder, std::size_t bytes);
  ~SmallFileSystem();
  SmallFileSystem(const SmallFileSystem&) = delete;
  SmallFileSystem& operator=(const SmallFileSystem&) = delete;
  bool mounted() const { return mounted_; }
  // Writes a filler file below the folder until the file system is full; returns its path.
  std::string fill();
  // Remounts the file system read-only: nothing below it can be created, changed or deleted.
  bool make_read_only();

 private:
  std::string folder_;
  bool mounted_ = false;
};

// Everything a pseudo-terminal's other side shows within wait (stops once it is quiet).
std::string read_terminal(int master, int quiet_ms = 200);

struct PtyRun {
  int exit_code = -1;
  std::string screen;
};
// Runs a program on a new pseudo-terminal, typing keys once the prompt containing
// `wait_for` is on the screen.
PtyRun on_terminal(const std::vector<std::string>& args, const std::string& wait_for,
                   const std::string& keys);

// True when the program is on PATH.
bool have_program(const std::string& name);
// The built command-line program.
std::string cli_path();

}  // namespace tessarel::test
