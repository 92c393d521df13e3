#pragma once
// The synthetic world's mouse, keyboard and cursor. A feed plays the world's
// scripted input from its own start, each event at exactly start + after on
// the host clock, and tests can post more events as the recording runs. The
// pointer and cursor follow what was played (moves, cursor changes), so the
// cursor source sees what the feed did. Buttons and modifier keys follow the
// X11 backend's rules, so recorders see the same event types on both.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "platform/capture/input_provider.h"
#include "platform/synthetic/synthetic_world.h"

namespace ov::platform {

class SyntheticInputProvider final : public InputCaptureProvider,
                                     public std::enable_shared_from_this<SyntheticInputProvider> {
public:
    // `main` is the main display's frame: the default cursor stands at its centre.
    SyntheticInputProvider(SyntheticInput input, CGRect main);
    ~SyntheticInputProvider() override;

    std::string apiName() const override { return "synthetic"; }
    std::unique_ptr<InputFeed> startFeed(CGEventMask mask, InputFeedSink sink) override;
    std::shared_ptr<CursorSource> makeCursorSource() override;

    // Plays an event now (its `after` is ignored), at host time `timestamp`
    // (0: now), on every running feed.
    void post(const SyntheticInputEvent& event, uint64_t timestamp = 0);
    // Ends every running feed with this error, as a lost connection does.
    void failFeeds(std::exception_ptr error);

    // The picture of a named cursor: 24×24 pixels derived from the name.
    static std::string cursorImage(const std::string& name);

    struct State;

private:
    std::shared_ptr<State> state_;
};

}  // namespace ov::platform
