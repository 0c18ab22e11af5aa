// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/MessageBar.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QStyle>
#include <QToolButton>

namespace sealscope::desktop {

namespace {

constexpr qsizetype mostSentences = 4;  ///< older ones give way

}  // namespace

MessageBar::MessageBar(QWidget* parent) : QFrame(parent), label_(new QLabel), close_(new QToolButton)
{
    setFrameShape(QFrame::StyledPanel);
    setAutoFillBackground(true);
    setBackgroundRole(QPalette::ToolTipBase);
    label_->setForegroundRole(QPalette::ToolTipText);
    label_->setTextFormat(Qt::PlainText);
    label_->setWordWrap(true);
    label_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    close_->setAutoRaise(true);
    close_->setIcon(style()->standardIcon(QStyle::SP_DockWidgetCloseButton));
    close_->setToolTip(tr("Dismiss"));
    close_->setAccessibleName(tr("Dismiss the message"));
    auto* const sign = new QLabel;
    const int side = style()->pixelMetric(QStyle::PM_SmallIconSize);
    sign->setPixmap(style()->standardIcon(QStyle::SP_MessageBoxWarning).pixmap(side, side));
    sign->setAccessibleName(tr("Warning"));
    auto* const layout = new QHBoxLayout(this);
    layout->addWidget(sign, 0, Qt::AlignTop);
    layout->addWidget(label_, 1);
    layout->addWidget(close_, 0, Qt::AlignTop);
    connect(close_, &QToolButton::clicked, this, &MessageBar::clear);
    hide();
}

void MessageBar::tell(const QString& sentence)
{
    if (sentence.isEmpty() || sentences_.contains(sentence)) return;
    sentences_.append(sentence);
    if (sentences_.size() > mostSentences) sentences_.removeFirst();
    showSentences();
}

void MessageBar::clear()
{
    sentences_.clear();
    showSentences();
}

QString MessageBar::text() const { return sentences_.join(QLatin1Char('\n')); }

void MessageBar::showSentences()
{
    label_->setText(text());
    label_->setAccessibleName(text());
    setVisible(!sentences_.isEmpty());
}

void MessageBar::changeEvent(QEvent* event)
{
    QFrame::changeEvent(event);
    if (event->type() == QEvent::StyleChange) close_->setIcon(style()->standardIcon(QStyle::SP_DockWidgetCloseButton));
}

}  // namespace sealscope::desktop
