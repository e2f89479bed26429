// The main window under Qt's offscreen platform, over scratch trees: the
// outline's rows, sorting and expansion across reloads, check boxes that move
// plug-ins on disk, drags and drops through the view, the search, the printed
// list read back from PDF, the context menu, and the interface seam answering
// a worker thread.
#include <QAbstractButton>
#include <QAccessible>
#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QDialog>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QMimeData>
#include <QPrinter>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QSignalSpy>
#include <QTest>
#include <QTextDocument>
#include <QTimer>
#include <QTreeView>
#include <QUrl>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <regex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/KTPreferences.h"
#include "SharedFiles/KTWorkspace.h"
#include "app/core/AppController.h"
#include "app/window/KTMainWindow.h"
#include "app/window/KTOutlineContextMenu.h"
#include "app/window/KTOutlineModel.h"
#include "app/window/KTOutlineSearch.h"
#include "app/window/KTPrintRenderer.h"
#include "app/window/KTQtMainThread.h"
#include "app/window/KTQtUserInterface.h"
#include "catalogue/KTItemArchive.h"
#include "catalogue/KTPluginItem.h"
#include "catalogue/KTPluginLocations.h"
#include "catalogue/OutlineViewController.h"
#include "installer/KTPluginListExport.h"
#include "operations/KTFileMover.h"
#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

// Fontconfig keeps a cache for the life of the process, which Qt never frees.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig\n";
}
using Col = KTOutlineModel::Column;

namespace {

QApplication& qtApp() {
    static int argc = 1;
    static char name[] = "test_app";
    static char* argv[] = {name, nullptr};
    static QApplication* app = [] {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        return new QApplication(argc, argv);
    }();
    return *app;
}

/// Handles events until `done` holds or 20 seconds have passed.
bool waitUntil(const std::function<bool()>& done) {
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(5);
    }
    return true;
}

std::string plist(const std::string& body) {
    return "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>" + body + "</dict></plist>";
}

void makeBundle(const std::string& path, const std::string& name, const std::string& version) {
    ScratchRoot::writeFile(
        path + "/Contents/Info.plist",
        plist("<key>CFBundleName</key><string>" + name +
              "</string><key>CFBundleShortVersionString</key><string>" + version + "</string>"));
}

/// The window over a scratch tree of five plug-ins: Glow (FxPlug, 1.0), the
/// group Pack with Blur (2.0) and Haze (locked), Hum (the user's Audio Unit)
/// and Dim (a disabled FxPlug).
class MainWindowTest : public ::testing::Test {
  protected:
    void SetUp() override {
        qtApp();
        KTMainThread::setShared(std::make_shared<KTQtMainThread>());
        KTFileMover::setPrivilegedPauseSecondsForTesting(0);
        KTLog::resetForTesting();
        fx = scratch.rootPath("/Library/Plug-Ins/FxPlug");
        makeBundle(fx + "/Glow.fxplug", "Glow", "1.0");
        makeBundle(fx + "/Pack/Blur.fxplug", "Blur", "2.0");
        makeBundle(fx + "/Pack/Haze.fxplug", "Haze", "3.0");
        ScratchRoot::writeFile(fx + "/Pack/Haze.fxplug/.fxfactory.plist", plist(""));
        makeBundle(scratch.homePath("/Library/Audio/Plug-Ins/Components/Hum.component"), "Hum", "");
        makeBundle(KTPluginLocations::disabledPath() + "/Library/Plug-Ins/FxPlug/Dim.fxplug", "Dim",
                   "0.9");
    }
    void TearDown() override {
        if (window) window->waitForBackgroundWork();
        window.reset();
        app.reset();
        KTLog::finishWriting();
        KTLog::resetForTesting();
        KTMainThread::setShared(std::make_shared<KTInlineMainThread>());
    }

    void open() {
        app = std::make_unique<AppController>();
        window = std::make_unique<KTMainWindow>(*app);
        window->show();
        reload();
    }
    void reload() {
        QSignalSpy shown(window.get(), &KTMainWindow::catalogueShown);
        app->reloadData();
        ASSERT_TRUE(shown.wait(20000));
        window->waitForBackgroundWork();
        app->outlineViewController().waitForBundleInspection();
    }

    KTOutlineModel& model() { return *window->model(); }
    QString cell(const QModelIndex& row, int column, int role = Qt::DisplayRole) {
        return model().data(row.siblingAtColumn(column), role).toString();
    }
    int checkState(const QModelIndex& row, int column) {
        return model().data(row.siblingAtColumn(column), Qt::CheckStateRole).toInt();
    }
    QStringList topNames() {
        QStringList names;
        for (int r = 0; r < model().rowCount(); ++r)
            names << cell(model().index(r, 0), Col::colName);
        return names;
    }
    /// Types into the search field and waits for the filter to run.
    void search(const QString& text) {
        window->searchField()->setText(text);
        ASSERT_TRUE(waitUntil([&] { return !window->outlineSearch()->isPending(); }));
    }
    QModelIndex row(const std::string& name, const QModelIndex& parent = {}) {
        for (int r = 0; r < model().rowCount(parent); ++r) {
            QModelIndex i = model().index(r, 0, parent);
            if (cell(i, Col::colName).toStdString() == name) return i;
            if (QModelIndex inner = row(name, i); inner.isValid()) return inner;
        }
        return {};
    }

