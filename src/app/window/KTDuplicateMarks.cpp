#include "app/window/KTDuplicateMarks.h"

#include "catalogue/KTDuplicateFinder.h"
#include "catalogue/KTPluginItem.h"

std::unordered_map<const KTItem*, KTOutlineModel::DuplicateMark> KTDuplicateMarks::compute(
    AppController& app) {
    std::vector<KTCatalogueEntry> entries = KTCatalogueEntry::collect(app);
    const auto sets = KTDuplicateFinder::find(entries);
    std::unordered_map<const KTItem*, KTOutlineModel::DuplicateMark> marks;
    for (const auto& set : sets) {
        for (const auto& copy : set.copies) {
            const KTCatalogueEntry& e = entries[copy.entry];
            QString tip = QStringLiteral("Found %1 times (%2).\n")
                              .arg(set.copies.size())
                              .arg(QString::fromStdString(set.why));
            tip += QString::fromStdString((copy.inUse      ? "In use: "
                                           : copy.shadowed ? "Not loaded: "
                                                           : "Not used: ") +
                                          copy.reason);
            marks[e.item.get()] = {copy.inUse, tip};
        }
    }
    return marks;
}
