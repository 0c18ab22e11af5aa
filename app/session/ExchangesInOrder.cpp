// SPDX-License-Identifier: Apache-2.0
#include "app/session/ExchangesInOrder.h"

#include "app/capture/SpoolFile.h"
#include "app/session/ExchangesAhead.h"
#include "app/session/InOrder.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <utility>

namespace sealscope {

namespace {

/// Lines that wait for their times, each behind a head: in memory, or in a temporary file and, what that did not take, in memory.
class WaitingLines {
public:
    struct Head {
        double time = 0;
        std::uint64_t length = 0;
    };

    bool isEmpty() const { return nextInText_ == text_.size() && next_ == end_ && tail_.empty(); }
    /// Bytes of memory.
    std::int64_t heldBytes() const { return static_cast<std::int64_t>(text_.capacity() + tail_.capacity()); }
    /// Before the first is taken.
    void add(std::string_view lines) { (file_ ? tail_ : text_).append(lines); }
    /// Before the first is taken. False where the file takes no more, and nothing happened.
    bool moveTo(SpoolFile& file)
    {
        std::string& lines = file_ ? tail_ : text_;
        if (lines.empty()) return true;
        const auto place = file.append(DataView(std::string_view(lines)));
        if (!place) return false;
        if (!std::exchange(file_, &file)) next_ = *place;
        end_ = *place + std::ssize(lines);
        std::string().swap(lines);  // assigning would keep its memory
        return true;
    }

    /// Gives its memory back once it is empty.
    void letGo()
    {
        std::string().swap(text_);
        nextInText_ = 0;
    }

    /// Of the next. About `readAtOnce` bytes are taken out of the file when some are needed, as by `take`.
    double time(std::size_t readAtOnce)
    {
        need(sizeof(Head), readAtOnce);
        return head().time;
    }
    /// The next, which stays until more is asked; `time` was called before.
    std::string_view take(std::size_t readAtOnce)
    {
        const std::size_t size = sizeof(Head) + head().length;
        need(size, readAtOnce);
        nextInText_ += size;
        return std::string_view(text_).substr(nextInText_ - size + sizeof(Head), size - sizeof(Head));
    }

private:
    Head head() const
    {
        Head head;
        std::memcpy(&head, text_.data() + nextInText_, sizeof head);
        return head;
    }

    /// Brings so many bytes of the next lines into memory.
    void need(std::size_t bytes, std::size_t readAtOnce)
    {
        if (text_.size() - nextInText_ >= bytes) return;
        text_.erase(0, std::exchange(nextInText_, 0));
        const std::size_t there = text_.size();
        const std::int64_t count = std::min(end_ - next_, static_cast<std::int64_t>(std::max(bytes - there, readAtOnce)));
        text_.resize(there + static_cast<std::size_t>(count));
        if (count > 0 &&
            !file_->read(next_, std::span(reinterpret_cast<std::uint8_t*>(text_.data()) + there, static_cast<std::size_t>(count))))
            throw std::runtime_error("a temporary file cannot be read");
        next_ += count;
        if (next_ == end_) {
            text_ += tail_;
            std::string().swap(tail_);
        }
    }

    std::string text_;
    std::size_t nextInText_ = 0;
    const SpoolFile* file_ = nullptr;
    std::int64_t next_ = 0, end_ = 0;  ///< in the file
    std::string tail_;                 ///< behind that
};

/// What a stream has that was not handed over yet.
struct OfStream {
    /// What is behind the lines that wait.
    struct Rest {
        TCPStream stream;
        std::unique_ptr<StreamExchangeReader> reader;
        std::unique_ptr<ExchangesAhead> ahead;  ///< has the reader then
    };

    std::int64_t number = 0;
    bool isLeft = false;  ///< for later: nothing of it was made
    double time = 0;      ///< of the next
    std::int64_t made = 0;
    WaitingLines waiting;
    std::unique_ptr<Rest> rest;

