// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/ActivityChart.h"

#include "app/desktop/StringTableTranslator.h"
#include "app/texts/SizeText.h"
#include "app/texts/TimeText.h"

#include <QKeyEvent>
#include <QLocale>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

#include <algorithm>
#include <cmath>

namespace sealscope::desktop {

namespace {

constexpr int barWidth = 4;       ///< pixels, the gap to the next included
constexpr double leastDrag = 3;   ///< pixels; less is a click
constexpr double margin = 6;

QString clockText(double time)
{
    std::string text;
    TimeText().appendClock(text, time);
    return QString::fromStdString(text.substr(0, TimeText::clockWidth - 3));
}

/// A duration that may be a very short one.
QString spanText(double seconds)
{
    if (seconds > 0 && seconds < 0.0005) return QStringLiteral("%1 µs").arg(seconds * 1e6, 0, 'f', seconds < 1e-5 ? 1 : 0);
    return QString::fromStdString(durationText(seconds, windowReader()));
}

}  // namespace

ActivityChart::ActivityChart(Document& document, QWidget* parent) : QWidget(parent), document_(document)
{
    setFocusPolicy(Qt::StrongFocus);
    setAccessibleName(tr("Capture over time"));
    setToolTip(tr("Drag to show a span of time; double-click to show all"));
    setCursor(Qt::CrossCursor);
    connect(&document, &Document::replaced, this, [this] {
        times_.reset();
        selection_.reset();
        moment_.reset();
        counting_.reset();
        bins_ = {};
        count();
    });
    connect(&document, &Document::packetsFound, this, &ActivityChart::count);
}

QSize ActivityChart::sizeHint() const { return {400, fontMetrics().height() * 2 + 60}; }
QSize ActivityChart::minimumSizeHint() const { return {120, fontMetrics().height() * 2 + 30}; }

void ActivityChart::setTimes(std::optional<Times> times)
{
    times_ = times;
    selection_.reset();
    counting_.reset();
    count();
}

void ActivityChart::setMoment(std::optional<double> moment)
{
    moment_ = moment;
    update();
}

void ActivityChart::count()
{
    update();
    if (counting_) {
        isStale_ = true;
        return;
    }
    if (!document_.packets()) return;
    isStale_ = false;
    const auto bins = static_cast<std::size_t>(std::max(plot().width() / barWidth, 1.0));
    counting_ = compute([packets = document_.packets(), times = times_,
                         bins](const std::stop_token& stop) { return ActivityBins::count(*packets, times, bins, stop); },
                        [this](ActivityBins counted) {
                            counting_.reset();
                            bins_ = std::move(counted);
                            describe();
                            update();
                            if (isStale_) count();
                        });
}

void ActivityChart::describe()
{
    if (bins_.bins.empty()) return setAccessibleDescription({});
    setAccessibleDescription(tr("From %1 to %2").arg(clockText(bins_.start), clockText(bins_.end)));
}

QRectF ActivityChart::plot() const
{
    const double text = fontMetrics().height();
    return QRectF(rect()).adjusted(margin, text + 4, -margin, -text - 4);
}

double ActivityChart::timeAt(double x) const
{
    const QRectF area = plot();
    const double share = area.width() > 0 ? std::clamp((x - area.left()) / area.width(), 0.0, 1.0) : 0;
    return bins_.start + share * bins_.duration();
}

double ActivityChart::placeOf(double time) const
{
    const QRectF area = plot();
    const double share = bins_.duration() > 0 ? std::clamp((time - bins_.start) / bins_.duration(), 0.0, 1.0) : 0.5;
    return area.left() + share * area.width();
}

void ActivityChart::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    const QRectF area = plot();
    painter.fillRect(rect(), palette().base());
    painter.setPen(palette().color(QPalette::Mid));
    painter.drawLine(area.bottomLeft(), area.bottomRight());
    if (!bins_.bins.empty()) {
        paintBars(painter, area);
        paintTexts(painter, area);
        if (moment_ && *moment_ >= bins_.start && *moment_ <= bins_.end) {
            painter.setPen(palette().color(QPalette::Text));
            const double x = std::round(placeOf(*moment_)) + 0.5;
            painter.drawLine(QPointF(x, area.top()), QPointF(x, area.bottom()));
        }
    }
    if (selection_) {
        QColor shade = palette().color(QPalette::Highlight);
        painter.setPen(shade);
        shade.setAlphaF(0.25F);
        const double a = placeOf(selection_->first), b = placeOf(selection_->second);
        const QRectF chosen(std::min(a, b), area.top(), std::abs(b - a), area.height());
        painter.fillRect(chosen, shade);
        painter.drawRect(chosen);
    }
    if (hasFocus()) {
        painter.setPen(palette().color(QPalette::Highlight));
        painter.drawRect(rect().adjusted(0, 0, -1, -1));
    }
}

