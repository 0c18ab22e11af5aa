// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/StreamsView.h"

#include "app/desktop/StringTableTranslator.h"
#include "app/desktop/models/StreamsModel.h"
#include "app/desktop/views/FilterBar.h"
#include "app/desktop/views/TableView.h"
#include "app/desktop/views/VerdictDelegate.h"
#include "app/desktop/views/VerdictPanel.h"
#include "host/VELCommonTools/KeylogLocations.h"

#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QFileDialog>
#include <QLineEdit>
#include <QMenu>
#include <QVBoxLayout>
#include <algorithm>

namespace sealscope::desktop {

namespace {

using StreamColumn = StreamTable::Column;

constexpr int column(StreamColumn column) { return static_cast<int>(column); }

}  // namespace

StreamsView::StreamsView(Document& document, QWidget* parent)
    : QWidget(parent), document_(document), model_(new StreamsModel(document, this)), table_(new TableView(model_, tr("Streams"))),
      filter_(new FilterBar(tr("Filter by address, port, server name, version or verdict"), tr("Filter the streams"))),
      verdicts_(new QComboBox), panel_(new VerdictPanel)
{
    table_->setItemDelegateForColumn(column(StreamColumn::verdict), new VerdictDelegate(table_));
    table_->setContextMenuPolicy(Qt::CustomContextMenu);
    table_->setWidths({{column(StreamColumn::number), 9},
                       {column(StreamColumn::client), 20},
                       {column(StreamColumn::server), 20},
                       {column(StreamColumn::serverName), 20},
                       {column(StreamColumn::version), 8},
                       {column(StreamColumn::sent), 8},
                       {column(StreamColumn::received), 9},
                       {column(StreamColumn::start), 25},
                       {column(StreamColumn::duration), 9},
                       {column(StreamColumn::verdict), 27}});
    table_->sortByColumn(column(StreamColumn::number), Qt::AscendingOrder);
    verdicts_->setAccessibleName(tr("Show streams of one verdict"));
    verdicts_->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    filter_->add(verdicts_);
    listVerdicts();

    auto* const layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(filter_);
    layout->addWidget(table_, 1);
    layout->addWidget(panel_);

    connect(&document, &Document::replaced, this, [this, &document] { table_->setFollowsEnd(document.isLive()); });
    connect(filter_, &FilterBar::changed, model_, &StreamsModel::setFilter);
    connect(filter_, &FilterBar::left, this, [this] {
        table_->setFocus();
        if (!table_->currentIndex().isValid() && model_->rowCount() > 0) table_->selectRow(0);
    });
    connect(verdicts_, &QComboBox::currentIndexChanged, this,
            [this](int index) { model_->setVerdictFilter(index > 0 ? verdicts_->itemText(index) : QString()); });
    connect(model_, &StreamsModel::verdictsChanged, this, &StreamsView::listVerdicts);
    connect(model_, &ArrangedModel::arranged, this, &StreamsView::showCount);
    connect(model_, &QAbstractItemModel::dataChanged, this, &StreamsView::describeCurrent);
    connect(model_, &QAbstractItemModel::modelReset, this, &StreamsView::describeCurrent);
    connect(table_, &TableView::seen, model_, &StreamsModel::wantRows);
    connect(table_, &TableView::chosen, this, &StreamsView::follow);
    connect(table_, &QWidget::customContextMenuRequested, this, &StreamsView::showMenu);
    connect(table_->selectionModel(), &QItemSelectionModel::currentRowChanged, this, &StreamsView::describeCurrent);
    connect(table_->selectionModel(), &QItemSelectionModel::selectionChanged, this, &StreamsView::selectionChanged);
    connect(panel_, &VerdictPanel::keyLogWanted, this, &StreamsView::chooseKeyLog);
    connect(panel_, &VerdictPanel::keyLogLineWanted, this, &StreamsView::copyKeyLogLine);
    connect(panel_, &VerdictPanel::conversationWanted, this, &StreamsView::follow);
    setFocusProxy(table_);
    showCount();
}

std::vector<std::int64_t> StreamsView::selectedStreams() const
{
    std::vector<std::int64_t> streams;
    for (const QModelIndex& index : table_->selectionModel()->selectedRows()) streams.push_back(model_->record(index));
    std::ranges::sort(streams);
    return streams;
}

void StreamsView::describeCurrent()
{
    const QModelIndex current = table_->currentIndex();
    if (!current.isValid()) return panel_->clear();
    const auto text = [&](StreamColumn column) { return current.siblingAtColumn(static_cast<int>(column)).data().toString(); };
    const QString name = text(StreamColumn::serverName);
    panel_->describe(tr("Stream %1, %2").arg(text(StreamColumn::number), name.isEmpty() ? text(StreamColumn::server) : name),
                     static_cast<Tone>(current.data(StreamsModel::ToneRole).toInt()), text(StreamColumn::verdict),
                     current.data(StreamsModel::SentenceRole).toString(),
                     static_cast<Advice>(current.data(StreamsModel::AdviceRole).toInt()));
}

void StreamsView::showCount()
{
    filter_->showCount(model_->rowCount(), model_->recordCount(), model_->recordCount() == 1 ? tr("stream") : tr("streams"));
    describeCurrent();
}

void StreamsView::listVerdicts()
{
    const QSignalBlocker blocker(verdicts_);
    const QString chosen = verdicts_->currentIndex() > 0 ? verdicts_->currentText() : QString();
    verdicts_->clear();
    verdicts_->addItem(tr("All verdicts"));
    QStringList texts = model_->verdicts();
    // What was chosen stays while its streams are judged anew.
    if (!chosen.isEmpty() && !texts.contains(chosen)) texts.append(chosen);
    texts.sort();
    verdicts_->addItems(texts);
    if (!chosen.isEmpty()) verdicts_->setCurrentText(chosen);
}

void StreamsView::chooseKeyLog()
{
    const QStringList files = QFileDialog::getOpenFileNames(this, tr("Choose Key Logs"));
    if (!files.isEmpty()) document_.addKeyLogs(files);
}

void StreamsView::copyKeyLogLine()
{
    const std::string file = KeylogLocations::liveKeylog().string();
    // A client is started with the line next, and finds a file that only its owner reads.
    if (const auto made = KeylogLocations::makeLiveKeylog(); !made)
        document_.tell(QString::fromStdString(windowReader().say("{}: {}", file, made.error().text())));
    else
        QApplication::clipboard()->setText(QString::fromStdString("SSLKEYLOGFILE=" + file));
}

void StreamsView::follow()
{
    const QModelIndex current = table_->currentIndex();
    if (current.isValid()) document_.showStream(model_->record(current));
}

void StreamsView::showMenu(const QPoint& position)
{
    const QModelIndex index = table_->indexAt(position);
    if (!index.isValid()) return;
    QMenu menu;
    menu.addAction(tr("&Follow Stream"), this, &StreamsView::follow);
    menu.addAction(tr("&Copy Text"), this, [index] { QApplication::clipboard()->setText(index.data().toString()); });
    menu.addAction(tr("Filter by &This Text"), this, [this, index] { filter_->field().setText(index.data().toString()); });
    menu.exec(table_->viewport()->mapToGlobal(position));
}

}  // namespace sealscope::desktop
