// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamMessage.h"

#include <QAbstractTableModel>

#include <vector>

namespace sealscope::desktop {

/// The detail rows of a message: a name and a value each.
class DetailModel final : public QAbstractTableModel {
    Q_OBJECT
public:
    using QAbstractTableModel::QAbstractTableModel;
    void setRows(std::vector<DetailRow> rows);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
    QVariant data(const QModelIndex& index, int role) const override;

private:
    std::vector<DetailRow> rows_;
};

}  // namespace sealscope::desktop
