// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/PacketsView.h"

#include "app/desktop/ShownText.h"
#include "app/desktop/models/FieldModel.h"
#include "app/desktop/models/PacketModel.h"
#include "app/desktop/views/ActivityChart.h"
#include "app/desktop/views/HexView.h"

#include <QComboBox>
#include <QDataStream>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QScrollBar>
#include <QSplitter>
#include <QStyledItemDelegate>
#include <QTableView>
#include <QToolButton>
#include <QTreeView>
#include <QVBoxLayout>

namespace sealscope::desktop {

namespace {

/// Keeps numbers, which stand at the right of their column, apart from the column behind.
class NumberDelegate final : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

protected:
    void initStyleOption(QStyleOptionViewItem* option, const QModelIndex& index) const override
    {
        QStyledItemDelegate::initStyleOption(option, index);
        option->text += QStringLiteral("  ");
    }
};

constexpr int typingPause = 180;  ///< milliseconds
constexpr int stateVersion = 1;

}  // namespace

PacketsView::PacketsView(Document& document, QWidget* parent)
    : QWidget(parent), document_(document), model_(new PacketModel(document, this)), fieldModel_(new FieldModel(this)),
      chart_(new ActivityChart(document)), kinds_(new QComboBox), text_(new QLineEdit), everything_(new QToolButton),
      placeholder_(new QLabel), table_(new QTableView), fields_(new QTreeView), bytes_(new HexView),
      details_(new QSplitter(Qt::Horizontal)), parts_(new QSplitter(Qt::Vertical))
{
    QWidget* const bar = makeFilterBar();
    makeTable();
    makeDetails();
    auto* const list = new QWidget;
    auto* const listLayout = new QVBoxLayout(list);
    listLayout->setContentsMargins(0, 0, 0, 0);
    listLayout->setSpacing(0);
    listLayout->addWidget(bar);
    listLayout->addWidget(table_, 1);
    parts_->addWidget(chart_);
    parts_->addWidget(list);
    parts_->addWidget(details_);
    parts_->setChildrenCollapsible(true);
    parts_->setCollapsible(1, false);
    parts_->setStretchFactor(1, 3);
    parts_->setStretchFactor(2, 2);
    auto* const layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(parts_);

    connect(&document_, &Document::replaced, this, &PacketsView::replace);
    connect(&document_, &Document::readingChanged, this, &PacketsView::showSummary);
    connect(model_, &PacketModel::filteringChanged, this, &PacketsView::showSummary);
    connect(chart_, &ActivityChart::timesChosen, this, &PacketsView::applyFilter);
    connectDetails();
    replace();
}

QWidget* PacketsView::makeFilterBar()
{
    kinds_->setAccessibleName(tr("What to filter by"));
    text_->setAccessibleName(tr("Filter text"));
    text_->setPlaceholderText(tr("Filter"));
    text_->setClearButtonEnabled(true);
    everything_->setText(tr("All packets"));
    everything_->setCheckable(true);
    everything_->setToolTip(tr("Also show packets that no plug-in recognizes"));
    auto* const bar = new QWidget;
    auto* const layout = new QHBoxLayout(bar);
    layout->setContentsMargins(6, 6, 6, 6);
    layout->addWidget(kinds_);
    layout->addWidget(text_, 1);
    layout->addWidget(everything_);
    typing_.setSingleShot(true);
    typing_.setInterval(typingPause);
    connect(&typing_, &QTimer::timeout, this, &PacketsView::applyFilter);
    connect(text_, &QLineEdit::textChanged, &typing_, qOverload<>(&QTimer::start));
    connect(text_, &QLineEdit::returnPressed, this, &PacketsView::applyFilter);
    connect(kinds_, &QComboBox::activated, this, [this] {
        if (!text_->text().isEmpty()) applyFilter();
    });
    connect(everything_, &QToolButton::toggled, this, [this](bool isOn) {
        applyFilter();
        Q_EMIT showsEveryPacketChanged(isOn);
    });
    return bar;
}

