// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/ExchangesModel.h"

#include "app/desktop/ShownText.h"
#include "app/desktop/StringTableTranslator.h"
#include "app/desktop/ToolTip.h"
#include "app/desktop/models/Batches.h"
#include "app/desktop/models/MessageMark.h"
#include "app/session/Exchanges.h"
#include "app/session/InOrder.h"
#include "app/texts/SizeText.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <map>
#include <numeric>
#include <utility>

namespace sealscope::desktop {

namespace {

using Column = ExchangeTable::Column;

QVariant alignment(Column column)
{
    const bool isNumber = column == Column::stream || column == Column::status || column == Column::size || column == Column::duration;
    return QVariant(Qt::Alignment((isNumber ? Qt::AlignRight : Qt::AlignLeft) | Qt::AlignVCenter));
}

std::vector<FoundExchange> exchangesIn(const Session& session, std::int64_t number)
{
    std::vector<FoundExchange> found;
    try {
        auto interpretation = applicationInterpretation(session, session.stream(number));
        if (!interpretation) return found;
        for (const Exchange& exchange : exchangesOf(std::move(*interpretation)))
            found.push_back({.stream = number,
                             .request = markOf(exchange.request ? *exchange.request : *exchange.reply),
                             .summary = summaryOf(exchange)});
    } catch (const std::exception&) {
        // What fails for one stream fails for this one alone; its conversation says why.
        found.clear();
    }
    return found;
}

}  // namespace

ExchangesModel::ExchangesModel(Document& document, QObject* parent) : ArrangedModel(parent)
{
    connect(&document, &Document::replaced, this, &ExchangesModel::clear);
    connect(&document, &Document::opened, this, &ExchangesModel::start);
    connect(&document, &Document::grown, this, &ExchangesModel::refresh);
    connect(&document, &Document::secretsChanged, this, [this, &document](std::shared_ptr<const Session> session) {
        if (document.isLive())
            refresh(std::move(session));
        else
            start(std::move(session));
    });
    connect(this, &ArrangedModel::arranged, this, &ExchangesModel::measureSpan);
    if (document.session()) start(document.session());
}

ExchangesModel::~ExchangesModel() = default;

void ExchangesModel::clear()
{
    searching_.reset();
    next_.reset();
    beginNewRecords();
    table_.clear();
    endNewRecords();
    Q_EMIT searchingChanged();
}

void ExchangesModel::start(std::shared_ptr<const Session> session)
{
    clear();
    const Take take = [this](std::vector<FoundExchange> batch) {
        for (FoundExchange& exchange : batch) table_.add(std::move(exchange));
        // The first rows at once: nothing that somebody reads moves yet.
        if (order().size() == 0)
            rearrange();
        else
            rearrangeSoon();
    };
    search(std::move(session), take, [this] { rearrange(); });
}

/// Looks for the same exchanges and further ones; those that are known are shown meanwhile.
void ExchangesModel::refresh(std::shared_ptr<const Session> session)
{
    if (searching_) {
        next_ = std::move(session);
        return;
    }
    const auto all = std::make_shared<std::vector<FoundExchange>>();
    const Take take = [all](std::vector<FoundExchange> batch) { std::ranges::move(batch, std::back_inserter(*all)); };
    search(std::move(session), take, [this, all] { replace(std::move(*all)); });
}

void ExchangesModel::replace(std::vector<FoundExchange> found)
{
    changeRecords([&](const std::vector<std::uint32_t>& pointedTo) {
        using Key = std::pair<std::uint32_t, std::uint64_t>;
        std::map<Key, std::int64_t> numbers;
        for (const std::uint32_t record : pointedTo) numbers[{table_[record].stream, table_[record].request}] = -1;
        std::vector<Key> keys;
        for (const std::uint32_t record : pointedTo) keys.push_back({table_[record].stream, table_[record].request});
        table_.clear();
        for (FoundExchange& exchange : found) {
            const auto known = numbers.find({static_cast<std::uint32_t>(exchange.stream), exchange.request});
            if (known != numbers.end()) known->second = table_.size();
            table_.add(std::move(exchange));
        }
        std::vector<std::int64_t> changed;
        for (const Key& key : keys) changed.push_back(numbers[key]);
        return changed;
    });
}

void ExchangesModel::search(std::shared_ptr<const Session> session, const Take& take, const std::function<void()>& finish)
{
    searching_ = std::make_unique<Job>([this, take, finish, session = std::move(session)](const Job::Context& context) {
        std::vector<std::int64_t> streams(static_cast<std::size_t>(session->streamCount()));
        std::iota(streams.begin(), streams.end(), std::int64_t{0});
        qint64 done = 0;
        Batches<FoundExchange> batches(context, take);
        const auto work = [&](std::int64_t number) {
            return context.isCancelled() ? std::vector<FoundExchange>() : exchangesIn(*session, number);
        };
        const auto collect = [&](std::vector<FoundExchange> found) {
            for (FoundExchange& exchange : found) batches.add(std::move(exchange));
            if (++done % 256 == 0) context.deliver([this, done, total = session->streamCount()] { Q_EMIT progressed(done, total); });
            return !context.isCancelled();
        };
        inOrder(streams, [&](std::int64_t number) { return session->weight(number); }, work, collect);
        batches.flush();
        context.deliver([this, finish] {
            finish();
            searching_.reset();
            Q_EMIT searchingChanged();
            if (next_) refresh(std::exchange(next_, nullptr));
        });
    });
    Q_EMIT searchingChanged();
}

void ExchangesModel::measureSpan()
{
    spanBegin_ = spanEnd_ = 0;
    for (std::int64_t position = 0; position < order().size(); ++position) {
        const ExchangeTable::Record& record = table_[order()[position]];
        const double end = record.time + std::max(record.duration, 0.0);
        spanBegin_ = position == 0 ? record.time : std::min(spanBegin_, record.time);
        spanEnd_ = position == 0 ? end : std::max(spanEnd_, end);
    }
}

ExchangesModel::Bar ExchangesModel::bar(const QModelIndex& index) const
{
    const ExchangeTable::Record& record = table_[this->record(index)];
    const double span = spanEnd_ - spanBegin_;
    if (span <= 0) return {0, 0, 1};
    const auto part = [&](double time) { return std::clamp((time - spanBegin_) / span, 0.0, 1.0); };
    const double begin = part(record.time);
    return {begin, record.wait < 0 ? begin : part(record.time + record.wait), part(record.time + std::max(record.duration, 0.0))};
}

void ExchangesModel::arrange(RowOrder& order, int column, RowOrder::Direction direction, const FilterTerms& terms) const
{
    table_.arrange(order, static_cast<Column>(column), direction, terms);
}

int ExchangesModel::columnCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : ExchangeTable::columnCount; }

