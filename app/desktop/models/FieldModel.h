// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELDependencies/VELNodeProtocol.h"

#include <QAbstractItemModel>

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope::desktop {

/// The fields of one packet as a tree. Children are fetched in pieces when somebody looks: a payload of some kilobytes may have
/// a tree of gigabytes.
class FieldModel final : public QAbstractItemModel {
    Q_OBJECT
public:
    enum Column { name, value, columns };
    /// Bytes of the payload: the offset of the first, and how many.
    using Range = std::pair<qint64, qint64>;

    explicit FieldModel(QObject* parent = nullptr);
    ~FieldModel() override;

    /// Shows other fields, or none.
    void setNodes(VELNodeList nodes);

    QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
    QModelIndex parent(const QModelIndex& child) const override;
    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    bool hasChildren(const QModelIndex& parent = {}) const override;
    bool canFetchMore(const QModelIndex& parent) const override;
    void fetchMore(const QModelIndex& parent) override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

    /// Where a field stands in the payload; nothing for a heading or a note.
    std::optional<Range> range(const QModelIndex& index) const;
    /// The innermost field that a byte is of, as far as it is found within a bounded search; invalid when there is none.
    QModelIndex innermost(qint64 byte);

private:
    struct Field;
    struct Search;
    static Field* fieldOf(const QModelIndex& index) { return static_cast<Field*>(index.internalPointer()); }
    QModelIndex indexOf(const Field& field) const;
    void search(Field& field, const QModelIndex& index, Search& search);
    void fetch(Field& field, const QModelIndex& index);

    std::vector<std::unique_ptr<Field>> roots_;
};

}  // namespace sealscope::desktop
