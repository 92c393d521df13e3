#pragma once
// Decides, for one recording interval, which items of an ascending stream
// belong to it and at which time.
//
// The interval's output starts exactly at its start, with the newest item that
// was visible then (a frame shown since before the start is carried to it),
// and ends exactly at its end with the newest item visible then (the last frame
// is held to the end), even when nothing was captured at those instants. Items
// before the start wait in a small ring; after the end everything is ignored.
//
// One mutex serialises append, finish and lastAppendedItemTime, so they may
// come from different threads. The handler runs under it and must not call
// back into the retimer.

#include <cmath>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/cm_time.h"
#include "timing/recording_interval.h"
#include "foundation/ring_buffer.h"

namespace ov {

enum class RecordingIntervalBoundedRetimerItemPosition { first, subsequent, subsequentRepeat };

// Thrown by append and finish.
class RecordingIntervalBoundedRetimerError : public std::runtime_error {
public:
    enum class Kind { wrongOrder, timescaleExceedsSession, internalError, handlerNotSet, finishedWithoutFrames };

    static RecordingIntervalBoundedRetimerError wrongOrder(platform::CMTime previous, platform::CMTime current) {
        return {Kind::wrongOrder, previous, current, 0, 0};
    }
    static RecordingIntervalBoundedRetimerError internalError(platform::CMTime previous, platform::CMTime current) {
        return {Kind::internalError, previous, current, 0, 0};
    }
    static RecordingIntervalBoundedRetimerError timescaleExceedsSession(double timescale, double intervalDuration) {
        return {Kind::timescaleExceedsSession, {}, {}, timescale, intervalDuration};
    }
    static RecordingIntervalBoundedRetimerError handlerNotSet() { return {Kind::handlerNotSet, {}, {}, 0, 0}; }
    static RecordingIntervalBoundedRetimerError finishedWithoutFrames() {
        return {Kind::finishedWithoutFrames, {}, {}, 0, 0};
    }

    Kind kind;
    platform::CMTime previous;
    platform::CMTime current;
    double timescale;
    double intervalDuration;

private:
    RecordingIntervalBoundedRetimerError(Kind k, platform::CMTime p, platform::CMTime c, double ts, double d)
        : std::runtime_error(describe(k, p, c, ts, d)), kind(k), previous(p), current(c), timescale(ts),
          intervalDuration(d) {}
    static std::string describe(Kind k, const platform::CMTime& p, const platform::CMTime& c, double ts, double d) {
        switch (k) {
            case Kind::wrongOrder: return "wrongOrder(previous: " + p.logDescription() + ", current: " + c.logDescription() + ")";
            case Kind::internalError:
                return "internalError(previous: " + p.logDescription() + ", current: " + c.logDescription() + ")";
            case Kind::timescaleExceedsSession:
                return "timescaleExceedsSession(timescale: " + std::to_string(ts) +
                       ", intervalDuration: " + std::to_string(d) + ")";
            case Kind::handlerNotSet: return "handlerNotSet";
            case Kind::finishedWithoutFrames: return "finishedWithoutFrames";
        }
        return "unknown";
    }
};

template <class Item>
class RecordingIntervalBoundedRetimer {
public:
    using Position = RecordingIntervalBoundedRetimerItemPosition;
    using Error = RecordingIntervalBoundedRetimerError;
    using Handler = std::function<void(Position, const Item&, const platform::CMTime&)>;

    // capacity: how many items before the start are kept (at least 1).
    // zeroBasedOutputTimes: times given to the handler are reduced by the
    // interval's start.
    RecordingIntervalBoundedRetimer(RecordingInterval interval, size_t capacity, bool zeroBasedOutputTimes)
        : zeroBasedOutputTimes(zeroBasedOutputTimes), intervalIndex(interval.index), interval_(std::move(interval)),
          buffer_(capacity) {}

    // Set before the first item.
    Handler handler;
    const bool zeroBasedOutputTimes;
    const size_t intervalIndex;

    void append(Item item, const platform::CMTime& time) {
        std::lock_guard lock(mutex_);
        if (didEmitLast_) return;
        platform::CMTime previous = lastAppended_ ? lastAppended_->second : platform::kCMTimeNegativeInfinity;
        if (!(previous < time)) throw Error::wrongOrder(previous, time);
        flush(Entry{item, time});
        lastAppended_ = Entry{std::move(item), time};
    }

    void finish() {
        std::lock_guard lock(mutex_);
        using platform::CMTime;
        if (!lastAppended_) throw Error::finishedWithoutFrames();
        flush(std::nullopt);
        const auto elements = buffer_.elements();
        if (!didEmitFirst_) {
            // The stream never reached the start: the newest item seen stands for it.
            didEmitFirst_ = true;
            CMTime recordFromTime = CMTime::makeWithSeconds(interval_.recordFrom, lastAppended_->second.timescale);
            const Entry* chosen = &*lastAppended_;
            for (const auto& e : elements)
                if (e.second >= recordFromTime) {
                    chosen = &e;
                    break;
                }
            if (!(lastEmitTime_ < recordFromTime)) throw Error::internalError(lastEmitTime_, recordFromTime);
            lastEmitTime_ = recordFromTime;
            lastEmitOriginal_ = chosen->second;
            emit(Position::first, chosen->first, recordFromTime);
        }
        if (!didEmitLast_) {
            didEmitLast_ = true;
            const Entry* chosen = &*lastAppended_;
            for (auto it = elements.rbegin(); it != elements.rend(); ++it)
                if (contains(it->second)) {
                    chosen = &*it;
                    break;
                }
            CMTime recordUntilTime = CMTime::makeWithSeconds(interval_.recordUntil, chosen->second.timescale);
            if (lastEmitTime_ < recordUntilTime) {
                lastEmitTime_ = recordUntilTime;
                lastEmitOriginal_ = chosen->second;
                emit(Position::subsequentRepeat, chosen->first, recordUntilTime);
            } else {
                tickTest(chosen->second);
            }
        }
    }