    /// Drags `data` over the middle of `target`'s row and drops it there, as
    /// the mouse would; true when the view took the drop.
    bool dropOnRow(const QModelIndex& target, const QMimeData* data, Qt::DropAction action) {
        QTreeView* tree = window->outline();
        if (target.parent().isValid()) tree->expand(target.parent());
        tree->scrollTo(target);
        QWidget* viewport = tree->viewport();
        const QPoint at = tree->visualRect(target).center();
        const Qt::DropActions actions = Qt::CopyAction | Qt::MoveAction;
        QDragEnterEvent enter(at, actions, data, Qt::LeftButton, {});
        enter.setDropAction(action);
        QApplication::sendEvent(viewport, &enter);
        QDragMoveEvent move(at, actions, data, Qt::LeftButton, {});
        move.setDropAction(action);
        QApplication::sendEvent(viewport, &move);
        QDropEvent drop(QPointF(at), actions, data, Qt::LeftButton, {});
        drop.setDropAction(action);
        QApplication::sendEvent(viewport, &drop);
        return drop.isAccepted();
    }
    void selectRows(std::initializer_list<const char*> names) {
        QItemSelection selection;
        for (const char* name : names)
            selection.select(row(name), row(name).siblingAtColumn(Col::colUser));
        window->outline()->selectionModel()->select(selection, QItemSelectionModel::ClearAndSelect);
    }

    ScratchRoot scratch;
    std::string fx;
    std::unique_ptr<AppController> app;
    std::unique_ptr<KTMainWindow> window;
};

}  // namespace

TEST_F(MainWindowTest, RowsOfAScratchTreeAndTheCountLine) {
    open();
    EXPECT_EQ(topNames(), (QStringList{"Dim", "Glow", "Hum", "Pack"}));
    EXPECT_EQ(window->countLine()->text(), "5 plugins, 4 enabled");

    QModelIndex glow = row("Glow");
    EXPECT_EQ(cell(glow, Col::colVersion), "1.0");
    EXPECT_EQ(cell(glow, Col::colType), "FxPlug");
    EXPECT_EQ(checkState(glow, Col::colStatus), Qt::Checked);
    EXPECT_EQ(checkState(glow, Col::colUser), Qt::Unchecked);
    QModelIndex hum = row("Hum");
    EXPECT_EQ(cell(hum, Col::colType), "Audio Unit");
    EXPECT_EQ(checkState(hum, Col::colUser), Qt::Checked);
    EXPECT_EQ(checkState(row("Dim"), Col::colStatus), Qt::Unchecked);

    QModelIndex pack = row("Pack");
    EXPECT_EQ(cell(pack, Col::colType), "Group");
    EXPECT_EQ(cell(pack, Col::colVersion), "");
    EXPECT_EQ(model().rowCount(pack), 2);
    EXPECT_EQ(checkState(pack, Col::colStatus), Qt::Checked);
    // The locked plug-in's box cannot be clicked; the others' can.
    EXPECT_FALSE(model().flags(row("Haze").siblingAtColumn(Col::colStatus)) &
                 Qt::ItemIsUserCheckable);
    EXPECT_TRUE(model().flags(glow.siblingAtColumn(Col::colStatus)) & Qt::ItemIsUserCheckable);

    // The search shows the filtered tree; clearing it brings the whole back.
    search("bl");
    EXPECT_EQ(topNames(), (QStringList{"Pack"}));
    EXPECT_EQ(model().rowCount(row("Pack")), 1);
    EXPECT_EQ(window->countLine()->text(), "1 of 5 plugins shown");
    search("");
    EXPECT_EQ(topNames().size(), 4);
    EXPECT_EQ(window->countLine()->text(), "5 plugins, 4 enabled");
}

TEST_F(MainWindowTest, SortingSelectionAndExpandedGroupsSurviveAReload) {
    open();
    QHeaderView* header = window->outline()->header();
    auto clickHeader = [&](int column) {
        QTest::mouseClick(
            header->viewport(), Qt::LeftButton, {},
            QPoint(header->sectionViewportPosition(column) + 5, header->height() / 2));
    };
    clickHeader(Col::colVersion);
    EXPECT_EQ(KTPreferences::standard().stringForKey("sortedColumn"), "colVersion");
    EXPECT_FALSE(KTPreferences::standard().boolForKey("sortedDescending"));
    const QStringList ascending = topNames();
    EXPECT_EQ(ascending.indexOf("Dim"), ascending.indexOf("Glow") - 1);
    EXPECT_EQ(ascending.last(), "Pack");  // groups after every plug-in
    clickHeader(Col::colVersion);
    EXPECT_TRUE(KTPreferences::standard().boolForKey("sortedDescending"));
    const QStringList sorted = topNames();
    QStringList reversed(ascending.rbegin(), ascending.rend());
    EXPECT_EQ(sorted, reversed);

    window->outline()->expand(row("Pack"));
    EXPECT_EQ(KTPreferences::standard().stringArrayForKey("expandedItems"),
              std::vector<std::string>{"Pack"});
    window->outline()->selectionModel()->select(
        row("Blur"), QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);

    reload();
    EXPECT_EQ(topNames(), sorted);
    EXPECT_EQ(header->sortIndicatorSection(), Col::colVersion);
    EXPECT_EQ(header->sortIndicatorOrder(), Qt::DescendingOrder);
    EXPECT_TRUE(window->outline()->isExpanded(row("Pack")));
    const KTItemList selected = window->selectedItems();
    ASSERT_EQ(selected.size(), 1u);
    EXPECT_EQ(selected[0]->sortName(), "Blur");
    EXPECT_EQ(window->enableAction()->text(), "Disable");

    window->outline()->collapse(row("Pack"));
    EXPECT_TRUE(KTPreferences::standard().stringArrayForKey("expandedItems").empty());
}

