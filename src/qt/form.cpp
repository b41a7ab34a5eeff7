#include <QApplication>
#include <QComboBox>
#include <QGroupBox>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QResizeEvent>
#include <QScreen>
#include <utility>

#include "qt/forms.h"
#include "tessarel/types.h"

namespace tessarel::qt {

QString q(const std::string& utf8) {
  return QString::fromUtf8(utf8.data(), static_cast<qsizetype>(utf8.size()));
}
QString q(const char* utf8) {
  return QString::fromUtf8(utf8);
}
QString text(const char* utf8) {
  return q(utf8).replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
}

Form::Form(QWidget* parent, const char* object_name, const char* caption, QSize client,
           bool resizable, Placement placement)
    : QDialog(parent), layout_size_(client), placement_(placement) {
  setObjectName(QString::fromLatin1(object_name));
  setWindowTitle(q(caption));
  setModal(true);
  // The layouts were drawn for an 8-point dialog font; the desktop's own family is used.
  QFont f = QApplication::font();
  f.setPointSize(8);
  setFont(f);
  if (resizable)
    resize(client);
  else
    setFixedSize(client);
}

void Form::guard(const std::function<void()>& action) {
  try {
    action();
  } catch (...) {
    // Qt's event handlers must not throw: the error leaves through run().
    error_ = std::current_exception();
    done(static_cast<int>(ModalResult::Cancel));
  }
}

int Form::run() {
  int r = exec();
  if (error_) std::rethrow_exception(std::exchange(error_, nullptr));
  return r;
}

void Form::showEvent(QShowEvent* e) {
  QDialog::showEvent(e);
  if (placement_ == Placement::ScreenCentre) {
    QScreen* s = parentWidget() ? parentWidget()->screen() : screen();
    if (s) move(s->availableGeometry().center() - QPoint(width() / 2, height() / 2));
  }
}

void Form::resizeEvent(QResizeEvent* e) {
  QDialog::resizeEvent(e);
  const int dw = width() - layout_size_.width(), dh = height() - layout_size_.height();
  // One axis at a time: both edges stretch, the far edge alone moves, else it stays put.
  auto follow = [](int start, int length, bool near_edge, bool far_edge, int delta) {
    if (near_edge && far_edge) return std::pair(start, length + delta);
    if (far_edge) return std::pair(start + delta, length);
    return std::pair(start, length);
  };
  for (const Anchored& a : anchored_) {
    if (!a.widget) continue;
    auto [x, w] =
        follow(a.place.x(), a.place.width(), a.edges & Qt::LeftEdge, a.edges & Qt::RightEdge, dw);
    auto [y, h] =
        follow(a.place.y(), a.place.height(), a.edges & Qt::TopEdge, a.edges & Qt::BottomEdge, dh);
    a.widget->setGeometry(x, y, w, h);
  }
}

void Form::keyPressEvent(QKeyEvent* e) {
  if (e->matches(QKeySequence::Cancel)) {
    e->accept();
    escape();
    return;
  }
  QDialog::keyPressEvent(e);
}

void Form::anchor(QWidget* w, Qt::Edges edges) {
  anchored_.push_back({w, w->geometry(), edges});
}

QLabel* Form::label(const char* name, const QString& text, int x, int y) {
  auto* l = new QLabel(text, this);
  l->setObjectName(QString::fromLatin1(name));
  l->move(x, y);
  l->adjustSize();  // labels size themselves to their text
  return l;
}

QPushButton* Form::button(const char* name, const QString& text, QRect geometry) {
  auto* b = new QPushButton(text, this);
  b->setObjectName(QString::fromLatin1(name));
  b->setGeometry(geometry);
  b->setAutoDefault(false);  // only the form's default button answers Enter
  return b;
}

// ---------------------------------------------------------------------------------------
// Password prompt

PasswordForm::PasswordForm(TPasswordRequestForm& model, QWidget* parent)
    : Form(parent, "PasswordRequestForm", model.Caption.c_str(), QSize(306, 72), false,
           Placement::OverParent),
      model_(model) {
  setWindowFlag(Qt::WindowStaysOnTopHint);
  label("lblPasswordNeeded", q(TPasswordRequestForm::kLabel), 8, 8);
  edit_ = new QLineEdit(this);
  edit_->setObjectName("edtPassword");
  edit_->setGeometry(136, 8, 169, 21);
  edit_->setEchoMode(QLineEdit::Password);
  edit_->setStyleSheet("lineedit-password-character: 42");  // shown as '*'
  auto* ok = button("btnOk", q(TPasswordRequestForm::kOk), QRect(72, 40, 75, 25));
  ok->setDefault(true);
  auto* cancel = button("btnCancel", q(TPasswordRequestForm::kCancel), QRect(152, 40, 75, 25));
  connect(ok, &QPushButton::clicked, this, [this] { act([this] { model_.btnOkClick(); }); });
  connect(cancel, &QPushButton::clicked, this,
          [this] { act([this] { model_.btnCancelClick(); }); });
  setTabOrder(edit_, ok);
  setTabOrder(ok, cancel);
  edit_->setFocus();
}

void PasswordForm::keyPressEvent(QKeyEvent* e) {
  if ((e->key() == Qt::Key_Return || e->key() == Qt::Key_Enter) && edit_->hasFocus()) {
    act([this] { model_.edtPasswordKeyPress(13); });
    return;
  }
  Form::keyPressEvent(e);
}

void PasswordForm::escape() {
  act([this] { model_.escape(); });
}

void PasswordForm::reject() {
  act([this] { model_.close_box(); });
}

void PasswordForm::act(const std::function<void()>& action) {
  QString typed = edit_->text();
  QByteArray utf8 = typed.toUtf8();
  model_.edtPassword.assign(utf8.constData(), static_cast<std::size_t>(utf8.size()));
  // Our copies are wiped; the field's own buffer is released when it is cleared (Qt offers
  // no way to wipe it).
  utf8.fill('\0');
  typed.fill(QChar(u'\0'));
  action();
  if (!model_.closed()) {
    wipe(model_.edtPassword);  // the field still holds what was typed
    return;
  }
  edit_->clear();
  done(static_cast<int>(model_.modal_result()));
}

// ---------------------------------------------------------------------------------------
// Overwrite choice

namespace {
// An item of a radio group answers a click anywhere on its row, not only on its text.
class RowRadioButton : public QRadioButton {
 public:
  using QRadioButton::QRadioButton;

