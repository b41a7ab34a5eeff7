// The certificate generation wizard: three pages that collect the subject and the validity
// period of a new self-signed certificate, then generate it on a worker thread and put it,
// with its private key, into the personal store. Toolkit-independent model; a front end
// draws it (see Ui::certificate_wizard).
//
// A front end's part: draw the current page() with its fields and buttons (enabled or not),
// pass the user's actions to the btn*Click() methods and the field setters, and, while the
// wizard is open, call ProcessMessages() regularly: it runs the progress timer and the
// generation's completion on the calling thread. The wizard is over when modal_result() is
// no longer ModalResult::None.
#ifndef TESSAREL_WIZARD_H
#define TESSAREL_WIZARD_H

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tessarel/dialogs.h"
#include "tessarel/export.h"
#include "tessarel/store.h"
#include "tessarel/types.h"

namespace tessarel {

class TESSAREL_API TfrmGenerateCert {
 public:
  enum class Page { tsEnterFields, tsSpecifyPeriod, tsGenerate };

  static constexpr const char* kCaption = "Certificate generation";
  static constexpr const char* kHintEnterFields = "Soggetto del nuovo certificato";
  static constexpr const char* kHintSpecifyPeriod = "Specify certificate validity period";
  static constexpr const char* kHintGenerate =
      "Certificate generation\r\nPlease be patient while certifcate are generating";
  static constexpr const char* kHeadingFields =
      "Specificare i valori dei campi Soggetto del nuovo certificato :";
  static constexpr const char* kGroupSubject = "Parametri Soggetto";
  static constexpr const char* kLabelCommonName = "Nome certificato:";
  static constexpr const char* kLabelLocality = "Città: ";
  static constexpr const char* kLabelState = "Provincia:";
  static constexpr const char* kLabelCountry = "Nazione:";
  static constexpr const char* kLabelOrganization = "Nome Organizzazione:";
  static constexpr const char* kLabelEmail = "Email:";
  static constexpr const char* kHeadingPeriod = "Specificare il periodo di validtà";
  static constexpr const char* kGroupPeriod = "Validity period:";
  static constexpr const char* kLabelFrom = "Dal:";
  static constexpr const char* kLabelTo = "Al:";
  static constexpr const char* kGenerateText =
      "The certificate will be generated now. This process can take long time, depending on the "
      "key length.";
  static constexpr const char* kGenerateButton = "Genera";
  static constexpr const char* kGenerateNote =
      "Nella richiesta successiva lasciare il livello di sicurezza Medio, che non richiede l'uso "
      "di password ad ogni operazione di firma.\r\n\r\nSe invece su vuole utilizzare per ogni uso "
      "del certificato una password utilizzare il livello di sicurezza alto.";
  static constexpr const char* kBack = "< &Indietro";
  static constexpr const char* kNext = "&Avanti>";
  static constexpr const char* kCancel = "Annulla";
  static constexpr const char* kMissingFields = "Compilare tutti i campi con l'asterisco.";
  static constexpr const char* kConfirmCancel = "Sei sicuro di voler annullare l'operazione?";
  static constexpr const char* kPeriodReversed =
      "La data di fine validità (Al) precede quella di inizio (Dal).";

  // Date pickers accept 31 December 1999 to 31 December 2100.
  static const DateTime kMinDate;
  static const DateTime kMaxDate;
  // Upper bounds of the subject fields (X.520 / PKCS#9), in characters.
  static constexpr std::size_t kMaxCommonName = 64, kMaxLocality = 128, kMaxState = 128,
                               kMaxOrganization = 64, kMaxEmail = 255;

  // The subject page's fields, top to bottom. A required field is marked with an asterisk
  // and checked by Next; the country is chosen from cbCountryItems (it has no text member
  // and no length bound).
  struct SubjectField {
    const char* control;  // the control's name
    const char* label;
    bool required;
    std::string TfrmGenerateCert::*text;  // null for the country
    std::size_t max_length;
  };
  static const std::array<SubjectField, 6> kSubjectFields;

  // A date as the pickers show it, for toolkits whose date widgets count in calendar days.
  struct Day {
    int year, month, day;
  };
  static Day ToDay(DateTime d);
  // Throws EConvertError for an impossible date.
  static DateTime FromDay(const Day& d);
  // The wizard's fixed key settings.
  static constexpr int kKeyBits = 1024;

  // Created with today's date and 48 months, "Italia" selected, on the personal store.
  TfrmGenerateCert();
  explicit TfrmGenerateCert(std::shared_ptr<CertStore> store);
  // Stops a generation still running and waits for its thread: nothing is left behind.
  ~TfrmGenerateCert();
  TfrmGenerateCert(const TfrmGenerateCert&) = delete;
  TfrmGenerateCert& operator=(const TfrmGenerateCert&) = delete;

  // The class-level entry: runs the wizard modally through the installed Ui; returns the new
  // certificate's display name, or "" when nothing was generated.
  static std::string DoCreateCertificate();

  // Subject fields (UTF-8).
  std::string edtCommonName, edtLocality, edtState, edtOrganization, EdtEmail;
  // The country drop-down: its entries and the selected index (-1 for none).
  std::vector<std::string> cbCountryItems;
  int cbCountryIndex = -1;
  // Selects a country by its displayed name; false (and nothing changes) when it is not listed.
  bool select_country(const std::string& name);
  // Indexes of the entries whose name starts with prefix (letters compared without case),
  // in list order; an empty prefix matches nothing.
  std::vector<int> countries_starting_with(const std::string& prefix) const;
  std::string country_text() const;
  // Validity period (dates; the time part is ignored). Clamped to the pickers' range.
  void set_dtpFrom(DateTime d);
  void set_dtpTo(DateTime d);
  DateTime dtpFrom() const;
  DateTime dtpTo() const;

  Page page() const;
  const std::string& lblInfo() const;
  const std::string& lbGenerate() const;
  bool BackEnabled() const;
  bool NextEnabled() const;
  bool CancelEnabled() const;
  bool GenerateEnabled() const;
  bool Generating() const;
  bool ProgressVisible() const;
  int ProgressPosition() const;
  bool Busy() const;

  void btnBackClick() {}  // Back stays disabled on every page
  // Only Annulla or the close box end the wizard: Escape does nothing.
  void escape() {}
  void btnNextClick();
  void btnCancelClick();
  void btnGenerateClick();
  // The window's close box: ends the wizard like Cancel, without the question; a running
  // generation is stopped and its result discarded.
  void close_box();
  // The page control reported a change of page (only a toolkit that shows tabs does that).
  void pcMainChange();

  // Runs, on the calling thread, what is due: progress ticks every 200 ms and the
  // generation's completion. Waits at most max_wait for something to happen.
  void ProcessMessages(std::chrono::milliseconds max_wait = std::chrono::milliseconds(0));

  ModalResult modal_result() const;
  // Display name of the stored certificate: common names joined by " / ", else the
  // organizations, else the e-mail addresses. Empty unless a certificate was stored.
  const std::string& cert_commonName() const;
  // The certificate stored by the wizard, when one was.
  const Bytes& generated_certificate() const;

  // Called on the dialog's thread at every progress tick, with the new position.
  std::function<void(int)> OnProgress;

 private:
  friend struct WizardTesting;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tessarel

#endif
