// The archive index: opening (or creating) index.xml, closing and signing it.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "archive/sign_e_archivia.h"
#include "boundary/cert_lookup.h"
#include "boundary/xml_signature_removal.h"
#include "platform/runtime/datetime.h"
#include "platform/runtime/files.h"
#include "platform/runtime/strings.h"
#include "platform/runtime/warnings.h"
#include "tessarel/archive.h"
#include "tessarel/errors.h"
#include "tessarel/ui.h"
#include "xmlsig/xml_signature.h"

namespace tessarel {

namespace {

constexpr const char* kRootName = "IndiceFile";

// The index location: empty means beside the program; a value whose file name is not
// index.xml (in any case) is a folder.
std::string index_location(const std::string& patharchivia) {
  std::string path =
      patharchivia.empty() ? ExecutableDir() + "/archiviazione/index.xml" : patharchivia;
  if (lower_ascii(ExtractFileName(path)) != "index.xml") {
    while (path.size() > 1 && path.back() == '/')
      path.pop_back();
    path += "/index.xml";
  }
  return path;
}

// Reads the index; other writers are kept out by the archive's lock.
std::unique_ptr<xml::Document> read_index(const std::string& path) {
  InputFile in(path);
  return xml::Document::ParseFd(in.fd(), in.size(), path, "utf-8");
}

std::atomic<std::int64_t>& lock_timeout_ms() {
  static std::atomic<std::int64_t> ms{30000};
  return ms;
}

std::string seconds_text(std::chrono::milliseconds t) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%g s", static_cast<double>(t.count()) / 1000.0);
  return buf;
}

// Temporary files of a writer that was killed while replacing the index. Only called with
// the archive's lock held, so no live writer owns them.
void remove_stale_temporaries(const std::string& index_path) {
  std::error_code ec;
  std::string prefix = "." + ExtractFileName(index_path) + ".tmp-";
  for (auto it = std::filesystem::directory_iterator(ExtractFileDir(index_path), ec);
       !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
    std::string name = it->path().filename().string();
    if (name.rfind(prefix, 0) == 0 && name.size() == prefix.size() + 6)
      std::filesystem::remove(it->path(), ec);
  }
}

// The certificate that signs the index, with a usable key; raises the messages of opening.
Certificate require_signing_certificate(const std::string& idCert) {
  const Certificate* found = TrovaCertificato(idCert);
  if (!found) throw Exception("Certificato non trovato. Impossibile applicare la Firma Digitale.");
  Certificate cert = *found;
  if (!ChiaveValida(idCert))
    throw Exception("Chiave non trovata. Impossibile applicare la Firma Digitale.");
  return cert;
}

}  // namespace

void set_archive_lock_timeout(std::chrono::milliseconds timeout) {
  lock_timeout_ms() = std::max<std::int64_t>(0, timeout.count());
}

std::chrono::milliseconds archive_lock_timeout() {
  return std::chrono::milliseconds(lock_timeout_ms().load());
}

void TSignEArchivia::LockArchive() {
  archive_lock_.reset();
  std::string folder = archive_folder();
  std::chrono::milliseconds timeout = archive_lock_timeout();
  while (true) {
    try {
      archive_lock_ = FileLock::Acquire(Fpatharchivia + ".lock", timeout, [&] {
        warn("the archive " + folder + " is in use by another program; waiting up to " +
             seconds_text(timeout));
      });
      break;
    } catch (const EFCreateError&) {
      // The engine that held a new archive gave it up and took its folder away: the archive
      // is made again here.
      if (DirectoryExists(folder) || !CreateArchiveFolders(folder)) throw;
    }
  }
  if (!archive_lock_)
    throw Exception("L'archivio " + folder + " è in uso da un altro programma (atteso " +
                    seconds_text(timeout) + "): riprovare più tardi");
}

void TSignEArchivia::RelockArchive() {
  if (archive_lock_) return;
  LockArchive();
  if (StampOf(Fpatharchivia) != index_stamp_) {
    archive_lock_.reset();
    throw Exception("L'indice " + Fpatharchivia +
                    " è stato cambiato da un altro programma dopo la chiusura: riaprirlo con "
                    "ApriIndice");
  }
}

void TSignEArchivia::ReleaseArchive() noexcept {
  bool indexed = !Fpatharchivia.empty() && FileExists(Fpatharchivia);
  // Removed while still held, so nobody can take it in between and be left without it.
  if (archive_lock_ && !indexed) archive_lock_->remove_file();
  archive_lock_.reset();
  if (!indexed)
    for (const auto& f : created_folders_)
      ::rmdir(f.c_str());  // only when empty: files archived meanwhile stay where they are
  created_folders_.clear();
}

bool TSignEArchivia::CreateArchiveFolders(const std::string& folder) {
  std::vector<std::string> missing;
  for (std::string f = folder; !f.empty() && f != "/" && !DirectoryExists(f); f = ExtractFileDir(f))
    missing.push_back(f);
  bool ok = ForceDirectories(folder);
  for (const auto& f : missing)
    if (DirectoryExists(f)) created_folders_.push_back(f);
  return ok;
}

