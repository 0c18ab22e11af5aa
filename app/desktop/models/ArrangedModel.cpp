// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/ArrangedModel.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <vector>

namespace sealscope::desktop {

namespace {

/// Rows that move under a user's hand twice a second at the most can still be read.
constexpr std::chrono::milliseconds betweenArrangements{500};

RowOrder::Direction directionOf(Qt::SortOrder order)
{
    return order == Qt::AscendingOrder ? RowOrder::Direction::ascending : RowOrder::Direction::descending;
}

}  // namespace

ArrangedModel::ArrangedModel(QObject* parent) : QAbstractTableModel(parent)
{
    soon_.setSingleShot(true);
    soon_.setInterval(betweenArrangements);
    connect(&soon_, &QTimer::timeout, this, &ArrangedModel::rearrange);
}

int ArrangedModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(std::min<std::int64_t>(order_.size(), std::numeric_limits<int>::max()));
}

void ArrangedModel::sort(int column, Qt::SortOrder order)
{
    sortColumn_ = std::max(column, 0);
    sortOrder_ = order;
    rearrange();
}

void ArrangedModel::setFilter(const QString& typed)
{
    FilterTerms terms(typed.simplified().toStdString());
    if (terms == terms_) return;
    terms_ = std::move(terms);
    rearrange();
}

QModelIndex ArrangedModel::indexOf(std::uint32_t record, int column) const
{
    const std::int64_t position = order_.position(record);
    return position < 0 ? QModelIndex() : index(static_cast<int>(position), column);
}

void ArrangedModel::rearrange()
{
    changeRecords(
        [](const std::vector<std::uint32_t>& pointedTo) { return std::vector<std::int64_t>(pointedTo.begin(), pointedTo.end()); });
}

void ArrangedModel::changeRecords(const std::function<std::vector<std::int64_t>(const std::vector<std::uint32_t>& pointedTo)>& change)
{
    soon_.stop();
    Q_EMIT layoutAboutToBeChanged();
    const QModelIndexList before = persistentIndexList();
    std::vector<std::uint32_t> records;
    records.reserve(static_cast<std::size_t>(before.size()));
    for (const QModelIndex& index : before) records.push_back(record(index));
    const std::vector<std::int64_t> changed = change(records);
    arrange(order_, sortColumn_, directionOf(sortOrder_), terms_);
    QModelIndexList after;
    after.reserve(before.size());
    for (qsizetype i = 0; i < before.size(); ++i) {
        const std::int64_t record = changed[static_cast<std::size_t>(i)];
        after.append(record < 0 ? QModelIndex() : indexOf(static_cast<std::uint32_t>(record), before[i].column()));
    }
    changePersistentIndexList(before, after);
    Q_EMIT layoutChanged();
    Q_EMIT arranged();
}

void ArrangedModel::rearrangeSoon()
{
    if (!soon_.isActive()) soon_.start();
}

void ArrangedModel::beginNewRecords()
{
    soon_.stop();
    beginResetModel();
}

void ArrangedModel::endNewRecords()
{
    arrange(order_, sortColumn_, directionOf(sortOrder_), terms_);
    endResetModel();
    Q_EMIT arranged();
}

}  // namespace sealscope::desktop
