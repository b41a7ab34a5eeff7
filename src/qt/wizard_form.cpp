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

#include "qt/forms.h"

namespace tessarel::qt {

namespace {

QDate to_qdate(DateTime d) {
  const TfrmGenerateCert::Day day = TfrmGenerateCert::ToDay(d);
  return QDate(day.year, day.month, day.day);
}
DateTime from_qdate(QDate d) {
  return TfrmGenerateCert::FromDay({d.year(), d.month(), d.day()});
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

  // The subject's fields in the model's order, then the dates, then the buttons.
  for (std::size_t i = 0; i + 1 < fields_.size(); ++i)
    setTabOrder(fields_[i], fields_[i + 1]);
  setTabOrder(fields_.back(), from_);
  setTabOrder(from_, to_);
  setTabOrder(to_, generate_);
  setTabOrder(generate_, back_);
  setTabOrder(back_, next_);
  setTabOrder(next_, cancel_);
  sync();
  fields_.front()->setFocus();
}

QWidget* WizardForm::subject_page() {
  using W = TfrmGenerateCert;
  auto* page = new QWidget;
  page->setObjectName("tsEnterFields");
  child_label(page, "lblFields", q(W::kHeadingFields), 8, 4);
  auto* group = new QGroupBox(q(W::kGroupSubject), page);
  group->setObjectName("gbSubject");
  group->setGeometry(8, 28, 468, 240);
  // One row per field of the model, in its order; a required field's caption is followed
  // by a red asterisk.
  int row = 0;
  for (const W::SubjectField& f : W::kSubjectFields) {
    const int y = 28 + row * 34;
    QLabel* caption = child_label(group, QStringLiteral("lbl%1").arg(row).toLatin1().constData(),
                                  q(f.label), 16, y + 3);
    if (f.required) {
      QLabel* star = child_label(group, QStringLiteral("req%1").arg(row).toLatin1().constData(),
                                 QStringLiteral("*"), 160, y + 3);
      star->setStyleSheet("color: #c00000");
    }
    if (f.text) {
      auto* e = edit(group, f.control, 172, y);
      e->setText(q(model_.*f.text));
      connect(e, &QLineEdit::textChanged, this,
              [this, member = f.text](const QString& t) { set_utf8(model_.*member, t); });
      caption->setBuddy(e);
      fields_.push_back(e);
    } else {
      auto* country = new QComboBox(group);
      country->setObjectName(QString::fromLatin1(f.control));
      country->setGeometry(172, y, 280, 21);
      country->setMaxVisibleItems(20);
      for (const auto& name : model_.cbCountryItems)
        country->addItem(q(name));
      country->setCurrentIndex(model_.cbCountryIndex);
      connect(country, &QComboBox::currentIndexChanged, this,
              [this](int i) { model_.cbCountryIndex = i; });
      caption->setBuddy(country);
      fields_.push_back(country);
    }
    ++row;
  }
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
  QLabel* from_caption = child_label(group, "lblFrom", q(W::kLabelFrom), 16, 31);
  from_ = date("dtpFrom", 28, model_.dtpFrom());
  from_caption->setBuddy(from_);
  QLabel* to_caption = child_label(group, "lblTo", q(W::kLabelTo), 16, 65);
  to_ = date("dtpTo", 62, model_.dtpTo());
  to_caption->setBuddy(to_);
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

void WizardForm::escape() {
  guard([this] { model_.escape(); });
  after_action();
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
