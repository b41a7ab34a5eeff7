#include "frontends/scripted_ui.h"

#include "tessarel/picker.h"
#include "tessarel/types.h"
#include "tessarel/wizard.h"

namespace tessarel {

namespace {
[[noreturn]] void no_answer(const std::string& dialog, const std::string& text) {
  throw std::logic_error("ScriptedUi: no answer queued for " + dialog +
                         (text.empty() ? std::string() : ": " + text));
}
}  // namespace

void ScriptedUi::answer_password(std::string text, ModalResult r) {
  passwords_.push_back({std::move(text), r});
}

void ScriptedUi::answer_overwrite(int item, bool close_box) {
  overwrites_.push_back({item, close_box});
}

void ScriptedUi::answer_deletion(int type_index, std::string id, ModalResult r) {
  deletions_.push_back({type_index, std::move(id), r});
}

ModalResult ScriptedUi::message_box(MessageKind kind, MessageButtons buttons,
                                    const std::string& text) {
  shown.push_back({"message", kind, buttons, text});
  if (buttons == MessageButtons::Ok) return ModalResult::Ok;
  if (messages_.empty()) no_answer("message box", text);
  ModalResult r = messages_.front();
  messages_.pop_front();
  return r;
}

ModalResult ScriptedUi::password(TPasswordRequestForm& form) {
  shown.push_back({"password", MessageKind::Plain, MessageButtons::OkCancel, form.Caption});
  if (passwords_.empty()) no_answer("password form", "");
  PasswordAnswer a = std::move(passwords_.front());
  passwords_.pop_front();
  form.edtPassword = a.text;
  wipe(a.text);
  if (a.result == ModalResult::Ok)
    form.edtPasswordKeyPress(13);
  else
    form.btnCancelClick();
  return form.modal_result();
}

void ScriptedUi::overwrite_choice(TSignFileOverriteDlg& dlg) {
  shown.push_back(
      {"overwrite", MessageKind::Plain, MessageButtons::Ok, TSignFileOverriteDlg::kCaption});
  if (overwrites_.empty()) no_answer("overwrite question", "");
  OverwriteAnswer a = overwrites_.front();
  overwrites_.pop_front();
  if (a.item >= 0) dlg.select(a.item);
  if (a.close_box)
    dlg.close_box();
  else
    dlg.OKBtnClick();
}

ModalResult ScriptedUi::record_deletion(TSignCancRegDlg& dlg) {
  shown.push_back(
      {"deletion", MessageKind::Plain, MessageButtons::OkCancel, TSignCancRegDlg::kCaption});
  if (deletions_.empty()) no_answer("record deletion", "");
  DeletionAnswer a = std::move(deletions_.front());
  deletions_.pop_front();
  if (a.type_index >= 0) dlg.select(a.type_index);
  dlg.Edit1 = a.id;
  if (a.result == ModalResult::Ok)
    dlg.OKBtnClick();
  else
    dlg.CancelBtnClick();
  return dlg.modal_result();
}

ModalResult ScriptedUi::certificate_picker(TfrmSelWinCert& picker) {
  shown.push_back({"picker", MessageKind::Plain, MessageButtons::OkCancel, ""});
  if (pickers_.empty()) no_answer("certificate picker", "");
  auto action = std::move(pickers_.front());
  pickers_.pop_front();
  picker.FormShow();
  action(picker);
  if (picker.modal_result() == ModalResult::None) picker.close_box();
  return picker.modal_result();
}

void ScriptedUi::certificate_wizard(TfrmGenerateCert& wizard) {
  shown.push_back({"wizard", MessageKind::Plain, MessageButtons::OkCancel, ""});
  if (wizards_.empty()) no_answer("certificate wizard", "");
  auto action = std::move(wizards_.front());
  wizards_.pop_front();
  action(wizard);
  // A wizard the script left open is closed with its close box.
  if (wizard.modal_result() == ModalResult::None) wizard.close_box();
}

std::vector<ScriptedUi::Shown> ScriptedUi::messages() const {
  std::vector<Shown> out;
  for (const auto& s : shown)
    if (s.dialog == "message") out.push_back(s);
  return out;
}

bool ScriptedUi::all_answers_used() const {
  return messages_.empty() && passwords_.empty() && overwrites_.empty() && deletions_.empty() &&
         pickers_.empty() && wizards_.empty();
}

}  // namespace tessarel
