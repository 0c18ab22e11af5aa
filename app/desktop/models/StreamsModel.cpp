// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/StreamsModel.h"

#include "app/desktop/ShownText.h"
#include "app/desktop/StringTableTranslator.h"
#include "app/desktop/ToolTip.h"
#include "app/desktop/models/Batches.h"
#include "app/records/StreamRecords.h"
#include "app/records/VerdictSentence.h"
#include "app/session/InOrder.h"
#include "app/texts/SizeText.h"

#include <algorithm>
#include <exception>
#include <numeric>
#include <utility>

namespace sealscope::desktop {

namespace {

using Column = StreamTable::Column;

/// Sentences that are kept; a million of them would take more memory than the rows.
constexpr std::size_t mostSentences = 50'000;
constexpr int mostWanted = 500;

Tone toneOf(const StreamVerdict& verdict)
{
    if (!verdict.outcome.isDecrypted()) return Tone::closed;
    return verdict.isPartly() ? Tone::partly : Tone::good;
}

QVariant alignment(Column column)
{
    const bool isNumber = column == Column::number || column == Column::sent || column == Column::received || column == Column::duration;
    return QVariant(Qt::Alignment((isNumber ? Qt::AlignRight : Qt::AlignLeft) | Qt::AlignVCenter));
}

StreamJudgement judge(const Session& session, const StreamVerdicts& verdicts, std::int64_t number)
{
    const SentenceReader reader = windowReader();
    StreamJudgement judgement{.stream = number, .tone = Tone::none};
    try {
        const TCPStream stream = session.stream(number);
        StreamRow row{.summary = session.summary(number), .canInterpret = session.plugIns().isSecured(stream)};
        if (row.canInterpret) row.verdict = verdicts.verdict(stream, ReportDepth::opened);
        judgement.verdict = verdictText(row, reader);
        if (!row.verdict) return judgement;
        judgement.tone = toneOf(*row.verdict);
        judgement.advice = adviceOn(*row.verdict);
        judgement.sentence = verdictSentence(*row.verdict, row.summary, reader);
        if (const auto& report = row.verdict->report) {
            judgement.serverName = report->serverName.value_or("");
            judgement.version = report->versionName;
        }
    } catch (const std::exception& problem) {
        // What fails for one stream fails for this one alone.
        judgement.verdict = reader.word("failed");
        judgement.sentence = reader.say("a plug-in could not look into this stream: {}", problem.what());
    }
    return judgement;
}

}  // namespace

/// What the passes over the streams share, until the secrets are others.
struct StreamsModel::Judging {
    explicit Judging(std::shared_ptr<const Session> of)
        : session(std::move(of)), verdicts(*session), isKnown(static_cast<std::size_t>(session->streamCount()))
    {}
    std::shared_ptr<const Session> session;
    StreamVerdicts verdicts;
    std::vector<std::atomic<bool>> isKnown;  ///< streams whose judgement has arrived
    std::atomic<std::uint64_t> wanted = 0;   ///< counts the requests for rows
};

StreamsModel::StreamsModel(Document& document, QObject* parent) : ArrangedModel(parent)
{
    connect(&document, &Document::replaced, this, &StreamsModel::clear);
    connect(&document, &Document::opened, this, &StreamsModel::start);
    connect(&document, &Document::grown, this, &StreamsModel::grow);
    connect(&document, &Document::secretsChanged, this, [this](std::shared_ptr<const Session> session) {
        if (session->streamCount() != recordCount()) return start(std::move(session));
        beginJudging(std::move(session));
        table_.forgetVerdicts();
        sentences_.clear();
        update(RowChange::textsAndOrder);
        judgeAll();
        Q_EMIT verdictsChanged();
    });
    if (document.session()) start(document.session());
}

StreamsModel::~StreamsModel() = default;

void StreamsModel::clear()
{
    measuring_.reset();
    judgingAll_.reset();
    judgingWanted_.reset();
    session_.reset();
    judging_.reset();
    beginNewRecords();
    table_.reset(0);
    sentences_.clear();
    endNewRecords();
    Q_EMIT verdictsChanged();
}

void StreamsModel::start(std::shared_ptr<const Session> session)
{
    clear();
    beginJudging(std::move(session));
    beginNewRecords();
    table_.reset(session_->streamCount());
    endNewRecords();
    measureAll();
    judgeAll();
}

// What is known of a stream is shown until more is.
void StreamsModel::grow(std::shared_ptr<const Session> session)
{
    beginJudging(std::move(session));
    table_.grow(session_->streamCount());
    rearrange();
    measureAll();
    judgeAll();
}

void StreamsModel::beginJudging(std::shared_ptr<const Session> session)
{
    judgingWanted_.reset();
    session_ = std::move(session);
    judging_ = std::make_shared<Judging>(session_);
}

void StreamsModel::measureAll()
{
    measuring_ = std::make_unique<Job>([this, session = session_](const Job::Context& context) {
        Batches<StreamSummary> batches(context, [this](const std::vector<StreamSummary>& batch) {
            for (const StreamSummary& summary : batch) table_.measure(summary);
            update(sortColumn() != static_cast<int>(Column::number) || isFiltered() ? RowChange::textsAndOrder : RowChange::texts);
        });
        for (std::int64_t number = 0; number < session->streamCount() && !context.isCancelled(); ++number)
            batches.add(session->summary(number));
    });
}

void StreamsModel::judgeAll()
{
    judgingAll_ = std::make_unique<Job>([this, judging = judging_](const Job::Context& context) {
        const Session& session = *judging->session;
        std::vector<std::int64_t> streams(static_cast<std::size_t>(session.streamCount()));
        std::iota(streams.begin(), streams.end(), std::int64_t{0});
        Batches<StreamJudgement> batches(context, [this](const std::vector<StreamJudgement>& batch) { take(batch); });
        const auto work = [&](std::int64_t number) {
            if (context.isCancelled() || judging->isKnown[static_cast<std::size_t>(number)]) return StreamJudgement{.stream = -1};
            return judge(session, judging->verdicts, number);
        };
        const auto takeOne = [&](StreamJudgement judgement) {
            if (judgement.stream >= 0) batches.add(std::move(judgement));
            return !context.isCancelled();
        };
        inOrder(streams, [&](std::int64_t number) { return session.packets(number) * usualPayload; }, work, takeOne);
    });
}

void StreamsModel::wantRows(int first, int last)
{
    wantedFirst_ = std::max(first, 0);
    wantedLast_ = std::min(last, wantedFirst_ + mostWanted);
    if (judging_) ++judging_->wanted;
    if (!judgingWanted_) judgeWanted();
}

// One pass at a time: a stream that takes long is not begun again with every scroll. A pass for rows that nobody looks at any more
// ends with the stream in hand.
void StreamsModel::judgeWanted()
{
    if (!judging_) return;
    std::vector<std::int64_t> streams;
    for (int row = wantedFirst_; row <= std::min(wantedLast_, rowCount() - 1); ++row) {
        const std::uint32_t number = order()[row];
        if (table_[number].tone == Tone::pending || !sentences_.contains(number)) streams.push_back(number);
    }
    if (streams.empty()) return;
    judgingWanted_ = std::make_unique<Job>(
        [this, judging = judging_, streams = std::move(streams), wanted = judging_->wanted.load()](const Job::Context& context) {
            Batches<StreamJudgement> batches(context, [this](const std::vector<StreamJudgement>& batch) { take(batch); });
            for (std::size_t i = 0; i < streams.size() && !context.isCancelled() && judging->wanted == wanted; ++i)
                batches.add(judge(*judging->session, judging->verdicts, streams[i]));
            batches.flush();
            context.deliver([this] {
                judgingWanted_.reset();
                judgeWanted();
            });
        });
}

void StreamsModel::take(const std::vector<StreamJudgement>& judgements)
{
    const std::size_t before = table_.verdicts().size();
    if (sentences_.size() > mostSentences) sentences_.clear();
    for (const StreamJudgement& judgement : judgements) {
        table_.judge(judgement);
        judging_->isKnown[static_cast<std::size_t>(judgement.stream)] = true;
        sentences_[static_cast<std::uint32_t>(judgement.stream)] = judgement.sentence;
    }
    const auto column = static_cast<Column>(sortColumn());
    const bool isSorting =
        column == Column::serverName || column == Column::version || column == Column::verdict || column == Column::detail;
    if (table_.verdicts().size() != before) Q_EMIT verdictsChanged();
    update(isSorting || isFiltered() || !verdictFilterText_.isEmpty() ? RowChange::textsAndOrder : RowChange::texts);
}

void StreamsModel::update(RowChange change)
{
    if (change == RowChange::textsAndOrder) rearrangeSoon();
    if (rowCount() > 0) Q_EMIT dataChanged(index(0, 0), index(rowCount() - 1, columnCount() - 1));
}

void StreamsModel::setVerdictFilter(const QString& verdict)
{
    verdictFilterText_ = verdict;
    rearrange();
}

QStringList StreamsModel::verdicts() const
{
    QStringList texts;
    for (const std::uint32_t verdict : table_.verdicts()) texts.append(QString::fromStdString(table_.name(verdict)));
    return texts;
}

void StreamsModel::arrange(RowOrder& order, int column, RowOrder::Direction direction, const FilterTerms& terms) const
{
    std::uint32_t verdict = 0;
    for (const std::uint32_t number : table_.verdicts())
        if (table_.name(number) == verdictFilterText_.toStdString()) verdict = number;
    table_.arrange(order, static_cast<Column>(column), direction, terms, verdict);
}

int StreamsModel::columnCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : StreamTable::columnCount; }

