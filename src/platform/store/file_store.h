// The personal store kept in a folder.
//
// Layout: "manifest" lists the entries in insertion order, one per line (the upper-case
// SHA-1 fingerprint of the certificate); each entry is "<fingerprint>.crt" (DER) and,
// when the key is present, "<fingerprint>.key" (unencrypted PKCS#8 DER, mode 0600). The
// folder is 0700. Writers take an exclusive flock on ".lock", write the entry's files
// under temporary names, rename them into place and only then replace the manifest, so an
// entry exists whole or not at all whatever happens to the writer.
#pragma once

#include <string>
#include <vector>

#include "tessarel/store.h"

namespace tessarel {

class FileCertStore : public CertStore {
 public:
  explicit FileCertStore(std::string folder);

  std::string location() const override { return folder_; }
  std::vector<Certificate> certificates() override;
  bool has_private_key(const Certificate& cert) override;
  bool key_valid(const Certificate& cert) override;
  std::unique_ptr<SigningKey> signing_key(const Certificate& cert) override;
  void add(const Certificate& cert, const Bytes& pkcs8_key) override;
  bool remove(const Certificate& cert) override;
  Bytes export_pkcs12(const Certificate& cert, const std::string& password) override;
  // The folder's and the manifest's identity and times, and this process's own writes.
  std::string change_stamp() override;
  // The manifest, the lock file and every entry file.
  std::vector<std::string> files() override;

  // Entry name of a certificate (its SHA-1 fingerprint in upper-case hexadecimal).
  static std::string entry_name(const Certificate& cert);

 private:
  class Lock;
  std::vector<std::string> read_manifest() const;
  void write_manifest(const std::vector<std::string>& entries);
  void ensure_folder();
  void remove_orphans(const std::vector<std::string>& entries);
  std::string path(const std::string& name) const { return folder_ + "/" + name; }

  std::string folder_;
};

}  // namespace tessarel
