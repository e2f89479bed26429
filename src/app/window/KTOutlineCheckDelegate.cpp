#include "app/window/KTOutlineCheckDelegate.h"

#include "app/window/KTOutlineModel.h"

void KTOutlineCheckDelegate::initStyleOption(QStyleOptionViewItem* option,
                                             const QModelIndex& index) const {
    QStyledItemDelegate::initStyleOption(option, index);
    if (index.data(KTOutlineModel::kCheckFixedRole).toBool())
        option->state &= ~QStyle::State_Enabled;
}
