#include "app/window/KTOutlineSearch.h"

#include <QTreeView>

#include "app/window/KTOutlineModel.h"
#include "app/window/KTTreeLockGuard.h"
#include "catalogue/OutlineViewController.h"

KTOutlineSearch::KTOutlineSearch(OutlineViewController& controller, KTOutlineModel& model,
                                 QTreeView& tree, QObject* parent)
    : QObject(parent), controller_(controller), model_(model), tree_(tree) {
    timer_.setSingleShot(true);
    timer_.setInterval(kDelayMs);
    connect(&timer_, &QTimer::timeout, this, [this] { applyNow(); });
}

void KTOutlineSearch::textChanged(const QString& text) {
    text_ = text;
    timer_.start();
}

void KTOutlineSearch::applyNow() {
    timer_.stop();
    // A running load picks the text up when it ends.
    if (isReloading && isReloading()) return;
    setControllerText();
    model_.resetFromController();
    showResult();
    if (applied) applied();
}

void KTOutlineSearch::setControllerText() {
    KTTreeLockGuard l(controller_.treeLock());
    controller_.search(text_.toStdString());
}

void KTOutlineSearch::showResult() {
    if (!isSearching()) {
        if (restoreUserExpansion) restoreUserExpansion();
        return;
    }
    expanding_ = true;
    tree_.expandAll();
    expanding_ = false;
}