TEST_F(MainWindowTest, UntickingTheStatusBoxDisablesOnDiskAndUpdatesTheCount) {
    open();
    const std::string disabledGlow =
        KTPluginLocations::disabledPath() + "/Library/Plug-Ins/FxPlug/Glow.fxplug";
    ASSERT_TRUE(model().setData(row("Glow").siblingAtColumn(Col::colStatus), Qt::Unchecked,
                                Qt::CheckStateRole));
    ASSERT_TRUE(waitUntil([&] {
        return fs::exists(disabledGlow) && window->countLine()->text() == "5 plugins, 3 enabled";
    }));
    EXPECT_FALSE(fs::exists(fx + "/Glow.fxplug"));
    EXPECT_EQ(checkState(row("Glow"), Col::colStatus), Qt::Unchecked);

    // Ticking the box of a disabled plug-in brings it back.
    ASSERT_TRUE(model().setData(row("Dim").siblingAtColumn(Col::colStatus), Qt::Checked,
                                Qt::CheckStateRole));
    ASSERT_TRUE(waitUntil([&] {
        return fs::exists(fx + "/Dim.fxplug") &&
               window->countLine()->text() == "5 plugins, 4 enabled";
    }));

    // A group's box moves its members; the locked one stays, so the group is mixed.
    const std::string disabledBlur =
        KTPluginLocations::disabledPath() + "/Library/Plug-Ins/FxPlug/Pack/Blur.fxplug";
    ASSERT_TRUE(model().setData(row("Pack").siblingAtColumn(Col::colStatus), Qt::Unchecked,
                                Qt::CheckStateRole));
    ASSERT_TRUE(waitUntil([&] {
        return fs::exists(disabledBlur) && window->countLine()->text() == "5 plugins, 3 enabled";
    }));
    window->waitForBackgroundWork();
    EXPECT_TRUE(fs::exists(fx + "/Pack/Haze.fxplug"));
    EXPECT_EQ(checkState(row("Pack"), Col::colStatus), Qt::PartiallyChecked);
}

TEST_F(MainWindowTest, ToolbarTogglesFollowTheSelectionAndMoveIt) {
    open();
    auto select = [&](std::initializer_list<const char*> names) {
        QItemSelection selection;
        for (const char* name : names)
            selection.select(row(name), row(name).siblingAtColumn(Col::colUser));
        window->outline()->selectionModel()->select(selection, QItemSelectionModel::ClearAndSelect);
    };
    select({"Dim"});
    EXPECT_EQ(window->enableAction()->text(), "Enable");
    select({"Hum"});
    EXPECT_EQ(window->scopeAction()->text(), "All Users");
    select({"Glow", "Hum"});
    EXPECT_EQ(window->enableAction()->text(), "Disable");
    EXPECT_EQ(window->scopeAction()->text(), "Current User");

    window->enableAction()->trigger();
    ASSERT_TRUE(waitUntil([&] {
        return fs::exists(KTPluginLocations::disabledPath() +
                          "/Library/Plug-Ins/FxPlug/Glow.fxplug") &&
               window->countLine()->text() == "5 plugins, 2 enabled";
    }));
    window->waitForBackgroundWork();
    EXPECT_EQ(window->enableAction()->text(), "Enable");
    EXPECT_TRUE(window->enableAction()->isEnabled());

    select({"Blur"});
    window->scopeAction()->trigger();
    ASSERT_TRUE(waitUntil(
        [&] { return fs::exists(scratch.homePath("/Library/Plug-Ins/FxPlug/Pack/Blur.fxplug")); }));
    window->waitForBackgroundWork();
    EXPECT_EQ(checkState(row("Blur"), Col::colUser), Qt::Checked);
}

TEST_F(MainWindowTest, DragsAndDrops) {
    open();
    QModelIndex glow = row("Glow"), haze = row("Haze"), pack = row("Pack");

    // A drag holding a locked plug-in does not start, whatever else it holds.
    EXPECT_EQ(model().mimeData({glow, haze}), nullptr);
    std::unique_ptr<QMimeData> drag(model().mimeData({glow, pack}));
    ASSERT_NE(drag, nullptr);
    const QByteArray bytes = drag->data(KTOutlineModel::kPboardType);
    auto items = KTItemArchive::unarchiveObjectWithData(std::string(bytes.data(), bytes.size()));
    ASSERT_TRUE(items && items->size() == 2);
    EXPECT_EQ((*items)[0]->sortName(), "Glow");
    EXPECT_EQ((*items)[1]->sortName(), "Pack");

    KTItemPtr droppedOn;
    std::size_t rowsDropped = 0;
    model().rowDropHandler = [&](const KTItemList& list, const KTItemPtr& target,
                                 const std::vector<std::string>&) {
        rowsDropped = list.size();
        droppedOn = target;
    };
    // Rows go into groups or the top level, never onto a plug-in.
    EXPECT_FALSE(model().canDropMimeData(drag.get(), Qt::MoveAction, -1, -1, glow));
    EXPECT_TRUE(model().canDropMimeData(drag.get(), Qt::MoveAction, -1, -1, {}));
    EXPECT_TRUE(model().dropMimeData(drag.get(), Qt::MoveAction, 0, 0, pack));
    EXPECT_EQ(rowsDropped, 2u);
    EXPECT_EQ(droppedOn, model().itemForIndex(pack));

    // Files: one unknown kind refuses the lot; a plain folder is welcome.
    std::vector<std::string> filesDropped;
    model().fileDropHandler = [&](const std::vector<std::string>& paths, const KTItemPtr& target) {
        filesDropped = paths;
        droppedOn = target;
    };
    const std::string incoming = scratch.base() + "/incoming";
    ScratchRoot::writeFile(incoming + "/Fresh.fxplug/Contents/Info.plist", plist(""));
    ScratchRoot::writeFile(incoming + "/Stuff.zip", "zip");
    ScratchRoot::makeDirs(incoming + "/Folder");
    auto files = [](std::initializer_list<std::string> paths) {
        auto* data = new QMimeData;
        QList<QUrl> urls;
        for (const auto& p : paths) urls << QUrl::fromLocalFile(QString::fromStdString(p));
        data->setUrls(urls);
        return std::unique_ptr<QMimeData>(data);
    };
    auto mixed = files({incoming + "/Fresh.fxplug", incoming + "/Stuff.zip"});
    EXPECT_FALSE(model().canDropMimeData(mixed.get(), Qt::CopyAction, -1, -1, pack));
    auto good = files({incoming + "/Fresh.fxplug", incoming + "/Folder"});
    EXPECT_TRUE(model().dropMimeData(good.get(), Qt::CopyAction, -1, -1, glow));
    EXPECT_EQ(filesDropped.size(), 2u);
    EXPECT_EQ(droppedOn, model().itemForIndex(glow));
}