 protected:
  bool hitButton(const QPoint& pos) const override { return rect().contains(pos); }
};
}  // namespace

OverwriteForm::OverwriteForm(TSignFileOverriteDlg& model, QWidget* parent)
    : Form(parent, "SignFileOverriteDlg", TSignFileOverriteDlg::kCaption, QSize(384, 186), false,
           Placement::ScreenCentre),
      model_(model) {
  QLabel* l = label("Label1", q(TSignFileOverriteDlg::kLabel), 24, 8);
  QFont bold = font();
  bold.setBold(true);
  l->setFont(bold);
  l->adjustSize();
  auto* group = new QGroupBox(q(TSignFileOverriteDlg::kGroupTitle), this);
  group->setObjectName("RadioGroup1");
  group->setGeometry(16, 32, 345, 105);
  // Items share the group's height below its title, as a radio group spaces them.
  const int top = 18, step = (105 - top - 4) / 5;
  QRadioButton* first = nullptr;
  for (int i = 0; i < 5; ++i) {
    auto* r =
        new RowRadioButton(q(TSignFileOverriteDlg::kItems[static_cast<std::size_t>(i)]), group);
    r->setObjectName(QStringLiteral("RadioGroup1_%1").arg(i));
    r->setGeometry(8, top + i * step, 330, step);
    r->setChecked(i == model_.ItemIndex);
    connect(r, &QRadioButton::toggled, this, [this, i](bool on) {
      if (on) model_.select(i);
    });
    if (!first) first = r;
  }
  auto* ok = button("OKBtn", q(TSignFileOverriteDlg::kOk), QRect(151, 148, 75, 25));
  ok->setDefault(true);
  connect(ok, &QPushButton::clicked, this, [this] {
    model_.OKBtnClick();
    finish_if_closed();
  });
  if (auto* checked =
          group->findChild<QRadioButton*>(QStringLiteral("RadioGroup1_%1").arg(model_.ItemIndex)))
    checked->setFocus();
  else if (first)
    first->setFocus();
}

void OverwriteForm::escape() {
  model_.escape();
  finish_if_closed();
}

void OverwriteForm::reject() {
  model_.close_box();
  finish_if_closed();
}

void OverwriteForm::finish_if_closed() {
  if (model_.modal_result() != ModalResult::None) done(static_cast<int>(model_.modal_result()));
}

// ---------------------------------------------------------------------------------------
// Record deletion

DeletionForm::DeletionForm(TSignCancRegDlg& model, QWidget* parent)
    : Form(parent, "SignCancRegDlg", TSignCancRegDlg::kCaption, QSize(259, 141), false,
           Placement::ScreenCentre),
      model_(model) {
  label("Label2", q(TSignCancRegDlg::kIdLabel), 24, 24);
  edit_ = new QLineEdit(q(model_.Edit1), this);
  edit_->setObjectName("Edit1");
  edit_->setGeometry(80, 24, 121, 21);
  label("Label1", q(TSignCancRegDlg::kTypeLabel), 24, 56);
  combo_ = new QComboBox(this);  // not editable: only listed types can be chosen
  combo_->setObjectName("ComboBox1");
  combo_->setGeometry(80, 56, 124, 21);
  for (const auto& item : model_.ComboBox1)
    combo_->addItem(q(item));
  combo_->setCurrentIndex(model_.ItemIndex);
  auto* ok = button("OKBtn", q(TSignCancRegDlg::kOk), QRect(63, 100, 75, 25));
  ok->setDefault(true);
  auto* cancel = button("CancelBtn", q(TSignCancRegDlg::kCancel), QRect(143, 100, 75, 25));
  connect(ok, &QPushButton::clicked, this, [this] {
    sync();
    model_.OKBtnClick();
    finish_if_closed();
  });
  connect(cancel, &QPushButton::clicked, this, [this] {
    sync();
    model_.CancelBtnClick();
    finish_if_closed();
  });
  setTabOrder(edit_, combo_);
  setTabOrder(combo_, ok);
  setTabOrder(ok, cancel);
  edit_->setFocus();
}

void DeletionForm::sync() {
  QByteArray id = edit_->text().toUtf8();
  model_.Edit1.assign(id.constData(), static_cast<std::size_t>(id.size()));
  model_.select(combo_->currentIndex());
}

void DeletionForm::escape() {
  sync();
  model_.escape();
  finish_if_closed();
}

void DeletionForm::reject() {
  sync();
  model_.close_box();
  finish_if_closed();
}

void DeletionForm::finish_if_closed() {
  if (model_.modal_result() != ModalResult::None) done(static_cast<int>(model_.modal_result()));
}

}  // namespace tessarel::qt