std::string TSignEArchivia::archive_folder() const {
  return ExtractFileDir(Fpatharchivia);
}

namespace {
// Beyond this many files, flushing the whole file system at once is cheaper than one by one.
constexpr std::size_t kFlushOneByOne = 64;
// While many files are archived, the file system is flushed in the background after every
// this many, so that their writeback overlaps the signing of the next ones.
constexpr std::size_t kFlushInBackgroundEvery = 1024;

void sync_path(const std::string& path, int flags) {
  // A file removed or made unreadable since is not the index's to wait for.
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | flags);
  if (fd < 0) return;
  int err = ::fsync(fd) != 0 ? errno : 0;
  ::close(fd);
  if (err != 0) throw EInOutError("I/O error writing \"" + path + "\": " + std::strerror(err));
}
}  // namespace

void TSignEArchivia::NoteArchived(const std::string& path) {
  ++archived_count_;
  if (archived_many_since_close_) {
    if (archived_count_ % kFlushInBackgroundEvery == 0) archived_flush_.start(archive_folder());
    return;
  }
  if (archived_since_close_.size() < kFlushOneByOne) {
    archived_since_close_.push_back(path);
    return;
  }
  archived_many_since_close_ = true;
  archived_since_close_.clear();
}

void TSignEArchivia::FlushArchived() {
  if (archived_many_since_close_) {
    archived_flush_.finish(archive_folder());
  } else {
    // The files, then the folders that name them up to the archive's (the dated folders
    // may be new).
    std::vector<std::string> folders;
    std::string top = archive_folder();
    for (const auto& path : archived_since_close_) {
      sync_path(path, 0);
      for (std::string folder = ExtractFileDir(path);
           folder.size() >= top.size() &&
           std::find(folders.begin(), folders.end(), folder) == folders.end();
           folder = ExtractFileDir(folder))
        folders.push_back(folder);
    }
    for (const auto& folder : folders)
      sync_path(folder, O_DIRECTORY);
  }
  archived_since_close_.clear();
  archived_many_since_close_ = false;
  archived_count_ = 0;
}

void TSignEArchivia::IndentElement(xml::Node element, int level) {
  std::string w = "\n" + std::string(static_cast<std::size_t>(level + 1), '\t');
  for (xml::Node c = element.first_child(); c; c = c.next_sibling()) {
    if (!c.is_element()) continue;
    element.insert_before(FXMLDocument->CreateText(w), c);
    IndentElement(c, level + 1);
    c.append_child(FXMLDocument->CreateText(w));
  }
}

void TSignEArchivia::SignerFormatElement(void*, xml::Node element, int level, const std::string&,
                                         std::string& start_whitespace,
                                         std::string& end_whitespace) {
  std::string tabs =
      level >= 2 ? std::string(static_cast<std::size_t>(level - 1), '\t') : std::string();
  start_whitespace = "\n" + tabs;
  if (element.has_element_children()) end_whitespace = "\n" + tabs;
}

void TSignEArchivia::ApriIndice(const std::string& patharchivia, const std::string& idCert,
                                bool detached) {
  // The archive held until now is given back first.
  ReleaseArchive();
  isModified = false;
  Fpatharchivia = index_location(patharchivia);
  FidCert = idCert;
  Fdetached = detached;
  CollisionAction = CollisionChoice::Ask;
  // Until this completes no index is open: a failure leaves the engine closed.
  FXMLDocument.reset();
  Cert.reset();
  std::optional<Certificate> signer;
  if (!FileExists(Fpatharchivia)) {
    // A new archive is only made for a certificate that can sign its index: a refusal
    // leaves no folder behind.
    signer = require_signing_certificate(idCert);
    std::string folder = ExtractFileDir(Fpatharchivia);
    if (!CreateArchiveFolders(folder)) {
      ReleaseArchive();
      throw Exception("Impossibile accedere alla cartella: " + folder);
    }
    if (DirectoryExists(Fpatharchivia)) {
      ReleaseArchive();
      throw EFOpenError("Cannot open file \"" + Fpatharchivia + "\". Is a directory");
    }
  }
  std::unique_ptr<xml::Document> doc;
  try {
    LockArchive();
    remove_stale_temporaries(Fpatharchivia);
    // Read only now: another writer may have created or changed the index while this one
    // waited for the archive.
    index_stamp_ = StampOf(Fpatharchivia);
    doc = index_stamp_.exists ? read_index(Fpatharchivia) : std::make_unique<xml::Document>();
  } catch (...) {
    ReleaseArchive();
    throw;
  }
  FXMLDocument = std::move(doc);
  try {
    if (!FXMLDocument->root()) {
      xml::Node root = FXMLDocument->CreateElement(kRootName);
      FXMLDocument->set_root(root);
      xml::Node pi = FXMLDocument->CreateProcessingInstruction(
          "xml-stylesheet", "type=\"text/xsl\" href=\"index.xsl\"");
      FXMLDocument->node().insert_before(pi, FXMLDocument->first_child());
      root.set_attribute("Creato_il", FormatShortDate(Date()));
      IndentElement(root, 0);
    }
    if (FXMLDocument->root().name() != kRootName)
      throw Exception(
          "File indice (index.xml) ha un elemento root con nome diverso da \"IndiceFile\"");
    Cert = signer ? *signer : require_signing_certificate(idCert);
    RimuoviFirmaXml(FXMLDocument->root());
  } catch (...) {
    FXMLDocument.reset();
    Cert.reset();
    ReleaseArchive();
    throw;
  }
}