void ActivityChart::paintBars(QPainter& painter, const QRectF& area) const
{
    const ActivityBins::Bin highest = bins_.highest();
    const double step = area.width() / static_cast<double>(bins_.bins.size());
    QColor bar = palette().color(QPalette::Highlight);
    bar.setAlphaF(0.55F);
    QPainterPath line;
    for (std::size_t i = 0; i < bins_.bins.size(); ++i) {
        const ActivityBins::Bin& bin = bins_.bins[i];
        const double x = area.left() + step * static_cast<double>(i);
        const auto share = [&](std::int64_t count, std::int64_t most) {
            return most > 0 ? area.height() * static_cast<double>(count) / static_cast<double>(most) : 0;
        };
        // What is there at all is seen.
        if (const double height = share(bin.bytes, highest.bytes); bin.bytes > 0)
            painter.fillRect(QRectF(x, area.bottom() - std::max(height, 1.0), std::max(step - 1, 1.0), std::max(height, 1.0)), bar);
        const QPointF point(x + step / 2, area.bottom() - share(bin.packets, highest.packets));
        if (i == 0)
            line.moveTo(point);
        else
            line.lineTo(point);
    }
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(palette().color(QPalette::Text), 1.2));
    painter.drawPath(line);
    painter.setRenderHint(QPainter::Antialiasing, false);
}

void ActivityChart::paintTexts(QPainter& painter, const QRectF& area) const
{
    const ActivityBins::Bin highest = bins_.highest();
    const double span = bins_.duration() / static_cast<double>(bins_.bins.size());
    painter.setPen(palette().color(QPalette::PlaceholderText));
    const QRectF above(area.left(), 2, area.width(), fontMetrics().height()), below(area.left(), area.bottom() + 2, area.width(), fontMetrics().height());
    const QString most = tr("at most %1 and %2 packets in %3")
                             .arg(QString::fromStdString(sizeText(highest.bytes, windowReader())),
                                  locale().toString(qlonglong{highest.packets}), spanText(span));
    QString legend = tr("■ bytes   ━ packets");
    if (times_) legend += QStringLiteral("   ") + tr("(Esc shows all)");
    if (fontMetrics().horizontalAdvance(most + legend) + 20 < area.width()) painter.drawText(above, Qt::AlignRight, most);
    painter.drawText(above, Qt::AlignLeft, legend);
    painter.drawText(below, Qt::AlignLeft, clockText(bins_.start));
    painter.drawText(below, Qt::AlignRight, clockText(bins_.end));
    painter.drawText(below, Qt::AlignHCenter, spanText(bins_.duration()));
}

void ActivityChart::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    count();
}

void ActivityChart::chooseAll()
{
    selection_.reset();
    update();
    if (!times_) return;
    setTimes(std::nullopt);
    Q_EMIT timesChosen(times_);
}

void ActivityChart::chooseSelection()
{
    if (!selection_) return;
    setTimes(std::minmax(selection_->first, selection_->second));
    Q_EMIT timesChosen(times_);
}

void ActivityChart::mousePressEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton || bins_.bins.empty()) return;
    const double time = timeAt(event->position().x());
    selection_ = Times(time, time);
}

void ActivityChart::mouseMoveEvent(QMouseEvent* event)
{
    if (!selection_ || !(event->buttons() & Qt::LeftButton)) return;
    selection_->second = timeAt(event->position().x());
    update();
}

void ActivityChart::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton || !selection_) return;
    if (std::abs(placeOf(selection_->second) - placeOf(selection_->first)) >= leastDrag) return chooseSelection();
    selection_.reset();
    update();
}

void ActivityChart::mouseDoubleClickEvent(QMouseEvent*) { chooseAll(); }

void ActivityChart::keyPressEvent(QKeyEvent* event)
{
    const bool isArrow = event->key() == Qt::Key_Left || event->key() == Qt::Key_Right;
    if (isArrow && !bins_.bins.empty()) {
        if (!selection_) selection_ = Times(bins_.start, bins_.start);
        const double step = bins_.duration() / 50 * (event->key() == Qt::Key_Left ? -1 : 1);
        selection_->second = std::clamp(selection_->second + step, bins_.start, bins_.end);
        if (!(event->modifiers() & Qt::ShiftModifier)) selection_->first = selection_->second;
        update();
    } else if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) {
        chooseSelection();
    } else if (event->key() == Qt::Key_Escape) {
        chooseAll();
    } else {
        QWidget::keyPressEvent(event);
    }
}

}  // namespace sealscope::desktop
