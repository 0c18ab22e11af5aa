// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QStyledItemDelegate>

namespace sealscope::desktop {

class ExchangesModel;

/// Paints when an exchange took place among those that are shown: light until the reply began, full while it came.
class WaterfallDelegate final : public QStyledItemDelegate {
    Q_OBJECT
public:
    WaterfallDelegate(const ExchangesModel& model, QObject* parent) : QStyledItemDelegate(parent), model_(model) {}
    void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override;

private:
    const ExchangesModel& model_;
};

}  // namespace sealscope::desktop
