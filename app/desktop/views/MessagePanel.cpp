// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/MessagePanel.h"

#include "app/desktop/ShownText.h"
#include "app/desktop/StringTableTranslator.h"
#include "app/desktop/ToolTip.h"
#include "app/desktop/models/BodyText.h"
#include "app/desktop/models/DetailModel.h"
#include "app/desktop/views/BodyView.h"
#include "app/export/FormatExport.h"
#include "app/export/Objects.h"
#include "host/VELModels/VELPlugInsController.h"
#include "platform/OutputFile.h"

#include <QApplication>
#include <QClipboard>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QSplitter>
#include <QTableView>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>
#include <expected>
#include <utility>

namespace sealscope::desktop {

MessagePanel::MessagePanel(Document& document, const MessagesModel& messages, QWidget* parent)
    : QWidget(parent), document_(document), messages_(messages), detailModel_(new DetailModel(this)), summary_(new QLabel), note_(new QLabel),
      partner_(new QPushButton), packets_(new QToolButton), save_(new QPushButton(tr("&Save Body…"))), copy_(new QToolButton),
      copyMenu_(new QMenu(this)), packetMenu_(new QMenu(this)), details_(new QTableView), body_(new BodyView)
{
    for (QLabel* label : {summary_, note_}) {
        label->setTextFormat(Qt::PlainText);
        label->setWordWrap(true);
        label->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
        label->setContentsMargins(8, 0, 8, 0);
    }
    QFont bold = summary_->font();
    bold.setBold(true);
    summary_->setFont(bold);
    details_->setModel(detailModel_);
    details_->setAccessibleName(tr("Details of the message"));
    details_->setFrameShape(QFrame::NoFrame);
    details_->setShowGrid(false);
    details_->setWordWrap(false);
    details_->setTabKeyNavigation(false);
    details_->setAlternatingRowColors(true);
    details_->setSelectionBehavior(QAbstractItemView::SelectRows);
    details_->verticalHeader()->hide();
    details_->verticalHeader()->setDefaultSectionSize(details_->fontMetrics().height() + 6);
    details_->horizontalHeader()->setStretchLastSection(true);
    details_->horizontalHeader()->setDefaultAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    details_->setColumnWidth(0, details_->fontMetrics().averageCharWidth() * 26);

    auto* const parts = new QSplitter(Qt::Vertical);
    parts->setChildrenCollapsible(false);
    parts->addWidget(details_);
    parts->addWidget(body_);
    parts->setSizes({240, 400});
    auto* const layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 8, 0, 0);
    layout->addWidget(summary_);
    layout->addWidget(note_);
    layout->addWidget(makeButtons());
    layout->addWidget(parts, 1);
    setRow(-1);
}

MessagePanel::~MessagePanel() = default;

QWidget* MessagePanel::makeButtons()
{
    packets_->setPopupMode(QToolButton::MenuButtonPopup);
    packets_->setToolTip(tr("Show the packet in the list of packets"));
    copy_->setText(tr("C&opy"));
    copy_->setToolTip(tr("Copy the message as text"));
    copy_->setPopupMode(QToolButton::MenuButtonPopup);
    copy_->setMenu(copyMenu_);
    connect(copy_, &QToolButton::clicked, this, &MessagePanel::copyText);
    connect(copyMenu_, &QMenu::aboutToShow, this, &MessagePanel::fillCopyMenu);
    connect(save_, &QPushButton::clicked, this, &MessagePanel::chooseBodyFile);
    connect(partner_, &QPushButton::clicked, this, [this] {
        if (const int row = row_ < 0 ? -1 : messages_.partner(row_); row >= 0) Q_EMIT partnerChosen(row);
    });
    connect(packets_, &QToolButton::clicked, this, [this] {
        if (row_ >= 0 && !messages_.message(row_).packetIds.empty()) document_.showPacket(messages_.message(row_).packetIds.front());
    });
    fillCopyMenu();
    auto* const buttons = new QWidget;
    auto* const layout = new QHBoxLayout(buttons);
    layout->setContentsMargins(8, 0, 8, 0);
    for (QWidget* button : std::initializer_list<QWidget*>{packets_, partner_, save_, copy_}) layout->addWidget(button);
    layout->addStretch(1);
    return buttons;
}

void MessagePanel::setRow(int row)
{
    row_ = row;
    details_->setVisible(row >= 0);
    body_->setVisible(row >= 0);
    if (row < 0) {
        summary_->setText(tr("No message is selected"));
        note_->clear();
        detailModel_->setRows({});
        for (QWidget* button : std::initializer_list<QWidget*>{packets_, partner_, save_, copy_}) button->hide();
        return body_->clear();
    }
    const StreamMessage& message = messages_.message(row);
    const QModelIndex index = messages_.index(row);
    summary_->setText(index.data().toString());
    const QString who = index.data(MessagesModel::ClientRole).toBool() ? tr("client to server") : tr("server to client");
    note_->setText(tr("Message %1, %2").arg(row + 1).arg(who) + QStringLiteral("  ·  ") + index.data(MessagesModel::NoteRole).toString());
    detailModel_->setRows(message.detail);
    const Pairing* const pair = messages_.pairing(row);
    partner_->setVisible(messages_.partner(row) >= 0);
    partner_->setText(messages_.partner(row) < row ? tr("Show &Question") : tr("Show &Answer"));
    partner_->setToolTip(pair ? plainToolTip(shownText(pair->summary)) : QString());
    packets_->setVisible(!message.packetIds.empty());
    fillPacketMenu(message);
    save_->setVisible(message.body.has_value());
    copy_->show();
    body_->setMessage(message);
}

