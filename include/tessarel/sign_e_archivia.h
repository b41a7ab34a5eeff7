// The engine object that GetSignEArchivia returns.
//
// The eleven operations are declared first and the destructor last, so that in the
// Itanium C++ ABI virtual-table slots 0-10 are exactly these operations in this order.
// Hosts may rely on that order; never insert, remove or reorder a virtual function here.
#ifndef TESSAREL_SIGN_E_ARCHIVIA_H
#define TESSAREL_SIGN_E_ARCHIVIA_H

#include <cstddef>
#include <exception>
#include <functional>
#include <istream>
#include <string>
#include <vector>

#include "tessarel/export.h"
#include "tessarel/types.h"

namespace tessarel {

class TESSAREL_API ISignEArchivia {
 public:
  // Slot 0: opens (or creates in memory) the archive index and selects the signing certificate.
  virtual void ApriIndice(const std::string& patharchivia, const std::string& idCert,
                          bool detached) = 0;
  // Slot 1: copies a data file and its envelope into the archive and records them.
  virtual void ArchiviaFile(const std::string& fpath, const std::string& fBusta,
                            const std::string& XMLParam, const std::string& Tipo,
                            DateTime Data) = 0;
  // Slot 2: signs a file with the archive's certificate, then archives file and envelope.
  virtual void FirmaEArchiviaFile(const std::string& fpath, const std::string& XMLParam,
                                  const std::string& Tipo, DateTime Data) = 0;
  // Slot 3: signs a file into an envelope beside it.
  virtual void Firma(const std::string& fpath, const std::string& idCert, bool detached) = 0;
  // Slot 4: writes and signs the index when it was modified.
  virtual void ChiudiIndice() = 0;
  // Slot 5: interactive removal of a record and its files.
  virtual void CancellaId() = 0;
  // Slot 6: writes the content of an attached envelope beside it; returns its path.
  virtual std::string EstraiContenuto(const std::string& input) = 0;
  // Slot 7: checks an envelope against its content and shows a report.
  virtual void VerificaFirma(const std::string& input) = 0;
  // Slot 8: whether the certificate exists and its private key is usable.
  virtual bool IsKeyPresent(const std::string& idCert) = 0;
  // Slot 9: runs the certificate wizard; returns the new certificate's display name.
  virtual std::string GeneraCertificato() = 0;
  // Slot 10: signs a PDF document.
  virtual bool FirmaPdf(const std::string& fname, const std::string& fnamedest,
                        const std::string& reason, const std::string& pazname, std::istream* stream,
                        bool passw, const std::string& certCA, bool certInvisible) = 0;

  virtual ~ISignEArchivia();
};

// FirmaEArchiviaFile for each file of the list in turn: before(i) is called before file i,
// after(i, error) after it with what it raised (null when nothing); when after returns
// false, no later file is signed or archived. The files are read, digested and signed
// ahead on every processor (TESSAREL_THREADS=N sets how many, 1 none ahead); envelopes,
// archived copies, records, dialogs and callbacks still come one file after the other,
// exactly as calling FirmaEArchiviaFile in a loop gives them. Either callback may be empty.
TESSAREL_API void FirmaEArchiviaFiles(
    ISignEArchivia& engine, const std::vector<std::string>& files, const std::string& XMLParam,
    const std::string& Tipo, DateTime Data, const std::function<void(std::size_t)>& before,
    const std::function<bool(std::size_t, std::exception_ptr)>& after);

}  // namespace tessarel

#endif
