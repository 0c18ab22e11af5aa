// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/TableView.h"

#include <QHeaderView>
#include <QKeyEvent>
#include <QScrollBar>
#include <algorithm>
#include <chrono>

namespace sealscope::desktop {

namespace {

constexpr std::chrono::milliseconds pauseInScrolling{30};

}  // namespace

TableView::TableView(QAbstractItemModel* model, const QString& name, QWidget* parent) : QTableView(parent)
{
    setAccessibleName(name);
    setSelectionBehavior(QAbstractItemView::SelectRows);
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    setShowGrid(false);
    setWordWrap(false);
    setTabKeyNavigation(false);
    setHorizontalScrollMode(QAbstractItemView::ScrollPerPixel);
    setFrameShape(QFrame::NoFrame);
    verticalHeader()->hide();
    verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    verticalHeader()->setDefaultSectionSize(fontMetrics().height() + 8);
    horizontalHeader()->setHighlightSections(false);
    horizontalHeader()->setDefaultAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    horizontalHeader()->setStretchLastSection(true);
    setModel(model);
    setSortingEnabled(true);
    connect(this, &QAbstractItemView::doubleClicked, this, &TableView::chosen);
    pause_.setSingleShot(true);
    pause_.setInterval(pauseInScrolling);
    connect(&pause_, &QTimer::timeout, this, &TableView::tellSeen);
    connect(model, &QAbstractItemModel::modelReset, &pause_, qOverload<>(&QTimer::start));
    connect(model, &QAbstractItemModel::layoutChanged, &pause_, qOverload<>(&QTimer::start));
    connect(model, &QAbstractItemModel::layoutAboutToBeChanged, this,
            [this] { wasAtEnd_ = verticalScrollBar()->value() == verticalScrollBar()->maximum(); });
    connect(model, &QAbstractItemModel::layoutChanged, this, [this] {
        if (followsEnd_ && wasAtEnd_) scrollToBottom();
    });
}

void TableView::setWidths(std::initializer_list<std::pair<int, int>> widths)
{
    const int letter = fontMetrics().averageCharWidth();
    // A title may be longer in another language.
    for (const auto& [column, characters] : widths)
        setColumnWidth(column, std::max(characters * letter + 16, horizontalHeader()->sectionSizeHint(column)));
}

void TableView::tellSeen()
{
    const int first = rowAt(0), last = rowAt(viewport()->height() - 1);
    if (first >= 0) Q_EMIT seen(first, last >= 0 ? last : model()->rowCount() - 1);
}

void TableView::keyPressEvent(QKeyEvent* event)
{
    if ((event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) && currentIndex().isValid()) {
        Q_EMIT chosen(currentIndex());
        return event->accept();
    }
    QTableView::keyPressEvent(event);
}

void TableView::resizeEvent(QResizeEvent* event)
{
    QTableView::resizeEvent(event);
    pause_.start();
}

void TableView::scrollContentsBy(int dx, int dy)
{
    QTableView::scrollContentsBy(dx, dy);
    if (dy != 0) pause_.start();
}

}  // namespace sealscope::desktop
