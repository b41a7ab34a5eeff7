// Archiving files into the dated folder tree, and deleting records.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <typeinfo>

#include "archive/archive_paths.h"
#include "archive/sign_e_archivia.h"
#include "boundary/batch_signer.h"
#include "boundary/cert_lookup.h"
#include "boundary/file_digest.h"
#include "platform/runtime/datetime.h"
#include "platform/runtime/files.h"
#include "platform/runtime/hex.h"
#include "platform/runtime/strings.h"
#include "tessarel/dialogs.h"
#include "tessarel/errors.h"
#include "tessarel/ui.h"

namespace tessarel {

namespace {

bool same_file(const std::string& a, const std::string& b) {
  std::error_code ec;
  return std::filesystem::equivalent(a, b, ec) && !ec;
}

// Whether path names the file whose status is known.
bool same_file(const std::string& path, const struct stat& known) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && st.st_dev == known.st_dev && st.st_ino == known.st_ino;
}

// A copy waiting under a temporary name in its destination folder until the record is
// complete; removed unless committed.
class StagedCopy {
 public:
  StagedCopy(const std::string& source, const std::string& dest)
      : dest_(dest), writer_(dest, 0666) {
    InputFile in(source);
    CopyAll(in, writer_.fd(), dest);
  }
  // From the bytes of the source, already in memory.
  StagedCopy(const Bytes& content, const std::string& dest) : dest_(dest), writer_(dest, 0666) {
    writer_.write(content);
  }
  const std::string& temp_path() const { return writer_.temp_path(); }
  const std::string& target() const { return dest_; }
  // Put in place; the data reaches the disk before the index that lists it (the engine
  // flushes what it archived before writing the index).
  void commit() { writer_.commit(false); }

