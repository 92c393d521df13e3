#include "platform/synthetic/synthetic_input.h"

#include <time.h>

#include <xkbcommon/xkbcommon.h>

#include "platform/cm_clock.h"
#include "platform/linux/x11/input_mapping.h"
#include "platform/synthetic/synthetic_capture_platform.h"

namespace ov::platform {

struct SyntheticInputProvider::State {
    std::mutex mutex;
    SyntheticInput input;
    CGPoint location;
    std::string cursorName;
    uint64_t cursorSerial = 1;
    std::set<uint8_t> held;
    std::set<uint32_t> keysDown;
    CGEventFlags lockedFlags = 0;
    CGEventFlags heldFlags = 0;
    struct Feed;
    std::set<Feed*> feeds;

    CGEventFlags flags() const { return lockedFlags | heldFlags; }

    // Applies one event to the world and turns it into the platform's event;
    // absent when it makes none. Called with the mutex held.
    std::optional<CGEvent> apply(const SyntheticInputEvent& e, uint64_t timestamp) {
        CGEvent event;
        event.timestamp = timestamp;
        event.flags = flags();
        using K = SyntheticInputEvent::Kind;
        switch (e.kind) {
            case K::move:
                location = CGPoint{e.x, e.y};
                event.type = x11::motionType(held);
                break;
            case K::buttonDown:
            case K::buttonUp: {
                const auto logical = static_cast<uint8_t>(e.button);
                if (e.kind == K::buttonDown) held.insert(logical); else held.erase(logical);
                const auto button = x11::buttonEvent(logical, e.kind == K::buttonDown);
                if (!button) return std::nullopt;
                event.type = button->type;
                event.buttonNumber = button->buttonNumber;
                break;
            }
            case K::cursor:
                cursorName = e.name;
                ++cursorSerial;
                return std::nullopt;
            case K::keyDown:
            case K::keyUp: {
                const bool press = e.kind == K::keyDown;
                const xkb_keysym_t sym = xkb_keysym_from_name(e.keysym.c_str(), XKB_KEYSYM_NO_FLAGS);
                const xkb_keysym_t lower = xkb_keysym_to_lower(sym);
                event.keysym = sym;
                event.levelZeroKeysym = lower;
                // A stable code per symbol stands in for the key's position.
                event.keycode = 8 + static_cast<int64_t>(lower % 240);
                if (x11::isModifierKeysym(lower)) {
                    CGEventFlags bit = 0;
                    if (lower == XKB_KEY_Shift_L || lower == XKB_KEY_Shift_R) bit = kCGEventFlagMaskShift;
                    if (lower == XKB_KEY_Control_L || lower == XKB_KEY_Control_R) bit = kCGEventFlagMaskControl;
                    if (lower == XKB_KEY_Alt_L || lower == XKB_KEY_Alt_R) bit = kCGEventFlagMaskAlternate;
                    if (lower == XKB_KEY_Super_L || lower == XKB_KEY_Super_R) bit = kCGEventFlagMaskCommand;
                    const CGEventFlags before = flags();
                    if (lower == XKB_KEY_Caps_Lock) {
                        if (press) lockedFlags ^= kCGEventFlagMaskAlphaShift;
                    } else if (press) {
                        heldFlags |= bit;
                    } else {
                        heldFlags &= ~bit;
                    }
                    if (flags() == before) return std::nullopt;
                    event.type = CGEventType::flagsChanged;
                    event.flags = flags();
                    break;
                }
                if (press) {
                    event.type = CGEventType::keyDown;
                    event.autorepeat = !keysDown.insert(sym).second;
                } else {
                    if (!keysDown.erase(sym)) return std::nullopt;
                    event.type = CGEventType::keyUp;
                }
                const bool shift = heldFlags & kCGEventFlagMaskShift;
                const xkb_keysym_t shown = shift ? xkb_keysym_to_upper(sym) : sym;
                char buffer[16];
                if (xkb_keysym_to_utf8(shown, buffer, sizeof buffer) > 1) {
                    std::string text(buffer);
                    event.charactersIgnoringModifiers = text;
                    if ((heldFlags & kCGEventFlagMaskControl) && text.size() == 1 && std::isalpha(static_cast<unsigned char>(text[0])))
                        text = std::string(1, static_cast<char>(text[0] & 0x1F));
                    event.characters = text;
                }
                break;
            }
        }
        event.location = location;
        return event;
    }
};

struct SyntheticInputProvider::State::Feed final : InputFeed {
    Feed(std::shared_ptr<State> state, CGEventMask mask, InputFeedSink sink)
        : state_(std::move(state)), mask_(mask), sink_(std::move(sink)) {
        start_ = hostTimeNanosecondsNow();
        {
            std::lock_guard lock(state_->mutex);
            state_->feeds.insert(this);
        }
        thread_ = std::thread([this] { run(); });
    }
    ~Feed() override { stop(); }

    void stop() override {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        cv_.notify_all();
        if (thread_.joinable()) thread_.join();
        std::lock_guard lock(state_->mutex);
        state_->feeds.erase(this);
    }

    void post(const SyntheticInputEvent& event, uint64_t timestamp) {
        {
            std::lock_guard lock(mutex_);
            posted_.push_back({event, timestamp});
        }
        cv_.notify_all();
    }
    void fail(std::exception_ptr error) {
        {
            std::lock_guard lock(mutex_);
            failure_ = error;
        }
        cv_.notify_all();
    }

