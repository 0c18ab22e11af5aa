// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/WelcomeView.h"

#include "app/desktop/ShownText.h"
#include "app/desktop/views/ElidedLabel.h"

#include <QCommandLinkButton>
#include <QFileInfo>
#include <QIcon>
#include <QLabel>
#include <QPushButton>
#include <QStyle>
#include <QVBoxLayout>

namespace sealscope::desktop {

namespace {

constexpr int contentWidth = 460;
constexpr int iconSide = 72;
constexpr int mostShown = 5;

}  // namespace

WelcomeView::WelcomeView(QWidget* parent) : QWidget(parent), list_(new QWidget), entries_(new QVBoxLayout(list_))
{
    setBackgroundRole(QPalette::Base);
    setAutoFillBackground(true);
    auto* const icon = new QLabel;
    icon->setPixmap(QIcon(QStringLiteral(":/sealscope-desktop.svg")).pixmap(iconSide, iconSide));
    auto* const hint = new QLabel(tr("Drop a capture here, with its key log if there is one."));
    hint->setTextFormat(Qt::PlainText);
    hint->setForegroundRole(QPalette::PlaceholderText);
    auto* const open = new QPushButton(tr("Open a Capture…"));
    open->setMinimumSize(180, open->sizeHint().height() + 8);
    connect(open, &QPushButton::clicked, this, &WelcomeView::openWanted);
    entries_->setContentsMargins(0, 12, 0, 0);
    entries_->setSpacing(0);
    auto* const column = new QVBoxLayout;
    column->setSpacing(12);
    column->addWidget(icon, 0, Qt::AlignHCenter);
    column->addWidget(hint, 0, Qt::AlignHCenter);
    column->addWidget(open, 0, Qt::AlignHCenter);
    column->addWidget(list_);
    list_->setFixedWidth(contentWidth);
    auto* const layout = new QVBoxLayout(this);
    layout->addStretch(2);
    layout->addLayout(column);
    layout->setAlignment(column, Qt::AlignHCenter);
    layout->addStretch(3);
}

void WelcomeView::setRecentFiles(const QStringList& files)
{
    while (QLayoutItem* const item = entries_->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    for (const QString& file : files.mid(0, mostShown)) {
        const QFileInfo info(file);
        auto* const entry =
            new QCommandLinkButton(shownText(info.fileName().toStdString()).replace(QLatin1Char('&'), QLatin1String("&&")));
        entry->setIcon(style()->standardIcon(QStyle::SP_FileIcon));
        entry->setDescription(fontMetrics().elidedText(shownText(info.path().toStdString()), Qt::ElideMiddle, contentWidth - 60));
        connect(entry, &QCommandLinkButton::clicked, this, [this, file] { Q_EMIT fileWanted(file); });
        entries_->addWidget(entry);
    }
}

}  // namespace sealscope::desktop
