// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/PacketModel.h"

#include "app/desktop/ShownText.h"
#include "host/VELDependencies/VELPluginPreferencesProtocol.h"
#include "host/VELModels/VELPlugInsController.h"
#include "platform/UserDefaults.h"

#include <QBrush>

#include <algorithm>
#include <chrono>

namespace sealscope::desktop {

namespace {

constexpr int rememberedRows = 2'000;  ///< some screens
constexpr std::chrono::milliseconds betweenBatches{30};
/// A view counts rows and their heights in whole numbers of this size.
constexpr std::size_t mostRows = 50'000'000;

QColor readableOn(const QColor& background)
{
    const double brightness = 0.299 * background.redF() + 0.587 * background.greenF() + 0.114 * background.blueF();
    return brightness > 0.55 ? QColor(Qt::black) : QColor(Qt::white);
}

}  // namespace

PacketModel::PacketModel(Document& document, QObject* parent) : QAbstractTableModel(parent), document_(document), cache_(rememberedRows)
{
    connect(&document, &Document::replaced, this, &PacketModel::replace);
    connect(&document, &Document::packetsFound, this, &PacketModel::findRows);
    for (const auto& registration : VELPlugInsController::sharedManager().plugIns()) {
        auto* const preferences = registration.plugIn.plugInPreferencesInstance;
        const auto config = preferences ? preferences->analyzerSettingsConfig() : std::nullopt;
        if (!config || !config->color) continue;
        for (const std::string& key : {config->color->usesColorKey, config->color->colorKey})
            observations_.push_back(UserDefaults::standard().observe(
                key, [this] { QMetaObject::invokeMethod(this, &PacketModel::updateColors, Qt::QueuedConnection); }));
    }
    replace();
}

void PacketModel::replace()
{
    finding_.reset();
    beginResetModel();
    packets_ = document_.packets();
    positions_.clear();
    cache_.clear();
    searched_ = 0;
    columnTitles_ = {tr("No."), tr("Time"), tr("Source"), tr("Destination")};
    const PacketAnalyzers analyzers;
    for (const std::string& title : analyzers.columnTitles()) columnTitles_.push_back(shownText(title));
    columnTitles_.push_back(tr("Info"));
    endResetModel();
    updateColors();
    findRows();
}

void PacketModel::setFilter(RowFilter filter)
{
    finding_.reset();
    beginResetModel();
    filter_ = std::move(filter);
    positions_.clear();
    searched_ = 0;
    endResetModel();
    findRows();
}

void PacketModel::findRows()
{
    if (!packets_ || finding_ || searched_ == packets_->size()) return;
    const auto work = [this, packets = packets_, filter = filter_.prepared(), from = searched_](const Job::Context& context) {
        const qint64 end = packets->size();
        Positions found;
        auto last = std::chrono::steady_clock::now();
        for (qint64 position = from; position < end && !context.isCancelled(); ++position) {
            if (filter.accepts(*packets, position)) found.push_back(static_cast<std::uint32_t>(position));
            if (position % 64 != 63 || std::chrono::steady_clock::now() - last < betweenBatches) continue;
            last = std::chrono::steady_clock::now();
            context.deliver([this, found = std::exchange(found, {}), searched = position + 1] { add(found, searched); });
        }
        context.deliver([this, found = std::move(found), end] {
            add(found, end);
            finding_.reset();
            findRows();  // what was read meanwhile
            if (!finding_) Q_EMIT filteringChanged(false);
        });
    };
    finding_ = std::make_unique<Job>(work, [this](const std::exception& problem) {
        finding_.reset();
        searched_ = packets_->size();
        document_.tell(tr("Filtering ended: %1").arg(QString::fromUtf8(problem.what())));
        Q_EMIT filteringChanged(false);
    });
    Q_EMIT filteringChanged(true);
}

void PacketModel::add(const Positions& positions, qint64 searched)
{
    searched_ = searched;
    const std::size_t room = mostRows - positions_.size();
    const std::size_t added = std::min(positions.size(), room);
    if (added == 0) return;
    beginInsertRows({}, static_cast<int>(positions_.size()), static_cast<int>(positions_.size() + added) - 1);
    positions_.insert(positions_.end(), positions.begin(), positions.begin() + static_cast<std::ptrdiff_t>(added));
    endInsertRows();
}

int PacketModel::rowOf(qint64 position) const
{
    const auto behind = std::ranges::upper_bound(positions_, static_cast<std::uint64_t>(std::max<qint64>(position, 0)));
    return static_cast<int>(behind - positions_.begin()) - 1;
}

void PacketModel::updateColors()
{
    colors_.clear();
    const PacketAnalyzers analyzers;
    for (const PacketPlugIn& plugIn : analyzers.plugIns())
        colors_.push_back(plugIn.color ? std::optional(QColor(plugIn.color->red, plugIn.color->green, plugIn.color->blue)) : std::nullopt);
    if (!positions_.empty())
        Q_EMIT dataChanged(index(0, 0), index(rowCount() - 1, columnCount() - 1), {Qt::BackgroundRole, Qt::ForegroundRole});
}

int PacketModel::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : static_cast<int>(positions_.size()); }

