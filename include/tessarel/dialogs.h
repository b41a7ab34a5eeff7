// Toolkit-independent models of the small modal dialogs. A front end (terminal, scripted,
// a desktop toolkit) draws a model and feeds the user's actions back into it; what a
// choice means is decided here, not in the front end.
#ifndef TESSAREL_DIALOGS_H
#define TESSAREL_DIALOGS_H

#include <array>
#include <string>
#include <vector>

#include "tessarel/export.h"

namespace tessarel {

// Result of a modal dialog, with the numeric values hosts know.
enum class ModalResult : int { None = 0, Ok = 1, Cancel = 2, Yes = 6, No = 7 };

// Password prompt for a PFX file, or for the PIN of a token (its caption then names it).
class TESSAREL_API TPasswordRequestForm {
 public:
  static constexpr const char* kCaption = "Richiesta Password";
  static constexpr const char* kLabel = "Inserire la Password:";
  static constexpr const char* kOk = "Ok";
  static constexpr const char* kCancel = "Cancel";

  TPasswordRequestForm() = default;
  TPasswordRequestForm(const TPasswordRequestForm&) = delete;
  TPasswordRequestForm& operator=(const TPasswordRequestForm&) = delete;
  ~TPasswordRequestForm();  // wipes the password

  // The window's title; the caller may name what the password is for.
  std::string Caption = kCaption;
  // The password field, edited by the front end; shown masked.
  std::string edtPassword;

  void btnOkClick() { modal_result_ = ModalResult::Ok; }
  // Cancel wipes the password: a cancelled form hands none over.
  void btnCancelClick();
  // A character typed in the password field: Enter (13) acts as a click on Ok.
  void edtPasswordKeyPress(char key);
  // Escape is not a cancel key on this form: it does nothing.
  void escape() {}
  // The window's close box: like Cancel.
  void close_box() { btnCancelClick(); }
  // The form cannot be resized.
  static bool FormCanResize() { return false; }

  ModalResult modal_result() const { return modal_result_; }
  bool closed() const { return modal_result_ != ModalResult::None; }

 private:
  ModalResult modal_result_ = ModalResult::None;
};

// What to do when a file being archived already exists in the archive.
class TESSAREL_API TSignFileOverriteDlg {
 public:
  static constexpr const char* kCaption = "File Esistente";
  static constexpr const char* kLabel = "Il file è esistente";
  static constexpr const char* kGroupTitle = "Operazione da svolgere";
  static constexpr const char* kOk = "OK";
  static const std::array<const char*, 5> kItems;

  // Index selected in the radio group (0-4); item 0 is selected when shown.
  int ItemIndex = 0;

  void select(int index);
  void OKBtnClick() { modal_result_ = ModalResult::Ok; }
  // The form has no cancel button: Escape does nothing.
  void escape() {}
  // The window's close box also ends the dialog; the selection still counts.
  void close_box() { modal_result_ = ModalResult::Cancel; }
  ModalResult modal_result() const { return modal_result_; }

 private:
  ModalResult modal_result_ = ModalResult::None;
};

// Which archive record to delete.
class TESSAREL_API TSignCancRegDlg {
 public:
  static constexpr const char* kCaption = "Cancella registazione";
  static constexpr const char* kIdLabel = "Id";
  static constexpr const char* kTypeLabel = "Tipo";
  static constexpr const char* kOk = "OK";
  static constexpr const char* kCancel = "Cancel";

  std::string Edit1;                   // the record number as typed
  std::vector<std::string> ComboBox1;  // record types, filled by the caller
  int ItemIndex = -1;                  // selected type, -1 for none

  // Text of the selected type ("" when none is selected).
  std::string selected_type() const;
  // Selects a type from the list (drop-down: only listed values can be chosen).
  void select(int index);
  void OKBtnClick() { modal_result_ = ModalResult::Ok; }
  void CancelBtnClick() { modal_result_ = ModalResult::Cancel; }
  // Escape is the cancel key of this form.
  void escape() { modal_result_ = ModalResult::Cancel; }
  // The window's close box: like Cancel.
  void close_box() { modal_result_ = ModalResult::Cancel; }
  ModalResult modal_result() const { return modal_result_; }

 private:
  ModalResult modal_result_ = ModalResult::None;
};

// The certificate picker and the certificate wizard have models of their own.
class TfrmSelWinCert;
class TfrmGenerateCert;

}  // namespace tessarel

#endif
