// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/FieldModel.h"

#include "app/desktop/ShownText.h"

#include <algorithm>

namespace sealscope::desktop {

namespace {

constexpr int deepest = 200;               ///< levels that are shown
constexpr std::size_t firstPiece = 256;    ///< children that are fetched at once
constexpr std::size_t largestPiece = 1 << 14;
constexpr int mostSearched = 50'000;       ///< fields that a search for a byte looks at

}  // namespace

struct FieldModel::Field {
    std::shared_ptr<VELNodeProtocol> node;
    Field* parent = nullptr;
    int row = 0;
    int depth = 0;
    qint64 start = 0;  ///< from which its children's places count
    std::vector<std::unique_ptr<Field>> children;
    bool hasMore = false;

    Field(std::shared_ptr<VELNodeProtocol> shown, Field* above, int position)
        : node(std::move(shown)), parent(above), row(position), depth(above ? above->depth + 1 : 0),
          start((above ? above->start : 0) + node->headerLocations().value_or(0)), hasMore(depth < deepest && node->hasChildren())
    {}

    std::optional<Range> range() const
    {
        const auto length = node->headerLengths();
        if (!node->headerLocations() || !length) return std::nullopt;
        return Range(start, *length);
    }
};

FieldModel::FieldModel(QObject* parent) : QAbstractItemModel(parent) {}
FieldModel::~FieldModel() = default;

void FieldModel::setNodes(VELNodeList nodes)
{
    beginResetModel();
    roots_.clear();
    for (auto& node : nodes) roots_.push_back(std::make_unique<Field>(std::move(node), nullptr, static_cast<int>(roots_.size())));
    endResetModel();
}

QModelIndex FieldModel::index(int row, int column, const QModelIndex& parent) const
{
    if (!hasIndex(row, column, parent)) return {};
    const auto& fields = parent.isValid() ? fieldOf(parent)->children : roots_;
    return createIndex(row, column, fields[static_cast<std::size_t>(row)].get());
}

QModelIndex FieldModel::indexOf(const Field& field) const { return createIndex(field.row, 0, const_cast<Field*>(&field)); }

QModelIndex FieldModel::parent(const QModelIndex& child) const
{
    if (!child.isValid()) return {};
    const Field* const above = fieldOf(child)->parent;
    return above ? indexOf(*above) : QModelIndex();
}

int FieldModel::rowCount(const QModelIndex& parent) const
{
    if (parent.column() > 0) return 0;
    return static_cast<int>((parent.isValid() ? fieldOf(parent)->children : roots_).size());
}

int FieldModel::columnCount(const QModelIndex&) const { return columns; }

bool FieldModel::hasChildren(const QModelIndex& parent) const
{
    if (!parent.isValid()) return !roots_.empty();
    if (parent.column() > 0) return false;
    const Field& field = *fieldOf(parent);
    return field.hasMore || !field.children.empty();
}

bool FieldModel::canFetchMore(const QModelIndex& parent) const
{
    return parent.isValid() && parent.column() == 0 && fieldOf(parent)->hasMore;
}

void FieldModel::fetchMore(const QModelIndex& parent)
{
    if (canFetchMore(parent)) fetch(*fieldOf(parent), parent);
}

void FieldModel::fetch(Field& field, const QModelIndex& index)
{
    // Children are the same each time, so going through them goes on behind those that are there. Pieces grow with what is there,
    // so that going through them from the start each time costs no more than twice.
    const std::size_t known = field.children.size();
    const std::size_t wanted = known + std::clamp(known, firstPiece, largestPiece);
    std::vector<std::unique_ptr<Field>> more;
    std::size_t seen = 0;
    field.hasMore = !field.node->forEachChild([&](const std::shared_ptr<VELNodeProtocol>& child) {
        if (seen == wanted) return false;
        if (seen++ >= known) more.push_back(std::make_unique<Field>(child, &field, static_cast<int>(seen) - 1));
        return true;
    });
    if (more.empty()) return;
    beginInsertRows(index, static_cast<int>(known), static_cast<int>(known + more.size()) - 1);
    std::ranges::move(more, std::back_inserter(field.children));
    endInsertRows();
}

QVariant FieldModel::data(const QModelIndex& index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid)) return {};
    const VELNodeProtocol& node = *fieldOf(index)->node;
    if (role != Qt::DisplayRole && role != Qt::AccessibleTextRole) return {};
    const auto& held = node.value();
    const QString valueText = held ? shownText(displayText(*held)) : QString();
    if (index.column() == FieldModel::value) return valueText;
    const QString nameText = shownText(node.name());
    if (role == Qt::AccessibleTextRole && held) return QStringLiteral("%1: %2").arg(nameText, valueText);
    return nameText;
}

QVariant FieldModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
    return section == name ? tr("Field") : tr("Value");
}

std::optional<FieldModel::Range> FieldModel::range(const QModelIndex& index) const
{
    return index.isValid() ? fieldOf(index)->range() : std::nullopt;
}

struct FieldModel::Search {
    qint64 byte = 0;
    int left = mostSearched;
    const Field* found = nullptr;
};

QModelIndex FieldModel::innermost(qint64 byte)
{
    Search search{.byte = byte};
    for (const auto& root : roots_) this->search(*root, indexOf(*root), search);
    return search.found ? indexOf(*search.found) : QModelIndex();
}

void FieldModel::search(Field& field, const QModelIndex& index, Search& search)
{
    const auto range = field.range();
    if (--search.left < 0 || (range && (search.byte < range->first || search.byte >= range->first + range->second))) return;
    // Of fields that are equally deep the first; a note without a place is nobody's byte.
    if (range && (!search.found || field.depth > search.found->depth)) search.found = &field;
    for (std::size_t child = 0; search.left > 0; ++child) {
        while (child == field.children.size() && field.hasMore) fetch(field, index);
        if (child == field.children.size()) return;
        this->search(*field.children[child], indexOf(*field.children[child]), search);
    }
}

}  // namespace sealscope::desktop
