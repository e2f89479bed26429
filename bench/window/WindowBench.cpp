// Drives the window offscreen over the tree named by AMBREL_ROOT and HOME and
// prints one line of figures (key=value), which scripts/bench --window reads:
//
//   shown_ms     from the start of main to the catalogue shown in the outline
//   settled_ms   until the bundle details are in and the rows sorted again
//   key_max_ms   the slowest keystroke in the search field (the event handled)
//   filter_ms    the slowest filtering pass after a pause in the typing
//   typed_ms     the slowest keystroke-to-result time (the pause included)
//   clear_ms     clearing the search: the whole tree back with its groups
//   select_ms    Select All, with the toolbar following the selection
//   *_cpu_ms     the same on the interface thread's CPU clock (load-independent)
//   rss_mb       resident memory with the catalogue shown (and hwm_mb, the peak)
#include <time.h>
#include <QAction>
#include <QApplication>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QSignalSpy>
#include <QTest>
#include <QTreeView>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "app/core/AppController.h"
#include "app/window/KTMainWindow.h"
#include "app/window/KTOutlineModel.h"
#include "app/window/KTOutlineSearch.h"
#include "app/window/KTQtMainThread.h"
#include "catalogue/OutlineViewController.h"

namespace {

double statusMB(const char* field) {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(field, 0) == 0)
            return std::stod(line.substr(std::string(field).size())) / 1024.0;
    return 0;
}

double ms(const QElapsedTimer& t) {
    return t.nsecsElapsed() / 1e6;
}

/// CPU time of the calling (interface) thread: on a loaded machine the wall
/// time mostly says how long the thread waited for a core.
double threadCpuMs() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
    QElapsedTimer sinceStart;
    sinceStart.start();
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication qapp(argc, argv);
    KTMainThread::setShared(std::make_shared<KTQtMainThread>());
    const QString query = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("plug");

    double shown = 0, settled = 0, keyMax = 0, filter = 0, typedMax = 0, clear = 0, select = 0,
           rss = 0;
    double filterCpu = 0, selectCpu = 0;
    double partFilter = 0, partRows = 0, partExpand = 0, partPaint = 0;
    long rows = 0, matches = 0;
    {
        AppController app;
        KTMainWindow window(app);
        window.resize(1000, 640);
        window.show();
        QSignalSpy shownSpy(&window, &KTMainWindow::catalogueShown);
        app.reloadData();
        if (!shownSpy.wait(600000)) {
            std::fprintf(stderr, "window-bench: the catalogue was never shown\n");
            return 1;
        }
        shown = ms(sinceStart);
        window.waitForBackgroundWork();
        app.outlineViewController().waitForBundleInspection();
        window.waitForBackgroundWork();
        QApplication::processEvents();
        settled = ms(sinceStart);
        rows = window.model()->shownPluginCount();
        rss = statusMB("VmRSS:");

        // Typing the query a letter at a time, as a person does: each key
        // event alone, then the filter when the pause has passed.
        QLineEdit* field = window.searchField();
        field->setFocus();
        for (QChar c : query) {
            QElapsedTimer t;
            t.start();
            QTest::keyClick(field, c.toLatin1());
            keyMax = std::max(keyMax, ms(t));
            while (window.outlineSearch()->isPending())
                QApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
            typedMax = std::max(typedMax, ms(t));
        }
        // The pass itself, without the pause: the same text once more.
        {
            QElapsedTimer f;
            f.start();
            const double cpu = threadCpuMs();
            window.outlineSearch()->applyNow();
            QApplication::processEvents();
            filter = ms(f);
            filterCpu = threadCpuMs() - cpu;
        }
        matches = window.model()->shownPluginCount();
        // The pass in its parts: the controller's filter, the rows, the groups opened.
        {
            QElapsedTimer t;
            t.start();
            window.outlineSearch()->setControllerText();
            partFilter = ms(t);
            t.restart();
            window.model()->resetFromController();
            partRows = ms(t);
            t.restart();
            window.outlineSearch()->showResult();
            partExpand = ms(t);
            t.restart();
            QApplication::processEvents();
            partPaint = ms(t);
        }
        {
            QElapsedTimer t;
            t.start();
            field->clear();
            window.outlineSearch()->applyNow();
            QApplication::processEvents();
            clear = ms(t);
        }
        {
            QElapsedTimer t;
            t.start();
            const double cpu = threadCpuMs();
            window.outline()->selectAll();
            QApplication::processEvents();
            select = ms(t);
            selectCpu = threadCpuMs() - cpu;
        }
        window.waitForBackgroundWork();
    }
    std::printf(
        "plugins=%ld shown_ms=%.0f settled_ms=%.0f key_max_ms=%.1f filter_ms=%.1f typed_ms=%.1f "
        "clear_ms=%.1f select_ms=%.1f rss_mb=%.1f hwm_mb=%.1f query=%s matches=%ld "
        "part_filter_ms=%.1f part_rows_ms=%.1f part_expand_ms=%.1f part_paint_ms=%.1f "
        "filter_cpu_ms=%.1f select_cpu_ms=%.1f\n",
        rows, shown, settled, keyMax, filter, typedMax, clear, select, rss, statusMB("VmHWM:"),
        query.toLocal8Bit().constData(), matches, partFilter, partRows, partExpand, partPaint,
        filterCpu, selectCpu);
    KTMainThread::setShared(std::make_shared<KTInlineMainThread>());
    KTLog::finishWriting();
    return 0;
}
