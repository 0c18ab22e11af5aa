// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QTableView>
#include <QTimer>

#include <initializer_list>
#include <utility>

namespace sealscope::desktop {

/// A table of records as the views of a document show it: rows of one height, sorted by a click, and told which of them are seen.
class TableView final : public QTableView {
    Q_OBJECT
public:
    /// `name` is for who hears the window instead of seeing it.
    TableView(QAbstractItemModel* model, const QString& name, QWidget* parent = nullptr);
    /// Widths of columns in characters; at least what their titles take.
    void setWidths(std::initializer_list<std::pair<int, int>> widths);
    /// Whether the end stays in sight when rows come while it is.
    void setFollowsEnd(bool follows) { followsEnd_ = follows; }

Q_SIGNALS:
    /// The user double-clicked a row, or pressed Return on it.
    void chosen(const QModelIndex& index);
    /// Rows from the first to the last are seen, after a pause in scrolling.
    void seen(int first, int last);

protected:
    void keyPressEvent(QKeyEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void scrollContentsBy(int dx, int dy) override;

private:
    void tellSeen();

    QTimer pause_;
    bool followsEnd_ = false;
    bool wasAtEnd_ = false;
};

}  // namespace sealscope::desktop