 private:
  std::string dest_;
  AtomicFileWriter writer_;
};

// A name that FirmaFiles takes as one file (a text with line breaks is a list to it).
bool single_path(const std::string& path) {
  return !path.empty() && path.find_first_of("\r\n") == std::string::npos;
}

std::string escape_param(const std::string& text) {
  return replace_all(replace_all(text, "&", "&amp;"), "'", "&apos;");
}

// A record's parameter is written into the index verbatim (after escaping & and '), so it
// must be text or well-formed markup; otherwise the index could never be read again.
void CheckXmlParam(const std::string& param) {
  if (param.empty()) return;
  std::string wrapped = "<Documento>" + escape_param(param) + "</Documento>";
  try {
    xml::Document::Parse(reinterpret_cast<const std::uint8_t*>(wrapped.data()), wrapped.size(),
                         "utf-8");
  } catch (const Exception& e) {
    throw Exception(std::string("Parametro XML del record non valido, nulla è stato archiviato: ") +
                    e.what());
  }
}

// The record's folder on disk (Tipo/YYYY/MM below the archive), made when missing; it must
// lie inside the archive before and after it is made.
std::string record_folder(const std::string& archive, const std::string& relative) {
  std::string folder = LinkToPath(archive, relative.substr(0, relative.size() - 1));
  CheckInsideArchive(archive, folder + "/x");
  if (!DirectoryExists(folder)) {
    if (!ForceDirectories(folder))
      throw Exception("Impossibile create la cartella " + folder + "/");
    // Made just now, through whatever the path held by then.
    CheckInsideArchive(archive, folder + "/x");
  }
  return folder;
}

// The name a file is archived and recorded under.
std::string record_file_name(const std::string& path) {
  std::string name = ExtractFileName(path);
  if (name.empty() || name == "." || name == "..")
    throw Exception("Nome di file non valido: " + path);
  CheckRecordFileName(name);
  return name;
}

// A file of a record: its copy waiting in the archive (none when the file already lies
// there), and the name, SHA-256 and size the record gives it.
struct RecordFile {
  std::string name;
  std::optional<StagedCopy> copy;
  std::string digest;
  std::int64_t size = 0;
};

// The copy is written from the bytes signed in memory when there are some.
void stage_copy(RecordFile& file, const std::string& path, const std::string& target,
                const Bytes* in_memory) {
  if (in_memory)
    file.copy.emplace(*in_memory, target);
  else
    file.copy.emplace(path, target);
}

// A file signed in memory is not read again: its copy was written from those bytes, or it
// is the very file at its archive place.
void digest_data(RecordFile& data, const std::string& target, const SignedFile* known) {
  if (known) {
    data.digest = BinaryToString(known->content_digest);
    data.size = static_cast<std::int64_t>(known->content.size());
  } else {
    HashFile(data.copy ? data.copy->temp_path() : target, data.digest, data.size);
  }
}

// The envelope goes beside the data file: copied when the data file was copied, unless it
// is there already.
void stage_envelope(RecordFile& envelope, const std::string& fBusta, const std::string& folder,
                    bool data_copied, const SignedFile* known) {
  envelope.name = record_file_name(fBusta);
  std::string target = folder + "/" + envelope.name;
  bool in_memory = false;
  if (data_copied && !same_file(fBusta, target)) {
    stage_copy(envelope, fBusta, target, known ? &known->envelope : nullptr);
    in_memory = known != nullptr;
  } else {
    in_memory = known && same_file(fBusta, target);
  }
  if (in_memory) {
    envelope.digest = BinaryToString(known->envelope_digest);
    envelope.size = static_cast<std::int64_t>(known->envelope.size());
  } else {
    HashFile(envelope.copy ? envelope.copy->temp_path() : target, envelope.digest, envelope.size);
  }
}

// The group's record of the file name (the first attribute is the Name).
xml::Node find_record(xml::Node group, const std::string& name) {
  for (xml::Node c = group.first_child(); c; c = c.next_sibling())
    if (c.is_element() && c.name() == "Documento" && c.attribute_count() > 0 &&
        c.attribute_name(0) == "Name" && c.attribute_value(0) == name)
      return c;
  return xml::Node();
}

// The highest Id among the group's records that are numbers; -1 when none is.
std::int64_t highest_id(xml::Node group) {
  std::int64_t max = -1;
  for (xml::Node c = group.first_child(); c; c = c.next_sibling())
    try {
      if (c.is_element()) max = std::max(max, StrToInt(c.attribute("Id")));
    } catch (const EConvertError&) {
    }
  return max;
}

// A replacing record keeps the number of the one it replaces; a new one follows the
// group's last record (numbers stay unique even when an Id is not a number).
std::int64_t record_id(xml::Node group, bool new_group, xml::Node old_record) {
  if (old_record) {
    try {
      return StrToInt(old_record.attribute("Id"));
    } catch (const EConvertError&) {
    }
  }
  if (new_group) return 0;
  xml::Node last = group.last_child();
  if (!last || last.attribute_count() == 0) return 0;
  try {
    return StrToInt(last.attribute("Id")) + 1;
  } catch (const EConvertError&) {
    return highest_id(group) + 1;
  }
}

// A Documento element: its attributes, the host's parameter and the entries of its files.
xml::Node record_element(xml::Document& doc, std::int64_t id, const std::string& XMLParam,
                         const std::string& relative, const RecordFile& data, bool detached,
                         const RecordFile* envelope) {
  xml::Node record = doc.CreateElement("Documento");
  record.set_attribute("Name", data.name);
  record.set_attribute("Data", FormatIsoDate(Date()));
  record.set_attribute("Id", std::to_string(id));
  if (!XMLParam.empty()) record.append_child(doc.CreateText(escape_param(XMLParam), true));
  xml::Node data_entry = doc.CreateElement("File_Dati");
  record.append_child(data_entry);
  data_entry.set_attribute("link", relative + data.name);
  data_entry.set_attribute("size", std::to_string(data.size));
  data_entry.set_attribute("Hash_SHA256", data.digest);
  data_entry.set_attribute("detached", detached ? "T" : "F");
  if (envelope) {
    xml::Node busta = doc.CreateElement("File_Busta");
    record.append_child(busta);
    busta.set_attribute("link", relative + envelope->name);
    busta.set_attribute("name", envelope->name);
    busta.set_attribute("size", std::to_string(envelope->size));
    busta.set_attribute("Hash_SHA256", envelope->digest);
  }
  return record;
}

}  // namespace

void TSignEArchivia::CheckRecordInputs(const std::string& XMLParam, const std::string& Tipo) {
  RequireOpenIndex();
  // Nothing a document type names may lead outside the archive.
  CheckTipo(Tipo);
  // Refused before anything is copied: the index must stay a document every parser reads.
  CheckXmlParam(XMLParam);
  RelockArchive();
}

void TSignEArchivia::ArchiviaFile(const std::string& fpath, const std::string& fBusta,
                                  const std::string& XMLParam, const std::string& Tipo,
                                  DateTime Data) {
  ArchiviaFileFrom(fpath, fBusta, XMLParam, Tipo, Data, nullptr);
}

