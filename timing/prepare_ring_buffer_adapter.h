#pragma once
// A ring buffer that the prepare step of a recorder can wait on: for the first
// item, for a full ring, or for a ring whose items all share one audio format.
//
// The samples arrive on the recorder's queue through append(); a waiter blocks
// its own thread and can be cancelled through a std::stop_token. The state
// lives behind a shared_ptr, so that a wait abandoned by withTimeout can
// finish safely after the adapter itself is gone.

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "output/ov_logger.h"
#include "foundation/ring_buffer.h"
#include "timing/with_timeout.h"

namespace ov {

// Why a ring of audio samples has no single format. code is the name of the
// library's error code that a recorder reports it as.
class AudioFormatCheckError : public std::runtime_error {
public:
    enum class Code { audioFormatError, audioBufferProcessingFailed };
    AudioFormatCheckError(Code code, const std::string& message) : std::runtime_error(message), code_(code) {}
    Code code() const { return code_; }

private:
    Code code_;
};

template <class Element>
class PrepareRingBufferAdapter {
public:
    explicit PrepareRingBufferAdapter(RingBuffer<Element> buffer,
                                      Logger logger = Logger("PrepareRingBufferAdapter"))
        : core_(std::make_shared<Core>(std::move(buffer))), logger_(std::move(logger)) {}
    PrepareRingBufferAdapter(const PrepareRingBufferAdapter&) = delete;
    PrepareRingBufferAdapter& operator=(const PrepareRingBufferAdapter&) = delete;

    // A snapshot of the ring.
    RingBuffer<Element> buffer() const {
        std::lock_guard lock(core_->mutex);
        return core_->ringBuffer;
    }

    void append(Element element) {
        std::lock_guard lock(core_->mutex);
        core_->ringBuffer.append(element);
        for (auto& [id, waiter] : core_->itemContinuations) waiter->item = element;
        core_->itemContinuations.clear();
        if (!core_->fullContinuations.empty() && core_->ringBuffer.isFull()) {
            auto items = core_->ringBuffer.elements();
            for (auto& [id, waiter] : core_->fullContinuations) waiter->items = items;
            core_->fullContinuations.clear();
        }
        core_->cv.notify_all();
    }

    // Empties the ring; waiters keep waiting.
    void clear() {
        std::lock_guard lock(core_->mutex);
        core_->ringBuffer.clear();
    }

    // The newest item, at once if the ring has one. Throws `error` after
    // `timeout` seconds without an item.
    template <class E = TimeoutError>
    Element waitForItem(double timeout, E error = {}) {
        return withTimeout(timeout, std::move(error),
                           [core = core_](std::stop_token token) { return Core::waitItem(core, token); });
    }

    // The newest item; throws CancellationError when stop is requested first.
    Element waitItem(std::stop_token token = {}) { return Core::waitItem(core_, token); }

    // All items, oldest first, once the ring is full.
    std::vector<Element> waitForFullBuffer(std::stop_token token = {}) { return Core::waitFull(core_, token); }

    // Waits until the ring is full of items of one audio format. formatOf gives an
    // item's format as an optional value with ==; absent where the item has none.
    // One mixed ring (a format change at start) is cleared and waited for once more.
    template <class FormatOf>
    void waitForStableAudioFormat(FormatOf formatOf, std::stop_token token = {}) {
        if (allSameFormat(waitForFullBuffer(token), formatOf)) return;
        logger_.debug("Audio Stream Format Description of items in buffer are not all same, clearing and retrying.");
        clear();
        if (allSameFormat(waitForFullBuffer(token), formatOf)) return;
        throw AudioFormatCheckError(AudioFormatCheckError::Code::audioFormatError,
                                    "Audio Stream Format Description of items in buffer are not all same");
    }

    template <class FormatOf>
    bool isFullOfAllSameFormat(FormatOf formatOf) const {
        auto ring = buffer();
        if (ring.count() != ring.capacity()) return false;
        try {
            return allSameFormat(ring.elements(), formatOf);
        } catch (const AudioFormatCheckError&) {
            return false;
        }
    }

