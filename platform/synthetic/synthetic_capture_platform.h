#pragma once
// SyntheticCapturePlatform: the capture backend that generates its world.
//
// Timing. Capture starts at a host time S (the host time clock, CLOCK_MONOTONIC
// in nanoseconds) read when delivery begins. Video frame n has the
// presentation time S + n·d, d the frame duration (the device's
// activeVideoMinFrameDuration, or the display's rate limited by the stream's
// minimumFrameInterval), and is delivered once that time has passed. Audio
// buffer k holds samples [k·B, (k+1)·B) of the tone and starts at
// S + k·B / rate; it is delivered once its last sample's time has passed.
// Every time is computed from the frame or sample index in integers and
// rounded to the nearest nanosecond once, so nothing drifts however long a
// capture runs. With a synchronisation clock (the default, offset 0) times
// are on that clock: host time plus the clock's offset. A machine too slow
// to make pictures at the world's rate delivers them late, never with other
// times (bench/synthetic_capture_bench.cpp: a 1080p BGRA picture takes about
// 3 ms, NV12 about 5 ms).
//
// Pictures and tones are those of SyntheticPattern. Faults are scripted in
// the world (see synthetic_world.h); tests can also change the world while it
// runs through the controls below.

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/capture_platform.h"
#include "platform/synthetic/synthetic_world.h"

namespace ov::platform {

class SyntheticCaptureDevice;

// How one request for shareable content is answered: after a delay, not at
// all until the service is restarted, or with an error.
struct SyntheticContentAnswer {
    double delay = 0;  // seconds
    bool hangsUntilRestart = false;
    std::optional<PlatformError> error;
};

class SyntheticCapturePlatform final : public CapturePlatform {
public:
    // Throws std::invalid_argument for a world that doesn't validate.
    explicit SyntheticCapturePlatform(SyntheticWorld world);
    ~SyntheticCapturePlatform() override;

    std::string name() const override { return "synthetic"; }
    const SyntheticWorld& world() const { return world_; }

    std::vector<AVCaptureDeviceRef> devices() const override;
    AVAuthorizationStatus authorizationStatus(AVMediaType mediaType) const override;
    bool preflightScreenCaptureAccess() const override { return world_.authorization.screen; }
    bool preflightListenEventAccess() const override { return world_.authorization.inputMonitoring; }
    bool preflightPostEventAccess() const override { return world_.authorization.accessibility; }
    int audioCaptureAccessStatus() const override;
    std::optional<std::string> machineModel() const override { return world_.machineModel; }
    void requestAccess(AVMediaType mediaType, std::function<void(bool)> completion) override;
    void requestAudioCaptureAccess(std::function<void(bool)> completion) override;
    SCShareableContent shareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly) const override;
    std::unique_ptr<ScreenCaptureProducer> startScreenCapture(const SCContentFilter& filter,
                                                              const SCStreamConfiguration& configuration,
                                                              ScreenCaptureSink sink) override;
    // Points times the display's scale; none for a display that isn't there.
    std::optional<CGDisplayMode> displayMode(CGDirectDisplayID displayID) const override;
    // Counts the call and ends every request hanging until a restart.
    void restartShareableContentService() override;
    // The world as it is now, never scripted: displays with their names as
    // screen names, windows front to back in world order (added windows in
    // front), the world's applications. Counted by windowListRequestCount().
    std::vector<CGDisplayInfo> activeDisplays() const override;
    std::vector<CGWindowEntry> windowList(CGWindowListOption option) const override;
    std::vector<RunningApplicationInfo> runningApplications() const override;

    // The generated mouse, keyboard and cursor (synthetic_input.h); one per platform.
    std::shared_ptr<InputCaptureProvider> inputProvider() const override;