void TSignEArchivia::ArchiviaFileFrom(const std::string& fpath, const std::string& fBusta,
                                      const std::string& XMLParam, const std::string& Tipo,
                                      DateTime Data, const SignedFile* known) {
  CheckRecordInputs(XMLParam, Tipo);
  if (Data == 0.0) Data = Date();
  std::string archive = archive_folder();
  std::string relative = RelativeFolder(Tipo, Data);
  std::string folder = record_folder(archive, relative);

  // Everything the record needs is computed before anything is put in place.
  RecordFile data;
  data.name = record_file_name(fpath);
  std::string target = folder + "/" + data.name;
  bool replaced = false;
  struct stat at_target {};
  bool target_there = ::stat(target.c_str(), &at_target) == 0;
  if (!(target_there && same_file(fpath, at_target))) {
    auto copy = [&] { stage_copy(data, fpath, target, known ? &known->content : nullptr); };
    if (target_there && !S_ISDIR(at_target.st_mode)) {
      if (!ResolveCollision(copy)) return;
      replaced = true;
    } else {
      copy();
    }
  }
  digest_data(data, target, known);
  std::optional<RecordFile> envelope;
  if (!fBusta.empty())
    stage_envelope(envelope.emplace(), fBusta, folder, data.copy.has_value(), known);

  xml::Document& doc = *FXMLDocument;
  xml::Node group = doc.root().find_child(Tipo);
  bool new_group = !group;
  if (new_group) group = doc.CreateElement(Tipo);
  xml::Node old_record = replaced && !new_group ? find_record(group, data.name) : xml::Node();
  xml::Node record = record_element(doc, record_id(group, new_group, old_record), XMLParam,
                                    relative, data, Fdetached, envelope ? &*envelope : nullptr);

  // The copies take their places, then the record goes into the index.
  if (data.copy) {
    data.copy->commit();
    NoteArchived(target);
  }
  if (envelope && envelope->copy) {
    envelope->copy->commit();
    NoteArchived(envelope->copy->target());
  }
  InsertRecord(group, new_group, old_record, record);
}

void TSignEArchivia::InsertRecord(xml::Node group, bool new_group, xml::Node old_record,
                                  xml::Node record) {
  if (new_group) {
    FXMLDocument->root().append_child(group);
    IndentElement(group, 0);
  }
  if (old_record)
    old_record.replace_with(record);
  else
    group.append_child(record);
  IndentElement(record, 0);
  isModified = true;
}

bool TSignEArchivia::ResolveCollision(const std::function<void()>& overwrite) {
  if (CollisionAction == CollisionChoice::Ask) {
    TSignFileOverriteDlg dlg;
    currentUi().overwrite_choice(dlg);
    CollisionAction = static_cast<CollisionChoice>(dlg.ItemIndex);
  }
  if (CollisionAction == CollisionChoice::Cancel) throw Exception("Operazione Annullata");
  if (CollisionAction == CollisionChoice::SkipOnce ||
      CollisionAction == CollisionChoice::SkipAlways) {
    if (CollisionAction == CollisionChoice::SkipOnce) CollisionAction = CollisionChoice::Ask;
    return false;
  }
  // OverwriteOnce or OverwriteAlways; any other value a front end leaves in the dialog
  // overwrites too. A copy that fails leaves the answer as it was.
  overwrite();
  if (CollisionAction == CollisionChoice::OverwriteOnce) CollisionAction = CollisionChoice::Ask;
  return true;
}

void TSignEArchivia::FirmaEArchiviaFile(const std::string& fpath, const std::string& XMLParam,
                                        const std::string& Tipo, DateTime Data) {
  // Checked before signing, so a refused record leaves no envelope behind either.
  CheckRecordInputs(XMLParam, Tipo);
  // One pass over the file: it is read once, and its copy and digests come from those bytes.
  if (single_path(fpath) && own_operations()) {
    const Certificate* found = TrovaCertificato(FidCert);
    if (!found) return;
    Certificate cert = *found;
    std::shared_ptr<SigningKey> key = ChiaveDiFirma(cert);
    if (!key) return;
    SignedFile item = SignFileInMemory(fpath, cert, key.get(), Fdetached, true);
    if (item.state == SignedFile::State::Signed) {
      WrittenFiles written;
      ArchiveSigned(fpath, item, XMLParam, Tipo, Data, written);
      return;
    }
  }
  // Missing, large or unreadable files, and names that are lists, as the batch signer has them.
  std::optional<std::string> envelope = FirmaFiles(fpath, fpath, FidCert, Fdetached, nullptr);
  if (!envelope || envelope->empty()) return;
  ArchiviaFile(fpath, *envelope, XMLParam, Tipo, Data);
}

