#include <QContextMenuEvent>
#include <QFrame>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QTreeWidget>
#include <algorithm>

#include "qt/forms.h"

namespace tessarel::qt {

namespace {
constexpr QSize kClient(514, 426);
constexpr QRect kList(8, 32, 498, 260);
constexpr QRect kOk(341, 393, 75, 25), kCancel(431, 393, 75, 25);
constexpr QRect kPanel(8, 298, 501, 89);
}  // namespace

PickerForm::PickerForm(TfrmSelWinCert& model, QWidget* parent)
    : Form(parent, "frmSelWinCert", TfrmSelWinCert::kCaption, kClient, true, Placement::OverParent),
      model_(model) {
  label1_ = label("Label1", q(model_.Label1()), 8, 8);
  make_list();
  make_menu();
  make_buttons();
  make_panel();

  anchor(label1_, Qt::LeftEdge | Qt::TopEdge);
  anchor(list_, Qt::LeftEdge | Qt::TopEdge | Qt::RightEdge | Qt::BottomEdge);
  anchor(ok_, Qt::RightEdge | Qt::BottomEdge);
  anchor(cancel_, Qt::RightEdge | Qt::BottomEdge);
  anchor(panel_, Qt::LeftEdge | Qt::TopEdge);
  setTabOrder(list_, ok_);
  setTabOrder(ok_, cancel_);
  list_->setFocus();
  // Smaller than this the list would have no room left below its header.
  setMinimumSize(300, kClient.height() - kList.height() + 40);
}

void PickerForm::make_list() {
  list_ = new QTreeWidget(this);
  list_->setObjectName("lvCerificates");
  list_->setGeometry(kList);
  list_->setRootIsDecorated(false);
  list_->setItemsExpandable(false);
  list_->setUniformRowHeights(true);
  list_->setAllColumnsShowFocus(true);
  list_->setSelectionMode(QAbstractItemView::SingleSelection);
  list_->setSelectionBehavior(QAbstractItemView::SelectRows);
  list_->setEditTriggers(QAbstractItemView::NoEditTriggers);
  list_->setColumnCount(static_cast<int>(TfrmSelWinCert::kColumns.size()));
  QStringList captions;
  for (const auto& c : TfrmSelWinCert::kColumns)
    captions << q(c.caption);
  list_->setHeaderLabels(captions);
  list_->header()->setStretchLastSection(false);
  for (int i = 0; i < static_cast<int>(TfrmSelWinCert::kColumns.size()); ++i)
    list_->setColumnWidth(i, TfrmSelWinCert::kColumns[static_cast<std::size_t>(i)].width);
  list_->setContextMenuPolicy(Qt::CustomContextMenu);
  connect(list_, &QTreeWidget::itemSelectionChanged, this, [this] {
    guard([this] {
      auto selected = list_->selectedItems();
      model_.lvCerificatesChange(selected.isEmpty() ? -1
                                                    : list_->indexOfTopLevelItem(selected.front()));
      update_info();
    });
  });
}

void PickerForm::make_menu() {
  menu_ = new QMenu(this);
  menu_->setObjectName("PopupMenu1");
  QAction* remove = menu_->addAction(q(TfrmSelWinCert::kRemoveItem));
  remove->setObjectName("RimuoviCertificato1");
  connect(remove, &QAction::triggered, this, [this] {
    guard([this] {
      int row = model_.selected_row();
      std::size_t before = model_.rows().size();
      model_.RimuoviCertificato1Click();
      if (model_.rows().size() < before && row >= 0) {
        QSignalBlocker block(list_);
        delete list_->takeTopLevelItem(row);
        list_->clearSelection();
        list_->setCurrentItem(nullptr);
      }
      update_info();
    });
  });
  connect(list_, &QTreeWidget::customContextMenuRequested, this,
          [this](const QPoint& at) { menu_->popup(list_->viewport()->mapToGlobal(at)); });
}

void PickerForm::make_buttons() {
  ok_ = button("btnOK", q(TfrmSelWinCert::kOk), kOk);
  cancel_ = button("btnCancel", q(TfrmSelWinCert::kCancel), kCancel);
  connect(ok_, &QPushButton::clicked, this, [this] {
    guard([this] {
      model_.btnOKClick();  // may warn about non-repudiation first
      finish_if_closed();
    });
  });
  connect(cancel_, &QPushButton::clicked, this, [this] {
    model_.btnCancelClick();
    finish_if_closed();
  });
}

void PickerForm::make_panel() {
  panel_ = new QFrame(this);
  panel_->setObjectName("Panel1");
  panel_->setGeometry(kPanel);
  panel_->setFrameStyle(QFrame::Box | QFrame::Sunken);  // lowered outside, raised inside
  auto in_panel = [this](const char* name, const QString& text, int x, int y) {
    auto* l = new QLabel(text, panel_);
    l->setObjectName(QString::fromLatin1(name));
    l->move(x, y);
    l->adjustSize();
    return l;
  };
  QLabel* lb_key = in_panel("lbPrivateKey", q(TfrmSelWinCert::kLbPrivateKey), 16, 16);
  QLabel* lb_usage = in_panel("lbUsage", q(TfrmSelWinCert::kLbUsage), 16, 48);
  // The values start at 120 unless the desktop font makes a caption reach further; the
  // usage text keeps its right edge.
  const int value_x =
      std::max({120, lb_key->geometry().right() + 6, lb_usage->geometry().right() + 6});
  private_key_ = in_panel("dlbPrivateKey", QString(), value_x, 16);
  usage_ = new QLabel(panel_);
  usage_->setObjectName("dlbUsage");
  usage_->setGeometry(value_x, 48, 120 + 369 - value_x, 33);
  usage_->setWordWrap(true);
  usage_->setAlignment(Qt::AlignLeft | Qt::AlignTop);
}

void PickerForm::fill() {
  QSignalBlocker block(list_);
  list_->clear();
  for (const auto& row : model_.rows()) {
    QStringList cells;
    for (const auto& cell : row.cells)
      cells << q(cell);
    list_->addTopLevelItem(new QTreeWidgetItem(cells));
  }
  update_info();
}

void PickerForm::update_info() {
  private_key_->setText(q(model_.dlbPrivateKey()));
  private_key_->adjustSize();
  usage_->setText(q(model_.dlbUsage()));
}

void PickerForm::finish_if_closed() {
  if (model_.modal_result() != ModalResult::None) done(static_cast<int>(model_.modal_result()));
}

void PickerForm::escape() {
  model_.escape();
  finish_if_closed();
}

void PickerForm::reject() {
  model_.close_box();
  finish_if_closed();
}

}  // namespace tessarel::qt
