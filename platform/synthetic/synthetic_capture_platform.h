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

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/capture_platform.h"
#include "platform/synthetic/synthetic_world.h"

namespace ov::platform {

class SyntheticCaptureDevice;

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
    SCShareableContent shareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly) const override;
    std::unique_ptr<ScreenCaptureProducer> startScreenCapture(const SCContentFilter& filter,
                                                              const SCStreamConfiguration& configuration,
                                                              ScreenCaptureSink sink) override;

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

    // Shared with devices and producers, which may outlive the platform.
    struct State;

private:
    SyntheticWorld world_;
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

private:
    SyntheticDevice model_;
    std::shared_ptr<SyntheticCapturePlatform::State> state_;
    std::shared_ptr<const CMClock> clock_;
};

}  // namespace ov::platform
