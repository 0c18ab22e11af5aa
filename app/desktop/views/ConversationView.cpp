// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/ConversationView.h"

#include "app/desktop/models/MessagesModel.h"
#include "app/desktop/views/MessageDelegate.h"
#include "app/desktop/views/MessagePanel.h"

#include <QHBoxLayout>
#include <QItemSelectionModel>
#include <QLabel>
#include <QKeyEvent>
#include <QLineEdit>
#include <QListView>
#include <QShortcut>
#include <QSplitter>
#include <QVBoxLayout>

#include <utility>

namespace sealscope::desktop {

ConversationView::ConversationView(Document& document, QWidget* parent)
    : QWidget(parent), document_(document), messages_(new MessagesModel(this)), heading_(new QLabel), facts_(new QLabel),
      search_(new QLineEdit), list_(new QListView), panel_(new MessagePanel(document, *messages_))
{
    for (QLabel* label : {heading_, facts_}) {
        label->setTextFormat(Qt::PlainText);
        label->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
        label->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    }
    QFont bold = heading_->font();
    bold.setBold(true);
    heading_->setFont(bold);
    search_->setPlaceholderText(tr("Find in this stream"));
    search_->setAccessibleName(tr("Find in this stream"));
    search_->setClearButtonEnabled(true);
    search_->setMaximumWidth(260);
    list_->setModel(messages_);
    list_->setUniformItemSizes(true);
    list_->setFrameShape(QFrame::NoFrame);
    list_->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    list_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    list_->setAccessibleName(tr("Messages of the stream"));
    auto* const delegate = new MessageDelegate(list_);
    list_->setItemDelegate(delegate);

    auto* const words = new QVBoxLayout;
    words->setSpacing(2);
    words->addWidget(heading_);
    words->addWidget(facts_);
    auto* const top = new QHBoxLayout;
    top->setContentsMargins(8, 6, 8, 6);
    top->addLayout(words, 1);
    top->addWidget(search_);
    auto* const parts = new QSplitter;
    parts->setChildrenCollapsible(false);
    parts->addWidget(list_);
    parts->addWidget(panel_);
    parts->setSizes({560, 560});
    auto* const layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addLayout(top);
    layout->addWidget(parts, 1);

    connect(&document, &Document::replaced, this, [this] {
        wanted_ = nullptr;
        messages_->clear();
    });
    connect(&document, &Document::secretsChanged, this, &ConversationView::refresh);
    connect(&document, &Document::grown, this, [this](const std::shared_ptr<const Session>& session) {
        if (stream() < 0) return;
        const StreamSummary before = messages_->session()->summary(stream()), now = session->summary(stream());
        if (before.clientBytes != now.clientBytes || before.serverBytes != now.serverBytes) refresh();
    });
    connect(&document, &Document::streamWanted, this, &ConversationView::showStream);
    connect(messages_, &MessagesModel::headingChanged, this, &ConversationView::showHeading);
    connect(messages_, &MessagesModel::failed, &document, &Document::tell);
    connect(messages_, &QAbstractItemModel::rowsInserted, this, [this] { chooseWanted(); });
    connect(messages_, &MessagesModel::loaded, this, [this] {
        chooseWanted();
        wanted_ = nullptr;
        if (!list_->currentIndex().isValid()) choose(0);
        // Pairings are known now.
        panel_->setRow(list_->currentIndex().row());
        showHeading();
    });
    connect(messages_, &QAbstractItemModel::modelReset, this, [this] { panel_->setRow(-1); });
    connect(list_->selectionModel(), &QItemSelectionModel::currentChanged, this,
            [this](const QModelIndex& index) { panel_->setRow(index.isValid() ? index.row() : -1); });
    const auto choosePartner = [this](const QModelIndex& index) {
        if (index.isValid()) choose(messages_->partner(index.row()));
    };
    connect(list_, &QAbstractItemView::doubleClicked, this, choosePartner);
    connect(delegate, &MessageDelegate::partnerChosen, this, choosePartner);
    list_->installEventFilter(this);
    connect(panel_, &MessagePanel::partnerChosen, this, &ConversationView::choose);
    connect(search_, &QLineEdit::returnPressed, this, [this] { find(1); });
    for (const auto& [key, step] : {std::pair(QKeySequence::FindNext, 1), std::pair(QKeySequence::FindPrevious, -1)})
        connect(new QShortcut(key, this, nullptr, nullptr, Qt::WidgetWithChildrenShortcut), &QShortcut::activated, this, [this, step = step] { find(step); });
    setFocusProxy(list_);
    showHeading();
}

bool ConversationView::eventFilter(QObject* object, QEvent* event)
{
    const auto* const key = event->type() == QEvent::KeyPress ? static_cast<QKeyEvent*>(event) : nullptr;
    if (object != list_ || !key || (key->key() != Qt::Key_Return && key->key() != Qt::Key_Enter) || !list_->currentIndex().isValid())
        return QWidget::eventFilter(object, event);
    choose(messages_->partner(list_->currentIndex().row()));
    return true;
}

qint64 ConversationView::stream() const { return messages_->stream(); }

void ConversationView::refresh()
{
    const qint64 shown = stream();
    if (shown < 0) return;
    const QModelIndex current = list_->currentIndex();
    // What was a closed record may be a request now: the same place in the stream is as near as it gets.
    const qint64 packet = current.isValid() && !messages_->message(current.row()).packetIds.empty()
                              ? messages_->message(current.row()).packetIds.front()
                              : -1;
    messages_->clear();
    showRow(shown, [this, packet] { return messages_->rowOfPacket(packet); });
}

void ConversationView::showStream(qint64 stream)
{
    showRow(stream, [] { return -1; });
}

void ConversationView::showMessage(qint64 stream, quint64 mark)
{
    showRow(stream, [this, mark] { return messages_->rowOfMark(mark); });
}

void ConversationView::showPacket(qint64 stream, qint64 packet)
{
    showRow(stream, [this, packet] { return messages_->rowOfPacket(packet); });
}

void ConversationView::showRow(qint64 stream, std::function<int()> row)
{
    if (!document_.session() || stream < 0 || stream >= document_.session()->streamCount()) return;
    wanted_ = std::move(row);
    if (messages_->stream() != stream || messages_->session() != document_.session()) return messages_->show(document_.session(), stream);
    chooseWanted();
    if (!messages_->isLoading()) wanted_ = nullptr;
}

void ConversationView::chooseWanted()
{
    if (!wanted_) return;
    const int row = wanted_();
    if (row < 0) return;
    choose(row);
    wanted_ = nullptr;
}

void ConversationView::choose(int row)
{
    if (row < 0 || row >= messages_->rowCount()) return;
    const QModelIndex index = messages_->index(row);
    list_->setCurrentIndex(index);
    list_->scrollTo(index, QAbstractItemView::PositionAtCenter);
}

void ConversationView::find(int step)
{
    if (search_->text().isEmpty() || messages_->rowCount() == 0) return;
    const int row = messages_->find(search_->text(), list_->currentIndex().row(), step);
    if (row >= 0)
        choose(row);
    else
        document_.tell(tr("No message of this stream has “%1” in it").arg(search_->text()));
}

void ConversationView::showHeading()
{
    if (stream() < 0) {
        heading_->setText(tr("No stream is shown"));
        facts_->setText(tr("Choose one among the streams, or a message among the exchanges"));
        return;
    }
    heading_->setText(messages_->heading());
    facts_->setText(messages_->facts());
}

}  // namespace sealscope::desktop
