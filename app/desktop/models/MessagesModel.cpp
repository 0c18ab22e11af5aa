// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/MessagesModel.h"

#include "app/desktop/ShownText.h"
#include "app/desktop/StringTableTranslator.h"
#include "app/desktop/ToolTip.h"
#include "app/desktop/models/Batches.h"
#include "app/desktop/models/FilterTerms.h"
#include "app/desktop/models/MessageMark.h"
#include "app/records/StreamFacts.h"
#include "app/session/InterpreterFailure.h"
#include "app/session/ResumedSessions.h"
#include "app/verdict/StreamVerdict.h"
#include "host/VELModels/VELStreamInterpreting.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

namespace sealscope::desktop {

/// What is known once a stream was gone through.
struct MessagesModel::Found {
    std::vector<Pairing> pairings;
    bool isCut = false;
    bool isRecognised = true;
    std::optional<InterpreterFailure> failure;
};

MessagesModel::~MessagesModel() = default;

void MessagesModel::clear()
{
    loading_.reset();
    beginResetModel();
    session_.reset();
    stream_ = -1;
    heading_.clear();
    facts_.clear();
    messages_.clear();
    rows_.clear();
    timeless_.clear();
    rowOf_.clear();
    pairings_.clear();
    pairingOf_.clear();
    endResetModel();
    Q_EMIT headingChanged();
}

void MessagesModel::show(std::shared_ptr<const Session> session, qint64 stream)
{
    clear();
    session_ = std::move(session);
    stream_ = stream;
    loading_ = std::make_unique<Job>([this, session = session_, number = stream](const Job::Context& context) {
        const SentenceReader reader = windowReader();
        const std::string name = std::to_string(number);
        Found found;
        try {
            const StreamSummary summary = session->summary(number);
            const TCPStream tcp = session->stream(number);
            const VELStreamInterpreting* const interpreter = session->plugIns().interpreter(tcp);
            const std::string heading = reader.say("Stream {}:  {}  →  {}", name, summary.client.text(), summary.server.text());
            const std::string facts =
                streamFacts(summary, interpreter ? interpreter->streamDisplayName : "TCP", StreamVerdicts(*session).report(tcp), reader);
            context.deliver([this, heading, facts] {
                heading_ = shownText(heading);
                facts_ = shownText(facts);
                Q_EMIT headingChanged();
            });
            if (!interpreter) {
                found.isRecognised = false;
            } else {
                if (interpreter->layer == StreamLayer::security) findResumedSession(*session, tcp);
                Batches<StreamMessage> batches(context, [this](std::vector<StreamMessage> batch) { append(std::move(batch)); });
                std::int64_t count = 0;
                interpreter->tell(tcp, session->plugIns().context(), [&](StreamPart& part) {
                    std::ranges::move(part.pairings, std::back_inserter(found.pairings));
                    for (StreamMessage& message : part.messages) {
                        found.isCut = ++count > mostMessages;
                        if (found.isCut || context.isCancelled()) return false;
                        batches.add(std::move(message));
                    }
                    return true;
                });
            }
        } catch (...) {
            found.failure = InterpreterFailure::caught();
        }
        context.deliver([this, found = std::move(found)] { finish(found); });
    });
}

void MessagesModel::append(std::vector<StreamMessage> batch)
{
    std::vector<std::uint32_t> timed;
    for (StreamMessage& message : batch) {
        const auto position = static_cast<std::uint32_t>(messages_.size());
        (message.timestamp != 0 ? timed : timeless_).push_back(position);
        messages_.push_back(std::move(message));
    }
    rowOf_.resize(messages_.size(), -1);
    pairingOf_.resize(messages_.size(), -1);
    if (timed.empty()) return;
    const int first = rowCount();
    beginInsertRows({}, first, first + static_cast<int>(timed.size()) - 1);
    for (const std::uint32_t position : timed) {
        rowOf_[position] = static_cast<std::int32_t>(rows_.size());
        rows_.push_back(position);
    }
    endInsertRows();
}

void MessagesModel::finish(Found found)
{
    loading_.reset();
    // What has no time of its own, such as the plaintext of a whole direction, is read after what it came out of.
    if (!timeless_.empty()) {
        const int first = rowCount();
        beginInsertRows({}, first, first + static_cast<int>(timeless_.size()) - 1);
        for (const std::uint32_t position : std::exchange(timeless_, {})) {
            rowOf_[position] = static_cast<std::int32_t>(rows_.size());
            rows_.push_back(position);
        }
        endInsertRows();
    }
    const auto isThere = [&](std::int64_t position) { return position >= 0 && position < std::ssize(messages_); };
    for (Pairing& pairing : found.pairings) {
        if (!isThere(pairing.requestIndex)) continue;
        if (pairing.replyIndex && !isThere(*pairing.replyIndex)) pairing.replyIndex.reset();
        const auto number = static_cast<std::int32_t>(pairings_.size());
        pairingOf_[static_cast<std::size_t>(pairing.requestIndex)] = number;
        if (pairing.replyIndex) pairingOf_[static_cast<std::size_t>(*pairing.replyIndex)] = number;
        pairings_.push_back(std::move(pairing));
    }
    if (rowCount() > 0) Q_EMIT dataChanged(index(0), index(rowCount() - 1));
    const SentenceReader reader = windowReader();
    const std::string name = std::to_string(stream_);
    if (found.failure)
        Q_EMIT failed(shownText(reader.say("stream {}: a plug-in could not interpret it: {}", name, found.failure->text())));
    else if (!found.isRecognised)
        Q_EMIT failed(shownText(reader.say("stream {}: no plug-in recognises what was said in this connection", name)));
    if (found.isCut) Q_EMIT failed(tr("Stream %1 has more than %L2 messages; the first of them are shown").arg(stream_).arg(mostMessages));
    Q_EMIT loaded();
}

int MessagesModel::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : static_cast<int>(rows_.size()); }