bool TSignEArchivia::own_operations() const {
  // A class built on the engine may have its own ArchiviaFile or FirmaEArchiviaFile, which
  // must be called as the operations call each other; then the files go the plain way.
  return typeid(*this) == typeid(TSignEArchivia);
}

void TSignEArchivia::ArchiveSigned(const std::string& fpath, const SignedFile& item,
                                   const std::string& XMLParam, const std::string& Tipo,
                                   DateTime Data, WrittenFiles& written) {
  std::string envelope = fpath + (Fdetached ? ".p7s" : ".p7m");
  WriteEnvelope(fpath, envelope, item.envelope, written);
  ArchiviaFileFrom(fpath, envelope, XMLParam, Tipo, Data, &item);
}

// A run of files signed ahead on all cores. The certificate, its identifier and the mode are
// those of the run's start: a file whose settings changed since goes alone.
struct TSignEArchivia::AheadRun {
  std::vector<std::string> files;
  Certificate cert;
  std::string id;
  bool detached;
  unsigned threads;
  // Made at the run's first file, after that file's checks.
  std::optional<SigningPipeline> pipeline{};
  WrittenFiles written{};
  // A file went alone (or the key was refused): the files after it start a new run.
  bool again = false;
};

void TSignEArchivia::FirmaEArchiviaFiles(
    const std::vector<std::string>& files, const std::string& XMLParam, const std::string& Tipo,
    DateTime Data, const std::function<void(std::size_t)>& before,
    const std::function<bool(std::size_t, std::exception_ptr)>& after) {
  // One file with its callbacks; false when the caller wants no more.
  auto one = [&](std::size_t i, const std::function<void()>& work) {
    if (before) before(i);
    std::exception_ptr error;
    try {
      work();
    } catch (...) {
      error = std::current_exception();
    }
    return after ? after(i, error) : true;
  };
  unsigned threads = SigningThreads();
  std::size_t i = 0;
  while (i < files.size()) {
    std::optional<Certificate> cert;
    if (threads > 1 && files.size() - i >= 2 && own_operations())
      cert = AheadCertificate(XMLParam, Tipo);
    if (!cert) {
      for (; i < files.size(); ++i)
        if (!one(i, [&] { FirmaEArchiviaFile(files[i], XMLParam, Tipo, Data); })) return;
      return;
    }
    // The files from i on are signed ahead. A file that must go alone (missing, large, not a
    // plain file, or signed by other settings since) may write what later files read: the
    // files after it are signed ahead again from the disk as it is then.
    AheadRun run{
        std::vector<std::string>(files.begin() + static_cast<std::ptrdiff_t>(i), files.end()),
        *cert, FidCert, Fdetached, threads};
    for (std::size_t k = 0; k < run.files.size() && !run.again; ++k, ++i)
      if (!one(i, [&] { ArchiveAhead(run, k, XMLParam, Tipo, Data); })) return;
  }
}

std::optional<Certificate> TSignEArchivia::AheadCertificate(const std::string& XMLParam,
                                                            const std::string& Tipo) {
  // Signing ahead needs what every file needs alike: an open index, a valid type and
  // parameter, the certificate and its key. Without them each file goes alone and raises
  // (or returns) what it would alone.
  try {
    RequireOpenIndex();
    CheckTipo(Tipo);
    CheckXmlParam(XMLParam);
    if (const Certificate* found = TrovaCertificato(FidCert)) return *found;
  } catch (const std::exception&) {
  }
  return std::nullopt;
}