TEST_F(MainWindowTest, FilesDroppedOnAPluginRowInstallIntoItsGroup) {
    open();
    const std::string incoming = scratch.base() + "/incoming";
    makeBundle(incoming + "/Fresh.fxplug", "Fresh", "1.1");
    QModelIndex blur = row("Blur");
    // The scope question runs its own event loop: answer it from a timer.
    QString question;
    QTimer answerer;
    answerer.setInterval(20);
    QObject::connect(&answerer, &QTimer::timeout, [&] {
        auto* sheet = qobject_cast<QDialog*>(QApplication::activeModalWidget());
        if (!sheet || sheet->objectName() != "installScopeSheet") return;
        answerer.stop();
        question = sheet->findChild<QLabel*>()->text();
        for (QRadioButton* radio : sheet->findChildren<QRadioButton*>())
            if (radio->text() == "All Users") radio->setChecked(true);
        for (QAbstractButton* b : sheet->findChildren<QAbstractButton*>())
            if (b->text() == "Install") b->click();
    });
    answerer.start();
    auto* data = new QMimeData;
    data->setUrls({QUrl::fromLocalFile(QString::fromStdString(incoming + "/Fresh.fxplug"))});
    std::unique_ptr<QMimeData> drop(data);
    selectRows({"Glow", "Hum"});
    // Through the view, as the mouse drops it: the middle of Blur's row is Blur.
    ASSERT_TRUE(dropOnRow(blur, drop.get(), Qt::CopyAction));
    // The dropped-on row alone is selected: the installation targets its group.
    ASSERT_EQ(window->selectedItems().size(), 1u);
    EXPECT_EQ(window->selectedItems()[0]->sortName(), "Blur");
    ASSERT_TRUE(
        waitUntil([&] { return fs::exists(fx + "/Pack/Fresh.fxplug/Contents/Info.plist"); }));
    EXPECT_TRUE(question.contains("this plugin"));
    ASSERT_TRUE(waitUntil([&] { return row("Fresh").isValid() && !window->isShowingReload(); }));
    EXPECT_EQ(model().itemForIndex(row("Fresh").parent())->sortName(), "Pack");
}

TEST_F(MainWindowTest, TheFilterPopUpReloadsWithTheChosenFolders) {
    open();
    QComboBox* filter = window->filterPopup();
    const int audio = filter->findData(8);
    ASSERT_GE(audio, 0);
    QSignalSpy shown(window.get(), &KTMainWindow::catalogueShown);
    filter->setCurrentIndex(audio);
    emit filter->activated(audio);
    ASSERT_TRUE(shown.wait(20000));
    window->waitForBackgroundWork();
    EXPECT_EQ(KTPreferences::standard().integerForKey("filter"), 8);
    EXPECT_EQ(topNames(), QStringList{"Hum"});
    EXPECT_EQ(window->countLine()->text(), "1 plugin, 1 enabled");
}

TEST_F(MainWindowTest, ArchitectureSelectionsPickPluginsThatCannotRunElsewhere) {
    auto withExecutable = [](const std::string& path, std::vector<uint32_t> cpus) {
        ScratchRoot::writeFile(path + "/Contents/Info.plist",
                               plist("<key>CFBundleExecutable</key><string>exe</string>"));
        std::string exe;
        auto be = [&](uint32_t v) {
            for (int shift = 24; shift >= 0; shift -= 8) exe += char((v >> shift) & 0xff);
        };
        be(0xcafebabe), be(uint32_t(cpus.size()));
        for (auto c : cpus) be(c), be(3), be(4096), be(4096), be(12);
        ScratchRoot::writeFile(path + "/Contents/MacOS/exe", exe);
    };
    withExecutable(fx + "/Old/Intel32.fxplug", {7});
    withExecutable(fx + "/Old/Ppc.fxplug", {18});
    withExecutable(fx + "/Universal.fxplug", {7, 0x01000007});
    open();
    auto selectedNames = [&] {
        QStringList names;
        for (const auto& item : window->selectedItems())
            names << QString::fromStdString(item->sortName());
        names.sort();
        return names;
    };
    window->selectPluginsForArchitecture(KTMainWindow::ArchitectureSelection::only32Bit);
    EXPECT_EQ(selectedNames(), (QStringList{"Intel32", "Ppc"}));
    EXPECT_TRUE(window->outline()->isExpanded(row("Old")));
    window->selectPluginsForArchitecture(KTMainWindow::ArchitectureSelection::onlyPPC);
    EXPECT_EQ(selectedNames(), QStringList{"Ppc"});
    window->selectPluginsForArchitecture(KTMainWindow::ArchitectureSelection::onlyIntel);
    EXPECT_EQ(selectedNames(), (QStringList{"Intel32", "Universal"}));
    // Plug-ins without an executable the reader knows are never picked.
    window->selectPluginsForArchitecture(KTMainWindow::ArchitectureSelection::only64Bit);
    EXPECT_TRUE(selectedNames().isEmpty());
}