int PacketModel::columnCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : static_cast<int>(columnTitles_.size()); }

QVariant PacketModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || section < 0 || section >= columnCount()) return {};
    if (role == Qt::DisplayRole) return columnTitles_[static_cast<std::size_t>(section)];
    if (role == Qt::TextAlignmentRole) return QVariant::fromValue(Qt::AlignVCenter | (section == number ? Qt::AlignRight : Qt::AlignLeft));
    return {};
}

QVariant PacketModel::data(const QModelIndex& index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid)) return {};
    switch (role) {
    case Qt::DisplayRole: return texts(position(index.row())).columns[static_cast<std::size_t>(index.column())];
    case Qt::TextAlignmentRole:
        return QVariant::fromValue(Qt::AlignVCenter | (index.column() == number ? Qt::AlignRight : Qt::AlignLeft));
    case Qt::BackgroundRole:
    case Qt::ForegroundRole: {
        const std::uint8_t plugIn = (*packets_)[position(index.row())].plugIn;
        if (plugIn >= colors_.size() || !colors_[plugIn]) return {};
        return QBrush(role == Qt::BackgroundRole ? *colors_[plugIn] : readableOn(*colors_[plugIn]));
    }
    default: return {};
    }
}

const PacketModel::RowTexts& PacketModel::texts(qint64 position) const
{
    if (const RowTexts* const known = cache_.object(position)) return *known;
    auto made = std::make_unique<RowTexts>();
    try {
        *made = makeTexts(position);
    } catch (const std::exception& problem) {
        // A plug-in's fault costs the user this row's texts.
        made->columns.assign(columnTitles_.size(), QString());
        made->columns.front() = QString::number(position + 1);
        made->columns.back() = tr("cannot be shown: %1").arg(shownText(problem.what()));
    }
    const RowTexts& result = *made;
    cache_.insert(position, made.release());
    return result;
}

PacketModel::RowTexts PacketModel::makeTexts(qint64 position) const
{
    const PacketEntry& entry = (*packets_)[position];
    const PacketRow row = packets_->row(position);
    RowTexts texts{std::vector<QString>(columnTitles_.size()), entry.plugIn};
    std::string clock;
    timeText_.appendClock(clock, row.time);
    texts.columns[number] = QString::number(row.number);
    texts.columns[time] = QString::fromStdString(clock);
    QString& info = texts.columns.back();
    if (!entry.isTCP) {
        info = tr("not TCP, %n bytes", nullptr, static_cast<int>(entry.length));
        return texts;
    }
    texts.columns[source] = QString::fromStdString(row.source.text());
    texts.columns[destination] = QString::fromStdString(row.destination.text());
    if (!row.match) {
        info = entry.payloadLength == 0 ? tr("TCP, no data") : tr("TCP, %n bytes of data", nullptr, static_cast<int>(entry.payloadLength));
        return texts;
    }
    for (const PacketPlugIn::Column& column : row.match.plugIn->columns)
        if (const auto value = row.match.analyzer->value(column.key, row.payload))
            texts.columns[firstOfPlugIns + column.position] = shownText(displayText(*value));
    if (const auto text = row.match.analyzer->protocolInfo(row.payload)) info = shownText(*text);
    return texts;
}

}  // namespace sealscope::desktop