void TSignEArchivia::ChiudiIndice() {
  if (!isModified || !FXMLDocument) {
    // Nothing to write: the archive is free for others again.
    ReleaseArchive();
    return;
  }
  RelockArchive();
  xml::Node root = FXMLDocument->root();
  if (!root) throw Exception("File indice non valido");
  root.set_attribute("modificato_il", FormatShortDate(Date()));
  // A signature from an earlier close of this session goes first: one signature per index.
  RimuoviFirmaXml(root);

  // The signature is computed over the document as a parser reads it back, so markup that
  // records carry as text becomes elements. Without such text the document already is that.
  if (FXMLDocument->HasRawText()) {
    std::string text = FXMLDocument->Serialize();
    FXMLDocument =
        xml::Document::Parse(reinterpret_cast<const std::uint8_t*>(text.data()), text.size(), "");
    root = FXMLDocument->root();
  }

  try {
    SignIndex();
  } catch (...) {
    // The documents are in the archive already: the index that lists them is written all
    // the same, without a signature (as it stands before signing), so that nothing is lost
    // and the next close signs it. What failed is raised as it is.
    RimuoviFirmaXml(FXMLDocument->root());
    try {
      WriteIndex();
    } catch (const std::exception& e) {
      warn("the index " + Fpatharchivia + " could not be written: " + e.what());
    }
    throw;
  }
  try {
    WriteIndex();
  } catch (const std::exception& e) {
    // The archive stays held: the same engine can retry the close once the cause is gone.
    currentUi().message_box(MessageKind::Error, MessageButtons::Ok,
                            std::string("Error: ") + e.what());
  }
}

void TSignEArchivia::SignIndex() {
  if (!Cert) throw Exception("Certificato non trovato. Impossibile applicare la Firma Digitale.");
  xml::Node root = FXMLDocument->root();
  std::shared_ptr<SigningKey> key = ChiaveDiFirma(*Cert);
  TElXMLReferenceList references;
  auto reference = std::make_unique<TElXMLReference>();
  reference->FDigestMethod = TElXMLDigestMethod::xdmSHA1;
  reference->FURINode = root;
  reference->SetURI("");
  reference->FTransformChain.Add(std::make_unique<TElXMLEnvelopedSignatureTransform>());
  references.Add(std::move(reference));
  TElXMLKeyInfoX509Data key_data;
  key_data.FCertificate = *Cert;
  key_data.FKey = key.get();
  TElXMLSigner signer;
  signer.FOnFormatElement = [this](TElXMLSigner& sender, xml::Node e, int level,
                                   const std::string& path, std::string& start, std::string& end) {
    SignerFormatElement(&sender, e, level, path, start, end);
  };
  signer.FSignatureType = TElXMLSignatureType::xstEnveloped;
  signer.SetCanonicalizationMethod(TElXMLCanonicalizationMethod::xcmC14N);
  signer.FSignatureMethodType = TElXMLSigMethodType::xmtSig;
  // RSA keys sign with RSA-SHA1; an EC key (a smart card's P-256, say) has only ECDSA.
  signer.FSignatureMethod = Cert->key_kind() == KeyKind::Ec ? TElXMLSignatureMethod::xsmECDSA
                                                            : TElXMLSignatureMethod::xsmRSA_SHA1;
  signer.FMACMethod = TElXMLMACMethod::xmmHMAC_SHA1;
  signer.SetReferences(&references);
  signer.FKeyName = "";
  signer.FIncludeKey = true;
  signer.FKeyData = &key_data;
  // The reference digests are taken by Save, once the signature and the white space around
  // it stand in the document: taken before, they would only be taken again.
  signer.GenerateSignature();
  try {
    signer.Save(*FXMLDocument, root);
  } catch (const std::exception& e) {
    throw EElXMLSecurityError(std::string("Errore durante la firma o Comando Annullato. (") +
                              e.what() + ")");
  }
}

void TSignEArchivia::WriteIndex() {
  // Replaced whole: a crash leaves the previous index or this one. The archived copies it
  // lists are flushed first.
  FlushArchived();
  AtomicFileWriter out(Fpatharchivia);
  // The serializer hands over a few kilobytes at a time: gathered into large writes.
  std::string pending;
  pending.reserve(1 << 20);
  FXMLDocument->Serialize([&](const char* p, std::size_t n) {
    if (pending.size() + n > pending.capacity()) {
      out.write(pending);
      pending.clear();
    }
    pending.append(p, n);
  });
  out.write(pending);
  out.commit();
  index_stamp_ = StampOf(Fpatharchivia);
  ReleaseArchive();
}

}  // namespace tessarel
