#include "app/window/KTExportPanel.h"

#include <QFileDialog>
#include <QMessageBox>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "app/core/AppController.h"
#include "app/window/KTTreeLockGuard.h"
#include "catalogue/KTCatalogueExport.h"
#include "catalogue/KTDuplicateFinder.h"
#include "catalogue/OutlineViewController.h"

void KTExportPanel::run(QWidget* parent, AppController& app) {
    const QString json = QStringLiteral("JSON (*.json)"), csv = QStringLiteral("CSV (*.csv)");
    QString filter = json;
    QString path = QFileDialog::getSaveFileName(
        parent, QStringLiteral("Export Plugin List"),
        QString::fromStdString(KTLocalPaths::documentDirectory(true) + "/Plugins.json"),
        json + QStringLiteral(";;") + csv, &filter);
    if (path.isEmpty()) return;
    const bool asCSV =
        path.endsWith(QStringLiteral(".csv"), Qt::CaseInsensitive) ||
        (filter == csv && !path.endsWith(QStringLiteral(".json"), Qt::CaseInsensitive));
    if (asCSV && !path.endsWith(QStringLiteral(".csv"), Qt::CaseInsensitive))
        path += QStringLiteral(".csv");
    if (!asCSV && !path.endsWith(QStringLiteral(".json"), Qt::CaseInsensitive))
        path += QStringLiteral(".json");

    std::vector<KTCatalogueEntry> entries;
    {
        KTTreeLockGuard l(app.outlineViewController().treeLock());
        entries = KTCatalogueEntry::collect(app);
    }
    KTDuplicateFinder::find(entries);
    const std::string text = KTCatalogueExport::text(
        entries, asCSV ? KTCatalogueExport::Format::CSV : KTCatalogueExport::Format::JSON);
    std::string error;
    if (!KTCatalogueExport::writeFile(path.toStdString(), text, &error)) {
        KTLog::appendLog("Unable to export the plugin list to %@ - %@", path.toStdString(), error);
        QMessageBox::warning(
            parent, QStringLiteral("Unable to export the plugin list"),
            QStringLiteral("%1 could not be written: %2").arg(path, QString::fromStdString(error)));
        return;
    }
    KTLog::appendLog("Exported %i plugins to %@", static_cast<int>(entries.size()),
                     path.toStdString());
}