TEST_F(MainWindowTest, AddGroupOpensItsNameForEditingAndTheEditRenamesTheFolder) {
    open();
    window->outline()->selectionModel()->select(
        row("Blur"), QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    window->addGroupAction()->trigger();
    EXPECT_TRUE(fs::is_directory(fx + "/Pack/Group"));
    QModelIndex group = row("Group");
    ASSERT_TRUE(group.isValid());
    EXPECT_EQ(model().itemForIndex(group.parent())->sortName(), "Pack");
    EXPECT_EQ(window->outline()->currentIndex(), group);
    // The name is open for typing at once; what is typed is cleaned for a folder name.
    auto* editor = qobject_cast<QLineEdit*>(window->outline()->indexWidget(group));
    ASSERT_NE(editor, nullptr);
    editor->setText("Tools/Extra");
    QTest::keyClick(editor, Qt::Key_Return);
    ASSERT_TRUE(waitUntil([&] { return fs::is_directory(fx + "/Pack/ToolsExtra"); }));
    window->waitForBackgroundWork();
    EXPECT_FALSE(fs::exists(fx + "/Pack/Group"));
    EXPECT_TRUE(row("ToolsExtra").isValid());
}

TEST_F(MainWindowTest, PrintedListOfAnEmptyAndAFullCatalogue) {
    EXPECT_EQ(KTPluginListExport::generateHTMLForPrinting({}, false),
              "<h1>Ambrel</h1><h2>Plugins</h2><table><thead><th>Name</th><th>Type</th></thead>"
              "<tbody></tbody></table>");
    const std::string empty = KTPluginListExport::generateHTMLForPrinting({});
    EXPECT_EQ(empty.rfind("<!DOCTYPE HTML PUBLIC \"-//W3C//DTD HTML 4.01//EN\"", 0), 0u);
    EXPECT_TRUE(empty.ends_with("<tbody></tbody></table></body></html>"));

    open();
    auto plugins = app->outlineViewController().allPlugins();
    const std::string html = KTPluginListExport::generateHTMLForPrinting(plugins);
    std::size_t rows = 0;
    for (std::size_t at = html.find("<tr>"); at != std::string::npos;
         at = html.find("<tr>", at + 1))
        ++rows;
    EXPECT_EQ(rows, 5u);
    EXPECT_NE(html.find("<tr><td>Glow</td><td>FxPlug</td></tr>"), std::string::npos);
    EXPECT_NE(html.find("<tr><td>Hum</td><td>Audio Unit</td></tr>"), std::string::npos);
    // What the print dialog prints: Qt's rich text reads the document as a table.
    QTextDocument document;
    document.setHtml(QString::fromStdString(html));
    const QString text = document.toPlainText();
    EXPECT_TRUE(text.contains("Plugins"));
    EXPECT_TRUE(text.contains("Haze"));
    EXPECT_TRUE(text.contains("Audio Unit"));
}

TEST_F(MainWindowTest, AWorkersQuestionWaitsForTheAnswerAndCancelReachesTheBatch) {
    open();
    std::atomic<int> answer{-1};
    // The box runs its own event loop: answer it from a timer inside that loop.
    QString shownText;
    bool answeredBeforeClick = true;
    QTimer clicker;
    clicker.setInterval(20);
    QObject::connect(&clicker, &QTimer::timeout, [&] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box) return;
        clicker.stop();
        shownText = box->text();
        answeredBeforeClick = answer != -1;
        for (QAbstractButton* b : box->buttons())
            if (b->text() == "Cancel") b->click();
    });
    clicker.start();
    std::thread worker([&] {
        answer = window->userInterface().runAlert(
            {"Remove?", "It goes to the Trash.", {"Remove", "Cancel"}});
    });
    ASSERT_TRUE(waitUntil([&] { return answer != -1; }));
    worker.join();
    EXPECT_EQ(shownText, "Remove?");
    EXPECT_FALSE(answeredBeforeClick);  // the worker waited for the person
    EXPECT_EQ(answer, 1);

    // The progress sheet, driven from a worker, and its Cancel.
    std::atomic<bool> sent{false};
    std::thread batch([&] {
        app->showProgressWindow();
        app->setDeterminateProgress(4);
        app->updateProgressText("Moving files...");
        app->incrementProgress();
        sent = true;
    });
    ASSERT_TRUE(waitUntil([&] { return sent.load(); }));
    batch.join();
    KTQtUserInterface& ui = window->userInterface();
    ASSERT_TRUE(waitUntil([&] { return ui.progressBar() && ui.progressBar()->value() == 1; }));
    EXPECT_TRUE(ui.progressSheet()->isVisible());
    EXPECT_EQ(ui.progressLabel()->text(), "Moving files...");
    EXPECT_FALSE(app->processingCancelled());
    ui.cancelProgress();
    EXPECT_TRUE(app->processingCancelled());
    app->endProgressWindow();
    EXPECT_FALSE(ui.progressSheet()->isVisible());
}

