// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QStyledItemDelegate>

namespace sealscope::desktop {

/// Paints a message as a speech bubble of two lines: the client's to the left, the server's to the right. All have one height, so that
/// a list of a hundred thousand need not be measured.
class MessageDelegate final : public QStyledItemDelegate {
    Q_OBJECT
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;

Q_SIGNALS:
    /// The user chose what a message answers, or what answers it.
    void partnerChosen(const QModelIndex& index);

protected:
    bool editorEvent(QEvent* event, QAbstractItemModel* model, const QStyleOptionViewItem& option, const QModelIndex& index) override;

private:
    struct Places;
    static Places places(const QStyleOptionViewItem& option, const QModelIndex& index);
};

}  // namespace sealscope::desktop