    bool isLaterThan(const OfStream& other) const { return std::pair(time, number) > std::pair(other.time, other.number); }
    /// Finds when the next is due; false when there is none.
    bool findTime(std::size_t readAtOnce)
    {
        const std::optional<double> next = !waiting.isEmpty() ? waiting.time(readAtOnce) : rest ? rest->ahead->nextTime() : std::nullopt;
        time = next.value_or(0);
        return next.has_value();
    }
    /// Bytes, about; what reads a long stream holds some of it.
    std::int64_t heldBytes() const { return waiting.heldBytes() + (rest ? std::int64_t{4} << 20 : 0); }
};

class ExchangeOrder {
public:
    ExchangeOrder(const Session& session, const ExchangeLines& lines)
        : session_(session), lines_(lines), mostInFile_((std::int64_t{448} << 20) + 6 * session.capture().bytesOfFiles())
    {}

    /// Makes the first lines of a stream. Called on several threads.
    std::unique_ptr<OfStream> find(std::int64_t number)
    {
        auto found = std::make_unique<OfStream>(number);
        if (uncollected_ > mostUncollected)
            found->isLeft = true;
        else
            make(*found);
        uncollected_ += found->heldBytes();
        return found;
    }

    /// Takes over what was found of the next stream, and hands over what is due before `nextStart`. False when nothing more is wanted.
    bool collect(std::unique_ptr<OfStream> found, double nextStart)
    {
        uncollected_ -= found->heldBytes();
        if (found->isLeft) make(*found);
        bool isCrowded = found->rest && !readOn(*found);
        made_ += found->made;
        if (!found->waiting.isEmpty() || found->rest) {
            if (heldBytes_ + found->waiting.heldBytes() > mostHeld && !moveToFile(found->waiting)) isCrowded = true;
            found->findTime(0);
            heldBytes_ += found->waiting.heldBytes();
            waiting_.push_back(std::move(found));
            std::ranges::push_heap(waiting_, isLater);
        }
        handOverUntil(isCrowded ? std::numeric_limits<double>::infinity() : nextStart);
        if (made_ > lines_.most) isWhole_ = false;
        return isWanted_ && isWhole_ && !lines_.stop.stop_requested();
    }

    /// Hands over the rest; false when there was more than may be.
    bool finish()
    {
        handOverUntil(std::numeric_limits<double>::infinity());
        return isWhole_ || isEnough_;
    }

private:
    // Bytes of lines: of a stream, at first; of streams that are made side by side; of those that wait.
    static constexpr std::size_t madeAtOnce = 1 << 19;
    static constexpr std::int64_t mostUncollected = 8 << 20, mostHeld = 8 << 20;
    static constexpr std::size_t mostRead = 4 << 20;  ///< out of the file at once
    static constexpr int mostReaders = 2;             ///< of long streams

    static bool isLater(const std::unique_ptr<OfStream>& a, const std::unique_ptr<OfStream>& b) { return a->isLaterThan(*b); }

    void append(std::string& text, double time, const TCPStream& stream, const Exchange& exchange) const
    {
        WaitingLines::Head head{.time = time};
        const std::size_t place = text.size();
        text.append(sizeof head, '\0');
        lines_.append(text, stream, exchange);
        head.length = text.size() - place - sizeof head;
        std::memcpy(text.data() + place, &head, sizeof head);
    }

    void make(OfStream& found) const
    {
        constexpr std::size_t usualLine = 2'048;
        auto rest = std::make_unique<OfStream::Rest>(session_.stream(found.number));
        rest->reader = applicationExchanges(session_, rest->stream);
        if (!rest->reader) return;
        std::string text;
        text.reserve(usualLine);
        Exchange exchange;
        while (const auto time = rest->reader->nextTime()) {
            if (text.size() >= madeAtOnce) {
                found.rest = std::move(rest);
                break;
            }
            rest->reader->next(exchange);
            append(text, *time, rest->stream, exchange);
            ++found.made;
        }
        found.waiting.add(text);
    }