TEST_F(MainWindowTest, RowsDroppedOnAPluginRowChangeNothingAndOnAGroupRowMoveIn) {
    open();
    auto disk = [&] {
        std::vector<std::string> paths;
        for (const auto& e : fs::recursive_directory_iterator(scratch.base()))
            if (e.path().extension() == ".fxplug" || e.path().extension() == ".component")
                paths.push_back(e.path().string());
        std::sort(paths.begin(), paths.end());
        return paths;
    };
    const auto before = disk();
    // Onto a plug-in inside a group, and onto a plug-in at the top level
    // (whose "parent" would be the kind folder): both refused.
    std::unique_ptr<QMimeData> glowDrag(model().mimeData({row("Glow")}));
    EXPECT_FALSE(dropOnRow(row("Blur"), glowDrag.get(), Qt::MoveAction));
    std::unique_ptr<QMimeData> blurDrag(model().mimeData({row("Blur")}));
    EXPECT_FALSE(dropOnRow(row("Glow"), blurDrag.get(), Qt::MoveAction));
    window->waitForBackgroundWork();
    EXPECT_EQ(disk(), before);
    EXPECT_TRUE(row("Blur").parent().isValid());

    // The same drag onto the group's row moves the plug-in into the group.
    EXPECT_TRUE(dropOnRow(row("Pack"), glowDrag.get(), Qt::MoveAction));
    ASSERT_TRUE(waitUntil([&] { return fs::exists(fx + "/Pack/Glow.fxplug"); }));
    window->waitForBackgroundWork();
    EXPECT_FALSE(fs::exists(fx + "/Glow.fxplug"));
}

TEST_F(MainWindowTest, SearchAndClearLeaveExpandedItemsAsTheUserLeftIt) {
    makeBundle(fx + "/Kit/Blaze.fxplug", "Blaze", "1.0");
    makeBundle(fx + "/Kit/Ember.fxplug", "Ember", "1.0");
    open();
    QTreeView* tree = window->outline();
    tree->expand(row("Pack"));
    const std::vector<std::string> userChoice{"Pack"};
    ASSERT_EQ(KTPreferences::standard().stringArrayForKey("expandedItems"), userChoice);

    // Keystrokes in quick succession filter once, when the typing pauses.
    QSignalSpy resets(&model(), &QAbstractItemModel::modelReset);
    for (const char* typed : {"b", "bl", "bla"}) window->searchField()->setText(typed);
    ASSERT_TRUE(waitUntil([&] { return !window->outlineSearch()->isPending(); }));
    EXPECT_EQ(resets.count(), 1);
    EXPECT_EQ(window->countLine()->text(), "1 of 7 plugins shown");
    search("bl");
    EXPECT_TRUE(tree->isExpanded(row("Kit")));
    EXPECT_TRUE(tree->isExpanded(row("Pack")));
    EXPECT_EQ(window->countLine()->text(), "2 of 7 plugins shown");
    EXPECT_EQ(KTPreferences::standard().stringArrayForKey("expandedItems"), userChoice);

    search("");
    EXPECT_FALSE(tree->isExpanded(row("Kit")));
    EXPECT_TRUE(tree->isExpanded(row("Pack")));
    EXPECT_EQ(KTPreferences::standard().stringArrayForKey("expandedItems"), userChoice);
    EXPECT_EQ(window->countLine()->text(), "7 plugins, 6 enabled");

    // What the user opens is still remembered, across a reload.
    tree->expand(row("Kit"));
    reload();
    EXPECT_TRUE(tree->isExpanded(row("Kit")));
    EXPECT_EQ(KTPreferences::standard().stringArrayForKey("expandedItems"),
              (std::vector<std::string>{"Pack", "Kit"}));
}

TEST_F(MainWindowTest, ThePrintedListHasNameAndTypeSideBySideUnderAPageHeader) {
    // Qt's rich text alone would stack the header cells: the renderer adds
    // the row a browser implies, and leaves written rows alone.
    EXPECT_EQ(KTPrintRenderer::withImpliedTableRows(
                  "<table><thead><th>Name</th><TH>Type</TH></thead><tbody><tr><td>a</td></tr>"
                  "<td>b</td></tbody></table>"),
              "<table><thead><tr><th>Name</th><TH>Type</TH></tr></thead><tbody><tr><td>a</td>"
              "</tr><tr><td>b</td></tr></tbody></table>");

    if (!fs::exists("/usr/bin/pdftotext")) GTEST_SKIP() << "pdftotext (poppler-utils) is missing";
    // Enough plug-ins for a second page.
    for (int i = 0; i < 70; ++i)
        makeBundle(fx + "/Many/Plug" + std::to_string(100 + i) + ".fxplug",
                   "Plug" + std::to_string(100 + i), "1.0");
    open();
    const std::string pdf = scratch.base() + "/list.pdf";
    {
        QPrinter printer(QPrinter::HighResolution);
        printer.setOutputFormat(QPrinter::PdfFormat);
        printer.setOutputFileName(QString::fromStdString(pdf));
        ASSERT_TRUE(window->printPluginListOn(printer));
    }
    const ChildProcess text = ChildProcess::run({"/usr/bin/pdftotext", "-layout", pdf, "-"});
    ASSERT_EQ(text.exitCode, 0) << text.err;
    std::vector<std::string> lines;
    std::istringstream in(text.out);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    auto lineWith = [&](const std::string& first, const std::string& second) {
        const std::regex pattern("(^|\\s)" + first + "\\s+" + second + "\\s*$");
        return std::count_if(lines.begin(), lines.end(),
                             [&](const std::string& l) { return std::regex_search(l, pattern); });
    };
    EXPECT_GE(lineWith("Name", "Type"), 1);
    for (const auto& plugin : app->outlineViewController().allPlugins())
        EXPECT_EQ(lineWith(plugin->shortName(), plugin->pluginTypeName()), 1)
            << plugin->shortName();
    // Every page is headed by the job title and footed by its number.
    const auto pages = std::count(text.out.begin(), text.out.end(), '\f');
    ASSERT_GE(pages, 2);
    EXPECT_EQ(lineWith("Ambrel Plugin List", ".*"), pages);
    EXPECT_EQ(lineWith("Page 2 of", "[0-9]+"), 1);
}

