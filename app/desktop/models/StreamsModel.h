// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Document.h"
#include "app/desktop/models/ArrangedModel.h"
#include "app/desktop/models/StreamTable.h"
#include "app/texts/TimeText.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace sealscope::desktop {

/// The streams of a document: measured and judged beside the main thread, first those that are looked at.
class StreamsModel final : public ArrangedModel {
    Q_OBJECT
public:
    enum Role { ToneRole = Qt::UserRole, AdviceRole, SentenceRole, StreamRole };

    explicit StreamsModel(Document& document, QObject* parent = nullptr);
    ~StreamsModel() override;

    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    std::uint32_t recordCount() const override { return table_.size(); }

    /// Rows that are looked at: what is not known of them yet is found out before the rest.
    void wantRows(int first, int last);
    /// Shows streams of one verdict alone, in its words; all for an empty one.
    void setVerdictFilter(const QString& verdict);
    /// The words of the verdicts that were given.
    QStringList verdicts() const;
    const StreamTable& table() const { return table_; }

Q_SIGNALS:
    /// Another verdict was given for the first time.
    void verdictsChanged();

protected:
    void arrange(RowOrder& order, int column, RowOrder::Direction direction, const FilterTerms& terms) const override;

private:
    struct Judging;

    void start(std::shared_ptr<const Session> session);
    void grow(std::shared_ptr<const Session> session);
    void beginJudging(std::shared_ptr<const Session> session);
    void clear();
    void measureAll();
    void judgeAll();
    void judgeWanted();
    void take(const std::vector<StreamJudgement>& judgements);
    /// Rows have other texts; they may belong into another order, too.
    enum class RowChange : std::uint8_t { texts, textsAndOrder };
    void update(RowChange change);
    QVariant text(std::uint32_t row, StreamTable::Column column) const;

    std::shared_ptr<const Session> session_;
    std::shared_ptr<Judging> judging_;  ///< with the secrets as they are now
    StreamTable table_;
    std::unordered_map<std::uint32_t, std::string> sentences_;  ///< of the rows that were judged last, within bounds
    std::uint32_t verdictFilter_ = 0;
    QString verdictFilterText_;
    int wantedFirst_ = 0;
    int wantedLast_ = -1;
    mutable TimeText time_;
    std::unique_ptr<Job> measuring_;
    std::unique_ptr<Job> judgingAll_;
    std::unique_ptr<Job> judgingWanted_;
};

}  // namespace sealscope::desktop
