#include "boundary/pfx_export.h"

#include <sstream>

#include "platform/runtime/scope.h"
#include "tessarel/errors.h"
#include "tessarel/store.h"

namespace tessarel {

void SalvaCertificatopfx(const std::string& commonName, TDataSet* dataSet,
                         const std::string& fieldName) {
  // A reader of its own: this export sees the store as it is now, not the shared snapshot.
  std::shared_ptr<CertStore> store = personal_store();
  for (const Certificate& cert : store->certificates()) {
    if (cert.subject_cn() != commonName) continue;
    // Built before the record is touched: a certificate whose key cannot be exported
    // raises here and leaves the field as it was.
    if (!dataSet) throw EDatabaseError("No dataset given to receive the certificate");
    Bytes pfx = store->export_pkcs12(cert, "");
    std::string blob(pfx.begin(), pfx.end());
    ScopeExit cleanup([&] {
      wipe(blob);
      wipe(pfx);
    });
    std::istringstream stream(blob);
    dataSet->Edit();
    TField& field = dataSet->FieldByName(fieldName);
    auto* blob_field = dynamic_cast<TBlobField*>(&field);
    if (!blob_field || !field.IsBlob())
      throw EDatabaseError("Field '" + fieldName + "' is not a blob field");
    blob_field->LoadFromStream(stream);
    dataSet->Post();
    return;  // only the first match
  }
}

}  // namespace tessarel
