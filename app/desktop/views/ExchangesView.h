// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Document.h"

#include <QWidget>

#include <cstdint>
#include <vector>

class QProgressBar;

namespace sealscope::desktop {

class ExchangesModel;
class FilterBar;
class TableView;

/// What was asked and what came back, over all streams of a document.
class ExchangesView final : public QWidget {
    Q_OBJECT
public:
    explicit ExchangesView(Document& document, QWidget* parent = nullptr);

    ExchangesModel& model() { return *model_; }
    TableView& table() { return *table_; }
    FilterBar& filter() { return *filter_; }
    /// The streams of the selected exchanges, by number.
    std::vector<std::int64_t> selectedStreams() const;

Q_SIGNALS:
    /// The user wants to see an exchange in its conversation: its first message, by its mark.
    void messageChosen(qint64 stream, quint64 mark);

private:
    void showCount();
    void choose();
    void showMenu(const QPoint& position);

    ExchangesModel* model_;
    TableView* table_;
    FilterBar* filter_;
    QProgressBar* progress_;
};

}  // namespace sealscope::desktop