    // Whether every item has the first item's format. Items without a format
    // are failures, not mismatches.
    template <class FormatOf>
    static bool allSameFormat(const std::vector<Element>& items, FormatOf& formatOf) {
        if (items.empty())
            throw AudioFormatCheckError(AudioFormatCheckError::Code::audioBufferProcessingFailed,
                                        "Audio buffer is missing first item");
        const auto first = formatOf(items.front());
        if (!first)
            throw AudioFormatCheckError(AudioFormatCheckError::Code::audioBufferProcessingFailed,
                                        "Audio sample buffer missing Audio Stream Basic Description");
        bool same = true;
        for (std::size_t i = 1; i < items.size(); ++i) {
            const auto format = formatOf(items[i]);
            if (!format)
                throw AudioFormatCheckError(AudioFormatCheckError::Code::audioBufferProcessingFailed,
                                            "Some sample buffer missing Audio Stream Basic Description");
            if (!(*format == *first)) same = false;
        }
        return same;
    }

    std::size_t waiterCount() const {
        std::lock_guard lock(core_->mutex);
        return core_->itemContinuations.size() + core_->fullContinuations.size();
    }

private:
    struct ItemWaiter {
        std::optional<Element> item;
        bool cancelled = false;
    };
    struct FullWaiter {
        std::optional<std::vector<Element>> items;
        bool cancelled = false;
    };

    struct Core {
        explicit Core(RingBuffer<Element> buffer) : ringBuffer(std::move(buffer)) {}

        std::mutex mutex;
        std::condition_variable cv;
        RingBuffer<Element> ringBuffer;
        uint64_t nextID = 0;
        std::map<uint64_t, std::shared_ptr<ItemWaiter>> itemContinuations;
        std::map<uint64_t, std::shared_ptr<FullWaiter>> fullContinuations;

        static Element waitItem(const std::shared_ptr<Core>& core, const std::stop_token& token) {
            return wait<ItemWaiter>(
                core, token, &Core::itemContinuations,
                [](Core& c) -> std::optional<Element> { return c.ringBuffer.last(); },
                [](ItemWaiter& w) -> std::optional<Element>& { return w.item; });
        }

        static std::vector<Element> waitFull(const std::shared_ptr<Core>& core, const std::stop_token& token) {
            return wait<FullWaiter>(
                core, token, &Core::fullContinuations,
                [](Core& c) -> std::optional<std::vector<Element>> {
                    if (!c.ringBuffer.isFull()) return std::nullopt;
                    return c.ringBuffer.elements();
                },
                [](FullWaiter& w) -> std::optional<std::vector<Element>>& { return w.items; });
        }

        // Resumes at once when `ready` has a value; otherwise parks a waiter under
        // a fresh id until append() fills it or the token cancels it.
        template <class Waiter, class Ready, class Slot>
        static auto wait(const std::shared_ptr<Core>& core, const std::stop_token& token,
                         std::map<uint64_t, std::shared_ptr<Waiter>> Core::*waiters, Ready ready, Slot slot)
            -> std::remove_reference_t<decltype(*slot(std::declval<Waiter&>()))> {
            auto waiter = std::make_shared<Waiter>();
            uint64_t id;
            {
                std::lock_guard lock(core->mutex);
                if (auto value = ready(*core)) return std::move(*value);
                id = core->nextID++;
                ((*core).*waiters).emplace(id, waiter);
            }
            // Registered outside the lock: a stop already requested runs the callback here.
            std::stop_callback onCancel(token, [core, waiters, id] {
                std::lock_guard lock(core->mutex);
                auto& map = (*core).*waiters;
                auto it = map.find(id);
                if (it == map.end()) return;  // already resumed with a value
                it->second->cancelled = true;
                map.erase(it);
                core->cv.notify_all();
            });
            std::unique_lock lock(core->mutex);
            core->cv.wait(lock, [&] { return slot(*waiter).has_value() || waiter->cancelled; });
            if (!slot(*waiter)) throw CancellationError();
            return std::move(*slot(*waiter));
        }
    };

    std::shared_ptr<Core> core_;
    Logger logger_;
};

}  // namespace ov
