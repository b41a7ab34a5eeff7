#include <chrono>
#include <cmath>
#include <cstdlib>

#include "boundary/result_string.h"
#include "platform/runtime/datetime.h"
#include "platform/store/pkcs11_uri.h"
#include "tessarel/errors.h"
#include "tessarel/exports.h"
#include "tessarel/picker.h"
#include "tessarel/ui.h"

namespace tessarel {

const std::array<TfrmSelWinCert::Column, 6> TfrmSelWinCert::kColumns = {{
    {"Certificato ID", 125},
    {"Rilasciato a", 102},
    {"Ente Certif.", 99},
    {"Valido dal", 68},
    {"Valido al", 64},
    {"Chiave priv.", 26},
}};

namespace {

// Local date and time as the list shows them; midnight shows as the date alone.
std::string date_time_text(std::chrono::sys_seconds t) {
  DateTime dt = LocalDateTime(std::chrono::system_clock::time_point(t));
  CivilTime c = DecodeDateTime(dt);
  if (c.hour == 0 && c.minute == 0 && c.second == 0) return FormatShortDate(dt);
  return FormatDateTime(dt);
}

std::string first_or(const std::vector<std::string>& values,
                     const std::vector<std::string>& fallback) {
  if (!values.empty() && !values.front().empty()) return values.front();
  return fallback.empty() ? std::string() : fallback.front();
}

}  // namespace

// Hidden: only the class's interface is exported.
struct __attribute__((visibility("hidden"))) TfrmSelWinCert::Impl {
  Impl(TfrmSelWinCert& owner, std::shared_ptr<CertStore> store)
      : self(owner), WinCertStorage(std::move(store)) {}

  void UpdateCertificates();
  void UpdateCertInfo();
  void FormCloseQuery();

