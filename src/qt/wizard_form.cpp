#include <QCloseEvent>
#include <QComboBox>
#include <QDateEdit>
#include <QGroupBox>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPainterPath>
#include <QProgressBar>
#include <QPushButton>
#include <QStackedWidget>
#include <QTimer>
#include <cmath>

#include "qt/forms.h"

namespace tessarel::qt {

namespace {

// The models count days from 30 December 1899, as the host runtime's dates do.
const QDate kEpoch(1899, 12, 30);
QDate to_qdate(DateTime d) {
  return kEpoch.addDays(static_cast<qint64>(std::floor(d)));
}
DateTime from_qdate(QDate d) {
  return static_cast<DateTime>(kEpoch.daysTo(d));
}

// The banner's key picture, drawn rather than shipped as a file.
QPixmap key_picture(qreal dpr) {
  QPixmap pm(QSize(48, 48) * dpr);
  pm.setDevicePixelRatio(dpr);
  pm.fill(Qt::transparent);
  QPainter p(&pm);
  p.setRenderHint(QPainter::Antialiasing);
  p.translate(24, 24);
  p.rotate(-35);
  p.translate(-24, -24);
  QPainterPath key;
  key.addEllipse(QRectF(4, 14, 20, 20));
  key.addRect(QRectF(22, 21, 22, 6));
  key.addRect(QRectF(36, 27, 4, 7));
  key.addRect(QRectF(30, 27, 3, 5));
  QPainterPath hole;
  hole.addEllipse(QRectF(9, 20, 8, 8));
  p.setPen(QPen(QColor(120, 90, 10), 1.5));
  p.setBrush(QColor(230, 185, 40));
  p.drawPath(key.simplified().subtracted(hole));
  return pm;
}

QLineEdit* edit(QWidget* parent, const char* name, int x, int y) {
  auto* e = new QLineEdit(parent);
  e->setObjectName(QString::fromLatin1(name));
  e->setGeometry(x, y, 280, 21);
  return e;
}

QLabel* child_label(QWidget* parent, const char* name, const QString& text, int x, int y) {
  auto* l = new QLabel(text, parent);
  l->setObjectName(QString::fromLatin1(name));
  l->move(x, y);
  l->adjustSize();
  return l;
}

void set_utf8(std::string& field, const QString& text) {
  QByteArray b = text.toUtf8();
  field.assign(b.constData(), static_cast<std::size_t>(b.size()));
}

}  // namespace

WizardForm::WizardForm(TfrmGenerateCert& model, QWidget* parent)
    : Form(parent, "frmGenerateCert", TfrmGenerateCert::kCaption, QSize(kWidth, kHeight), false,
           Placement::OverParent),
      model_(model) {
  using W = TfrmGenerateCert;
  auto* banner = new QFrame(this);
  banner->setObjectName("pnlBanner");
  banner->setGeometry(0, 0, kWidth, 64);
  banner->setAutoFillBackground(true);
  QPalette pal = banner->palette();
  pal.setColor(QPalette::Window, Qt::white);
  pal.setColor(QPalette::WindowText, Qt::black);
  banner->setPalette(pal);
  info_ = new QLabel(banner);
  info_->setObjectName("lblInfo");
  info_->setGeometry(16, 10, 400, 44);
  info_->setWordWrap(true);
  info_->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
  QFont bold = font();
  bold.setBold(true);
  info_->setFont(bold);
  auto* picture = new QLabel(banner);
  picture->setObjectName("imgKey");
  picture->setGeometry(436, 8, 48, 48);
  picture->setPixmap(key_picture(devicePixelRatioF()));
  auto* top_rule = new QFrame(this);
  top_rule->setGeometry(0, 64, kWidth, 2);
  top_rule->setFrameStyle(QFrame::HLine | QFrame::Sunken);

  pages_ = new QStackedWidget(this);
  pages_->setObjectName("pcMain");
  pages_->setGeometry(8, 72, kWidth - 16, 296);
  pages_->addWidget(subject_page());
  pages_->addWidget(period_page());
  pages_->addWidget(generate_page());

  auto* bottom_rule = new QFrame(this);
  bottom_rule->setGeometry(0, 372, kWidth, 2);
  bottom_rule->setFrameStyle(QFrame::HLine | QFrame::Sunken);
  back_ = button("btnBack", q(W::kBack), QRect(248, 384, 75, 25));
  next_ = button("btnNext", q(W::kNext), QRect(323, 384, 75, 25));
  next_->setDefault(true);
  cancel_ = button("btnCancel", q(W::kCancel), QRect(412, 384, 75, 25));
  connect(back_, &QPushButton::clicked, this, [this] { guard([this] { model_.btnBackClick(); }); });
  connect(next_, &QPushButton::clicked, this, [this] {
    guard([this] { model_.btnNextClick(); });
    after_action();
  });
  connect(cancel_, &QPushButton::clicked, this, [this] {
    guard([this] { model_.btnCancelClick(); });  // asks first
    after_action();
  });

  // The generation's progress ticks and completion are run here, on the GUI thread; the
  // model keeps its own 200 ms rhythm, so polling faster only shortens the delay.
  pump_ = new QTimer(this);
  pump_->setInterval(40);
  connect(pump_, &QTimer::timeout, this, [this] {
    guard([this] { model_.ProcessMessages(); });
    after_action();
  });

  setTabOrder(common_name_, locality_);
  setTabOrder(locality_, state_);
  setTabOrder(state_, country_);
  setTabOrder(country_, organization_);
  setTabOrder(organization_, email_);
  setTabOrder(email_, from_);
  setTabOrder(from_, to_);
  setTabOrder(to_, generate_);
  setTabOrder(generate_, back_);
  setTabOrder(back_, next_);
  setTabOrder(next_, cancel_);
  sync();
  common_name_->setFocus();
}

QWidget* WizardForm::subject_page() {
  using W = TfrmGenerateCert;
  auto* page = new QWidget;
  page->setObjectName("tsEnterFields");
  child_label(page, "lblFields", q(W::kHeadingFields), 8, 4);
  auto* group = new QGroupBox(q(W::kGroupSubject), page);
  group->setObjectName("gbSubject");
  group->setGeometry(8, 28, 468, 240);
  struct Row {
    const char* label;
    bool required;
  };
  const Row rows[] = {{W::kLabelCommonName, true},   {W::kLabelLocality, true},
                      {W::kLabelState, false},       {W::kLabelCountry, true},
                      {W::kLabelOrganization, true}, {W::kLabelEmail, true}};
  for (int i = 0; i < 6; ++i) {
    const int y = 28 + i * 34;
    child_label(group, QStringLiteral("lbl%1").arg(i).toLatin1().constData(), q(rows[i].label), 16,
                y + 3);
    if (rows[i].required) {
      QLabel* star = child_label(group, QStringLiteral("req%1").arg(i).toLatin1().constData(),
                                 QStringLiteral("*"), 160, y + 3);
      star->setStyleSheet("color: #c00000");
    }
  }
  common_name_ = edit(group, "edtCommonName", 172, 28);
  locality_ = edit(group, "edtLocality", 172, 62);
  state_ = edit(group, "edtState", 172, 96);
  country_ = new QComboBox(group);
  country_->setObjectName("cbCountry");
  country_->setGeometry(172, 130, 280, 21);
  country_->setMaxVisibleItems(20);
  for (const auto& name : model_.cbCountryItems)
    country_->addItem(q(name));
  country_->setCurrentIndex(model_.cbCountryIndex);
  organization_ = edit(group, "edtOrganization", 172, 164);
  email_ = edit(group, "EdtEmail", 172, 198);

  const std::pair<QLineEdit*, std::string TfrmGenerateCert::*> fields[] = {
      {common_name_, &TfrmGenerateCert::edtCommonName},
      {locality_, &TfrmGenerateCert::edtLocality},
      {state_, &TfrmGenerateCert::edtState},
      {organization_, &TfrmGenerateCert::edtOrganization},
      {email_, &TfrmGenerateCert::EdtEmail}};
  for (const auto& [widget, member] : fields) {
    widget->setText(q(model_.*member));
    connect(widget, &QLineEdit::textChanged, this,
            [this, member = member](const QString& t) { set_utf8(model_.*member, t); });
  }
  connect(country_, &QComboBox::currentIndexChanged, this,
          [this](int i) { model_.cbCountryIndex = i; });
  return page;
}

QWidget* WizardForm::period_page() {
  using W = TfrmGenerateCert;
  auto* page = new QWidget;
  page->setObjectName("tsSpecifyPeriod");
  child_label(page, "lblPeriod", q(W::kHeadingPeriod), 8, 4);
  auto* group = new QGroupBox(q(W::kGroupPeriod), page);
  group->setObjectName("gbPeriod");
  group->setGeometry(8, 28, 468, 100);
  auto date = [&](const char* name, int y, DateTime value) {
    auto* d = new QDateEdit(group);
    d->setObjectName(QString::fromLatin1(name));
    d->setGeometry(64, y, 130, 21);
    d->setCalendarPopup(true);
    d->setDisplayFormat(QStringLiteral("dd/MM/yyyy"));
    d->setDateRange(to_qdate(W::kMinDate), to_qdate(W::kMaxDate));
    d->setDate(to_qdate(value));
    return d;
  };
  child_label(group, "lblFrom", q(W::kLabelFrom), 16, 31);
  from_ = date("dtpFrom", 28, model_.dtpFrom());
  child_label(group, "lblTo", q(W::kLabelTo), 16, 65);
  to_ = date("dtpTo", 62, model_.dtpTo());
  connect(from_, &QDateEdit::dateChanged, this,
          [this](QDate d) { model_.set_dtpFrom(from_qdate(d)); });
  connect(to_, &QDateEdit::dateChanged, this, [this](QDate d) { model_.set_dtpTo(from_qdate(d)); });
  return page;
}

QWidget* WizardForm::generate_page() {
  using W = TfrmGenerateCert;
  auto* page = new QWidget;
  page->setObjectName("tsGenerate");
  generate_text_ = new QLabel(page);
  generate_text_->setObjectName("lbGenerate");
  generate_text_->setGeometry(8, 4, 468, 40);
  generate_text_->setWordWrap(true);
  generate_text_->setAlignment(Qt::AlignLeft | Qt::AlignTop);
  generate_ = new QPushButton(q(W::kGenerateButton), page);
  generate_->setObjectName("btnGenerate");
  generate_->setGeometry(8, 52, 75, 25);
  generate_->setAutoDefault(false);
  progress_ = new QProgressBar(page);
  progress_->setObjectName("pbGenerate");
  progress_->setGeometry(96, 54, 380, 21);
  progress_->setRange(0, 100);
  progress_->setTextVisible(false);
  progress_->hide();
  auto* note = new QLabel(text(W::kGenerateNote), page);
  note->setObjectName("lblNote");
  note->setGeometry(8, 96, 468, 150);
  note->setWordWrap(true);
  note->setAlignment(Qt::AlignLeft | Qt::AlignTop);
  connect(generate_, &QPushButton::clicked, this, [this] {
    guard([this] { model_.btnGenerateClick(); });
    after_action();
  });
  return page;
}

void WizardForm::sync() {
  pages_->setCurrentIndex(static_cast<int>(model_.page()));
  info_->setText(text(model_.lblInfo().c_str()));
  generate_text_->setText(q(model_.lbGenerate()));
  back_->setEnabled(model_.BackEnabled());
  next_->setEnabled(model_.NextEnabled());
  cancel_->setEnabled(model_.CancelEnabled());
  generate_->setEnabled(model_.GenerateEnabled());
  progress_->setVisible(model_.ProgressVisible());
  progress_->setValue(model_.ProgressPosition());
  if (model_.Generating()) {
    if (!pump_->isActive()) pump_->start();
  } else {
    pump_->stop();
  }
}

void WizardForm::after_action() {
  if (model_.modal_result() != ModalResult::None) {
    pump_->stop();
    done(static_cast<int>(model_.modal_result()));
    return;
  }
  sync();
}

void WizardForm::keyPressEvent(QKeyEvent* e) {
  if (e->key() == Qt::Key_Escape) return;  // only Annulla or the close box end the wizard
  Form::keyPressEvent(e);
}

void WizardForm::reject() {
  // The close box: ends the wizard without the question; a running generation is stopped
  // and its thread joined before the form goes.
  guard([this] { model_.close_box(); });
  pump_->stop();
  done(static_cast<int>(model_.modal_result() == ModalResult::None ? ModalResult::Cancel
                                                                   : model_.modal_result()));
}

void WizardForm::closeEvent(QCloseEvent* e) {
  reject();
  e->accept();
}

}  // namespace tessarel::qt
