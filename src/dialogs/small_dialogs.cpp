#include "platform/runtime/strings.h"
#include "platform/store/token.h"
#include "tessarel/dialogs.h"
#include "tessarel/types.h"
#include "tessarel/ui.h"

namespace tessarel {

TPasswordRequestForm::~TPasswordRequestForm() {
  wipe(edtPassword);
}

void TPasswordRequestForm::btnCancelClick() {
  modal_result_ = ModalResult::Cancel;
  wipe(edtPassword);
}

void TPasswordRequestForm::edtPasswordKeyPress(char key) {
  if (key == 13) btnOkClick();
}

namespace {
// A token's PIN is asked with the password form, its caption naming the token so that the
// user knows which PIN is meant.
std::optional<std::string> ask_token_pin(const std::string& label) {
  TPasswordRequestForm form;
  form.Caption = std::string(TPasswordRequestForm::kCaption) + " - token " + label;
  if (currentUi().password(form) != ModalResult::Ok) return std::nullopt;
  std::string pin = form.edtPassword;  // the form wipes its own copy
  return pin;
}
const bool pin_dialog_registered = (p11::register_pin_dialog(&ask_token_pin), true);
}  // namespace

const std::array<const char*, 5> TSignFileOverriteDlg::kItems = {
    "Sovrascrivi solo questa volta",
    "Sovrascrivi per tutte le altre occorrenze",
    "Non sovrascrivere solo questa volta",
    "Non sovrascrivere per tutte le altre occorrenze",
    "Annulla operazione firma",
};

void TSignFileOverriteDlg::select(int index) {
  if (index >= 0 && index < static_cast<int>(kItems.size())) ItemIndex = index;
}

std::string TSignCancRegDlg::selected_type() const {
  if (ItemIndex < 0 || ItemIndex >= static_cast<int>(ComboBox1.size())) return "";
  return ComboBox1[static_cast<std::size_t>(ItemIndex)];
}

void TSignCancRegDlg::select(int index) {
  if (index >= 0 && index < static_cast<int>(ComboBox1.size())) ItemIndex = index;
}

}  // namespace tessarel