void TSignEArchivia::ArchiveAhead(AheadRun& run, std::size_t k, const std::string& XMLParam,
                                  const std::string& Tipo, DateTime Data) {
  const std::string& f = run.files[k];
  if (!run.pipeline) {
    // The key is taken where one file alone takes it, after its checks: a token may ask for
    // its PIN there.
    CheckRecordInputs(XMLParam, Tipo);
    std::shared_ptr<SigningKey> key = ChiaveDiFirma(run.cert);
    if (!key) {
      // Nothing signed or recorded, as alone; the next file looks again.
      run.again = true;
      return;
    }
    run.pipeline.emplace(run.files, run.cert, key,
                         SigningPipeline::Settings{run.detached, true, run.threads});
  }
  SignedFile item = run.pipeline->take(k);
  using State = SignedFile::State;
  bool stale = item.stamp.exists && run.written.stale(f, item.stamp);
  if (item.state == State::Failed && !stale && FidCert == run.id) {
    // What opening or reading raised; nothing was written for it.
    CheckRecordInputs(XMLParam, Tipo);
    std::rethrow_exception(item.error);
  }
  if (item.state != State::Signed || stale || FidCert != run.id || Fdetached != run.detached ||
      !single_path(f)) {
    run.again = true;
    FirmaEArchiviaFile(f, XMLParam, Tipo, Data);
    return;
  }
  CheckRecordInputs(XMLParam, Tipo);
  run.pipeline->complete(item);
  if (item.state == State::Failed) std::rethrow_exception(item.error);
  ArchiveSigned(f, item, XMLParam, Tipo, Data, run.written);
}

void FirmaEArchiviaFiles(ISignEArchivia& engine, const std::vector<std::string>& files,
                         const std::string& XMLParam, const std::string& Tipo, DateTime Data,
                         const std::function<void(std::size_t)>& before,
                         const std::function<bool(std::size_t, std::exception_ptr)>& after) {
  if (auto* own = dynamic_cast<TSignEArchivia*>(&engine)) {
    own->FirmaEArchiviaFiles(files, XMLParam, Tipo, Data, before, after);
    return;
  }
  // Another implementation of the engine: its own operation, file after file.
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (before) before(i);
    std::exception_ptr error;
    try {
      engine.FirmaEArchiviaFile(files[i], XMLParam, Tipo, Data);
    } catch (...) {
      error = std::current_exception();
    }
    if (after && !after(i, error)) return;
  }
}

void TSignEArchivia::CancellaId() {
  RequireOpenIndex();
  RelockArchive();
  xml::Node root = FXMLDocument->root();
  if (!root) throw Exception("File indice non valido");
  TSignCancRegDlg dlg;
  for (xml::Node c = root.first_child(); c; c = c.next_sibling())
    if (c.is_element()) dlg.ComboBox1.push_back(c.name());
  if (dlg.ComboBox1.empty()) throw Exception("File indice vuoto");
  dlg.ItemIndex = 0;
  if (currentUi().record_deletion(dlg) != ModalResult::Ok) return;
  if (dlg.Edit1.empty()) return;
  std::int64_t number = StrToInt(dlg.Edit1);
  std::string type = dlg.selected_type();
  xml::Node group = root.find_child(type);
  if (!group) throw Exception("tipo " + type + " non trovato");
  xml::Node record;
  for (xml::Node c = group.first_child(); c; c = c.next_sibling()) {
    if (!c.is_element() || c.name() != "Documento" || c.attribute_count() < 3 ||
        c.attribute_name(2) != "Id")
      continue;
    try {
      if (StrToInt(c.attribute_value(2)) == number) {
        record = c;
        break;
      }
    } catch (const EConvertError&) {
    }
  }
  if (!record) {
    currentUi().message_box(MessageKind::Information, MessageButtons::Ok, "id non trovato");
    return;
  }
  // The files to delete must lie inside the archive; a record that points elsewhere is
  // refused before anything is deleted.
  std::string data_path;
  if (xml::Node data = record.find_child("File_Dati"); data && data.attribute_count() > 0) {
    data_path = LinkToPath(archive_folder(), data.attribute_value(0));
    CheckInsideArchive(archive_folder(), data_path);
    CheckInsideArchive(archive_folder(), data_path + ".p7s");
  }
  std::string name = record.attribute_count() > 0 ? record.attribute_value(0) : "";
  if (currentUi().message_box(MessageKind::Confirmation, MessageButtons::OkCancel,
                              "Confermi l'operazione di cancellazione del record con nome file " +
                                  name + "?") != ModalResult::Ok)
    return;
  if (!data_path.empty()) {
    ::unlink(data_path.c_str());
    ::unlink((data_path + ".p7s").c_str());
  }
  record.remove();
  isModified = true;
  ChiudiIndice();
  currentUi().message_box(MessageKind::Information, MessageButtons::Ok, "Operazione teminata");
}

}  // namespace tessarel
