#pragma once

#include <QObject>
#include <QString>
#include <QTimer>
#include <functional>

class KTOutlineModel;
class OutlineViewController;
class QTreeView;

/// The search field's filtering of the outline. Typing only restarts a short
/// timer; when the typing pauses, the catalogue is filtered once and the
/// result shown with every group open. Opening groups for a result is the
/// search's own doing, never the user's: while it runs, `isExpandingForSearch`
/// holds, so the window's memory of expanded groups leaves it out.
class KTOutlineSearch : public QObject {
    Q_OBJECT
  public:
    /// The pause after the last keystroke before the filter runs.
    static constexpr int kDelayMs = 50;

    KTOutlineSearch(OutlineViewController& controller, KTOutlineModel& model, QTreeView& tree,
                    QObject* parent = nullptr);

    /// A keystroke: the filter runs once the typing pauses.
    void textChanged(const QString& text);
    /// Filters with the latest text now (a reload ended, Return was pressed).
    void applyNow();
    /// Sets the controller's search text and opens the result's groups; the
    /// caller rebuilds the rows in between (`showResult`).
    void setControllerText();
    void showResult();

    bool isSearching() const { return !text_.isEmpty(); }
    bool isPending() const { return timer_.isActive(); }
    bool isExpandingForSearch() const { return expanding_; }
    const QString& text() const { return text_; }

    /// Puts back the groups the user had open (the whole tree is shown again).
    std::function<void()> restoreUserExpansion;
    /// The rows changed: the count line and the buttons follow.
    std::function<void()> applied;
    /// True while a reload runs: its end applies the text.
    std::function<bool()> isReloading;

  private:
    OutlineViewController& controller_;
    KTOutlineModel& model_;
    QTreeView& tree_;
    QTimer timer_;
    QString text_;
    bool expanding_ = false;
};
