// Reading and checking a signed archive without changing it.
#ifndef TESSAREL_ARCHIVE_H
#define TESSAREL_ARCHIVE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tessarel/export.h"

namespace tessarel {

// How long ApriIndice (and a change after ChiudiIndice) waits for an archive that another
// engine or process holds, before failing with a message that says it is in use. The
// default is 30 seconds; zero fails at once.
TESSAREL_API void set_archive_lock_timeout(std::chrono::milliseconds timeout);
TESSAREL_API std::chrono::milliseconds archive_lock_timeout();

struct ArchiveFileEntry {
  std::string link;  // relative to the archive folder, backslash-separated
  std::string name;  // envelopes only
  std::uint64_t size = 0;
  std::string sha256;
};

struct ArchiveRecord {
  std::string type;  // the group (document type)
  std::string name;
  std::string date;  // the day of archiving, yyyy-mm-dd
  std::string id;
  bool detached = false;
  bool has_data = false;
  ArchiveFileEntry data;
  bool has_envelope = false;
  ArchiveFileEntry envelope;
};

// The records of the index in folder (or the index file itself), in index order.
// Throws when there is no readable index.
TESSAREL_API std::vector<ArchiveRecord> ListArchive(const std::string& folder);

struct ArchiveProblem {
  std::string record;  // "Type#Id name", empty for problems of the index itself
  std::string what;
};

struct ArchiveCheckReport {
  bool index_signed = false;  // the index carries a signature that verifies
  std::string signer_id;      // idCert of the index's signing certificate
  std::string signer_subject;
  std::size_t records = 0;
  std::size_t files_checked = 0;
  std::vector<ArchiveProblem> problems;
  bool ok() const { return index_signed && problems.empty(); }
};

// Checks an archive as an auditor would: the index signature (by expected_signer when given,
// else by a certificate of the personal store), then for every record that its data file
// and envelope exist inside the archive, have the recorded sizes and SHA-256 digests, and
// that the envelope verifies cryptographically against the data file. Reads only.
// progress, when given, is called with (records done, records) as the check goes.
TESSAREL_API ArchiveCheckReport
VerifyArchive(const std::string& folder, const std::string& expected_signer = "",
              const std::function<void(std::size_t, std::size_t)>& progress = {});

}  // namespace tessarel

#endif
