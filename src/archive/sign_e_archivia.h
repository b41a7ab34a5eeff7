// The engine object behind ISignEArchivia.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/runtime/files.h"
#include "platform/xml/dom.h"
#include "tessarel/certificate.h"
#include "tessarel/sign_e_archivia.h"
#include "tessarel/trust.h"

namespace tessarel {

struct SignedFile;
class WrittenFiles;

class TSignEArchivia : public ISignEArchivia {
 public:
  // What to do when a file of the same name is in the archive already: the items of the
  // overwrite dialog, in its order, or Ask (show the dialog).
  enum class CollisionChoice : std::int32_t {
    Ask = -1,
    OverwriteOnce = 0,
    OverwriteAlways = 1,
    SkipOnce = 2,
    SkipAlways = 3,
    Cancel = 4
  };

  TSignEArchivia();
  ~TSignEArchivia() override;
  TSignEArchivia(const TSignEArchivia&) = delete;
  TSignEArchivia& operator=(const TSignEArchivia&) = delete;

  void ApriIndice(const std::string& patharchivia, const std::string& idCert,
                  bool detached) override;
  void ArchiviaFile(const std::string& fpath, const std::string& fBusta,
                    const std::string& XMLParam, const std::string& Tipo, DateTime Data) override;
  void FirmaEArchiviaFile(const std::string& fpath, const std::string& XMLParam,
                          const std::string& Tipo, DateTime Data) override;
  void Firma(const std::string& fpath, const std::string& idCert, bool detached) override;
  void ChiudiIndice() override;
  void CancellaId() override;
  std::string EstraiContenuto(const std::string& input) override;
  void VerificaFirma(const std::string& input) override;
  bool IsKeyPresent(const std::string& idCert) override;
  std::string GeneraCertificato() override;
  bool FirmaPdf(const std::string& fname, const std::string& fnamedest, const std::string& reason,
                const std::string& pazname, std::istream* stream, bool passw,
                const std::string& certCA, bool certInvisible) override;

  // FirmaEArchiviaFile for each file in turn, the files read and signed ahead on all cores
  // (see FirmaEArchiviaFiles in tessarel/sign_e_archivia.h).
  void FirmaEArchiviaFiles(const std::vector<std::string>& files, const std::string& XMLParam,
                           const std::string& Tipo, DateTime Data,
                           const std::function<void(std::size_t)>& before,
                           const std::function<bool(std::size_t, std::exception_ptr)>& after);

  // Path of a new, empty, uniquely named file in the temporary folder.
  std::string GenerateTempFilename();

  // Indents the element children of a new element: a line feed and level + 1 tabs before
  // each, and as the last content of each.
  void IndentElement(xml::Node element, int level);
  // Formatting of the index signature: a line feed and level - 1 tabs before each start tag,
  // and before the end tag of an element that has element children.
  void SignerFormatElement(void* sender, xml::Node element, int level, const std::string& path,
                           std::string& start_whitespace, std::string& end_whitespace);

  // The index document (null when no index is open).
  xml::Document* document() const { return FXMLDocument.get(); }
  // The archive folder (the folder of index.xml).
  std::string archive_folder() const;

  // State, readable by the engine's own parts and by tests.
  bool index_open() const { return FXMLDocument != nullptr; }
  bool modified() const { return isModified; }
  const std::string& index_path() const { return Fpatharchivia; }
  const std::string& id_cert() const { return FidCert; }
  bool detached() const { return Fdetached; }
  std::int32_t collision_action() const { return static_cast<std::int32_t>(CollisionAction); }

  // Trust anchors for the report of VerificaFirma; empty (the default) adds no trust lines.
  TrustOptions FTrustOptions;

