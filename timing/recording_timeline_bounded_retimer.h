#pragma once
// Carries one stream of timed items across a whole recording timeline: one
// interval retimer per interval in turn, and the results moved onto the
// gapless output clock that starts at 0.
//
// At a seam between two intervals it removes the doubles that pausing would
// make: the old interval's closing repeat is held back (and only given out if
// the recording stops during the pause), and the frame that seeds the new
// interval is dropped when it would open it. Output times always ascend: a
// time at or before the last one given out is moved one tick after it.
//
// One mutex serialises append and finish; the handler runs under it.

#include <cmath>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include "output/ov_logger.h"
#include "platform/cm_time.h"
#include "timing/recording_interval_bounded_retimer.h"
#include "timing/stable_recording_timeline.h"

namespace ov {

enum class RecordingTimelineBoundedRetimerItemPosition { first, subsequent, firstAfterDiscontinuation };

template <class Item>
class RecordingTimelineBoundedRetimer {
public:
    using Position = RecordingTimelineBoundedRetimerItemPosition;
    using Handler = std::function<void(Position, const Item&, const platform::CMTime&)>;

    RecordingTimelineBoundedRetimer(StableRecordingTimeline timeline, size_t capacity, const Logger& logger)
        : logger_(logger.with("RecordingTimelineBoundedRetimer")), capacity_(capacity), timeline_(std::move(timeline)),
          current_(makeWrapper(timeline_.recordingIntervals.at(0))) {}

    // Set before the first item.
    Handler handler;

    // Throws RecordingIntervalBoundedRetimerError (wrongOrder: drop the item
    // and go on) or the handler's failure.
    void append(Item item, const platform::CMTime& time) {
        std::lock_guard lock(mutex_);
        struct StoreLast {
            RecordingTimelineBoundedRetimer* self;
            Item& item;
            const platform::CMTime& time;
            ~StoreLast() { self->lastAppended_ = std::pair<Item, platform::CMTime>{item, time}; }
        } storeLast{this, item, time};
        timeline_.update();
        RecordingInterval interval = timeline_.relevantInterval(time);
        bool itemDidBecomeSeed = transition(interval, std::pair<Item, platform::CMTime>{item, time});
        current_.retimer->append(Seeded{itemDidBecomeSeed, item}, time);
        emit(current_.take(), false, current_.retimer->intervalIndex);
    }

    // Once, after the timeline has stopped.
    void finish() {
        std::lock_guard lock(mutex_);
        timeline_.update();
        RecordingInterval last = timeline_.recordingIntervals.back();
        transition(last, std::nullopt);
        if (std::isfinite(last.recordUntil)) {
            current_.retimer->finish();
            emit(current_.take(), false, current_.retimer->intervalIndex);
        } else if (!lastSupressedRepeat_) {
            logger_.debug("Unfinished last interval while finishing, all items already emitted.");
        } else {
            // Stopped during a pause: the output ends at the end of the interval
            // before it, held by the same frame.
            logger_.debug("Unfinished last interval while finishing, emitting suppressed repeat item as final item.",
                          [&] {
                              return LogMetadata{
                                  {"suppressedItemTime", std::get<2>(*lastSupressedRepeat_).logDescription()}};
                          });
            std::vector<Emission> one{*lastSupressedRepeat_};
            emit(std::move(one), false, current_.retimer->intervalIndex);
        }
        lastAppended_.reset();
        lastSupressedRepeat_.reset();
    }

private:
    struct Seeded {
        bool isSeedItem;
        Item item;
    };
    using IntervalRetimer = RecordingIntervalBoundedRetimer<Seeded>;
    using Emission = std::tuple<RecordingIntervalBoundedRetimerItemPosition, Seeded, platform::CMTime>;

    // An interval retimer and what it has given out since the last take().
    struct Wrapper {
        std::shared_ptr<std::vector<Emission>> collected;
        std::shared_ptr<IntervalRetimer> retimer;
        std::vector<Emission> take() { return std::exchange(*collected, {}); }
    };

    Wrapper makeWrapper(const RecordingInterval& interval) {
        Wrapper w{std::make_shared<std::vector<Emission>>(),
                  std::make_shared<IntervalRetimer>(interval, capacity_, false)};
        w.retimer->handler = [collected = w.collected](auto position, const Seeded& item, const platform::CMTime& t) {
            collected->emplace_back(position, item, t);
        };
        return w;
    }

