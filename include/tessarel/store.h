// The personal certificate store: the user's certificates and, where present, their keys.
//
// The default store is a folder: $TESSAREL_STORE when set, else $XDG_DATA_HOME/tessarel/MY
// (~/.local/share/tessarel/MY). Its order is insertion order, stable between calls and
// between processes; every write is atomic and serialised by an advisory lock.
//
// A location that is a PKCS#11 URI (RFC 7512, "pkcs11:token=...") selects the certificates
// of smart cards, USB tokens or HSMs instead; their keys never leave the token.
#ifndef TESSAREL_STORE_H
#define TESSAREL_STORE_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tessarel/certificate.h"
#include "tessarel/export.h"
#include "tessarel/types.h"

namespace tessarel {

// A private key usable for signing. Keys may live outside the process (tokens), so the
// only operation is signing a ready digest.
class TESSAREL_API SigningKey {
 public:
  virtual ~SigningKey();
  virtual KeyKind kind() const = 0;
  virtual int bits() const = 0;
  // RSA: PKCS#1 v1.5 over a DigestInfo for alg. DSA/ECDSA: DER Dss-Sig-Value.
  virtual Bytes sign_digest(DigestAlgorithm alg, const Bytes& digest) const = 0;
  // RSASSA-PSS over a ready digest made with alg: MGF1 with mgf_alg, a salt of salt_len
  // bytes. Keys that cannot make such signatures raise tessarel::Exception (the default).
  virtual Bytes sign_digest_pss(DigestAlgorithm alg, const Bytes& digest, DigestAlgorithm mgf_alg,
                                int salt_len) const;
  // True when several threads may sign with this key at once. The default, false, keeps
  // every signature on the thread that asked for the batch (a token's session, a PIN prompt).
  virtual bool signs_concurrently() const;
};

class TESSAREL_API CertStore {
 public:
  virtual ~CertStore();

  // Where the store lives (folder path or URI).
  virtual std::string location() const = 0;
  // All certificates, in the store's stable order.
  virtual std::vector<Certificate> certificates() = 0;
  // A private key belongs to the certificate (it may still be unusable).
  virtual bool has_private_key(const Certificate& cert) = 0;
  // The private key is present, readable and matches the certificate's public key.
  virtual bool key_valid(const Certificate& cert) = 0;
  // The key for signing, or null when absent or unusable.
  virtual std::unique_ptr<SigningKey> signing_key(const Certificate& cert) = 0;
  // Adds a certificate and, when pkcs8_key is not empty, its private key (PKCS#8 DER).
  // The key must match the certificate. The entry appears whole or not at all.
  virtual void add(const Certificate& cert, const Bytes& pkcs8_key) = 0;
  // Removes the entry with the certificate's SHA-1 fingerprint; false when there is none.
  virtual bool remove(const Certificate& cert) = 0;
  // The certificate with its private key as PKCS#12 protected by password (may be empty).
  virtual Bytes export_pkcs12(const Certificate& cert, const std::string& password) = 0;
  // A value that changes whenever the store's content may have changed, by this process or
  // another; the library reads the store again when it differs from what it saw. The
  // default, empty, means "unknown": the cached view is then kept.
  virtual std::string change_stamp();
  // The files the store keeps its entries in (none for a token): nothing may be written
  // over them but the store itself.
  virtual std::vector<std::string> files();
};

// Default location of the personal store ($TESSAREL_STORE, else the XDG data folder).
TESSAREL_API std::string default_store_location();
// Selects the personal store for this process ("" returns to the default). Forgets the
// shared store snapshot, so the next lookup reads the newly selected store.
TESSAREL_API void set_store_location(const std::string& location);
TESSAREL_API std::string store_location();
// Opens a store by location (a folder path or a pkcs11: URI). Throws when it cannot be opened.
TESSAREL_API std::shared_ptr<CertStore> open_store(const std::string& location);
// The personal store selected for this process.
TESSAREL_API std::shared_ptr<CertStore> personal_store();

// Reads a PKCS#12 file (certificate and key) and adds it to the store. A wrong password
// raises tessarel::Exception and leaves the store unchanged. Returns the certificate.
TESSAREL_API Certificate import_pkcs12(CertStore& store, const Bytes& pfx,
                                       const std::string& password);

// Writes the certificate with its private key as PKCS#12 protected by password into output.
// A new file is made readable by its owner only; an existing regular file is replaced whole
// with its mode and owner kept, a symbolic link is followed, a device or FIFO written into.
// Refused with EFCreateError, before anything is written, when output is one of the
// store's own files or one of inputs (a password file, say).
TESSAREL_API void export_pkcs12_file(CertStore& store, const Certificate& cert,
                                     const std::string& password, const std::string& output,
                                     const std::vector<GuardedInput>& inputs = {});
// The same into an open descriptor (standard output), which stays open.
TESSAREL_API void export_pkcs12_fd(CertStore& store, const Certificate& cert,
                                   const std::string& password, int fd,
                                   const std::vector<GuardedInput>& inputs = {});

// Where the PIN of a PKCS#11 token comes from when the library has to log in: the token's
// label in, the PIN out (nullopt: the user declined). Without a provider (or after
// nullptr) the PIN is asked with the Ui's password form, its caption naming the token. A
// token with its own PIN pad is never asked through either.
using PinProvider = std::function<std::optional<std::string>(const std::string& token_label)>;
TESSAREL_API void set_pin_provider(PinProvider provider);

// PKCS#11 modules, their slots and tokens, as `tessarel token list` shows them.
struct TokenSlotInfo {
  unsigned long slot_id = 0;
  std::string slot_description;
  bool token_present = false;
  bool token_initialized = false;
  std::string label;
  std::string manufacturer;
  std::string model;
  std::string serial;
  bool login_required = false;
  bool pin_pad = false;  // protected authentication path
  bool pin_initialized = false;
  bool pin_count_low = false;
  bool pin_final_try = false;
  bool pin_locked = false;
  bool write_protected = false;
  std::string uri;  // a pkcs11: URI that selects this token
};
struct TokenModuleInfo {
  std::string name;  // p11-kit's name for it, or its path
  std::string path;
  std::string description;
  std::string manufacturer;
  std::string version;
  std::string error;                     // why it could not be used ("" when it could)
  std::vector<TokenSlotInfo> slot_list;  // ("slots" is a keyword of Qt hosts)
};
// The modules a URI names (module-path, module-name), else every module of p11-kit's
// configuration; the tokens shown are those the URI's token attributes select.
TESSAREL_API std::vector<TokenModuleInfo> list_tokens(const std::string& uri = "pkcs11:");

// Receives non-fatal warnings (skipped store files and the like). The default handler
// writes them to stderr; nullptr restores it.
TESSAREL_API void set_warning_handler(std::function<void(const std::string&)> handler);

}  // namespace tessarel

#endif
