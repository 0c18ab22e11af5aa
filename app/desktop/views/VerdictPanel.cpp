// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/VerdictPanel.h"

#include "app/desktop/views/ToneColors.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace sealscope::desktop {

VerdictPanel::VerdictPanel(QWidget* parent)
    : QFrame(parent), stream_(new QLabel), badge_(new QLabel), sentence_(new QLabel), chooseKeyLog_(new QPushButton(tr("Choose &Key Log…"))),
      copyLine_(new QPushButton(tr("Copy SSLKEYLOGFILE &Line"))), follow_(new QPushButton(tr("Follow &Stream")))
{
    setFrameShape(QFrame::NoFrame);
    for (QLabel* label : {stream_, badge_, sentence_}) label->setTextFormat(Qt::PlainText);
    sentence_->setWordWrap(true);
    sentence_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    sentence_->setAccessibleName(tr("What the verdict means"));
    badge_->setAlignment(Qt::AlignCenter);
    copyLine_->setToolTip(tr("For a terminal: a client that is started with this line writes its secrets to a file that is read here"));
    follow_->setToolTip(tr("Show what was said in this stream"));
    QFont bold = stream_->font();
    bold.setBold(true);
    stream_->setFont(bold);

    auto* const heading = new QHBoxLayout;
    heading->addWidget(stream_);
    heading->addWidget(badge_);
    heading->addStretch(1);
    for (QPushButton* button : {chooseKeyLog_, copyLine_, follow_}) heading->addWidget(button);
    auto* const layout = new QVBoxLayout(this);
    layout->setContentsMargins(10, 8, 10, 8);
    layout->addLayout(heading);
    layout->addWidget(sentence_);
    connect(chooseKeyLog_, &QPushButton::clicked, this, &VerdictPanel::keyLogWanted);
    connect(copyLine_, &QPushButton::clicked, this, &VerdictPanel::keyLogLineWanted);
    connect(follow_, &QPushButton::clicked, this, &VerdictPanel::conversationWanted);
    clear();
}

void VerdictPanel::describe(const QString& stream, Tone tone, const QString& verdict, const QString& sentence, Advice advice)
{
    tone_ = tone;
    stream_->setText(stream);
    const QString sign = toneSign(tone);
    badge_->setText(sign.isEmpty() ? verdict : sign + QStringLiteral("  ") + verdict);
    badge_->setAccessibleName(tr("Verdict: %1").arg(verdict));
    badge_->show();
    const QString whole = sentence.left(1).toUpper() + sentence.mid(1);
    const bool isEnded = sentence.isEmpty() || sentence.endsWith(QLatin1Char('?')) || sentence.endsWith(QChar(u'？'));
    sentence_->setText(isEnded ? whole : tr("%1.").arg(whole));
    const bool wantsSecrets = advice == Advice::giveKeyLog || advice == Advice::giveOtherKeyLog || advice == Advice::logAllSecrets;
    chooseKeyLog_->setVisible(wantsSecrets);
    copyLine_->setVisible(advice == Advice::giveKeyLog || advice == Advice::giveOtherKeyLog);
    follow_->show();
    color();
}

void VerdictPanel::clear()
{
    stream_->setText(tr("No stream is selected"));
    sentence_->setText(QString());
    badge_->hide();
    for (QPushButton* button : {chooseKeyLog_, copyLine_, follow_}) button->hide();
}

void VerdictPanel::color()
{
    const TintColors colors = toneColors(tone_, palette());
    badge_->setStyleSheet(QStringLiteral("QLabel { background: %1; color: %2; border-radius: 9px; padding: 2px 9px; }")
                              .arg(colors.fill.name(), colors.text.name()));
}

void VerdictPanel::changeEvent(QEvent* event)
{
    QFrame::changeEvent(event);
    if (event->type() == QEvent::PaletteChange) color();
}

}  // namespace sealscope::desktop
