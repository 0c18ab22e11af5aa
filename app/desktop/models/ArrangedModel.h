// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/models/FilterTerms.h"
#include "app/desktop/models/RowOrder.h"

#include <QAbstractTableModel>
#include <QTimer>

#include <cstdint>
#include <functional>
#include <vector>

namespace sealscope::desktop {

/// A table whose rows are shown sorted and filtered, over plain records that only grow or change: what a view's rows, selection
/// and current row need to stay with their records.
class ArrangedModel : public QAbstractTableModel {
    Q_OBJECT
public:
    int rowCount(const QModelIndex& parent = {}) const override;
    void sort(int column, Qt::SortOrder order) override;
    int sortColumn() const { return sortColumn_; }
    Qt::SortOrder sortOrder() const { return sortOrder_; }

    /// Shows only rows that hold each of some words.
    void setFilter(const QString& typed);
    /// Rows in all, shown or not.
    virtual std::uint32_t recordCount() const = 0;

    /// The record behind a row, by number, and the row that shows a record; an invalid index when none does.
    std::uint32_t record(const QModelIndex& index) const { return order_[index.row()]; }
    QModelIndex indexOf(std::uint32_t record, int column = 0) const;

Q_SIGNALS:
    /// There are other rows, or they are in another order.
    void arranged();

protected:
    explicit ArrangedModel(QObject* parent);
    virtual void arrange(RowOrder& order, int column, RowOrder::Direction direction, const FilterTerms& terms) const = 0;

    /// Sorts and filters at once; or soon, once for many changes.
    void rearrange();
    void rearrangeSoon();
    /// Changes records at will. `change` gets the numbers of records that somebody points to, and gives the numbers that they have
    /// from there on; -1 for what is gone.
    void changeRecords(const std::function<std::vector<std::int64_t>(const std::vector<std::uint32_t>& pointedTo)>& change);
    const RowOrder& order() const { return order_; }
    bool isFiltered() const { return !terms_.isEmpty(); }
    /// Around a change of everything.
    void beginNewRecords();
    void endNewRecords();

private:
    RowOrder order_;
    FilterTerms terms_;
    int sortColumn_ = 0;
    Qt::SortOrder sortOrder_ = Qt::AscendingOrder;
    QTimer soon_;
};

}  // namespace sealscope::desktop