TEST_F(MainWindowTest, TheContextMenuActsOnTheRowItWasOpenedOn) {
    struct RecordingWorkspace : KTWorkspace {
        std::vector<std::string> shown;
        std::optional<std::string> absolutePathForAppBundleWithIdentifier(
            const std::string&) override {
            return std::nullopt;
        }
        void refreshApplications() override {}
        bool selectFile(const std::string& path) override {
            shown.push_back(path);
            return true;
        }
    };
    auto workspace = std::make_shared<RecordingWorkspace>();
    KTWorkspace::setShared(workspace);
    open();
    KTOutlineContextMenu& menu = *window->contextMenu();
    QTreeView* tree = window->outline();
    auto openOn = [&](const char* name) {
        QModelIndex index = row(name);
        if (index.parent().isValid()) tree->expand(index.parent());
        tree->scrollTo(index);
        QMenu* shown = menu.menuAt(tree->visualRect(index).center());
        EXPECT_NE(shown, nullptr);
        return shown;
    };
    auto command = [&](QMenu* m, const QString& text) -> QAction* {
        for (QAction* a : m->actions())
            if (a->text() == text) return a;
        ADD_FAILURE() << "no command " << text.toStdString();
        static QAction none;
        return &none;
    };

    // Opened on a row outside the selection: that row alone is acted on.
    selectRows({"Hum", "Dim"});
    QMenu* m = openOn("Glow");
    ASSERT_EQ(window->selectedItems().size(), 1u);
    command(m, "Disable")->trigger();
    const std::string disabledGlow =
        KTPluginLocations::disabledPath() + "/Library/Plug-Ins/FxPlug/Glow.fxplug";
    ASSERT_TRUE(waitUntil([&] { return fs::exists(disabledGlow); }));
    window->waitForBackgroundWork();
    EXPECT_TRUE(fs::exists(scratch.homePath("/Library/Audio/Plug-Ins/Components/Hum.component")));

    m = openOn("Hum");
    command(m, "All Users")->trigger();
    ASSERT_TRUE(waitUntil([&] {
        return fs::exists(scratch.rootPath("/Library/Audio/Plug-Ins/Components/Hum.component"));
    }));
    window->waitForBackgroundWork();

    m = openOn("Blur");
    command(m, "Show in File Manager")->trigger();
    command(m, "Copy Path")->trigger();
    EXPECT_EQ(workspace->shown, std::vector<std::string>{fx + "/Pack/Blur.fxplug"});
    EXPECT_EQ(QApplication::clipboard()->text().toStdString(), fx + "/Pack/Blur.fxplug");
    command(m, "Add Group")->trigger();
    EXPECT_TRUE(fs::is_directory(fx + "/Pack/Group"));
    window->waitForBackgroundWork();

    // Rename opens the group's name for typing.
    m = openOn("Pack");
    command(m, "Rename Group")->trigger();
    auto* editor = qobject_cast<QLineEdit*>(tree->indexWidget(row("Pack")));
    ASSERT_NE(editor, nullptr);
    editor->setText("Bundle");
    QTest::keyClick(editor, Qt::Key_Return);
    ASSERT_TRUE(waitUntil([&] { return fs::is_directory(fx + "/Bundle/Blur.fxplug"); }));
    window->waitForBackgroundWork();

    // Remove asks first, then moves to the Trash.
    QTimer answerer;
    answerer.setInterval(20);
    QObject::connect(&answerer, &QTimer::timeout, [&] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box) return;
        answerer.stop();
        for (QAbstractButton* b : box->buttons())
            if (b->text() == "Remove") b->click();
    });
    answerer.start();
    m = openOn("Dim");
    command(m, "Remove")->trigger();
    ASSERT_TRUE(waitUntil([&] {
        return !fs::exists(KTPluginLocations::disabledPath() +
                           "/Library/Plug-Ins/FxPlug/Dim.fxplug");
    }));
    window->waitForBackgroundWork();
    EXPECT_TRUE(fs::exists(scratch.homePath("/.local/share/Trash/files/Dim.fxplug")));
    KTWorkspace::setShared(nullptr);
}

TEST_F(MainWindowTest, DuringAReloadNothingHalfBuiltShowsAndGroupsCannotBeAdded) {
    open();
    KTQtUserInterface& ui = window->userInterface();
    auto started = ui.onReloadStarted;
    bool checked = false;
    ui.onReloadStarted = [&] {
        started();
        checked = true;
        EXPECT_FALSE(window->addGroupAction()->isEnabled());
        EXPECT_FALSE(window->installAction()->isEnabled());
        // An operation asking for a redraw while the scan runs gets empty rows.
        window->reloadOutline();
        EXPECT_EQ(model().rowCount(), 0);
    };
    reload();
    EXPECT_TRUE(checked);
    EXPECT_TRUE(window->addGroupAction()->isEnabled());
    EXPECT_TRUE(window->installAction()->isEnabled());
    EXPECT_EQ(model().rowCount(), 4);
}

