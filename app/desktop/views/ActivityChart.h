// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Document.h"
#include "app/desktop/models/ActivityBins.h"

#include <QWidget>

#include <optional>
#include <utility>

namespace sealscope::desktop {

/// The capture over time: bytes as bars, packets as a line. Dragging over it, or Shift with the arrow keys and Enter, chooses a
/// span of time; Escape or a double click chooses all again.
class ActivityChart final : public QWidget {
    Q_OBJECT
public:
    using Times = std::pair<double, double>;

    explicit ActivityChart(Document& document, QWidget* parent = nullptr);

    /// The span that is shown; nothing for all.
    const std::optional<Times>& times() const { return times_; }
    void setTimes(std::optional<Times> times);
    /// Marks a moment, such as that of the packet that is looked at.
    void setMoment(std::optional<double> moment);
    const ActivityBins& bins() const { return bins_; }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

Q_SIGNALS:
    /// The user chose a span, or all.
    void timesChosen(std::optional<std::pair<double, double>> times);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    void count();
    QRectF plot() const;
    double timeAt(double x) const;
    double placeOf(double time) const;
    void paintBars(QPainter& painter, const QRectF& area) const;
    void paintTexts(QPainter& painter, const QRectF& area) const;
    void chooseSelection();
    void chooseAll();
    void describe();

    Document& document_;
    std::optional<Times> times_;
    std::optional<double> moment_;
    ActivityBins bins_;
    std::unique_ptr<Job> counting_;
    bool isStale_ = false;             ///< something changed while it was being counted
    std::optional<Times> selection_;   ///< that the user is making; first where it began
};

}  // namespace sealscope::desktop