QVariant StreamsModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal) return {};
    if (role == Qt::TextAlignmentRole) return alignment(static_cast<Column>(section));
    if (role != Qt::DisplayRole) return {};
    switch (static_cast<Column>(section)) {
    case Column::number: return tr("Stream");
    case Column::client: return tr("Client");
    case Column::server: return tr("Server");
    case Column::serverName: return tr("Server Name");
    case Column::version: return tr("Version");
    case Column::sent: return tr("Sent");
    case Column::received: return tr("Received");
    case Column::start: return tr("Start");
    case Column::duration: return tr("Duration");
    case Column::verdict: return tr("Verdict");
    case Column::detail: return tr("Detail");
    }
    return {};
}

QVariant StreamsModel::text(std::uint32_t row, Column column) const
{
    const StreamTable::Record& record = table_[row];
    const auto size = [&](std::int64_t bytes) { return QString::fromStdString(sizeText(bytes, windowReader())); };
    switch (column) {
    case Column::number: return QString::number(row);
    case Column::client: return QString::fromStdString(table_.client(row));
    case Column::server: return QString::fromStdString(table_.server(row));
    case Column::serverName: return shownText(table_.name(record.serverName));
    case Column::version: return shownText(table_.name(record.version));
    case Column::sent: return record.isMeasured ? size(record.clientBytes) : QString();
    case Column::received: return record.isMeasured ? size(record.serverBytes) : QString();
    case Column::start: {
        std::string text;
        if (!record.isMeasured) return {};
        time_.appendDateAndClock(text, record.startTime);
        text.resize(text.size() - 3);  // milliseconds
        return QString::fromStdString(text);
    }
    case Column::duration:
        return record.isMeasured ? QString::fromStdString(durationText(record.endTime - record.startTime, windowReader())) : QString();
    case Column::verdict: return record.tone == Tone::pending ? tr("…") : shownText(table_.name(record.verdict));
    case Column::detail: {
        const auto found = sentences_.find(row);
        return found == sentences_.end() ? QString() : shownText(found->second);
    }
    }
    return {};
}

QVariant StreamsModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid()) return {};
    const std::uint32_t row = record(index);
    const auto column = static_cast<Column>(index.column());
    switch (role) {
    case Qt::DisplayRole: return text(row, column);
    case Qt::TextAlignmentRole: return alignment(column);
    case Qt::ToolTipRole:
        if (column == Column::sent) return tr("%L1 bytes").arg(table_[row].clientBytes);
        if (column == Column::received && table_[row].missingBytes > 0)
            return tr("%L1 bytes; %L2 bytes of the stream are missing from the capture")
                .arg(table_[row].serverBytes)
                .arg(table_[row].missingBytes);
        if (column == Column::received) return tr("%L1 bytes").arg(table_[row].serverBytes);
        return plainToolTip(text(row, column == Column::verdict ? Column::detail : column).toString());
    case ToneRole: return static_cast<int>(table_[row].tone);
    case AdviceRole: return static_cast<int>(table_[row].advice);
    case SentenceRole: return text(row, Column::detail);
    case StreamRole: return static_cast<qint64>(row);
    default: return {};
    }
}

}  // namespace sealscope::desktop
