#include "platform/runtime/strings.h"
#include "tessarel/dialogs.h"
#include "tessarel/types.h"

namespace tessarel {

TPasswordRequestForm::~TPasswordRequestForm() {
  wipe(edtPassword);
}

void TPasswordRequestForm::edtPasswordKeyPress(char key) {
  if (key == 13) btnOkClick();
}

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
