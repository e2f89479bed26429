#pragma once

#include <QWidget>

#include "diagnostics/KTAUValidator.h"

class KTAUValidatorModel;
class KTAUInspectorWindow;
class QProgressBar;
class QTableView;

/// The Audio Unit validator's window: one row per unit with its name,
/// manufacturer and status (with a status icon), sorted by a header click
/// (remembered in "auValSortedColumn" and "auValSortedDescending"), a busy
/// indicator while a run goes on, and the inspector on a double-click.
class KTAUValidatorWindow : public QWidget, public KTAUValidatorView {
    Q_OBJECT
  public:
    explicit KTAUValidatorWindow(KTAUValidator& validator, QWidget* parent = nullptr);
    ~KTAUValidatorWindow() override;

    /// The menu action: brings the window forward and starts a run.
    void validateAU();
    /// The double-click: the selected row's full report in the inspector.
    void auInspect(int row);

    // KTAUValidatorView (main thread)
    void reloadAUValTableView() override;
    void startAUValProgress() override;
    void endAUValProgress() override;
    void setSortIndicator(const std::string& column, std::optional<bool> descending) override;

    /// The column identifier of a table column, and back.
    static std::string columnIdentifier(int column);
    static int columnForIdentifier(const std::string& identifier);
    /// The 16 x 16 image of "Success", "Error" or "Warning": the desktop
    /// theme's, else drawn.
    static QIcon statusIcon(const std::string& imageName);

    // For tests.
    QTableView* table() const { return table_; }
    QProgressBar* busyIndicator() const { return busy_; }
    KTAUInspectorWindow* inspector() const { return inspector_; }

  private:
    KTAUValidator& validator_;
    KTAUValidatorModel* model_ = nullptr;
    QTableView* table_ = nullptr;
    QProgressBar* busy_ = nullptr;
    KTAUInspectorWindow* inspector_ = nullptr;
};