int MessagesModel::row(std::int64_t position) const
{
    return position >= 0 && position < std::ssize(rowOf_) ? rowOf_[static_cast<std::size_t>(position)] : -1;
}

const Pairing* MessagesModel::pairing(int row) const
{
    const std::int32_t number = pairingOf_[rows_[static_cast<std::size_t>(row)]];
    return number < 0 ? nullptr : &pairings_[static_cast<std::size_t>(number)];
}

int MessagesModel::partner(int row) const
{
    const Pairing* const pair = pairing(row);
    if (!pair || !pair->replyIndex) return -1;
    const bool isReply = rows_[static_cast<std::size_t>(row)] == static_cast<std::uint32_t>(*pair->replyIndex);
    return this->row(isReply ? pair->requestIndex : *pair->replyIndex);
}

int MessagesModel::rowOfMark(quint64 mark) const
{
    for (int row = 0; row < rowCount(); ++row)
        if (markOf(message(row)) == mark) return row;
    return -1;
}

int MessagesModel::rowOfPacket(qint64 packet) const
{
    for (int row = 0; row < rowCount(); ++row)
        if (std::ranges::find(message(row).packetIds, packet) != message(row).packetIds.end()) return row;
    return -1;
}

int MessagesModel::find(const QString& text, int after, int step) const
{
    const std::string wanted = lowerCase(text.toStdString());
    const int count = rowCount();
    for (int i = 1; i <= count; ++i) {
        const int row = ((after + step * i) % count + count) % count;
        const StreamMessage& candidate = message(row);
        const auto holds = [&](const DetailRow& detail) {
            return containsLowered(detail.name, wanted) || containsLowered(detail.value, wanted);
        };
        if (containsLowered(candidate.summary, wanted) || std::ranges::any_of(candidate.detail, holds)) return row;
    }
    return -1;
}

QString MessagesModel::note(int row) const
{
    const StreamMessage& said = message(row);
    QStringList parts;
    if (said.timestamp != 0) {
        std::string clock;
        time_.appendClock(clock, said.timestamp);
        parts.append(QString::fromStdString(clock));
    }
    if (said.packetIds.size() == 1)
        parts.append(tr("packet %1").arg(said.packetIds.front()));
    else if (!said.packetIds.empty())
        parts.append(tr("packet %1 and %n more", nullptr, static_cast<int>(said.packetIds.size() - 1)).arg(said.packetIds.front()));
    if (said.isDecrypted) parts.append(tr("decrypted"));
    return parts.join(QStringLiteral("  ·  "));
}

QVariant MessagesModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid()) return {};
    const StreamMessage& said = message(index.row());
    switch (role) {
    case Qt::DisplayRole: return shownText(said.summary);
    case Qt::ToolTipRole: return plainToolTip(shownText(said.summary));
    case Qt::AccessibleTextRole: {
        const QString who = data(index, ClientRole).toBool() ? tr("client") : tr("server");
        const QString answer = data(index, PairingRole).toString();
        return tr("%1: %2, %3").arg(who, shownText(said.summary), note(index.row())) +
               (answer.isEmpty() ? QString() : QStringLiteral(", ") + answer);
    }
    case ClientRole: return said.direction == TCPSegment::Direction::clientToServer;
    case KindRole: return static_cast<int>(said.kind);
    case DecryptedRole: return said.isDecrypted;
    case NoteRole: return note(index.row());
    case PairingRole: {
        const Pairing* const pair = pairing(index.row());
        if (!pair) return {};
        const int other = partner(index.row());
        if (other < 0) return pair->replyIndex ? QVariant() : QVariant(tr("no answer"));
        return other < index.row() ? tr("answers message %1").arg(other + 1) : tr("answered by message %1").arg(other + 1);
    }
    default: return {};
    }
}

}  // namespace sealscope::desktop
