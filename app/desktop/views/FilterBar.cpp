// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/FilterBar.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QShortcut>

#include <chrono>

namespace sealscope::desktop {

namespace {

constexpr std::chrono::milliseconds pauseInTyping{120};

}  // namespace

FilterBar::FilterBar(const QString& placeholder, const QString& accessibleName, QWidget* parent)
    : QWidget(parent), layout_(new QHBoxLayout(this)), field_(new QLineEdit), count_(new QLabel)
{
    layout_->setContentsMargins(8, 6, 8, 6);
    field_->setPlaceholderText(placeholder);
    field_->setAccessibleName(accessibleName);
    field_->setClearButtonEnabled(true);
    field_->setMaxLength(1'000);
    field_->installEventFilter(this);
    count_->setTextFormat(Qt::PlainText);
    layout_->addWidget(field_, 1);
    layout_->addWidget(count_);
    pause_.setSingleShot(true);
    pause_.setInterval(pauseInTyping);
    connect(field_, &QLineEdit::textChanged, &pause_, qOverload<>(&QTimer::start));
    connect(&pause_, &QTimer::timeout, this, [this] { Q_EMIT changed(field_->text()); });
    connect(field_, &QLineEdit::returnPressed, this, [this] {
        pause_.stop();
        Q_EMIT changed(field_->text());
        Q_EMIT left();
    });
}

void FilterBar::add(QWidget* control) { layout_->insertWidget(layout_->count() - 1, control); }

void FilterBar::showCount(qint64 shown, qint64 all, const QString& noun)
{
    count_->setText(shown == all ? tr("%L1 %2").arg(all).arg(noun) : tr("%L1 of %L2 %3").arg(shown).arg(all).arg(noun));
}

bool FilterBar::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == field_ && event->type() == QEvent::KeyPress) {
        const int key = static_cast<QKeyEvent*>(event)->key();
        if (key == Qt::Key_Down) {
            Q_EMIT left();
            return true;
        }
        if (key == Qt::Key_Escape && !field_->text().isEmpty()) {
            field_->clear();
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

}  // namespace sealscope::desktop