TEST_F(MainWindowTest, KeyboardScreenReadersAndAStillToolbar) {
    makeBundle(
        scratch.rootPath("/Applications/Avid Media Composer/SupportingFiles/AVX_Plug-Ins/Cut.avx"),
        "Cut", "1.0");
    open();
    // Ctrl+F goes to the search field.
    QApplication::setActiveWindow(window.get());
    ASSERT_TRUE(QTest::qWaitForWindowActive(window.get()));
    window->outline()->setFocus();
    QTest::keyClick(window.get(), Qt::Key_F, Qt::ControlModifier);
    EXPECT_TRUE(window->searchField()->hasFocus())
        << (QApplication::focusWidget() ? QApplication::focusWidget()->metaObject()->className()
                                        : "none")
        << " active " << (QApplication::activeWindow() == window.get());

    // Every control has a name a screen reader can say.
    for (QWidget* w : window->findChildren<QWidget*>()) {
        if (!w->isVisible() || !(qobject_cast<QAbstractButton*>(w) || qobject_cast<QComboBox*>(w) ||
                                 qobject_cast<QLineEdit*>(w) || qobject_cast<QTreeView*>(w) ||
                                 qobject_cast<QLabel*>(w)))
            continue;
        QAccessibleInterface* a = QAccessible::queryAccessibleInterface(w);
        ASSERT_NE(a, nullptr);
        EXPECT_FALSE(a->text(QAccessible::Name).isEmpty()) << w->metaObject()->className();
    }
    for (int c = 0; c < Col::columnCount_; ++c)
        EXPECT_FALSE(model().headerData(c, Qt::Horizontal, Qt::DisplayRole).toString().isEmpty());
    EXPECT_EQ(cell(row("Glow"), Col::colStatus, Qt::AccessibleTextRole), "Enabled");

    // Boxes that cannot be clicked are drawn disabled and say why.
    QModelIndex haze = row("Haze"), cut = row("Cut");
    ASSERT_TRUE(cut.isValid());
    EXPECT_TRUE(model()
                    .data(haze.siblingAtColumn(Col::colStatus), KTOutlineModel::kCheckFixedRole)
                    .toBool());
    EXPECT_TRUE(cell(haze, Col::colStatus, Qt::ToolTipRole).startsWith("Locked"));
    EXPECT_TRUE(
        model().data(cut.siblingAtColumn(Col::colUser), KTOutlineModel::kCheckFixedRole).toBool());
    EXPECT_FALSE(model()
                     .data(cut.siblingAtColumn(Col::colStatus), KTOutlineModel::kCheckFixedRole)
                     .toBool());
    EXPECT_TRUE(cell(cut, Col::colUser, Qt::ToolTipRole).contains("all users"));
    EXPECT_FALSE(
        model()
            .data(row("Glow").siblingAtColumn(Col::colUser), KTOutlineModel::kCheckFixedRole)
            .toBool());

    // The toggles' labels change with the selection; the pop-up and the field stay put.
    auto place = [&](QWidget* w) { return w->mapTo(window.get(), QPoint(0, 0)); };
    selectRows({"Glow"});
    QApplication::processEvents();
    const QPoint filterAt = place(window->filterPopup()), searchAt = place(window->searchField());
    selectRows({"Hum"});
    ASSERT_EQ(window->scopeAction()->text(), "All Users");
    selectRows({"Dim"});
    ASSERT_EQ(window->enableAction()->text(), "Enable");
    QApplication::processEvents();
    EXPECT_EQ(place(window->filterPopup()), filterAt);
    EXPECT_EQ(place(window->searchField()), searchAt);
}

TEST_F(MainWindowTest, DuplicatesAreMarkedAndTheirFilterShowsOnlyThem) {
    makeBundle(scratch.homePath("/Library/Plug-Ins/FxPlug/Glow.fxplug"), "Glow", "1.0");
    open();
    // Both copies of Glow carry a mark; the user's is the one in use.
    QModelIndex machine, user;
    for (int r = 0; r < model().rowCount(); ++r) {
        QModelIndex i = model().index(r, 0);
        if (cell(i, Col::colName) != "Glow") continue;
        (cell(i, Col::colUser) == "Current user" ? user : machine) = i;
    }
    ASSERT_TRUE(machine.isValid() && user.isValid());
    EXPECT_TRUE(cell(user, Col::colVersion, Qt::ToolTipRole).contains("In use: the current user"));
    EXPECT_TRUE(
        cell(machine, Col::colVersion, Qt::ToolTipRole).contains("Not loaded: shadowed by"));
    EXPECT_FALSE(
        model().data(machine.siblingAtColumn(Col::colVersion), Qt::DecorationRole).isNull());
    EXPECT_TRUE(
        model().data(row("Hum").siblingAtColumn(Col::colVersion), Qt::DecorationRole).isNull());

    QComboBox* filter = window->filterPopup();
    const int duplicates = filter->findText("Duplicates");
    ASSERT_GE(duplicates, 0);
    QSignalSpy shown(window.get(), &KTMainWindow::catalogueShown);
    filter->setCurrentIndex(duplicates);
    emit filter->activated(duplicates);
    ASSERT_TRUE(shown.wait(20000));
    window->waitForBackgroundWork();
    EXPECT_EQ(topNames(), (QStringList{"Glow", "Glow"}));
}
