#pragma once

#include <QStyledItemDelegate>

/// Draws the outline's cells, with the check boxes that cannot be clicked
/// (a locked plug-in's, an Avid plug-in's scope) in the disabled look, so
/// they do not invite a click that does nothing. The tooltip says why.
class KTOutlineCheckDelegate : public QStyledItemDelegate {
    Q_OBJECT
  public:
    using QStyledItemDelegate::QStyledItemDelegate;

  protected:
    void initStyleOption(QStyleOptionViewItem* option, const QModelIndex& index) const override;
};
