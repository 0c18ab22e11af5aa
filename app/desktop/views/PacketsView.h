// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Document.h"

#include <QTimer>
#include <QWidget>

class QComboBox;
class QLabel;
class QLineEdit;
class QModelIndex;
class QSplitter;
class QTableView;
class QToolButton;
class QTreeView;

namespace sealscope::desktop {

class ActivityChart;
class FieldModel;
class HexView;
class PacketModel;

/// The packets of a capture: the chart over time, the list with its filter, and of the chosen packet the fields beside the bytes.
class PacketsView final : public QWidget {
    Q_OBJECT
public:
    explicit PacketsView(Document& document, QWidget* parent = nullptr);

    /// Chooses a packet by its number, and shows all packets where it is not among the recognized ones.
    void showPacket(qint64 number);
    void focusFilter();
    bool showsEveryPacket() const;
    void setShowsEveryPacket(bool shows);
    /// The chosen row as text, columns apart by tabs; empty when there is none.
    QString copiedText() const;

    PacketModel& packets() { return *model_; }
    QTableView& table() { return *table_; }
    QTreeView& fields() { return *fields_; }
    HexView& bytes() { return *bytes_; }
    ActivityChart& chart() { return *chart_; }
    QByteArray layoutState() const;
    void restoreLayoutState(const QByteArray& state);

Q_SIGNALS:
    /// What the list shows, in words.
    void summaryChanged(const QString& summary);
    void showsEveryPacketChanged(bool shows);

private:
    QWidget* makeFilterBar();
    void makeTable();
    void makeDetails();
    void connectDetails();
    void replace();
    void applyFilter();
    void choosePending();
    void showRow(const QModelIndex& index);
    /// Expands what is below a field as far as one wants to see it first.
    void expand(const QModelIndex& parent, int depth);
    void showSummary();
    void sizeColumns();

    Document& document_;
    PacketModel* model_;
    FieldModel* fieldModel_;
    ActivityChart* chart_;
    QComboBox* kinds_;
    QLineEdit* text_;
    QToolButton* everything_;
    QLabel* placeholder_;
    QTableView* table_;
    QTreeView* fields_;
    HexView* bytes_;
    QSplitter* details_;
    QSplitter* parts_;
    QTimer typing_;               ///< a filter waits for the end of a word
    qint64 pending_ = -1;         ///< position of the packet to choose once its row is found
    bool isMarking_ = false;      ///< a field is being chosen because of a byte, which is chosen already
    bool hasSizedColumns_ = false;
    bool followsEnd_ = false;     ///< rows come while the end of the list is in sight
};

}  // namespace sealscope::desktop
