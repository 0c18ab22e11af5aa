// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Job.h"
#include "app/session/Session.h"
#include "app/texts/TimeText.h"
#include "host/VELModels/StreamMessage.h"

#include <QAbstractListModel>

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sealscope::desktop {

/// What was said in one stream, message by message, as they are found beside the main thread. Of a stream with very many messages the
/// first ones.
class MessagesModel final : public QAbstractListModel {
    Q_OBJECT
public:
    enum Role { ClientRole = Qt::UserRole, KindRole, DecryptedRole, NoteRole, PairingRole };
    static constexpr std::int64_t mostMessages = 200'000;

    explicit MessagesModel(QObject* parent = nullptr) : QAbstractListModel(parent) {}
    ~MessagesModel() override;

    void show(std::shared_ptr<const Session> session, qint64 stream);
    void clear();

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;

    bool isLoading() const { return loading_ != nullptr; }
    qint64 stream() const { return stream_; }
    const std::shared_ptr<const Session>& session() const { return session_; }
    /// Who speaks with whom, and how much was said; empty until it is known.
    const QString& heading() const { return heading_; }
    const QString& facts() const { return facts_; }

    const StreamMessage& message(int row) const { return messages_[rows_[static_cast<std::size_t>(row)]]; }
    /// The pairing that a row is part of, or null.
    const Pairing* pairing(int row) const;
    /// The row that a row answers, or that answers it; -1 when there is none.
    int partner(int row) const;
    // Each -1 when there is none.
    int rowOfMark(quint64 mark) const;
    int rowOfPacket(qint64 packet) const;
    /// The next row behind `after`, from the beginning again at the end, that has a text in its summary or details.
    int find(const QString& text, int after, int step) const;

Q_SIGNALS:
    void headingChanged();
    /// No further message will come.
    void loaded();
    /// What the user has to be told, in one sentence.
    void failed(const QString& sentence);

private:
    struct Found;

    void append(std::vector<StreamMessage> messages);
    void finish(Found found);
    int row(std::int64_t position) const;
    QString note(int row) const;

    std::shared_ptr<const Session> session_;
    qint64 stream_ = -1;
    QString heading_, facts_;
    std::deque<StreamMessage> messages_;    ///< in the order of the interpretation, which pairings count in
    std::vector<std::uint32_t> rows_;       ///< their positions as they are shown: what has no time comes last
    std::vector<std::uint32_t> timeless_;   ///< positions of what is not shown yet
    std::vector<std::int32_t> rowOf_;       ///< rows of the positions; -1 for what is not shown yet
    std::vector<Pairing> pairings_;
    std::vector<std::int32_t> pairingOf_;   ///< pairings of the positions; -1 for those of none
    mutable TimeText time_;
    std::unique_ptr<Job> loading_;
};

}  // namespace sealscope::desktop
