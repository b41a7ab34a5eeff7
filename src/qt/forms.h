// Qt forms drawn from the dialog models. Every control sits where the form's layout puts
// it, in 96-dpi pixels; Qt scales logical pixels by the screen's device pixel ratio. Each
// control's object name is the model's control name, so tests and the screenshot program
// find them the way a user sees them.
#pragma once

#include <QDialog>
#include <QPointer>
#include <exception>
#include <functional>
#include <vector>

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
// for, a fixed or resizable client area, controls anchored to its edges, where it opens,
// Escape handed to the model, and errors of the models carried out of Qt's event handlers
// to the caller of exec().
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
  void resizeEvent(QResizeEvent* e) override;
  void keyPressEvent(QKeyEvent* e) override;
  // Escape: what it means is the model's to say.
  virtual void escape() = 0;
  QLabel* label(const char* name, const QString& text, int x, int y);
  QPushButton* button(const char* name, const QString& text, QRect geometry);
  // From now on the control keeps its distance to each edge in `edges` when the form is
  // resized; anchored on two opposite edges it stretches. Its present geometry is its
  // place at the layout's size.
  void anchor(QWidget* w, Qt::Edges edges);

 private:
  struct Anchored {
    QPointer<QWidget> widget;
    QRect place;
    Qt::Edges edges;
  };
  QSize layout_size_;
  Placement placement_;
  std::exception_ptr error_;
  std::vector<Anchored> anchored_;
};

class PasswordForm : public Form {
 public:
  PasswordForm(TPasswordRequestForm& model, QWidget* parent);

 protected:
  void keyPressEvent(QKeyEvent* e) override;
  void escape() override;
  void reject() override;  // the close box

 private:
  // Hands the typed password to the model, runs the action, and closes the form when the
  // model is done; the model decides whether the password is kept.
  void act(const std::function<void()>& action);
  TPasswordRequestForm& model_;
  QLineEdit* edit_;
};

class OverwriteForm : public Form {
 public:
  OverwriteForm(TSignFileOverriteDlg& model, QWidget* parent);

 protected:
  void escape() override;
  void reject() override;  // the close box

 private:
  void finish_if_closed();
  TSignFileOverriteDlg& model_;
};

class DeletionForm : public Form {
 public:
  DeletionForm(TSignCancRegDlg& model, QWidget* parent);

 protected:
  void escape() override;
  void reject() override;  // the close box

 private:
  // Copies the typed id and the chosen type into the model.
  void sync();
  void finish_if_closed();
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
  void escape() override;
  void reject() override;  // the close box

 private:
  // The controls by group, in the order they are created (which is also their stacking).
  void make_list();
  void make_menu();
  void make_buttons();
  void make_panel();
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
  void escape() override;
  void reject() override;  // the close box
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
  std::vector<QWidget*> fields_;  // the subject's, top to bottom
  QDateEdit *from_, *to_;
  QLabel* generate_text_;
  QPushButton* generate_;
  QProgressBar* progress_;
  QPushButton *back_, *next_, *cancel_;
  QTimer* pump_;
};

}  // namespace tessarel::qt
