// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QObject>

#include <cstdint>
#include <vector>

class QMenu;
class QTabWidget;

namespace sealscope::desktop {

class ConversationView;
class Document;
class ExchangesView;
class PacketsView;
class StreamsView;

/// The views of a document's streams as tabs of a window, the ways between them and the packets, and the menu that exports them.
class StreamTabs final : public QObject {
    Q_OBJECT
public:
    StreamTabs(Document& document, QTabWidget& tabs, PacketsView& packets, QMenu& exportMenu);

    StreamsView& streams() { return *streams_; }
    ExchangesView& exchanges() { return *exchanges_; }
    ConversationView& conversation() { return *conversation_; }

    /// Shows the conversation that the chosen packet is part of.
    void followPacket();

Q_SIGNALS:
    /// An export is complete; the sentence says where it is.
    void done(const QString& sentence);

private:
    /// The streams that are selected in the tab that is shown.
    std::vector<std::int64_t> selectedStreams() const;

    Document& document_;
    QTabWidget& tabs_;
    PacketsView& packets_;
    StreamsView* streams_;
    ExchangesView* exchanges_;
    ConversationView* conversation_;
};

}  // namespace sealscope::desktop