    /// Lets the rest of a long stream be made while it is handed over; of more of them than a few at once, makes it now, for the file.
    /// False where there is no room for that.
    bool readOn(OfStream& found)
    {
        OfStream::Rest& rest = *found.rest;
        rest.ahead = std::make_unique<ExchangesAhead>(std::move(rest.reader));
        if (readers_ >= mostReaders) {
            if (!moveToFile(found.waiting)) return ++readers_, false;
            std::string text;
            while (const auto time = rest.ahead->nextTime()) {
                if (lines_.stop.stop_requested() || made_ + found.made > lines_.most) break;
                append(text, *time, rest.stream, rest.ahead->next());
                ++found.made;
                if (text.size() < madeAtOnce) continue;
                found.waiting.add(text);
                text.clear();
                if (!moveToFile(found.waiting)) return ++readers_, false;
            }
            found.waiting.add(text);
            found.rest.reset();
            return true;
        }
        ++readers_;
        return true;
    }

    bool moveToFile(WaitingLines& lines)
    {
        if (!file_ && !hasNoFile_) {
            if (auto made = SpoolFile::create())
                file_ = *std::move(made);
            else
                hasNoFile_ = true;
        }
        return file_ && file_->bytes().size() + lines.heldBytes() <= mostInFile_ && lines.moveTo(*file_);
    }

    void handOverUntil(double time)
    {
        while (isWanted_ && !waiting_.empty() && waiting_.front()->time <= time) {
            std::ranges::pop_heap(waiting_, isLater);
            OfStream& first = *waiting_.back();
            const OfStream* const second = waiting_.size() > 1 ? waiting_.front().get() : nullptr;
            bool isMore = true;
            while (isMore && isWanted_ && first.time <= time && !(second && first.isLaterThan(*second))) isMore = handOver(first);
            if (isMore)
                std::ranges::push_heap(waiting_, isLater);
            else
                waiting_.pop_back();
        }
    }

    /// The next of a stream; false when it was the last.
    bool handOver(OfStream& stream)
    {
        if (handedOver_ == lines_.most) {
            isWanted_ = isWhole_ = false;
            return true;
        }
        ++handedOver_;
        const std::int64_t before = stream.waiting.heldBytes();
        if (!stream.waiting.isEmpty()) {
            isEnough_ = !lines_.take(stream.waiting.take(readAtOnce()));
            if (stream.waiting.isEmpty()) stream.waiting.letGo();
        } else {
            line_.clear();
            lines_.append(line_, stream.rest->stream, stream.rest->ahead->next());
            isEnough_ = !lines_.take(line_);
        }
        isWanted_ = !isEnough_;
        const bool isMore = stream.findTime(readAtOnce());
        heldBytes_ += (isMore ? stream.waiting.heldBytes() : 0) - before;
        if (!isMore && stream.rest) --readers_;
        return isMore;
    }

    /// Bytes of a stream, so that those of all stay within bounds.
    std::size_t readAtOnce() const { return std::clamp<std::size_t>(mostRead / waiting_.size(), 256, 65'536); }

    const Session& session_;
    const ExchangeLines& lines_;
    const std::int64_t mostInFile_;
    std::atomic<std::int64_t> uncollected_ = 0;

    // What collects, alone.
    std::vector<std::unique_ptr<OfStream>> waiting_;  ///< a heap, the one whose next exchange is the earliest on top
    std::unique_ptr<SpoolFile> file_;
    bool hasNoFile_ = false;
    std::int64_t heldBytes_ = 0, made_ = 0, handedOver_ = 0;
    int readers_ = 0;
    bool isWanted_ = true;   ///< more of them
    bool isWhole_ = true;    ///< no more of them than may be handed over
    bool isEnough_ = false;  ///< says who takes them
    std::string line_;
};

}  // namespace

bool exchangesInOrder(const Session& session, const std::vector<std::int64_t>& streams, const ExchangeLines& lines)
{
    ExchangeOrder order(session, lines);
    std::size_t collected = 0;
    const auto collect = [&](std::unique_ptr<OfStream> found) {
        // Nothing of a later stream is earlier than its first packet.
        ++collected;
        const double next = collected < streams.size() ? session.startTime(streams[collected]) : std::numeric_limits<double>::infinity();
        return order.collect(std::move(found), next);
    };
    const auto weight = [&](std::int64_t number) { return session.weight(number); };
    inOrder(streams, weight, [&](std::int64_t number) { return order.find(number); }, collect);
    return order.finish();
}

}  // namespace sealscope
