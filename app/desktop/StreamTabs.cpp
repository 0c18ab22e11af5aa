// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/StreamTabs.h"

#include "app/desktop/Document.h"
#include "app/desktop/export/ExportMenu.h"
#include "app/desktop/models/PacketModel.h"
#include "app/desktop/views/ConversationView.h"
#include "app/desktop/views/ExchangesView.h"
#include "app/desktop/views/PacketsView.h"
#include "app/desktop/views/StreamsView.h"

#include <QAction>
#include <QTabWidget>
#include <QTableView>

namespace sealscope::desktop {

StreamTabs::StreamTabs(Document& document, QTabWidget& tabs, PacketsView& packets, QMenu& exportMenu)
    : QObject(&tabs), document_(document), tabs_(tabs), packets_(packets), streams_(new StreamsView(document)),
      exchanges_(new ExchangesView(document)), conversation_(new ConversationView(document))
{
    tabs.addTab(streams_, tr("Streams"));
    tabs.addTab(exchanges_, tr("Exchanges"));
    tabs.addTab(conversation_, tr("Conversation"));
    connect(&document, &Document::streamWanted, this, [this] { tabs_.setCurrentWidget(conversation_); });
    connect(exchanges_, &ExchangesView::messageChosen, this, [this](qint64 stream, quint64 mark) {
        tabs_.setCurrentWidget(conversation_);
        conversation_->showMessage(stream, mark);
    });
    auto* const follow = new QAction(tr("&Follow Stream"), &packets.table());
    follow->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_F));
    follow->setShortcutContext(Qt::WidgetShortcut);
    packets.table().addAction(follow);
    packets.table().setContextMenuPolicy(Qt::ActionsContextMenu);
    connect(follow, &QAction::triggered, this, &StreamTabs::followPacket);
    auto* const menu = new ExportMenu(exportMenu, document, [this] { return selectedStreams(); });
    connect(menu, &ExportMenu::done, this, &StreamTabs::done);
}

std::vector<std::int64_t> StreamTabs::selectedStreams() const
{
    if (tabs_.currentWidget() == exchanges_) return exchanges_->selectedStreams();
    if (tabs_.currentWidget() == conversation_ && conversation_->stream() >= 0) return {conversation_->stream()};
    return streams_->selectedStreams();
}

void StreamTabs::followPacket()
{
    const QModelIndex current = packets_.table().currentIndex();
    if (!current.isValid() || !document_.packets()) return;
    const qint64 position = packets_.packets().position(current.row()), number = position + 1;
    if (!document_.session()) return document_.tell(tr("The streams are known once the whole capture has been read"));
    const PacketRow row = document_.packets()->row(position);
    const auto stream = document_.session()->streamOf(number, row.source, row.destination);
    if (!stream) return document_.tell(tr("Packet %1 is part of no TCP connection").arg(number));
    tabs_.setCurrentWidget(conversation_);
    conversation_->showPacket(*stream, number);
}

}  // namespace sealscope::desktop
