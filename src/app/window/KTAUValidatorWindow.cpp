#include "app/window/KTAUValidatorWindow.h"

#include <QAbstractTableModel>
#include <QHeaderView>
#include <QIcon>
#include <QPainter>
#include <QPainterPath>
#include <QPixmap>
#include <QProgressBar>
#include <QTableView>
#include <QVBoxLayout>
#include <map>

#include "app/window/KTAUInspectorWindow.h"

namespace {

const char* const kColumns[] = {KTAUValidator::colTitle, KTAUValidator::colManufacturer,
                                KTAUValidator::colStatus};
const char* const kHeaders[] = {"Name", "Manufacturer", "Status"};

/// A status image drawn in the spirit of the usual ones: a green disc with
/// a tick, a red disc with a cross, an amber triangle with a bar.
QPixmap drawnStatusImage(const std::string& name) {
    QPixmap pixmap(32, 32);  // drawn at twice the size, shown at 16 x 16
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    QPen mark(Qt::white, 4, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    if (name == "Warning") {
        QPainterPath triangle;
        triangle.moveTo(16, 2);
        triangle.lineTo(30, 29);
        triangle.lineTo(2, 29);
        triangle.closeSubpath();
        p.fillPath(triangle, QColor(0xF0, 0xA8, 0x18));
        p.setPen(mark);
        p.drawLine(16, 11, 16, 19);
        p.drawPoint(16, 24);
        return pixmap;
    }
    p.setPen(Qt::NoPen);
    p.setBrush(name == "Success" ? QColor(0x2E, 0xA0, 0x43) : QColor(0xD7, 0x3A, 0x3A));
    p.drawEllipse(1, 1, 30, 30);
    p.setPen(mark);
    if (name == "Success") {
        p.drawPolyline(QPolygon({QPoint(9, 16), QPoint(14, 21), QPoint(23, 11)}));
    } else {
        p.drawLine(11, 11, 21, 21);
        p.drawLine(21, 11, 11, 21);
    }
    return pixmap;
}

}  // namespace

/// The table's rows: the validator's list, read on the main thread.
class KTAUValidatorModel : public QAbstractTableModel {
  public:
    KTAUValidatorModel(KTAUValidator& validator, QObject* parent)
        : QAbstractTableModel(parent), validator_(validator) {}

    void reload() {
        beginResetModel();
        rows_ = validator_.auValArray();
        endResetModel();
    }
    /// Status changes only: redraw without losing the selection.
    void refresh() {
        if (rows_ != validator_.auValArray()) return reload();
        if (!rows_.empty()) emit dataChanged(index(0, 0), index(rowCount() - 1, 2));
    }
    KTAURecordPtr record(int row) const {
        return row >= 0 && row < rowCount() ? rows_[static_cast<std::size_t>(row)] : nullptr;
    }

    int rowCount(const QModelIndex& parent = {}) const override {
        return parent.isValid() ? 0 : static_cast<int>(rows_.size());
    }
    int columnCount(const QModelIndex& parent = {}) const override {
        return parent.isValid() ? 0 : 3;
    }
    QVariant data(const QModelIndex& index, int role) const override {
        const KTAURecordPtr r = record(index.row());
        if (!r) return {};
        const std::string column = KTAUValidatorWindow::columnIdentifier(index.column());
        if (role == Qt::DisplayRole)
            return QString::fromStdString(r->valueForKey(KTAUValidator::keyForColumn(column)));
        if (role == Qt::DecorationRole && column == KTAUValidator::colStatus) {
            const std::string image = KTAUValidator::imageNameForStatus(r->status());
            if (!image.empty()) return KTAUValidatorWindow::statusIcon(image);
        }
        return {};
    }
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override {
        if (orientation == Qt::Horizontal && role == Qt::DisplayRole && section >= 0 && section < 3)
            return QString::fromLatin1(kHeaders[section]);
        return {};
    }

  private:
    KTAUValidator& validator_;
    std::vector<KTAURecordPtr> rows_;
};

KTAUValidatorWindow::KTAUValidatorWindow(KTAUValidator& validator, QWidget* parent)
    : QWidget(parent, Qt::Window), validator_(validator) {
    setWindowTitle(QStringLiteral("Audio Unit Validation"));
    model_ = new KTAUValidatorModel(validator_, this);
    table_ = new QTableView(this);
    table_->setModel(model_);
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->setSelectionMode(QAbstractItemView::SingleSelection);
    table_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    table_->setIconSize(QSize(16, 16));
    table_->verticalHeader()->hide();
    table_->setAlternatingRowColors(true);
    QHeaderView* header = table_->horizontalHeader();
    header->setSectionsClickable(true);
    header->setSortIndicatorShown(false);
    header->setSectionResizeMode(0, QHeaderView::Stretch);
    header->resizeSection(1, 180);
    header->resizeSection(2, 150);
    connect(header, &QHeaderView::sectionClicked, this,
            [this](int section) { validator_.didClickTableColumn(columnIdentifier(section)); });
    connect(table_, &QTableView::doubleClicked, this,
            [this](const QModelIndex& index) { auInspect(index.row()); });

    busy_ = new QProgressBar(this);
    busy_->setRange(0, 0);
    busy_->setMaximumHeight(12);
    busy_->setTextVisible(false);
    busy_->hide();
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(table_);
    layout->addWidget(busy_);
    resize(620, 420);

    inspector_ = new KTAUInspectorWindow(validator_, this);
    validator_.setView(this);
    model_->reload();
    if (validator_.hasList()) validator_.applySortingForTableView();
}

KTAUValidatorWindow::~KTAUValidatorWindow() {
    validator_.setView(nullptr);
}

std::string KTAUValidatorWindow::columnIdentifier(int column) {
    return column >= 0 && column < 3 ? kColumns[column] : "";
}

int KTAUValidatorWindow::columnForIdentifier(const std::string& identifier) {
    for (int i = 0; i < 3; ++i)
        if (identifier == kColumns[i]) return i;
    return -1;
}

QIcon KTAUValidatorWindow::statusIcon(const std::string& imageName) {
    static const std::map<std::string, const char*> themeNames = {{"Success", "emblem-ok-symbolic"},
                                                                  {"Error", "dialog-error"},
                                                                  {"Warning", "dialog-warning"}};
    const auto it = themeNames.find(imageName);
    if (it != themeNames.end() && QIcon::hasThemeIcon(QString::fromLatin1(it->second)))
        return QIcon::fromTheme(QString::fromLatin1(it->second));
    static std::map<std::string, QIcon> drawn;
    auto& icon = drawn[imageName];
    if (icon.isNull()) icon = QIcon(drawnStatusImage(imageName));
    return icon;
}

void KTAUValidatorWindow::validateAU() {
    show();
    raise();
    activateWindow();
    validator_.validateAU();
}

void KTAUValidatorWindow::auInspect(int row) {
    inspector_->inspect(model_->record(row));
}

void KTAUValidatorWindow::reloadAUValTableView() {
    model_->refresh();
}

void KTAUValidatorWindow::startAUValProgress() {
    busy_->show();
}

void KTAUValidatorWindow::endAUValProgress() {
    busy_->hide();
}

void KTAUValidatorWindow::setSortIndicator(const std::string& column,
                                           std::optional<bool> descending) {
    QHeaderView* header = table_->horizontalHeader();
    const int section = columnForIdentifier(column);
    if (!descending) {
        if (section == header->sortIndicatorSection()) header->setSortIndicatorShown(false);
        return;
    }
    header->setSortIndicatorShown(true);
    header->setSortIndicator(section, *descending ? Qt::DescendingOrder : Qt::AscendingOrder);
}