    // ---- Controls for tests.
    // The device with this id, connected or not; null for an unknown id.
    std::shared_ptr<SyntheticCaptureDevice> syntheticDevice(const std::string& uniqueID) const;
    // A device goes or comes back; a running capture of a device that goes
    // ends with a runtime error.
    void setDeviceConnected(const std::string& uniqueID, bool connected);
    void setDeviceSuspended(const std::string& uniqueID, bool suspended);
    // A display or window goes: out of the shareable content, and streams of
    // it stop with an error.
    void removeDisplay(uint32_t displayID);
    void removeWindow(uint32_t windowID);
    bool isDisplayPresent(uint32_t displayID) const;
    bool isWindowPresent(uint32_t windowID) const;
    // A window appears (in the shareable content; streams of it are not made).
    void addWindow(SyntheticWindow window);
    // A window changes its owning application (none: no owner).
    void setWindowOwner(uint32_t windowID, std::optional<int32_t> ownerPID);
    // A display comes (a new one, or one removed before) with a
    // reconfiguration notice; removeDisplay() gives one too.
    void addDisplay(SyntheticDisplay display);
    // Window changes as a window server shows them.
    void setWindowOnScreen(uint32_t windowID, bool onScreen);
    void setWindowTitle(uint32_t windowID, std::optional<std::string> title);
    void setWindowFrame(uint32_t windowID, CGRect frame);
    // Brings a window to the front of the stacking order.
    void raiseWindow(uint32_t windowID);
    // An application starts (its windows then name it) or quits.
    void addApplication(SyntheticApplication application);
    void removeApplication(int32_t pid);
    // Reads of the window list and of the running applications so far.
    int windowListRequestCount() const;

    // The next requests for shareable content are answered as scripted, one
    // answer per request in order; once the script is used up, at once. A
    // request hanging until a restart gives up after 30 s, so a test that
    // forgets it leaves no thread for good.
    void scriptShareableContent(std::vector<SyntheticContentAnswer> answers);
    int shareableContentRequestCount() const;
    int restartCount() const;

    // Shared with devices and producers, which may outlive the platform.
    struct State;

private:
    // The present windows, front to back, and displays and applications.
    std::vector<SyntheticWindow> currentWindows() const;
    std::vector<SyntheticDisplay> currentDisplays() const;
    std::vector<SyntheticApplication> currentApplications() const;

    SyntheticWorld world_;
    // Statuses that requests settle; start as the world's.
    mutable std::mutex authorizationMutex_;
    SyntheticAuthorization authorization_;
    std::shared_ptr<State> state_;
    std::vector<std::shared_ptr<SyntheticCaptureDevice>> devices_;
    std::shared_ptr<InputCaptureProvider> input_;
};

class SyntheticCaptureDevice final : public AVCaptureDevice {
public:
    SyntheticCaptureDevice(SyntheticDevice model, std::shared_ptr<SyntheticCapturePlatform::State> state);

    const SyntheticDevice& model() const { return model_; }

    std::shared_ptr<const CMClock> synchronizationClock() const override { return clock_; }
    std::unique_ptr<CaptureProducer> startProducing(const CaptureProducerRequest& request,
                                                    CaptureProducerSink sink) override;

    // The device's format of its audio (float32, non-interleaved).
    AVAudioFormat nativeAudioFormat() const;

    void setConnectedState(bool connected) { setConnected(connected); }
    void setSuspendedState(bool suspended) { setSuspended(suspended); }
    void setInUseByAnotherApplicationState(bool inUse) { setInUseByAnotherApplication(inUse); }
    void setCenterStageActiveState(bool active) { setCenterStageActive(active); }
    // Disconnects and tells the platform's device observers.
    void disappear();
    // Producers started and not yet stopped (each capture session's
    // connection to this device has one).
    size_t runningProducerCount() const { return runningProducers_->load(); }

private:
    SyntheticDevice model_;
    std::shared_ptr<SyntheticCapturePlatform::State> state_;
    std::shared_ptr<const CMClock> clock_;
    std::shared_ptr<std::atomic<size_t>> runningProducers_ = std::make_shared<std::atomic<size_t>>(0);
};

}  // namespace ov::platform