    // Moves to the retimer of `interval` when it is not the current one. True
    // when the new item was given to the old retimer and so seeds the new one.
    bool transition(const RecordingInterval& interval, std::optional<std::pair<Item, platform::CMTime>> newItem) {
        const size_t currentIndex = current_.retimer->intervalIndex;
        if (currentIndex == interval.index) return false;
        logger_.debug("Transitioning to new interval retimer.", [&] {
            return LogMetadata{{"currentIntervalIndex", std::to_string(currentIndex)},
                               {"newInterval", interval.debugDescription()}};
        });
        bool itemDidBecomeSeed = false;
        if (newItem && !current_.retimer->lastAppendedItemTime()) {
            // An interval that saw no item at all is still filled by this one.
            logger_.debug(
                "Current interval retimer didn't receive any items yet, passing the current item before transitioning.",
                [&] {
                    return LogMetadata{{"currentIntervalIndex", std::to_string(currentIndex)},
                                       {"newInterval", interval.debugDescription()},
                                       {"newItemTime", newItem->second.logDescription()}};
                });
            current_.retimer->append(Seeded{false, newItem->first}, newItem->second);
            emit(current_.take(), true, currentIndex);
            itemDidBecomeSeed = true;
        }
        current_.retimer->finish();
        emit(current_.take(), true, currentIndex);
        current_ = makeWrapper(interval);
        if (lastAppended_) {
            logger_.debug("Seeding with last appended frame.", [&] {
                return LogMetadata{{"_lastAppended.time", lastAppended_->second.logDescription()}};
            });
            current_.retimer->append(Seeded{true, lastAppended_->first}, lastAppended_->second);
            emit(current_.take(), false, current_.retimer->intervalIndex);
        }
        return itemDidBecomeSeed;
    }

    void emit(std::vector<Emission> items, bool supressRepeats, size_t intervalIndex) {
        using InPosition = RecordingIntervalBoundedRetimerItemPosition;
        for (auto& entry : items) {
            auto& [position, seeded, time] = entry;
            if (position == InPosition::first && seeded.isSeedItem) {
                // The seed already closed the previous interval: at the seam it
                // would be a duplicate.
                logger_.debug("Dropping first item, because it's a seed item.",
                              [&t = time] { return LogMetadata{{"time", t.logDescription()}}; });
                continue;
            }
            if (position == InPosition::subsequentRepeat && supressRepeats) {
                logger_.debug("Dropping subsequent repeat item, because repeats are supressed.",
                              [&t = time] { return LogMetadata{{"time", t.logDescription()}}; });
                lastSupressedRepeat_ = entry;
                continue;
            }
            platform::CMTime timelineTime = time - timeline_.offset(time);
            platform::CMTime emitTime = timelineTime;
            if (lastEmitted_ && timelineTime <= lastEmitted_->first) {
                emitTime = lastEmitted_->first + platform::CMTime(1, lastEmitted_->first.timescale);
                logger_.info("Shifting item to ensure valid timeline.", [&] {
                    return LogMetadata{{"timeOnTimeline", timelineTime.logDescription()},
                                       {"_lastEmitted.time", lastEmitted_->first.logDescription()},
                                       {"emitTime", emitTime.logDescription()}};
                });
            }
            Position out = !lastEmitted_                              ? Position::first
                           : lastEmitted_->second == intervalIndex ? Position::subsequent
                                                                    : Position::firstAfterDiscontinuation;
            if (!handler) throw RecordingIntervalBoundedRetimerError::handlerNotSet();
            struct MarkEmitted {
                RecordingTimelineBoundedRetimer* self;
                platform::CMTime time;
                size_t index;
                ~MarkEmitted() {
                    self->lastSupressedRepeat_.reset();
                    self->lastEmitted_ = std::pair{time, index};
                }
            } mark{this, emitTime, intervalIndex};
            handler(out, seeded.item, emitTime);
        }
    }

    std::mutex mutex_;
    Logger logger_;
    size_t capacity_;
    StableRecordingTimeline timeline_;
    Wrapper current_;
    std::optional<std::pair<Item, platform::CMTime>> lastAppended_;
    std::optional<std::pair<platform::CMTime, size_t>> lastEmitted_;
    std::optional<Emission> lastSupressedRepeat_;
};

}  // namespace ov
