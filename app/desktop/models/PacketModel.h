// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Document.h"
#include "app/desktop/models/RowFilter.h"
#include "app/texts/TimeText.h"
#include "platform/ObserverList.h"

#include <QAbstractTableModel>
#include <QCache>
#include <QColor>

#include <optional>
#include <vector>

namespace sealscope::desktop {

/// The list of packets. Which rows there are is found beside the main thread; what stands in a row is made when somebody looks.
class PacketModel final : public QAbstractTableModel {
    Q_OBJECT
public:
    enum Column { number, time, source, destination, firstOfPlugIns };

    explicit PacketModel(Document& document, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

    const RowFilter& filter() const { return filter_; }
    /// Finds the rows anew; they come as they are found.
    void setFilter(RowFilter filter);
    bool isFiltering() const { return finding_ != nullptr; }

    /// The packet of a row: its position in the document's packets.
    qint64 position(int row) const { return positions_[static_cast<std::size_t>(row)]; }
    /// The row of a packet, or of the next one that is shown before it; -1 when there is none.
    int rowOf(qint64 position) const;
    int infoColumn() const { return static_cast<int>(columnTitles_.size()) - 1; }
    /// Takes the colours from the settings again.
    void updateColors();

Q_SIGNALS:
    /// Whether rows are still being looked for.
    void filteringChanged(bool isFiltering);

private:
    struct RowTexts {
        std::vector<QString> columns;
        std::uint8_t plugIn = PacketEntry::unrecognized;
    };
    using Positions = std::vector<std::uint32_t>;

    void replace();
    void findRows();
    void add(const Positions& positions, qint64 searched);
    const RowTexts& texts(qint64 position) const;
    RowTexts makeTexts(qint64 position) const;

    Document& document_;
    std::shared_ptr<const PacketIndex> packets_;
    RowFilter filter_;
    Positions positions_;
    qint64 searched_ = 0;  ///< packets before this one are filtered
    std::unique_ptr<Job> finding_;
    std::vector<QString> columnTitles_;
    std::vector<std::optional<QColor>> colors_;  ///< by plug-in
    std::vector<ObservationToken> observations_;
    mutable QCache<qint64, RowTexts> cache_;
    mutable TimeText timeText_;
};

}  // namespace sealscope::desktop