 protected:
  // Raises "File indice non aperto" when no index is open.
  void RequireOpenIndex() const;
  // ArchiviaFile; with known, the data file's bytes and envelope as signed in memory, which
  // the copies are written from and the digests taken of instead of reading the files again.
  void ArchiviaFileFrom(const std::string& fpath, const std::string& fBusta,
                        const std::string& XMLParam, const std::string& Tipo, DateTime Data,
                        const SignedFile* known);
  // A different file of the same name is in the archive: overwrites it through overwrite,
  // or returns false to skip this file, as the remembered or the asked answer says. Raises
  // "Operazione Annullata" when the answer is to cancel.
  bool ResolveCollision(const std::function<void()>& overwrite);
  // Puts a new record into the index: in place of the record it replaces, or last in its
  // group (a new group goes last in the index).
  void InsertRecord(xml::Node group, bool new_group, xml::Node old_record, xml::Node record);
  // What every record needs before anything is signed or written: an open index, a valid
  // type and parameter, the archive held by this engine.
  void CheckRecordInputs(const std::string& XMLParam, const std::string& Tipo);
  // The parts of FirmaEArchiviaFiles: the certificate when the files can be signed ahead
  // (none when they go one by one), and one file of a run signed ahead.
  struct AheadRun;
  std::optional<Certificate> AheadCertificate(const std::string& XMLParam, const std::string& Tipo);
  void ArchiveAhead(AheadRun& run, std::size_t k, const std::string& XMLParam,
                    const std::string& Tipo, DateTime Data);
  // True when the operations are this class's own (not overridden by a derived class).
  bool own_operations() const;
  // Writes the envelope of a file signed in memory beside it, then archives both.
  void ArchiveSigned(const std::string& fpath, const SignedFile& item, const std::string& XMLParam,
                     const std::string& Tipo, DateTime Data, WrittenFiles& written);
  // Takes the archive for this engine (the lock file beside index.xml), waiting a bounded
  // time for another holder; raises when the archive stays in use.
  void LockArchive();
  // Before a change after ChiudiIndice released the archive: takes it again and makes sure
  // nobody changed the index meanwhile, since this engine would overwrite that change.
  void RelockArchive();
  // Gives the archive back. An archive that never got an index loses its lock file and the
  // folders this engine made for it, so a refused or abandoned attempt leaves nothing.
  void ReleaseArchive() noexcept;
  // Creates the folder and its missing parents, remembering which ones were made here.
  bool CreateArchiveFolders(const std::string& folder);
  // The signing steps of ChiudiIndice: the index in memory gets its signature.
  void SignIndex();
  // Writes the index in memory over index.xml (atomically) and releases the archive.
  void WriteIndex();

  // The index held in memory; absent until ApriIndice. Its presence is what "open" means.
  std::unique_ptr<xml::Document> FXMLDocument;
  // The certificate chosen by ApriIndice, which signs the index.
  std::optional<Certificate> Cert;
  // Full path of index.xml; the archive folder is its directory.
  std::string Fpatharchivia;
  // Identifier of the certificate that signs files.
  std::string FidCert;
  // The index changed since ApriIndice; ChiudiIndice writes only then.
  bool isModified = false;
  // Signing mode for files: detached .p7s or attached .p7m.
  bool Fdetached = false;
  // Remembered answer to "the file exists in the archive"; 0 until ApriIndice, as every
  // field of a new engine.
  CollisionChoice CollisionAction = CollisionChoice::OverwriteOnce;
  // Files put in the archive since the index was last written: they reach the disk before
  // the index that lists them, one by one when they are few, with the whole file system
  // when they are many (then only their count is kept, and the file system is flushed in
  // the background as they come).
  std::vector<std::string> archived_since_close_;
  bool archived_many_since_close_ = false;
  std::size_t archived_count_ = 0;
  FileSystemFlush archived_flush_;
  void NoteArchived(const std::string& path);
  void FlushArchived();
  // Held from ApriIndice to ChiudiIndice (and the engine's end): one writer per archive.
  std::unique_ptr<FileLock> archive_lock_;
  // index.xml as this engine last read or wrote it.
  FileStamp index_stamp_;
  // Folders this engine created for an archive that has no index yet, deepest first.
  std::vector<std::string> created_folders_;
};

}  // namespace tessarel