QVariant ExchangesModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal) return {};
    if (role == Qt::TextAlignmentRole) return alignment(static_cast<Column>(section));
    if (role != Qt::DisplayRole) return {};
    switch (static_cast<Column>(section)) {
    case Column::time: return tr("Time");
    case Column::stream: return tr("Stream");
    case Column::method: return tr("Method");
    case Column::status: return tr("Status");
    case Column::type: return tr("Type");
    case Column::size: return tr("Size");
    case Column::duration: return tr("Duration");
    case Column::url: return tr("URL");
    case Column::waterfall: return tr("Waterfall");
    }
    return {};
}

QVariant ExchangesModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid()) return {};
    const ExchangeTable::Record& record = table_[this->record(index)];
    const auto column = static_cast<Column>(index.column());
    if (role == StreamRole) return static_cast<qint64>(record.stream);
    if (role == MessageRole) return static_cast<quint64>(record.request);
    if (role == FailureRole) return record.isFailure;
    if (role == Qt::TextAlignmentRole) return alignment(column);
    if (column == Column::waterfall && (role == Qt::ToolTipRole || role == Qt::AccessibleTextRole)) {
        if (record.duration < 0) return tr("no reply");
        const auto text = [](double seconds) { return QString::fromStdString(durationText(seconds, windowReader())); };
        return tr("%1 until the reply began, %2 in all").arg(text(std::max(record.wait, 0.0)), text(record.duration));
    }
    if (role == Qt::ToolTipRole && column == Column::url) return plainToolTip(shownText(record.url));
    if (role == Qt::ToolTipRole && column == Column::size && record.size >= 0) return tr("%L1 bytes").arg(record.size);
    if (role != Qt::DisplayRole) return {};
    switch (column) {
    case Column::time: {
        std::string text;
        time_.appendClock(text, record.time);
        text.resize(TimeText::clockWidth - 3);  // milliseconds
        return QString::fromStdString(text);
    }
    case Column::stream: return QString::number(record.stream);
    case Column::method: return shownText(table_.name(record.method));
    case Column::status: return record.status >= 0 ? QString::number(record.status) : record.hasReply ? QString() : tr("none");
    case Column::type: return shownText(table_.name(record.type));
    case Column::size: return record.size >= 0 ? QString::fromStdString(sizeText(record.size, windowReader())) : QString();
    case Column::duration: return record.duration >= 0 ? QString::fromStdString(durationText(record.duration, windowReader())) : QString();
    case Column::url: return shownText(record.url);
    case Column::waterfall: return {};
    }
    return {};
}

}  // namespace sealscope::desktop
