// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/ExchangesView.h"

#include "app/desktop/models/ExchangesModel.h"
#include "app/desktop/views/FilterBar.h"
#include "app/desktop/views/TableView.h"
#include "app/desktop/views/ToneColors.h"
#include "app/desktop/views/WaterfallDelegate.h"

#include <QApplication>
#include <QClipboard>
#include <QHeaderView>
#include <QLineEdit>
#include <QMenu>
#include <QProgressBar>
#include <QVBoxLayout>
#include <algorithm>

namespace sealscope::desktop {

namespace {

using ExchangeColumn = ExchangeTable::Column;

constexpr int column(ExchangeColumn column) { return static_cast<int>(column); }

/// Colours what failed; the words say it too.
class StatusDelegate final : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

protected:
    void initStyleOption(QStyleOptionViewItem* option, const QModelIndex& index) const override
    {
        QStyledItemDelegate::initStyleOption(option, index);
        if (!index.data(ExchangesModel::FailureRole).toBool()) return;
        option->palette.setColor(QPalette::Text, failureColor(option->palette));
        option->font.setBold(true);
    }
};

}  // namespace

ExchangesView::ExchangesView(Document& document, QWidget* parent)
    : QWidget(parent), model_(new ExchangesModel(document, this)), table_(new TableView(model_, tr("Exchanges"))),
      filter_(new FilterBar(tr("Filter by method, status, type or URL"), tr("Filter the exchanges"))), progress_(new QProgressBar)
{
    table_->setItemDelegateForColumn(column(ExchangeColumn::status), new StatusDelegate(table_));
    table_->setItemDelegateForColumn(column(ExchangeColumn::waterfall), new WaterfallDelegate(*model_, table_));
    table_->setContextMenuPolicy(Qt::CustomContextMenu);
    table_->setWidths({{column(ExchangeColumn::time), 13},
                       {column(ExchangeColumn::stream), 8},
                       {column(ExchangeColumn::method), 9},
                       {column(ExchangeColumn::status), 8},
                       {column(ExchangeColumn::type), 25},
                       {column(ExchangeColumn::size), 9},
                       {column(ExchangeColumn::duration), 10},
                       {column(ExchangeColumn::url), 60},
                       {column(ExchangeColumn::waterfall), 30}});
    table_->horizontalHeader()->setStretchLastSection(false);
    table_->horizontalHeader()->setSectionResizeMode(column(ExchangeColumn::url), QHeaderView::Stretch);
    table_->setTextElideMode(Qt::ElideMiddle);
    table_->sortByColumn(column(ExchangeColumn::time), Qt::AscendingOrder);
    progress_->setTextVisible(false);
    progress_->setMaximumWidth(120);
    progress_->setAccessibleName(tr("Looking for exchanges"));
    progress_->hide();
    filter_->add(progress_);

    auto* const layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(filter_);
    layout->addWidget(table_, 1);

    connect(&document, &Document::replaced, this, [this, &document] { table_->setFollowsEnd(document.isLive()); });
    connect(filter_, &FilterBar::changed, model_, &ExchangesModel::setFilter);
    connect(filter_, &FilterBar::left, this, [this] {
        table_->setFocus();
        if (!table_->currentIndex().isValid() && model_->rowCount() > 0) table_->selectRow(0);
    });
    connect(model_, &ArrangedModel::arranged, this, &ExchangesView::showCount);
    connect(model_, &ExchangesModel::searchingChanged, this, [this] {
        progress_->setRange(0, 0);
        progress_->setVisible(model_->isSearching());
        showCount();
    });
    connect(model_, &ExchangesModel::progressed, this, [this](qint64 done, qint64 total) {
        progress_->setRange(0, 1'000);
        progress_->setValue(static_cast<int>(done * 1'000 / total));
    });
    connect(table_, &TableView::chosen, this, &ExchangesView::choose);
    connect(table_, &QWidget::customContextMenuRequested, this, &ExchangesView::showMenu);
    setFocusProxy(table_);
    showCount();
}

std::vector<std::int64_t> ExchangesView::selectedStreams() const
{
    std::vector<std::int64_t> streams;
    for (const QModelIndex& index : table_->selectionModel()->selectedRows())
        streams.push_back(index.data(ExchangesModel::StreamRole).toLongLong());
    std::ranges::sort(streams);
    const auto repeated = std::ranges::unique(streams);
    streams.erase(repeated.begin(), repeated.end());
    return streams;
}

void ExchangesView::showCount()
{
    filter_->showCount(model_->rowCount(), model_->recordCount(), model_->recordCount() == 1 ? tr("exchange") : tr("exchanges"));
}

void ExchangesView::choose()
{
    const QModelIndex current = table_->currentIndex();
    if (current.isValid())
        Q_EMIT messageChosen(current.data(ExchangesModel::StreamRole).toLongLong(),
                             current.data(ExchangesModel::MessageRole).toULongLong());
}

void ExchangesView::showMenu(const QPoint& position)
{
    const QModelIndex index = table_->indexAt(position);
    if (!index.isValid()) return;
    QMenu menu;
    menu.addAction(tr("&Show Conversation"), this, &ExchangesView::choose);
    menu.addAction(tr("Copy &URL"), this,
                   [index] { QApplication::clipboard()->setText(index.siblingAtColumn(column(ExchangeColumn::url)).data().toString()); });
    menu.addAction(tr("&Copy Text"), this, [index] { QApplication::clipboard()->setText(index.data().toString()); });
    menu.exec(table_->viewport()->mapToGlobal(position));
}

}  // namespace sealscope::desktop