    std::optional<platform::CMTime> lastAppendedItemTime() const {
        std::lock_guard lock(mutex_);
        if (!lastAppended_) return std::nullopt;
        return lastAppended_->second;
    }

private:
    using Entry = std::pair<Item, platform::CMTime>;

    bool contains(const platform::CMTime& t) const {
        double s = t.seconds();
        return interval_.recordFrom <= s && s < interval_.recordUntil;
    }

    void emit(Position position, const Item& item, const platform::CMTime& emitTime) {
        if (!handler) throw Error::handlerNotSet();
        platform::CMTime offset = zeroBasedOutputTimes
                                      ? platform::CMTime::makeWithSeconds(interval_.recordFrom, emitTime.timescale)
                                      : platform::CMTime(0, emitTime.timescale);
        handler(position, item, emitTime - offset);
    }

    // An interval shorter than one tick of the item's time base cannot hold an
    // emission of its own; anything else that reaches here was stamped at or
    // after the end and already stands for it.
    void tickTest(const platform::CMTime& chosenTime) {
        double duration = interval_.recordUntil - interval_.recordFrom;
        platform::CMTime t = platform::CMTime::makeWithSeconds(interval_.recordUntil, lastEmitTime_.timescale);
        double tick = 1.0 / chosenTime.timescale;
        if (lastEmitTime_ <= t && tick >= duration) throw Error::timescaleExceedsSession(tick, duration);
    }

    void flush(std::optional<Entry> newItem) {
        using platform::CMTime;
        // A pause or stop since the last item takes effect here.
        interval_.update();
        std::vector<Entry> items = buffer_.elements();
        if (newItem) items.push_back(*newItem);
        if (items.empty()) return;

        CMTime recordFromTime = CMTime::makeWithSeconds(interval_.recordFrom, items.back().second.timescale);
        std::vector<const Entry*> fromStart;
        for (const auto& e : items)
            if (e.second >= recordFromTime) fromStart.push_back(&e);
        if (fromStart.empty()) {
            // Before the start (always so for a waiting interval): keep the newest.
            if (newItem) buffer_.append(std::move(*newItem));
            return;
        }

        std::vector<const Entry*> rest;
        if (!didEmitFirst_) {
            didEmitFirst_ = true;
            buffer_.clear();
            const Entry* chosen = nullptr;
            for (const auto& e : items)
                if (e.second <= recordFromTime) chosen = &e;
            if (!chosen) chosen = fromStart.front();
            if (!(lastEmitTime_ < recordFromTime)) throw Error::internalError(lastEmitTime_, recordFromTime);
            lastEmitTime_ = recordFromTime;
            lastEmitOriginal_ = chosen->second;
            emit(Position::first, chosen->first, recordFromTime);
            for (const auto& e : items)
                if (e.second > chosen->second) rest.push_back(&e);
        } else {
            rest = fromStart;
        }

        for (const Entry* e : rest) {
            if (!contains(e->second)) continue;
            if (!(lastEmitTime_ < e->second)) throw Error::internalError(lastEmitTime_, e->second);
            lastEmitTime_ = e->second;
            lastEmitOriginal_ = e->second;
            emit(Position::subsequent, e->first, e->second);
        }

        if (fromStart.back()->second.seconds() < interval_.recordUntil) return;

        // The stream has passed the end: close with the item visible at the end.
        didEmitLast_ = true;
        const Entry* chosen = nullptr;
        for (const Entry* e : fromStart)
            if (contains(e->second)) chosen = e;
        if (!chosen) chosen = lastAppended_ ? &*lastAppended_ : &items.back();
        CMTime recordUntilTime = CMTime::makeWithSeconds(interval_.recordUntil, chosen->second.timescale);
        if (lastEmitTime_ < recordUntilTime) {
            Position position =
                lastEmitOriginal_ == chosen->second ? Position::subsequentRepeat : Position::subsequent;
            lastEmitTime_ = recordUntilTime;
            lastEmitOriginal_ = chosen->second;
            emit(position, chosen->first, recordUntilTime);
        } else {
            tickTest(chosen->second);
        }
    }

    mutable std::mutex mutex_;
    RecordingInterval interval_;
    bool didEmitFirst_ = false;
    bool didEmitLast_ = false;
    RingBuffer<Entry> buffer_;
    std::optional<Entry> lastAppended_;
    // The time last given to the handler before zero-basing, and the capture
    // time of that item.
    platform::CMTime lastEmitTime_ = platform::kCMTimeNegativeInfinity;
    platform::CMTime lastEmitOriginal_ = platform::kCMTimeNegativeInfinity;
};

}  // namespace ov