  TfrmSelWinCert& self;
  std::shared_ptr<CertStore> WinCertStorage;
  std::vector<Row> rows;
  int selected = -1;
  std::optional<Certificate> certificate;
  std::string dlb_private_key = "None";
  std::string dlb_usage = "None";
  ModalResult modal_result = ModalResult::None;
};

TfrmSelWinCert::TfrmSelWinCert() : TfrmSelWinCert(personal_store()) {}

TfrmSelWinCert::TfrmSelWinCert(std::shared_ptr<CertStore> store)
    : impl_(std::make_unique<Impl>(*this, std::move(store))) {}

TfrmSelWinCert::~TfrmSelWinCert() = default;

const std::vector<TfrmSelWinCert::Row>& TfrmSelWinCert::rows() const {
  return impl_->rows;
}
int TfrmSelWinCert::selected_row() const {
  return impl_->selected;
}
ModalResult TfrmSelWinCert::modal_result() const {
  return impl_->modal_result;
}
const std::optional<Certificate>& TfrmSelWinCert::FCertificate() const {
  return impl_->certificate;
}
const std::string& TfrmSelWinCert::dlbPrivateKey() const {
  return impl_->dlb_private_key;
}
const std::string& TfrmSelWinCert::dlbUsage() const {
  return impl_->dlb_usage;
}

std::string TfrmSelWinCert::UsageText(const Certificate& cert) {
  static const char* kTexts[9] = {
      "Digital Signitare, ", "Non-repudiation, ", "Key Transport, ",
      "Data Encipherment, ", "Key Agreement, ",   "Certificate Signing, ",
      "CRL Signing, ",       "Encipher only, ",   "Decipher only, "};
  auto ku = cert.key_usage();
  if (!ku) return "";
  std::string text;
  for (unsigned bit = 0; bit < 9; ++bit)
    if (*ku & (1u << bit)) text += kTexts[bit];
  if (text.size() >= 2) text.resize(text.size() - 2);
  return text;
}

std::string TfrmSelWinCert::Label1() const {
  const std::string where = impl_->WinCertStorage->location();
  if (p11::Pkcs11Uri::is_uri(where)) {
    std::optional<std::string> token;
    try {
      token = p11::Pkcs11Uri::parse(where).token;
    } catch (const Exception&) {
      // An unreadable URI names no token; the store itself reports the error.
    }
    if (token && !token->empty()) return "Certificati installati nel token \"" + *token + "\"";
    return "Certificati installati nei token PKCS#11";
  }
  // The home folder as "~", so the usual place fits above the list.
  std::string shown = where;
  const char* home = std::getenv("HOME");
  if (home && *home && home != std::string("/") && shown.rfind(std::string(home) + "/", 0) == 0)
    shown = "~" + shown.substr(std::string(home).size());
  return "Certificati installati nell'archivio personale Tessarel (" + shown + ")";
}

void TfrmSelWinCert::FormShow() {
  impl_->UpdateCertificates();
  impl_->UpdateCertInfo();
}

void TfrmSelWinCert::Impl::UpdateCertificates() {
  rows.clear();
  for (const Certificate& cert : WinCertStorage->certificates()) {
    if (self.showCA &&
        !(cert.has_key_usage(kDigitalSignature) && cert.has_key_usage(kKeyEncipherment)))
      continue;
    Row row{
        {cert.display_serial(),
         first_or(cert.subject_values(oid::kCommonName),
                  cert.subject_values(oid::kOrganizationName)),
         first_or(cert.issuer_values(oid::kCommonName), cert.issuer_values(oid::kOrganizationName)),
         date_time_text(cert.not_before()), date_time_text(cert.not_after()),
         WinCertStorage->has_private_key(cert) ? "Yes" : "No"},
        cert};
    rows.push_back(std::move(row));
  }
}

void TfrmSelWinCert::lvCerificatesChange(int row) {
  Impl& d = *impl_;
  d.selected = (row >= 0 && row < static_cast<int>(d.rows.size())) ? row : -1;
  if (d.selected >= 0)
    d.certificate = d.rows[static_cast<std::size_t>(d.selected)].certificate;
  else
    d.certificate.reset();
  d.UpdateCertInfo();
}

void TfrmSelWinCert::Impl::UpdateCertInfo() {
  if (!certificate) {
    dlb_private_key = "None";
    dlb_usage = "None";
    return;
  }
  dlb_private_key = WinCertStorage->has_private_key(*certificate) ? "Available" : "None";
  dlb_usage = UsageText(*certificate);
}

void TfrmSelWinCert::RimuoviCertificato1Click() {
  Impl& d = *impl_;
  if (!d.certificate || d.selected < 0) return;
  // The store finds the entry by the certificate's SHA-1 fingerprint.
  if (!d.WinCertStorage->remove(*d.certificate)) return;
  d.rows.erase(d.rows.begin() + d.selected);
  lvCerificatesChange(-1);
}

void TfrmSelWinCert::Impl::FormCloseQuery() {
  if (modal_result == ModalResult::Ok && certificate && !self.showCA && certificate->key_usage() &&
      !certificate->has_key_usage(kNonRepudiation))
    currentUi().message_box(MessageKind::Plain, MessageButtons::Ok, kNonRepudiationWarning);
}

void TfrmSelWinCert::btnOKClick() {
  impl_->modal_result = ModalResult::Ok;
  impl_->FormCloseQuery();
}

void TfrmSelWinCert::btnCancelClick() {
  impl_->modal_result = ModalResult::Cancel;
}

void TfrmSelWinCert::close_box() {
  impl_->modal_result = ModalResult::Cancel;
}

}  // namespace tessarel

extern "C" TESSAREL_API char** SelezionaCertificato(char** result, bool showCA) {
  tessarel::TfrmSelWinCert form;
  form.showCA = showCA;
  tessarel::ModalResult r = tessarel::currentUi().certificate_picker(form);
  if (r == tessarel::ModalResult::Ok && form.FCertificate())
    return tessarel::AssignResult(result, form.FCertificate()->id());
  return result;
}
