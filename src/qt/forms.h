// Qt forms drawn from the dialog models. Every control sits where the form's layout puts
// it, in 96-dpi pixels; Qt scales logical pixels by the screen's device pixel ratio. Each
// control's object name is the model's control name, so tests and the screenshot program
// find them the way a user sees them.
#pragma once

#include <QDialog>
#include <exception>
#include <functional>

#include "tessarel/dialogs.h"
#include "tessarel/picker.h"
#include "tessarel/wizard.h"

class QCheckBox;
class QComboBox;
class QDateEdit;
class QFrame;
class QGroupBox;
class QLabel;
class QLineEdit;
class QMenu;
class QProgressBar;
class QPushButton;
class QRadioButton;
class QStackedWidget;
class QTimer;
class QTreeWidget;

namespace tessarel::qt {

QString q(const std::string& utf8);
QString q(const char* utf8);
// "\r\n" line ends of the models' texts become Qt's "\n".
QString text(const char* utf8);

// What every form shares: the desktop's default font at the size the layouts were drawn
// for, a fixed or resizable client area, where it opens, and errors of the models carried
// out of Qt's event handlers to the caller of exec().
class Form : public QDialog {
 public:
  enum class Placement { OverParent, ScreenCentre };
  Form(QWidget* parent, const char* object_name, const char* caption, QSize client, bool resizable,
       Placement placement);
  // Runs a model action; an exception closes the form and is rethrown by run().
  void guard(const std::function<void()>& action);
  // exec(), then rethrows what a model action raised.
  int run();
  // The client area the layout gives.
  QSize layout_size() const { return layout_size_; }

 protected:
  void showEvent(QShowEvent* e) override;
  QLabel* label(const char* name, const QString& text, int x, int y);
  QPushButton* button(const char* name, const QString& text, QRect geometry);

 private:
  QSize layout_size_;
  Placement placement_;
  std::exception_ptr error_;
};

class PasswordForm : public Form {
 public:
  PasswordForm(TPasswordRequestForm& model, QWidget* parent);
  // Copies the typed password into the model and clears the field.
  void take_password();

 protected:
  void keyPressEvent(QKeyEvent* e) override;
  void reject() override;  // the close box

 private:
  void close_if_done();
  TPasswordRequestForm& model_;
  QLineEdit* edit_;
};

class OverwriteForm : public Form {
 public:
  OverwriteForm(TSignFileOverriteDlg& model, QWidget* parent);

 protected:
  void keyPressEvent(QKeyEvent* e) override;
  void reject() override;

 private:
  TSignFileOverriteDlg& model_;
};

class DeletionForm : public Form {
 public:
  DeletionForm(TSignCancRegDlg& model, QWidget* parent);

 protected:
  void reject() override;  // Escape and the close box: Cancel

 private:
  void sync();
  TSignCancRegDlg& model_;
  QLineEdit* edit_;
  QComboBox* combo_;
};

class PickerForm : public Form {
 public:
  PickerForm(TfrmSelWinCert& model, QWidget* parent);
  // Fills the list from the model (FormShow has run).
  void fill();

 protected:
  void keyPressEvent(QKeyEvent* e) override;
  void reject() override;
  void resizeEvent(QResizeEvent* e) override;

 private:
  void update_info();
  void finish_if_closed();
  TfrmSelWinCert& model_;
  QLabel* label1_;
  QTreeWidget* list_;
  QFrame* panel_;
  QLabel* private_key_;
  QLabel* usage_;
  QPushButton* ok_;
  QPushButton* cancel_;
  QMenu* menu_;
};

class WizardForm : public Form {
 public:
  WizardForm(TfrmGenerateCert& model, QWidget* parent);
  // Fixed-size client area chosen for this form (its layout gives none).
  static constexpr int kWidth = 500, kHeight = 420;

 protected:
  void keyPressEvent(QKeyEvent* e) override;
  void reject() override;
  void closeEvent(QCloseEvent* e) override;

 private:
  QWidget* subject_page();
  QWidget* period_page();
  QWidget* generate_page();
  // Copies the model's state (page, banner, enabled buttons, progress) to the widgets.
  void sync();
  void after_action();
  TfrmGenerateCert& model_;
  QLabel* info_;
  QStackedWidget* pages_;
  QLineEdit *common_name_, *locality_, *state_, *organization_, *email_;
  QComboBox* country_;
  QDateEdit *from_, *to_;
  QLabel* generate_text_;
  QPushButton* generate_;
  QProgressBar* progress_;
  QPushButton *back_, *next_, *cancel_;
  QTimer* pump_;
};

}  // namespace tessarel::qt
