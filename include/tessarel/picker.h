// The certificate picker: the user chooses a signing certificate among those of the
// personal store. This is the toolkit-independent model; a front end draws it (see Ui).
//
// A front end's part, for Ui::certificate_picker: call FormShow(), show rows() and the info
// panel (dlbPrivateKey(), dlbUsage()), pass the user's actions to lvCerificatesChange(),
// RimuoviCertificato1Click(), btnOKClick(), btnCancelClick() or close_box(), and return
// modal_result() once it is no longer ModalResult::None. Enter and Escape close nothing.
#ifndef TESSAREL_PICKER_H
#define TESSAREL_PICKER_H

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tessarel/certificate.h"
#include "tessarel/dialogs.h"
#include "tessarel/export.h"
#include "tessarel/store.h"

namespace tessarel {

class TESSAREL_API TfrmSelWinCert {
 public:
  static constexpr const char* kCaption = "Seleziona certificato";
  static constexpr const char* kLbPrivateKey = "Ha chiave privata: ";
  static constexpr const char* kLbUsage = "Utilizzo del certificato: ";
  static constexpr const char* kRemoveItem = "Rimuovi Certificato";
  static constexpr const char* kOk = "OK";
  static constexpr const char* kCancel = "Cancel";
  static constexpr const char* kNonRepudiationWarning =
      "Attenzione il certificato non prevede il diritto di repudio";

  struct Column {
    const char* caption;
    int width;
  };
  static const std::array<Column, 6> kColumns;

  struct Row {
    std::array<std::string, 6> cells;
    Certificate certificate;
  };

  // FormCreate: showCA false, a reader of the personal store.
  TfrmSelWinCert();
  explicit TfrmSelWinCert(std::shared_ptr<CertStore> store);
  ~TfrmSelWinCert();
  TfrmSelWinCert(const TfrmSelWinCert&) = delete;
  TfrmSelWinCert& operator=(const TfrmSelWinCert&) = delete;

  // Set by the caller before the form is shown: list only certificates usable by a CA-style
  // signer (key usage with digital signature and key encipherment), and no warning on OK.
  bool showCA = false;

  void FormShow();
  // The caption above the list: which store the certificates come from (the personal
  // store's folder, or the token a pkcs11: store names).
  std::string Label1() const;
  const std::vector<Row>& rows() const;
  int selected_row() const;

  // Selection changed: row index, or -1 for none.
  void lvCerificatesChange(int row);
  // Context menu "Rimuovi Certificato": removes the selected certificate from the store.
  void RimuoviCertificato1Click();
  // OK: closes with modal result OK, after the non-repudiation warning when it applies.
  void btnOKClick();
  void btnCancelClick();
  // The window's close box: like Cancel.
  void close_box();
  // Neither button is the default or the cancel button: Enter and Escape close nothing.
  void escape() {}

  ModalResult modal_result() const;
  // The certificate of the selected row, if any.
  const std::optional<Certificate>& FCertificate() const;
  // The info panel's two values.
  const std::string& dlbPrivateKey() const;
  const std::string& dlbUsage() const;

  // Text of the key-usage bits that are set, as the info panel shows it.
  static std::string UsageText(const Certificate& cert);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tessarel

#endif