void PacketsView::makeTable()
{
    table_->setAccessibleName(tr("Packets"));
    table_->setModel(model_);
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->setSelectionMode(QAbstractItemView::SingleSelection);
    table_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    table_->setTabKeyNavigation(false);
    table_->setShowGrid(false);
    table_->setWordWrap(false);
    table_->setTextElideMode(Qt::ElideRight);
    table_->setVerticalScrollMode(QAbstractItemView::ScrollPerItem);
    table_->setItemDelegateForColumn(PacketModel::number, new NumberDelegate(table_));
    table_->verticalHeader()->hide();
    table_->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    table_->verticalHeader()->setDefaultSectionSize(table_->fontMetrics().height() + 6);
    table_->horizontalHeader()->setStretchLastSection(true);
    table_->horizontalHeader()->setHighlightSections(false);
    placeholder_->setParent(table_->viewport());
    placeholder_->setTextFormat(Qt::PlainText);
    placeholder_->setAlignment(Qt::AlignCenter);
    placeholder_->setWordWrap(true);
    placeholder_->setForegroundRole(QPalette::PlaceholderText);
    auto* const over = new QVBoxLayout(table_->viewport());
    over->addWidget(placeholder_);
    connect(model_, &QAbstractItemModel::rowsAboutToBeInserted, this, [this] {
        const QScrollBar& bar = *table_->verticalScrollBar();
        followsEnd_ = document_.isLive() && bar.value() == bar.maximum();
    });
    connect(model_, &QAbstractItemModel::rowsInserted, this, [this] {
        if (!hasSizedColumns_) sizeColumns();
        if (followsEnd_) table_->scrollToBottom();
        choosePending();
        // Something to look at from the start.
        if (!table_->currentIndex().isValid() && pending_ < 0 && !document_.isLive()) table_->setCurrentIndex(model_->index(0, 0));
        showSummary();
    });
}

void PacketsView::makeDetails()
{
    fields_->setAccessibleName(tr("Fields of the packet"));
    fields_->setModel(fieldModel_);
    fields_->setUniformRowHeights(true);
    fields_->setAlternatingRowColors(true);
    fields_->header()->setStretchLastSection(true);
    fields_->header()->resizeSection(FieldModel::name, 300);
    details_->addWidget(fields_);
    details_->addWidget(bytes_);
    details_->setStretchFactor(0, 1);
    details_->setStretchFactor(1, 1);
}

void PacketsView::connectDetails()
{
    connect(table_->selectionModel(), &QItemSelectionModel::currentRowChanged, this, &PacketsView::showRow);
    connect(model_, &QAbstractItemModel::modelReset, this, [this] { showRow({}); });
    connect(fields_->selectionModel(), &QItemSelectionModel::currentChanged, this, [this](const QModelIndex& index) {
        const auto range = fieldModel_->range(index.siblingAtColumn(0));
        if (range)
            bytes_->mark(range->first, range->second);
        else if (!isMarking_)
            bytes_->mark(0, 0);
    });
    connect(bytes_, &HexView::byteChosen, this, [this](qint64 byte) {
        const QModelIndex field = fieldModel_->innermost(byte);
        if (!field.isValid()) return bytes_->mark(byte, 1);
        isMarking_ = true;
        fields_->setCurrentIndex(field);
        fields_->scrollTo(field);
        isMarking_ = false;
    });
}

void PacketsView::replace()
{
    hasSizedColumns_ = false;
    pending_ = -1;
    kinds_->clear();
    for (const RowFilter::Kind& kind : filterKinds(PacketAnalyzers()))
        kinds_->addItem(kind.title.empty() ? tr("Any column contains") : shownText(kind.title), QVariant());
    applyFilter();
}

void PacketsView::applyFilter()
{
    typing_.stop();
    const QModelIndex current = table_->currentIndex();
    if (current.isValid() && pending_ < 0) pending_ = model_->position(current.row());
    const auto kinds = filterKinds(PacketAnalyzers());
    const auto chosen = static_cast<std::size_t>(std::max(kinds_->currentIndex(), 0));
    model_->setFilter({.showsEveryPacket = everything_->isChecked(),
                       .times = chart_->times(),
                       .kind = kinds[std::min(chosen, kinds.size() - 1)],
                       .text = text_->text().toStdString()});
}

void PacketsView::focusFilter()
{
    text_->setFocus(Qt::ShortcutFocusReason);
    text_->selectAll();
}

bool PacketsView::showsEveryPacket() const { return everything_->isChecked(); }
void PacketsView::setShowsEveryPacket(bool shows) { everything_->setChecked(shows); }

void PacketsView::showPacket(qint64 number)
{
    const auto& packets = document_.packets();
    if (!packets || number < 1 || number > packets->size()) return;
    pending_ = number - 1;
    // Whoever jumps to a packet wants to see it, whatever the filter says.
    if (!model_->filter().accepts(*packets, pending_)) {
        const bool showsAll = (*packets)[pending_].plugIn == PacketEntry::unrecognized || everything_->isChecked();
        text_->clear();
        chart_->setTimes(std::nullopt);
        everything_->setChecked(showsAll);
        applyFilter();
    }
    choosePending();
    table_->setFocus();
}

