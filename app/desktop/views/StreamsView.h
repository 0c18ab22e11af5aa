// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Document.h"

#include <QWidget>

#include <cstdint>
#include <vector>

class QComboBox;

namespace sealscope::desktop {

class FilterBar;
class StreamsModel;
class TableView;
class VerdictPanel;

/// The streams of a document: a row each with the verdict on it, and below what to do about the one that is selected.
class StreamsView final : public QWidget {
    Q_OBJECT
public:
    explicit StreamsView(Document& document, QWidget* parent = nullptr);

    StreamsModel& model() { return *model_; }
    TableView& table() { return *table_; }
    FilterBar& filter() { return *filter_; }
    VerdictPanel& panel() { return *panel_; }
    /// The selected streams, by number.
    std::vector<std::int64_t> selectedStreams() const;

Q_SIGNALS:
    void selectionChanged();

private:
    void describeCurrent();
    void showCount();
    void listVerdicts();
    void chooseKeyLog();
    void copyKeyLogLine();
    void follow();
    void showMenu(const QPoint& position);

    Document& document_;
    StreamsModel* model_;
    TableView* table_;
    FilterBar* filter_;
    QComboBox* verdicts_;
    VerdictPanel* panel_;
};

}  // namespace sealscope::desktop
