// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/DetailModel.h"

#include "app/desktop/ShownText.h"
#include "app/desktop/ToolTip.h"

#include <utility>

namespace sealscope::desktop {

void DetailModel::setRows(std::vector<DetailRow> rows)
{
    beginResetModel();
    rows_ = std::move(rows);
    endResetModel();
}

int DetailModel::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : static_cast<int>(rows_.size()); }
int DetailModel::columnCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : 2; }

QVariant DetailModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
    return section == 0 ? tr("Name") : tr("Value");
}

QVariant DetailModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid()) return {};
    const DetailRow& row = rows_[static_cast<std::size_t>(index.row())];
    const std::string& text = index.column() == 0 ? row.name : row.value;
    if (role == Qt::DisplayRole) return shownText(text);
    if (role == Qt::ToolTipRole) return plainToolTip(shownText(text));
    return {};
}

}  // namespace sealscope::desktop
