// Reading and checking an archive as it is on disk.
#include <filesystem>
#include <memory>

#include "archive/archive_paths.h"
#include "archive/envelope_layers.h"
#include "boundary/file_digest.h"
#include "cms/cms_verify.h"
#include "platform/runtime/files.h"
#include "platform/runtime/strings.h"
#include "platform/xml/dom.h"
#include "tessarel/archive.h"
#include "tessarel/errors.h"
#include "tessarel/store.h"
#include "xmlsig/xml_signature.h"

namespace tessarel {

namespace {

std::string index_path_of(const std::string& folder) {
  if (lower_ascii(ExtractFileName(folder)) == "index.xml") return folder;
  std::string f = folder;
  while (f.size() > 1 && f.back() == '/')
    f.pop_back();
  return f + "/index.xml";
}

std::vector<ArchiveRecord> records_of(const xml::Document& doc) {
  std::vector<ArchiveRecord> out;
  for (xml::Node group = doc.root().first_child(); group; group = group.next_sibling()) {
    if (!group.is_element() || group.namespace_uri() == xml::kDsigNamespace) continue;
    for (xml::Node d = group.first_child(); d; d = d.next_sibling()) {
      if (!d.is_element() || d.name() != "Documento") continue;
      ArchiveRecord r;
      r.type = group.name();
      r.name = d.attribute("Name");
      r.date = d.attribute("Data");
      r.id = d.attribute("Id");
      auto file_entry = [](xml::Node e) {
        ArchiveFileEntry f;
        f.link = e.attribute("link");
        f.name = e.attribute("name");
        try {
          f.size = static_cast<std::uint64_t>(StrToInt(e.attribute("size")));
        } catch (const EConvertError&) {
          f.size = UINT64_MAX;
        }
        f.sha256 = e.attribute("Hash_SHA256");
        return f;
      };
      if (xml::Node data = d.find_child("File_Dati")) {
        r.has_data = true;
        r.data = file_entry(data);
        r.detached = data.attribute("detached") == "T";
      }
      if (xml::Node env = d.find_child("File_Busta")) {
        r.has_envelope = true;
        r.envelope = file_entry(env);
      }
      out.push_back(std::move(r));
    }
  }
  return out;
}

// Size and digest of an archived file against its record; the file's path, or "" when
// the record's link cannot be used.
std::string check_file(const std::string& archive, const ArchiveFileEntry& f, const char* what,
                       const std::string& label, std::vector<ArchiveProblem>& problems) {
  std::string path;
  try {
    path = LinkToPath(archive, f.link);
    CheckInsideArchive(archive, path);
  } catch (const Exception& e) {
    problems.push_back({label, std::string(what) + ": " + e.what()});
    return "";
  }
  if (!FileExists(path)) {
    problems.push_back({label, std::string(what) + " missing: " + f.link});
    return "";
  }
  try {
    std::string digest;
    std::int64_t size = 0;
    HashFile(path, digest, size);
    if (static_cast<std::uint64_t>(size) != f.size)
      problems.push_back(
          {label,
           std::string(what) + " size " + std::to_string(size) + " differs from the recorded " +
               (f.size == UINT64_MAX ? std::string("(not a number)") : std::to_string(f.size)) +
               ": " + f.link});
    if (digest != f.sha256)
      problems.push_back(
          {label, std::string(what) + " SHA-256 differs from the record: " + f.link});
  } catch (const Exception& e) {
    problems.push_back({label, std::string(what) + " unreadable: " + e.what()});
    return "";
  }
  return path;
}

// Every layer of the envelope must verify, and the data file must be the content of one
// of them: the innermost for a document signed once or signed again (a.pdf in
// a.pdf.p7m.p7m), an outer one when the archived file was itself an envelope that was
// signed again. A detached layer is checked against the data file. Content that only looks
// like an envelope is no problem: it may well be the archived file.
void check_envelope(const std::string& envelope_path, const std::string& data_path,
                    const std::string& label, std::vector<ArchiveProblem>& problems) {
  ExternalContent data(data_path);
  std::unique_ptr<ExternalContent> none;
  std::vector<EnvelopeLayer> layers = OpenEnvelopeLayers(envelope_path, &data, false, none);
  bool is_content = false;
  Bytes data_digest;
  for (std::size_t i = 0; i < layers.size(); ++i) {
    TElSignedCMSMessage& m = *layers[i].message;
    std::string who =
        layers.size() == 1 ? "envelope: " : "envelope layer " + std::to_string(i + 1) + ": ";
    // An attached layer's content is compared below, by digest.
    CmsVerification v = VerifySignedMessage(m, m.FEContentPresent ? nullptr : layers[i].given);
    for (const auto& p : v.problems)
      problems.push_back({label, who + p});
    for (const auto& s : v.signers)
      for (const auto& p : s.problems)
        problems.push_back({label, who + p});
    if (!m.FEContentPresent) {
      if (layers[i].given == &data.content) is_content = true;
    } else if (!is_content && m.FContent->Size() == data.content.Size()) {
      if (data_digest.empty()) data_digest = DigestContent(&data.content, DigestAlgorithm::SHA256);
      is_content = DigestContent(m.FContent.get(), DigestAlgorithm::SHA256) == data_digest;
    }
  }
  if (!is_content)
    problems.push_back({label, "the envelope's content is not the archived data file"});
}

// The index document, or none with the reason in the report.
std::unique_ptr<xml::Document> read_index(const std::string& index, ArchiveCheckReport& report) {
  std::unique_ptr<xml::Document> doc;
  try {
    doc = xml::Document::ParseFile(index);
  } catch (const Exception& e) {
    report.problems.push_back({"", std::string("index unreadable: ") + e.what()});
    return nullptr;
  }
  if (!doc->root() || doc->root().name() != "IndiceFile") {
    report.problems.push_back({"", "the index's root element is not IndiceFile"});
    return nullptr;
  }
  return doc;
}

// The index is to be signed by expected_signer when one is named, else by a certificate of
// the personal store.
void check_signer(const Certificate& signer, const std::string& expected_signer,
                  ArchiveCheckReport& report) {
  bool trusted = false;
  if (!expected_signer.empty()) {
    trusted = report.signer_id == expected_signer;
    if (!trusted)
      report.problems.push_back({"", "the index is signed by certificate " + report.signer_id +
                                         ", not by " + expected_signer});
  } else {
    for (const auto& c : personal_store()->certificates())
      if (c == signer) trusted = true;
    if (!trusted)
      report.problems.push_back(
          {"", "the index is signed by a certificate that is not in the personal store: " +
                   report.signer_subject + " (" + report.signer_id + ")"});
  }
}

// The index signature, and who made it.
void check_index_signature(xml::Document& doc, const std::string& expected_signer,
                           ArchiveCheckReport& report) {
  TElXMLVerifier verifier;
  try {
    // The index signature is the root's own ds:Signature child, never one inside a record.
    xml::Node signature = OwnSignature(doc.root());
    if (!signature) throw Exception("no ds:Signature element under the index's root");
    verifier.Load(signature);
    XmlSignatureCheck check = verifier.Verify(doc);
    for (const auto& p : check.problems)
      report.problems.push_back({"", "index signature: " + p});
    if (check.certificate) {
      report.signer_id = check.certificate->id();
      report.signer_subject = check.certificate->subject_text();
    }
    report.index_signed = check.ok();
    if (check.ok()) check_signer(*check.certificate, expected_signer, report);
  } catch (const Exception& e) {
    report.problems.push_back(
        {"", std::string("the index carries no usable signature: ") + e.what()});
  }
}

// A record's files: there, as recorded, and the envelope verifying against the data file it
// was archived with.
void check_record(const std::string& archive, const ArchiveRecord& r, ArchiveCheckReport& report) {
  std::string label = r.type + "#" + r.id + " " + r.name;
  std::string data_path, envelope_path;
  if (!r.has_data) {
    report.problems.push_back({label, "the record has no data file"});
  } else {
    data_path = check_file(archive, r.data, "data file", label, report.problems);
    ++report.files_checked;
  }
  if (r.has_envelope) {
    envelope_path = check_file(archive, r.envelope, "envelope", label, report.problems);
    ++report.files_checked;
  }
  if (envelope_path.empty() || data_path.empty()) return;
  try {
    check_envelope(envelope_path, data_path, label, report.problems);
  } catch (const Exception& e) {
    // One line per problem: what the file is, then the reader's detail in brackets.
    std::string what = e.what();
    if (auto nl = what.find('\n'); nl != std::string::npos)
      what = what.substr(0, nl) + " (" + what.substr(nl + 1) + ")";
    report.problems.push_back({label, "envelope: " + what});
  }
}

}  // namespace

std::vector<ArchiveRecord> ListArchive(const std::string& folder) {
  auto doc = xml::Document::ParseFile(index_path_of(folder));
  if (!doc->root() || doc->root().name() != "IndiceFile")
    throw Exception(
        "File indice (index.xml) ha un elemento root con nome diverso da \"IndiceFile\"");
  return records_of(*doc);
}

ArchiveCheckReport VerifyArchive(const std::string& folder, const std::string& expected_signer,
                                 const std::function<void(std::size_t, std::size_t)>& progress) {
  ArchiveCheckReport report;
  std::string index = index_path_of(folder);
  std::string archive = ExtractFileDir(index);
  std::unique_ptr<xml::Document> doc = read_index(index, report);
  if (!doc) return report;
  check_index_signature(*doc, expected_signer, report);
  std::vector<ArchiveRecord> records = records_of(*doc);
  report.records = records.size();
  std::size_t done = 0;
  for (const auto& r : records) {
    check_record(archive, r, report);
    if (progress) progress(++done, records.size());
  }
  return report;
}

}  // namespace tessarel
