// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Document.h"
#include "app/desktop/models/ArrangedModel.h"
#include "app/desktop/models/ExchangeTable.h"
#include "app/texts/TimeText.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace sealscope::desktop {

/// The exchanges of a document, found stream by stream beside the main thread.
class ExchangesModel final : public ArrangedModel {
    Q_OBJECT
public:
    enum Role { StreamRole = Qt::UserRole, MessageRole, FailureRole, BarRole };
    /// When an exchange took place, as parts of the time that all shown ones took: from, first byte of the reply, to.
    struct Bar {
        double begin = 0;
        double reply = 0;
        double end = 0;
    };

    explicit ExchangesModel(Document& document, QObject* parent = nullptr);
    ~ExchangesModel() override;

    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    std::uint32_t recordCount() const override { return table_.size(); }

    bool isSearching() const { return searching_ != nullptr; }
    Bar bar(const QModelIndex& index) const;

Q_SIGNALS:
    /// The search has begun or has ended.
    void searchingChanged();
    /// Streams looked at, of how many.
    void progressed(qint64 done, qint64 total);

protected:
    void arrange(RowOrder& order, int column, RowOrder::Direction direction, const FilterTerms& terms) const override;

private:
    using Take = std::function<void(std::vector<FoundExchange>)>;
    void start(std::shared_ptr<const Session> session);
    void refresh(std::shared_ptr<const Session> session);
    void search(std::shared_ptr<const Session> session, const Take& take, const std::function<void()>& finish);
    void replace(std::vector<FoundExchange> found);
    void clear();
    void measureSpan();

    ExchangeTable table_;
    double spanBegin_ = 0;  ///< of the rows that are shown, seconds since 1970
    double spanEnd_ = 0;
    mutable TimeText time_;
    std::unique_ptr<Job> searching_;
    std::shared_ptr<const Session> next_;  ///< to be searched after the one that is
};

}  // namespace sealscope::desktop