void MessagePanel::fillPacketMenu(const StreamMessage& message)
{
    constexpr std::size_t mostListed = 40;
    packetMenu_->clear();
    if (message.packetIds.empty()) return;
    packets_->setText(tr("&Packet %1").arg(message.packetIds.front()));
    const bool areSeveral = message.packetIds.size() > 1;
    packets_->setPopupMode(areSeveral ? QToolButton::MenuButtonPopup : QToolButton::DelayedPopup);
    packets_->setMenu(areSeveral ? packetMenu_ : nullptr);
    for (std::size_t i = 0; i < std::min(message.packetIds.size(), mostListed); ++i)
        packetMenu_->addAction(tr("Packet %1").arg(message.packetIds[i]), this,
                               [this, number = message.packetIds[i]] { document_.showPacket(number); });
    if (message.packetIds.size() > mostListed)
        packetMenu_->addAction(tr("… and %n more", nullptr, static_cast<int>(message.packetIds.size() - mostListed)))->setEnabled(false);
}

void MessagePanel::fillCopyMenu()
{
    copyMenu_->clear();
    copyMenu_->addAction(tr("As &Text"), this, &MessagePanel::copyText);
    for (const StreamExportFormat* const format : VELPlugInsController::sharedManager().exportFormats()) {
        QAction* const action = copyMenu_->addAction(tr("As %1").arg(shownText(format->name)), this, [this, format] { copyAs(*format); });
        action->setStatusTip(shownText(format->description));
    }
}

void MessagePanel::copyText()
{
    if (row_ < 0) return;
    copying_ = compute([message = messages_.message(row_)](std::stop_token) { return messageText(message); },
                       [](const std::string& text) { QApplication::clipboard()->setText(QString::fromStdString(text)); },
                       [this](const std::exception& problem) { document_.tell(tr("The message was not copied: %1").arg(shownText(problem.what()))); });
}

void MessagePanel::copyAs(const StreamExportFormat& format)
{
    if (row_ < 0) return;
    std::vector<StreamMessage> messages{messages_.message(row_)};
    std::optional<std::vector<Pairing>> pairings;
    // With what it answers, or is answered by: formats speak of both.
    if (const int other = messages_.partner(row_); other >= 0) {
        messages.insert(other < row_ ? messages.begin() : messages.end(), messages_.message(other));
        Pairing pairing = *messages_.pairing(row_);
        pairing.requestIndex = 0;
        pairing.replyIndex = 1;
        pairings.emplace({std::move(pairing)});
    } else if (messages_.pairing(row_)) {
        pairings.emplace({Pairing{.requestIndex = 0}});
    }
    copying_ = compute(
        [session = messages_.session(), stream = messages_.stream(), &format,
         interpretation = StreamInterpretation{std::move(messages), std::move(pairings)}](std::stop_token) {
            return exportedText(session->stream(stream), interpretation, format);
        },
        [this, name = shownText(format.name)](const std::optional<std::string>& text) {
            if (!text) return document_.tell(tr("The message is too long to be copied as %1; export it to a file").arg(name));
            if (text->empty()) return document_.tell(tr("This message has nothing that could be copied as %1").arg(name));
            QApplication::clipboard()->setText(QString::fromStdString(*text));
        },
        [this](const std::exception& problem) { document_.tell(tr("The message was not copied: %1").arg(shownText(problem.what()))); });
}

void MessagePanel::chooseBodyFile()
{
    if (row_ < 0 || !messages_.message(row_).body) return;
    const QString suggested = QString::fromStdString(safeFileName(messages_.message(row_).filename.value_or("body.bin")));
    const QString file = QFileDialog::getSaveFileName(this, tr("Save Body"), suggested);
    if (!file.isEmpty()) saveBody(file);
}

void MessagePanel::saveBody(const QString& file)
{
    if (row_ < 0 || !messages_.message(row_).body) return;
    const std::string path = file.toStdString();
    saving_ = compute(
        [body = *messages_.message(row_).body, path](const std::stop_token& stop) -> std::expected<StreamBody::Ending, FileError> {
            // The dialog has asked about a file that is there.
            auto created = OutputFile::create(path, ExistingFile::isReplaced, OutputFile::Kind::anything);
            if (!created) return std::unexpected(created.error());
            const auto ending = body.forEachPiece([&](DataView piece) {
                created->write(piece);
                return created->isGood() && !stop.stop_requested();
            });
            if (const auto finished = created->finish(); !finished) return std::unexpected(finished.error());
            return ending;
        },
        [this, path](const std::expected<StreamBody::Ending, FileError>& saved) {
            if (!saved)
                document_.tell(shownText(windowReader().say("{}: {}", path, saved.error().text())));
            else if (!saved->isComplete)
                document_.tell(shownText(windowReader().say("{}: the body is incomplete: {}", path, saved->reason)));
        },
        [this](const std::exception& problem) { document_.tell(tr("The body was not saved: %1").arg(shownText(problem.what()))); });
}

}  // namespace sealscope::desktop