void PacketsView::choosePending()
{
    if (pending_ < 0) return;
    const int row = model_->rowOf(pending_);
    if (row < 0 || model_->position(row) != pending_) return;
    pending_ = -1;
    const QModelIndex index = model_->index(row, 0);
    table_->setCurrentIndex(index);
    table_->scrollTo(index, QAbstractItemView::PositionAtCenter);
}

void PacketsView::showRow(const QModelIndex& index)
{
    VELNodeList nodes;
    Data bytes;
    if (index.isValid()) {
        const qint64 position = model_->position(index.row());
        try {
            const PacketRow row = document_.packets()->row(position);
            bytes = Data(row.payload);
            if (row.match) nodes = row.match.analyzer->protocolNodes(row.payload);
        } catch (const std::exception& problem) {
            document_.tell(tr("Packet %1 cannot be dissected: %2").arg(position + 1).arg(shownText(problem.what())));
        }
        chart_->setMoment((*document_.packets())[position].time);
    } else {
        chart_->setMoment(std::nullopt);
    }
    fieldModel_->setNodes(std::move(nodes));
    bytes_->setBytes(std::move(bytes));
    expand({}, 0);
}

void PacketsView::expand(const QModelIndex& parent, int depth)
{
    // The fields that one wants to see first: those of a few messages, and not the items of long lists.
    constexpr int mostExpanded = 8, deepest = 3;
    if (fieldModel_->rowCount(parent) > mostExpanded && depth > 0) return;
    for (int row = 0; row < std::min(fieldModel_->rowCount(parent), mostExpanded); ++row) {
        const QModelIndex field = fieldModel_->index(row, 0, parent);
        if (!fieldModel_->hasChildren(field)) continue;
        fields_->expand(field);
        if (depth + 1 < deepest) expand(field, depth + 1);
    }
}

void PacketsView::showSummary()
{
    const auto& packets = document_.packets();
    const qlonglong rows = model_->rowCount();
    const qlonglong all = packets ? packets->size() : 0;
    QString empty;
    if (packets && rows == 0 && !model_->isFiltering() && !document_.isReading()) {
        const RowFilter& filter = model_->filter();
        if (all == 0)
            empty = tr("The capture has no packets");
        else if (!filter.text.empty() || filter.times)
            empty = tr("No packet passes the filter");
        else
            empty = tr("No plug-in recognizes any of the %1 packets; “All packets” shows them").arg(locale().toString(all));
    }
    placeholder_->setText(empty);
    placeholder_->setVisible(!empty.isEmpty());
    Q_EMIT summaryChanged(packets ? tr("%1 of %2 packets shown").arg(locale().toString(rows), locale().toString(all)) : QString());
}

void PacketsView::sizeColumns()
{
    hasSizedColumns_ = true;
    constexpr int widestColumn = 320, measuredRows = 40;
    const QFontMetrics metrics(table_->font());
    for (int column = 0; column < model_->infoColumn(); ++column) {
        const auto widthOf = [&](const QVariant& text) { return metrics.horizontalAdvance(text.toString()) + 24; };
        int width = widthOf(model_->headerData(column, Qt::Horizontal, Qt::DisplayRole));
        for (int row = 0; row < std::min(model_->rowCount(), measuredRows); ++row)
            width = std::max(width, widthOf(model_->data(model_->index(row, column), Qt::DisplayRole)));
        // Numbers grow on the way down.
        if (column == PacketModel::number) width = std::max(width, widthOf(QStringLiteral("000000")));
        table_->setColumnWidth(column, std::min(width, widestColumn));
    }
}

QString PacketsView::copiedText() const
{
    const QModelIndex current = table_->currentIndex();
    if (!current.isValid()) return {};
    QStringList cells;
    for (int column = 0; column < model_->columnCount(); ++column) cells.append(current.siblingAtColumn(column).data().toString());
    return cells.join(QLatin1Char('\t'));
}

QByteArray PacketsView::layoutState() const
{
    QByteArray state;
    QDataStream stream(&state, QIODevice::WriteOnly);
    stream << stateVersion << parts_->saveState() << details_->saveState() << fields_->header()->saveState();
    return state;
}

void PacketsView::restoreLayoutState(const QByteArray& state)
{
    QDataStream stream(state);
    int version = 0;
    QByteArray parts, details, fields;
    stream >> version >> parts >> details >> fields;
    if (version != stateVersion || stream.status() != QDataStream::Ok) return;
    parts_->restoreState(parts);
    details_->restoreState(details);
    fields_->header()->restoreState(fields);
}

}  // namespace sealscope::desktop