    void emit(const SyntheticInputEvent& e, uint64_t timestamp) {
        std::optional<CGEvent> event;
        {
            std::lock_guard lock(state_->mutex);
            event = state_->apply(e, timestamp);
        }
        if (event && CGEventMaskContains(mask_, event->type) && sink_.event) sink_.event(*event);
    }

    void run() {
        std::vector<SyntheticInputEvent> script;
        {
            std::lock_guard lock(state_->mutex);
            script = state_->input.events;
        }
        std::stable_sort(script.begin(), script.end(), [](const auto& a, const auto& b) { return a.after < b.after; });
        size_t next = 0;
        std::unique_lock lock(mutex_);
        for (;;) {
            // Events posted before a stop are still delivered, as a window
            // system delivers what it generated before the feed was closed.
            if (failure_) break;
            if (posted_.empty() && stopping_) break;
            if (!posted_.empty()) {
                auto [event, timestamp] = posted_.front();
                posted_.pop_front();
                lock.unlock();
                emit(event, timestamp ? timestamp : hostTimeNanosecondsNow());
                lock.lock();
                continue;
            }
            if (next < script.size() && !stopping_) {
                const uint64_t due = start_ + static_cast<uint64_t>(script[next].after * 1e9 + 0.5);
                if (hostTimeNanosecondsNow() >= due) {
                    const auto event = script[next++];
                    lock.unlock();
                    emit(event, due);
                    lock.lock();
                    continue;
                }
                const auto wait = std::chrono::nanoseconds(due - hostTimeNanosecondsNow());
                cv_.wait_for(lock, std::min<std::chrono::nanoseconds>(wait, std::chrono::milliseconds(50)));
            } else {
                cv_.wait(lock, [&] { return stopping_ || failure_ || !posted_.empty(); });
            }
        }
        const auto failure = failure_;
        lock.unlock();
        if (sink_.ended) sink_.ended(failure);
    }

    std::shared_ptr<State> state_;
    CGEventMask mask_;
    InputFeedSink sink_;
    uint64_t start_ = 0;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::pair<SyntheticInputEvent, uint64_t>> posted_;
    std::exception_ptr failure_;
    bool stopping_ = false;
    std::thread thread_;
};

namespace {

class SyntheticCursorSource final : public CursorSource {
public:
    explicit SyntheticCursorSource(std::shared_ptr<SyntheticInputProvider::State> state) : state_(std::move(state)) {}

    std::optional<PointerState> pointer() override {
        std::lock_guard lock(state_->mutex);
        return PointerState{state_->location, state_->flags()};
    }
    std::optional<NSCursor> currentSystemCursor() override {
        std::lock_guard lock(state_->mutex);
        NSCursor cursor;
        cursor.hotSpot = CGPoint{4, 4};
        cursor.size = CGSize{24, 24};
        if (!state_->cursorName.empty()) cursor.name = state_->cursorName;
        cursor.serial = state_->cursorSerial;
        cursor.image = SyntheticInputProvider::cursorImage(state_->cursorName);
        return cursor;
    }
    double refreshRate(CGPoint) override { return 60; }

private:
    std::shared_ptr<SyntheticInputProvider::State> state_;
};

}  // namespace

SyntheticInputProvider::SyntheticInputProvider(SyntheticInput input, CGRect main) : state_(std::make_shared<State>()) {
    state_->location = input.cursorLocation.value_or(
        CGPoint{main.origin.x + main.size.width / 2, main.origin.y + main.size.height / 2});
    state_->cursorName = input.cursorName;
    state_->input = std::move(input);
}

SyntheticInputProvider::~SyntheticInputProvider() = default;

std::unique_ptr<InputFeed> SyntheticInputProvider::startFeed(CGEventMask mask, InputFeedSink sink) {
    {
        std::lock_guard lock(state_->mutex);
        if (state_->input.tapFails) throw CGEventTapError("The synthetic world's input feed fails by script");
    }
    return std::make_unique<State::Feed>(state_, mask, std::move(sink));
}

std::shared_ptr<CursorSource> SyntheticInputProvider::makeCursorSource() {
    return std::make_shared<SyntheticCursorSource>(state_);
}

void SyntheticInputProvider::post(const SyntheticInputEvent& event, uint64_t timestamp) {
    std::lock_guard lock(state_->mutex);
    if (state_->feeds.empty()) {
        // No feed: the world still changes (the cursor source sees it).
        state_->apply(event, timestamp ? timestamp : hostTimeNanosecondsNow());
        return;
    }
    for (auto* feed : state_->feeds) feed->post(event, timestamp);
}

void SyntheticInputProvider::failFeeds(std::exception_ptr error) {
    std::lock_guard lock(state_->mutex);
    for (auto* feed : state_->feeds) feed->fail(error);
}

std::string SyntheticInputProvider::cursorImage(const std::string& name) {
    std::string image;
    const auto put = [&image](uint32_t v) {
        for (int i = 0; i < 4; ++i) image += static_cast<char>((v >> (8 * i)) & 0xFF);
    };
    put(24);
    put(24);
    uint32_t seed = 2166136261u;
    for (unsigned char c : name) seed = (seed ^ c) * 16777619u;
    for (int i = 0; i < 24 * 24; ++i) put(0xFF000000u | ((seed + static_cast<uint32_t>(i) * 2654435761u) & 0xFFFFFF));
    return image;
}

std::shared_ptr<InputCaptureProvider> SyntheticCapturePlatform::inputProvider() const {
    return input_;
}

}  // namespace ov::platform
