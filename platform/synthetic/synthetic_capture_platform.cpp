#include "platform/synthetic/synthetic_capture_platform.h"
#include "platform/synthetic/synthetic_input.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <stdexcept>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include "platform/cg_rect_dictionary.h"
#include "platform/synthetic/synthetic_pattern.h"

namespace ov::platform {

struct SyntheticCapturePlatform::State {
    std::mutex mutex;
    std::set<uint32_t> goneDisplays;
    std::set<uint32_t> goneWindows;
    std::vector<SyntheticWindow> addedWindows;
    std::map<uint32_t, std::optional<int32_t>> ownerOverrides;
    std::map<uint32_t, bool> onScreenOverrides;
    std::map<uint32_t, std::optional<std::string>> titleOverrides;
    std::map<uint32_t, CGRect> frameOverrides;
    // Raised windows, the most recently raised first.
    std::vector<uint32_t> raised;
    std::vector<SyntheticDisplay> addedDisplays;
    std::vector<SyntheticApplication> addedApplications;
    std::set<int32_t> goneApplications;
    int windowListRequests = 0;

    // Scripted shareable content.
    std::deque<SyntheticContentAnswer> contentScript;
    int contentRequests = 0;
    int restarts = 0;
    std::condition_variable restarted;

    // Held while the platform's device observers are told, and by the
    // platform's destructor, so that no notice reaches a platform that is gone.
    std::recursive_mutex notifyMutex;
    std::function<void()> notifyDevices;

    void devicesChanged() {
        std::lock_guard lock(notifyMutex);
        if (notifyDevices) notifyDevices();
    }
};

namespace {

using Nanoseconds = uint64_t;

// index · value / timescale seconds in nanoseconds, rounded half up, in
// 128-bit integers so that no product overflows.
Nanoseconds scaledNanoseconds(uint64_t index, int64_t value, int64_t timescale) {
    const __int128 numerator = static_cast<__int128>(index) * value * 1'000'000'000;
    return static_cast<Nanoseconds>((2 * numerator + timescale) / (2 * static_cast<__int128>(timescale)));
}

// Runs fire(n) for n = 0, 1, ... each at host time due(n), on a thread of its
// own, until fire returns false or stop() is called. The thread holds the
// loop's state, so a loop stopped from its own thread (its owner released in
// a callback) ends safely.
class TimedLoop {
public:
    TimedLoop(std::string name, std::function<Nanoseconds(uint64_t)> due, std::function<bool(uint64_t)> fire)
        : inner_(std::make_shared<Inner>()) {
        inner_->due = std::move(due);
        inner_->fire = std::move(fire);
        thread_ = std::thread([inner = inner_, name = std::move(name)] {
            pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
            run(*inner);
        });
    }
    ~TimedLoop() { stop(); }

    void stop() {
        {
            std::lock_guard lock(inner_->mutex);
            inner_->stopping = true;
        }
        inner_->wake.notify_all();
        if (!thread_.joinable()) return;
        if (thread_.get_id() == std::this_thread::get_id()) thread_.detach();
        else thread_.join();
    }

private:
    struct Inner {
        std::function<Nanoseconds(uint64_t)> due;
        std::function<bool(uint64_t)> fire;
        std::mutex mutex;
        std::condition_variable wake;
        bool stopping = false;
    };

    static void run(Inner& inner) {
        for (uint64_t n = 0;; ++n) {
            // steady_clock is CLOCK_MONOTONIC, the host time clock.
            const std::chrono::steady_clock::time_point deadline{std::chrono::nanoseconds(inner.due(n))};
            {
                std::unique_lock lock(inner.mutex);
                if (inner.wake.wait_until(lock, deadline, [&] { return inner.stopping; })) return;
            }
            if (!inner.fire(n)) return;
        }
    }

    std::shared_ptr<Inner> inner_;
    std::thread thread_;
};

// What the scripted faults make of an event at a time since capture began.
struct FaultPlan {
    enum class Action { deliver, idle, end, fail, disappear };
    std::vector<SyntheticFault> faults;

    // The action, and a copy of the fault that causes it.
    std::pair<Action, SyntheticFault> at(Nanoseconds elapsed) const {
        const SyntheticFault* terminal = nullptr;
        bool idle = false;
        for (const auto& fault : faults) {
            if (static_cast<double>(elapsed) < fault.after * 1e9) continue;
            if (fault.kind == SyntheticFault::Kind::silentUntilCenterStageToggle) continue;  // the device's own
            if (fault.kind == SyntheticFault::Kind::hangsOnStop) continue;                   // the producer's
            if (fault.kind == SyntheticFault::Kind::goesIdle) {
                idle = true;
            } else if (!terminal || fault.after < terminal->after) {
                terminal = &fault;
            }
        }
        if (terminal) {
            switch (terminal->kind) {
                case SyntheticFault::Kind::stopsWithError: return {Action::fail, *terminal};
                case SyntheticFault::Kind::disappears: return {Action::disappear, *terminal};
                default: return {Action::end, *terminal};
            }
        }
        return {idle ? Action::idle : Action::deliver, SyntheticFault{}};
    }
};

PlatformError faultError(const SyntheticFault& fault, const char* domain, int64_t code, const char* message) {
    return PlatformError(fault.domain.value_or(domain), fault.code.value_or(code), fault.message.value_or(message),
                         fmt::format("Scripted fault {} after {:g} s", toString(fault.kind), fault.after));
}

std::exception_ptr deviceDisconnectedError(const AVCaptureDevice& device) {
    return std::make_exception_ptr(PlatformError("AVFoundationErrorDomain", -11808, "The device was disconnected.",
                                                 device.debugDescription() + " was disconnected"));
}

CMTime onClock(Nanoseconds hostNanoseconds, const std::shared_ptr<const CMClock>& clock) {
    const CMTime host = hostTimeFromNanoseconds(hostNanoseconds);
    return clock ? clock->clockTime(host) : host;
}

bool isDrawable(OSType format) {
    return format == kCVPixelFormatType_32BGRA || format == kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange ||
           format == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
}

std::shared_ptr<const CMClock> makeClock(const std::optional<double>& offset) {
    if (!offset) return nullptr;
    return std::make_shared<CMOffsetClock>(CMTime::makeWithSeconds(*offset, kHostTimeTimescale));
}

// A tone in buffers of B frames: buffer k starts at sample k·B.
class ToneProducer {
public:
    struct Timing {
        Nanoseconds start;
        uint64_t bufferFrames;
        int64_t sampleRate;
        Nanoseconds bufferStart(uint64_t k) const { return start + scaledNanoseconds(k * bufferFrames, 1, sampleRate); }
    };

    static std::shared_ptr<AVAudioPCMBuffer> buffer(const AVAudioFormat& format, const SyntheticTone& tone,
                                                    const Timing& timing, uint64_t k) {
        auto pcm = AVAudioPCMBuffer::make(format, static_cast<AVAudioFrameCount>(timing.bufferFrames));
        pcm->setFrameLength(static_cast<AVAudioFrameCount>(timing.bufferFrames));
        SyntheticPattern::fillTone(*pcm, tone, static_cast<int64_t>(k * timing.bufferFrames));
        return pcm;
    }
};

// ---- Device producers.

class DeviceProducer final : public CaptureProducer {
public:
    DeviceProducer(std::unique_ptr<TimedLoop> loop, std::shared_ptr<std::atomic<size_t>> running, bool hangsOnStop)
        : loop_(std::move(loop)), running_(std::move(running)), hangsOnStop_(hangsOnStop) {
        ++*running_;
    }
    ~DeviceProducer() override { stop(); }
    void stop() override {
        // A driver stuck in a read: the stop doesn't return, and delivery
        // goes on meanwhile.
        if (std::exchange(hangsOnStop_, false)) std::this_thread::sleep_for(std::chrono::seconds(60));
        loop_->stop();
        if (!stopped_.exchange(true)) --*running_;
    }

private:
    std::unique_ptr<TimedLoop> loop_;
    std::shared_ptr<std::atomic<size_t>> running_;
    std::atomic<bool> stopped_{false};
    bool hangsOnStop_;
};

}  // namespace

// ---- The platform.

SyntheticCapturePlatform::SyntheticCapturePlatform(SyntheticWorld world)
    : world_(std::move(world)), state_(std::make_shared<State>()) {
    world_.validate();
    authorization_ = world_.authorization;
    state_->notifyDevices = [this] { notifyDevicesChanged(); };
    for (const auto& model : world_.devices) devices_.push_back(std::make_shared<SyntheticCaptureDevice>(model, state_));
    CGRect main{{0, 0}, {1920, 1080}};
    for (const auto& display : world_.displays)
        if (display.isMain) main = display.frame;
    input_ = std::make_shared<SyntheticInputProvider>(world_.input, main);
}

SyntheticCapturePlatform::~SyntheticCapturePlatform() {
    std::lock_guard lock(state_->notifyMutex);
    state_->notifyDevices = nullptr;
}

std::vector<AVCaptureDeviceRef> SyntheticCapturePlatform::devices() const {
    std::vector<AVCaptureDeviceRef> result;
    for (const auto& device : devices_)
        if (device->isConnected()) result.push_back(device);
    return result;
}

AVAuthorizationStatus SyntheticCapturePlatform::authorizationStatus(AVMediaType mediaType) const {
    std::lock_guard lock(authorizationMutex_);
    return mediaType == AVMediaType::audio ? authorization_.microphone : authorization_.camera;
}

void SyntheticCapturePlatform::requestAccess(AVMediaType mediaType, std::function<void(bool)> completion) {
    bool granted;
    {
        std::lock_guard lock(authorizationMutex_);
        auto& status = mediaType == AVMediaType::audio ? authorization_.microphone : authorization_.camera;
        // Like the system's prompt: asked once, then settled.
        if (status == AVAuthorizationStatus::notDetermined)
            status = world_.authorization.grantsRequests ? AVAuthorizationStatus::authorized
                                                         : AVAuthorizationStatus::denied;
        granted = status == AVAuthorizationStatus::authorized;
    }
    std::thread([granted, completion = std::move(completion)] { completion(granted); }).detach();
}

int SyntheticCapturePlatform::audioCaptureAccessStatus() const {
    std::lock_guard lock(authorizationMutex_);
    return authorization_.systemAudio;
}

void SyntheticCapturePlatform::requestAudioCaptureAccess(std::function<void(bool)> completion) {
    bool granted;
    {
        std::lock_guard lock(authorizationMutex_);
        if (authorization_.systemAudio == 2) authorization_.systemAudio = world_.authorization.grantsRequests ? 0 : 1;
        granted = authorization_.systemAudio == 0;
    }
    std::thread([granted, completion = std::move(completion)] { completion(granted); }).detach();
}

std::shared_ptr<SyntheticCaptureDevice> SyntheticCapturePlatform::syntheticDevice(const std::string& uniqueID) const {
    for (const auto& device : devices_)
        if (device->uniqueID() == uniqueID) return device;
    return nullptr;
}

void SyntheticCapturePlatform::setDeviceConnected(const std::string& uniqueID, bool connected) {
    auto device = syntheticDevice(uniqueID);
    if (!device) throw std::invalid_argument("No synthetic device \"" + uniqueID + "\"");
    if (device->isConnected() == connected) return;
    device->setConnectedState(connected);
    state_->devicesChanged();
}

void SyntheticCapturePlatform::setDeviceSuspended(const std::string& uniqueID, bool suspended) {
    auto device = syntheticDevice(uniqueID);
    if (!device) throw std::invalid_argument("No synthetic device \"" + uniqueID + "\"");
    if (device->isSuspended() == suspended) return;
    device->setSuspendedState(suspended);
    state_->devicesChanged();
}

void SyntheticCapturePlatform::removeDisplay(uint32_t displayID) {
    {
        std::lock_guard lock(state_->mutex);
        state_->goneDisplays.insert(displayID);
    }
    notifyDisplaysReconfigured();
}

void SyntheticCapturePlatform::addDisplay(SyntheticDisplay display) {
    {
        std::lock_guard lock(state_->mutex);
        state_->goneDisplays.erase(display.id);
        const bool known = std::any_of(world_.displays.begin(), world_.displays.end(),
                                       [&](const auto& d) { return d.id == display.id; }) ||
                           std::any_of(state_->addedDisplays.begin(), state_->addedDisplays.end(),
                                       [&](const auto& d) { return d.id == display.id; });
        if (!known) state_->addedDisplays.push_back(std::move(display));
    }
    notifyDisplaysReconfigured();
}

void SyntheticCapturePlatform::setWindowOnScreen(uint32_t windowID, bool onScreen) {
    std::lock_guard lock(state_->mutex);
    state_->onScreenOverrides[windowID] = onScreen;
}

void SyntheticCapturePlatform::setWindowTitle(uint32_t windowID, std::optional<std::string> title) {
    std::lock_guard lock(state_->mutex);
    state_->titleOverrides[windowID] = std::move(title);
}

void SyntheticCapturePlatform::setWindowFrame(uint32_t windowID, CGRect frame) {
    std::lock_guard lock(state_->mutex);
    state_->frameOverrides[windowID] = frame;
}

void SyntheticCapturePlatform::raiseWindow(uint32_t windowID) {
    std::lock_guard lock(state_->mutex);
    auto& raised = state_->raised;
    raised.erase(std::remove(raised.begin(), raised.end(), windowID), raised.end());
    raised.insert(raised.begin(), windowID);
}

void SyntheticCapturePlatform::addApplication(SyntheticApplication application) {
    std::lock_guard lock(state_->mutex);
    state_->goneApplications.erase(application.pid);
    state_->addedApplications.push_back(std::move(application));
}

void SyntheticCapturePlatform::removeApplication(int32_t pid) {
    std::lock_guard lock(state_->mutex);
    state_->goneApplications.insert(pid);
}

int SyntheticCapturePlatform::windowListRequestCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->windowListRequests;
}

std::vector<SyntheticWindow> SyntheticCapturePlatform::currentWindows() const {
    std::lock_guard lock(state_->mutex);
    std::vector<SyntheticWindow> windows = world_.windows;
    windows.insert(windows.end(), state_->addedWindows.begin(), state_->addedWindows.end());
    windows.erase(std::remove_if(windows.begin(), windows.end(),
                                 [&](const auto& w) { return state_->goneWindows.count(w.id) > 0; }),
                  windows.end());
    for (auto& window : windows) {
        if (auto it = state_->ownerOverrides.find(window.id); it != state_->ownerOverrides.end())
            window.ownerPID = it->second;
        if (auto it = state_->onScreenOverrides.find(window.id); it != state_->onScreenOverrides.end())
            window.onScreen = it->second;
        if (auto it = state_->titleOverrides.find(window.id); it != state_->titleOverrides.end())
            window.title = it->second;
        if (auto it = state_->frameOverrides.find(window.id); it != state_->frameOverrides.end())
            window.frame = it->second;
    }
    // Raised windows in front, in the order raised.
    std::stable_sort(windows.begin(), windows.end(), [&](const auto& a, const auto& b) {
        const auto rank = [&](uint32_t id) {
            auto it = std::find(state_->raised.begin(), state_->raised.end(), id);
            return it == state_->raised.end() ? state_->raised.size() : size_t(it - state_->raised.begin());
        };
        return rank(a.id) < rank(b.id);
    });
    return windows;
}

std::vector<SyntheticDisplay> SyntheticCapturePlatform::currentDisplays() const {
    std::lock_guard lock(state_->mutex);
    std::vector<SyntheticDisplay> displays = world_.displays;
    displays.insert(displays.end(), state_->addedDisplays.begin(), state_->addedDisplays.end());
    displays.erase(std::remove_if(displays.begin(), displays.end(),
                                  [&](const auto& d) { return state_->goneDisplays.count(d.id) > 0; }),
                   displays.end());
    return displays;
}

std::vector<SyntheticApplication> SyntheticCapturePlatform::currentApplications() const {
    std::lock_guard lock(state_->mutex);
    std::vector<SyntheticApplication> applications = world_.applications;
    applications.insert(applications.end(), state_->addedApplications.begin(), state_->addedApplications.end());
    applications.erase(std::remove_if(applications.begin(), applications.end(),
                                      [&](const auto& a) { return state_->goneApplications.count(a.pid) > 0; }),
                       applications.end());
    return applications;
}

std::vector<CGDisplayInfo> SyntheticCapturePlatform::activeDisplays() const {
    std::vector<CGDisplayInfo> displays;
    uint32_t unit = 0;
    for (const auto& display : currentDisplays()) {
        CGDisplayInfo info;
        info.displayID = display.id;
        info.bounds = display.frame;
        info.isMain = display.isMain;
        info.isBuiltin = display.isBuiltIn;
        info.unitNumber = unit++;
        info.screenName = display.name;
        displays.push_back(std::move(info));
    }
    return displays;
}

std::vector<CGWindowEntry> SyntheticCapturePlatform::windowList(CGWindowListOption option) const {
    {
        std::lock_guard lock(state_->mutex);
        ++state_->windowListRequests;
    }
    const auto applications = currentApplications();
    std::vector<CGWindowEntry> entries;
    for (const auto& window : currentWindows()) {
        if (option == CGWindowListOption::onScreenOnly && !window.onScreen) continue;
        CGWindowEntry entry;
        entry.number = window.id;
        entry.bounds = window.frame;
        entry.layer = window.layer;
        entry.name = window.title;
        entry.isOnscreen = window.onScreen;
        if (window.ownerPID) {
            entry.ownerPID = *window.ownerPID;
            for (const auto& application : applications)
                if (application.pid == *window.ownerPID) entry.ownerName = application.name;
        }
        entry.sharingState = 1;
        entry.alpha = 1.0;
        entry.memoryUsage = static_cast<int64_t>(window.frame.size.width * window.frame.size.height * 4);
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::vector<RunningApplicationInfo> SyntheticCapturePlatform::runningApplications() const {
    std::vector<RunningApplicationInfo> infos;
    for (const auto& application : currentApplications()) {
        RunningApplicationInfo info;
        info.processIdentifier = application.pid;
        if (!application.name.empty()) info.localizedName = application.name;
        if (!application.bundleIdentifier.empty()) info.bundleIdentifier = application.bundleIdentifier;
        infos.push_back(std::move(info));
    }
    return infos;
}

void SyntheticCapturePlatform::removeWindow(uint32_t windowID) {
    std::lock_guard lock(state_->mutex);
    state_->goneWindows.insert(windowID);
}

bool SyntheticCapturePlatform::isDisplayPresent(uint32_t displayID) const {
    std::lock_guard lock(state_->mutex);
    const auto has = [&](const std::vector<SyntheticDisplay>& list) {
        return std::any_of(list.begin(), list.end(), [&](const auto& d) { return d.id == displayID; });
    };
    return !state_->goneDisplays.count(displayID) && (has(world_.displays) || has(state_->addedDisplays));
}

bool SyntheticCapturePlatform::isWindowPresent(uint32_t windowID) const {
    std::lock_guard lock(state_->mutex);
    auto has = [&](const std::vector<SyntheticWindow>& list) {
        return std::any_of(list.begin(), list.end(), [&](const auto& w) { return w.id == windowID; });
    };
    return !state_->goneWindows.count(windowID) && (has(world_.windows) || has(state_->addedWindows));
}

std::optional<CGDisplayMode> SyntheticCapturePlatform::displayMode(CGDirectDisplayID displayID) const {
    if (!isDisplayPresent(displayID)) return std::nullopt;
    for (const auto& display : currentDisplays()) {
        if (display.id != displayID) continue;
        const auto width = static_cast<int32_t>(display.frame.size.width);
        const auto height = static_cast<int32_t>(display.frame.size.height);
        return CGDisplayMode{width, height, static_cast<int32_t>(std::lround(width * display.scale)),
                             static_cast<int32_t>(std::lround(height * display.scale)), display.frameRate};
    }
    return std::nullopt;
}

void SyntheticCapturePlatform::restartShareableContentService() {
    {
        std::lock_guard lock(state_->mutex);
        ++state_->restarts;
    }
    state_->restarted.notify_all();
}

void SyntheticCapturePlatform::addWindow(SyntheticWindow window) {
    std::lock_guard lock(state_->mutex);
    state_->addedWindows.push_back(std::move(window));
}

void SyntheticCapturePlatform::setWindowOwner(uint32_t windowID, std::optional<int32_t> ownerPID) {
    std::lock_guard lock(state_->mutex);
    state_->ownerOverrides[windowID] = ownerPID;
}

void SyntheticCapturePlatform::scriptShareableContent(std::vector<SyntheticContentAnswer> answers) {
    std::lock_guard lock(state_->mutex);
    state_->contentScript.assign(answers.begin(), answers.end());
}

int SyntheticCapturePlatform::shareableContentRequestCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->contentRequests;
}

int SyntheticCapturePlatform::restartCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->restarts;
}

SCShareableContent SyntheticCapturePlatform::shareableContent(bool excludingDesktopWindows,
                                                              bool onScreenWindowsOnly) const {
    std::optional<SyntheticContentAnswer> answer;
    {
        std::unique_lock lock(state_->mutex);
        ++state_->contentRequests;
        if (!state_->contentScript.empty()) {
            answer = state_->contentScript.front();
            state_->contentScript.pop_front();
        }
        if (answer && answer->hangsUntilRestart) {
            const int restarts = state_->restarts;
            state_->restarted.wait_for(lock, std::chrono::seconds(30), [&] { return state_->restarts != restarts; });
        }
    }
    const std::vector<SyntheticWindow> worldWindows = currentWindows();
    if (answer && answer->delay > 0) std::this_thread::sleep_for(std::chrono::duration<double>(answer->delay));
    if (answer && answer->error) throw *answer->error;

    std::vector<SCDisplay> displays;
    for (const auto& display : currentDisplays())
        displays.push_back({display.id, display.frame, static_cast<int32_t>(display.frame.size.width),
                            static_cast<int32_t>(display.frame.size.height)});
    std::vector<SCRunningApplication> applications;
    for (const auto& application : currentApplications())
        applications.push_back({application.pid, application.bundleIdentifier, application.name});
    std::vector<SCWindow> windows;
    for (const auto& window : worldWindows) {
        if (!isWindowPresent(window.id)) continue;
        if (onScreenWindowsOnly && !window.onScreen) continue;
        // Desktop windows live below the normal layer.
        if (excludingDesktopWindows && window.layer < 0) continue;
        SCWindow value;
        value.windowID = window.id;
        value.frame = window.frame;
        value.title = window.title;
        value.windowLayer = window.layer;
        value.isOnScreen = window.onScreen;
        for (const auto& application : applications)
            if (window.ownerPID && application.processID == *window.ownerPID) value.owningApplication = application;
        windows.push_back(std::move(value));
    }
    return SCShareableContent(std::move(displays), std::move(windows), std::move(applications));
}

// ---- Devices.

SyntheticCaptureDevice::SyntheticCaptureDevice(SyntheticDevice model,
                                               std::shared_ptr<SyntheticCapturePlatform::State> state)
    : AVCaptureDevice(
          [&] {
              Identity identity{model.uniqueID, model.modelID, model.name, model.manufacturer, model.deviceType,
                                model.transportType, {}};
              switch (model.kind) {
                  case SyntheticDevice::Kind::camera: identity.mediaTypes = {AVMediaType::video}; break;
                  case SyntheticDevice::Kind::microphone: identity.mediaTypes = {AVMediaType::audio}; break;
                  case SyntheticDevice::Kind::phone: identity.mediaTypes = {AVMediaType::muxed}; break;
              }
              return identity;
          }(),
          [&] {
              std::vector<AVCaptureDeviceFormatRef> formats;
              for (const auto& format : model.formats) {
                  const CMTime duration = format.frameDuration();
                  formats.push_back(std::make_shared<AVCaptureDeviceFormat>(
                      CMFormatDescription::makeVideo(format.pixelFormat, {format.width, format.height}, {}, duration),
                      std::vector<AVFrameRateRange>{{duration, duration}}, format.centerStageSupported));
              }
              if (model.kind == SyntheticDevice::Kind::microphone) {
                  auto audio = AVAudioFormat::standard(model.audio.sampleRate, model.audio.channels);
                  formats.push_back(std::make_shared<AVCaptureDeviceFormat>(audio->formatDescription()));
              }
              return formats;
          }(),
          model.activeFormat),
      model_(std::move(model)),
      state_(std::move(state)),
      clock_(makeClock(model_.clockOffset)) {
    setConnected(model_.connected);
    setSuspended(model_.suspended);
    setInUseByAnotherApplication(model_.inUseByAnotherApplication);
}

AVAudioFormat SyntheticCaptureDevice::nativeAudioFormat() const {
    return *AVAudioFormat::standard(model_.audio.sampleRate, model_.audio.channels);
}

void SyntheticCaptureDevice::disappear() {
    if (!isConnected()) return;
    setConnected(false);
    state_->devicesChanged();
}

std::unique_ptr<CaptureProducer> SyntheticCaptureDevice::startProducing(const CaptureProducerRequest& request,
                                                                        CaptureProducerSink sink) {
    if (!isConnected())
        throw PlatformError("AVFoundationErrorDomain", -11814, "Cannot Record",
                            debugDescription() + " is not connected");
    const bool wantsVideo = request.mediaType == AVMediaType::video;
    const bool hasVideo = model_.kind != SyntheticDevice::Kind::microphone;
    const bool hasAudio = model_.kind != SyntheticDevice::Kind::camera;
    if ((wantsVideo && !hasVideo) || (!wantsVideo && !hasAudio))
        throw std::invalid_argument(debugDescription() + " has no " + toString(request.mediaType) + " media");

    auto self = std::static_pointer_cast<SyntheticCaptureDevice>(shared_from_this());
    const FaultPlan plan{model_.faults};
    const Nanoseconds start = hostTimeNanosecondsNow();
    auto clock = clock_;
    // The class-level Center Stage setting as capture starts; some cameras
    // stay silent until it changes.
    const bool waitsForCenterStage =
        wantsVideo && std::any_of(model_.faults.begin(), model_.faults.end(), [](const SyntheticFault& fault) {
            return fault.kind == SyntheticFault::Kind::silentUntilCenterStageToggle;
        });
    auto centerStageChanges = [] {
        try {
            return CapturePlatform::shared()->centerStageChangeCount();
        } catch (const std::exception&) {
            return uint64_t{0};
        }
    };
    const uint64_t centerStageAtStart = centerStageChanges();
    const bool hangsOnStop = std::any_of(model_.faults.begin(), model_.faults.end(), [](const SyntheticFault& fault) {
        return fault.kind == SyntheticFault::Kind::hangsOnStop;
    });

    // Ends delivery as a fault or the device's state says; false when the
    // event is to be delivered.
    auto interrupted = [self, plan, sink, waitsForCenterStage, centerStageChanges, centerStageAtStart](
                           Nanoseconds elapsed, bool& keepGoing) {
        keepGoing = false;
        if (!self->isConnected()) {
            sink.failed(deviceDisconnectedError(*self));
            return true;
        }
        const auto [action, fault] = plan.at(elapsed);
        switch (action) {
            case FaultPlan::Action::end: return true;
            case FaultPlan::Action::fail:
                sink.failed(std::make_exception_ptr(
                    faultError(fault, "AVFoundationErrorDomain", -11819, "Media services were reset.")));
                return true;
            case FaultPlan::Action::disappear:
                self->disappear();
                sink.failed(deviceDisconnectedError(*self));
                return true;
            case FaultPlan::Action::deliver:
            case FaultPlan::Action::idle: break;
        }
        // A suspended device (a closed lid) delivers nothing, but time goes on.
        keepGoing = true;
        if (waitsForCenterStage && centerStageChanges() == centerStageAtStart) return true;
        return self->isSuspended();
    };

    if (wantsVideo) {
        const auto active = activeFormat();
        CMTime duration = activeVideoMinFrameDuration();
        if (!duration.isNumeric() || duration <= kCMTimeZero) duration = active->formatDescription()->frameDuration();
        const auto dimensions = active->formatDescription()->dimensions();
        const int32_t width = request.width > 0 ? request.width : dimensions.width;
        const int32_t height = request.height > 0 ? request.height : dimensions.height;
        OSType pixelFormat = isDrawable(request.pixelFormat) ? request.pixelFormat : active->formatDescription()->mediaSubType();
        if (!isDrawable(pixelFormat)) pixelFormat = kCVPixelFormatType_32BGRA;

        auto due = [start, duration](uint64_t n) { return start + scaledNanoseconds(n, duration.value, duration.timescale); };
        auto description = std::make_shared<CMFormatDescriptionRef>();
        auto fire = [=](uint64_t n) {
            const Nanoseconds at = due(n);
            bool keepGoing;
            if (interrupted(at - start, keepGoing)) return keepGoing;
            auto picture = CVPixelBuffer::make(width, height, pixelFormat);
            SyntheticPattern::draw(*picture, n);
            if (!*description) *description = CMFormatDescription::makeForImageBuffer(*picture);
            const CMSampleTimingInfo timing{duration, onClock(at, clock), kCMTimeInvalid};
            sink.output(CMSampleBuffer::makeForImageBuffer(std::move(picture), timing, *description));
            return true;
        };
        return std::make_unique<DeviceProducer>(std::make_unique<TimedLoop>("SyntheticVideo", due, fire), runningProducers_, hangsOnStop);
    }

    const AVAudioFormat format = request.audioFormat.value_or(nativeAudioFormat());
    const ToneProducer::Timing timing{start, model_.audio.bufferFrames, std::llround(format.sampleRate())};
    const SyntheticTone tone = model_.audio.tone;
    // A buffer is delivered once its last sample has been "recorded".
    auto due = [timing](uint64_t k) { return timing.bufferStart(k + 1); };
    auto fire = [=](uint64_t k) {
        const Nanoseconds bufferStart = timing.bufferStart(k);
        bool keepGoing;
        if (interrupted(bufferStart - start, keepGoing)) return keepGoing;
        auto pcm = ToneProducer::buffer(format, tone, timing, k);
        sink.output(CMSampleBuffer::makeAudio(*pcm, onClock(bufferStart, clock)));
        return true;
    };
    return std::make_unique<DeviceProducer>(std::make_unique<TimedLoop>("SyntheticAudio", due, fire), runningProducers_, hangsOnStop);
}

// ---- Screens.

namespace {

struct ScreenSource {
    CGRect rect;  // global points
    double scale = 1;
    CMTime frameDuration;
    std::vector<SyntheticFault> faults;
    std::optional<double> clockOffset;
    std::optional<uint32_t> displayID;
    std::optional<uint32_t> windowID;
};

const SyntheticDisplay* displayContaining(const SyntheticWorld& world, const CGPoint& point) {
    for (const auto& display : world.displays) {
        const auto& f = display.frame;
        if (point.x >= f.origin.x && point.x < f.origin.x + f.size.width && point.y >= f.origin.y &&
            point.y < f.origin.y + f.size.height)
            return &display;
    }
    return world.displays.empty() ? nullptr : &world.displays.front();
}

CMTime displayFrameDuration(double frameRate) { return SyntheticVideoFormat{32, 2, frameRate}.frameDuration(); }

class ScreenProducer final : public ScreenCaptureProducer {
public:
    ScreenProducer(std::shared_ptr<const CMClock> clock) : clock_(std::move(clock)) {}
    ~ScreenProducer() override { stop(); }

    void stop() override {
        if (video_) video_->stop();
        if (audio_) audio_->stop();
    }
    std::shared_ptr<const CMClock> synchronizationClock() const override { return clock_; }
    void updateContentFilter(const SCContentFilter& filter) override {
        if (onFilter_) onFilter_(filter);
    }
    void updateConfiguration(const SCStreamConfiguration& configuration) override {
        std::lock_guard lock(*mutex_);
        *configuration_ = configuration;
    }

    std::shared_ptr<const CMClock> clock_;
    std::unique_ptr<TimedLoop> video_;
    std::unique_ptr<TimedLoop> audio_;
    std::shared_ptr<std::mutex> mutex_ = std::make_shared<std::mutex>();
    std::shared_ptr<SCStreamConfiguration> configuration_ = std::make_shared<SCStreamConfiguration>();
    std::function<void(const SCContentFilter&)> onFilter_;
};

}  // namespace

std::unique_ptr<ScreenCaptureProducer> SyntheticCapturePlatform::startScreenCapture(
    const SCContentFilter& filter, const SCStreamConfiguration& configuration, ScreenCaptureSink sink) {
    // The stream may outlive the platform (a filter update after a test
    // swapped backends), so it keeps its own copy of the world.
    auto world = std::make_shared<const SyntheticWorld>(world_);
    auto gone = [state = state_](bool isWindow, uint32_t id) {
        std::lock_guard lock(state->mutex);
        return isWindow ? state->goneWindows.count(id) > 0 : state->goneDisplays.count(id) > 0;
    };
    // What a filter shows, as the world has it now.
    auto resolve = [world, gone](const SCContentFilter& f) -> ScreenSource {
        ScreenSource source;
        if (f.kind() == SCContentFilter::Kind::desktopIndependentWindow) {
            const auto id = f.window().windowID;
            auto it = std::find_if(world->windows.begin(), world->windows.end(), [&](const auto& w) { return w.id == id; });
            if (it == world->windows.end() || gone(true, id))
                throw SCStreamError(SCStreamError::noCaptureSource, "The window to capture is not available.",
                                    fmt::format("No synthetic window {}", id));
            const auto* display = displayContaining(*world, it->frame.origin);
            source.rect = it->frame;
            source.scale = display ? display->scale : 1;
            source.frameDuration = displayFrameDuration(display ? display->frameRate : 30);
            source.clockOffset = display ? display->clockOffset : std::optional<double>(0.0);
            source.faults = it->faults;
            source.windowID = id;
            return source;
        }
        const auto id = f.displayValue().displayID;
        auto it = std::find_if(world->displays.begin(), world->displays.end(), [&](const auto& d) { return d.id == id; });
        if (it == world->displays.end() || gone(false, id))
            throw SCStreamError(SCStreamError::noCaptureSource, "The display to capture is not available.",
                                fmt::format("No synthetic display {}", id));
        source.rect = it->frame;
        source.scale = it->scale;
        source.frameDuration = displayFrameDuration(it->frameRate);
        source.clockOffset = it->clockOffset;
        source.faults = it->faults;
        source.displayID = id;
        return source;
    };

    const ScreenSource initial = resolve(filter);
    auto producer = std::make_unique<ScreenProducer>(makeClock(initial.clockOffset));
    *producer->configuration_ = configuration;
    auto sourceState = std::make_shared<ScreenSource>(initial);
    auto mutex = producer->mutex_;
    auto configurationState = producer->configuration_;
    producer->onFilter_ = [resolve, sourceState, mutex](const SCContentFilter& f) {
        auto next = resolve(f);
        std::lock_guard lock(*mutex);
        next.frameDuration = sourceState->frameDuration;  // the rate stays that of the start
        *sourceState = next;
    };

    CMTime duration = initial.frameDuration;
    if (configuration.minimumFrameInterval.isNumeric() && configuration.minimumFrameInterval > duration)
        duration = configuration.minimumFrameInterval;
    const Nanoseconds start = hostTimeNanosecondsNow();
    auto clock = producer->clock_;
    auto state = state_;

    // Ends delivery when the source is gone or a fault says so.
    auto interrupted = [state, sink](const ScreenSource& source, Nanoseconds elapsed, bool& idle) {
        idle = false;
        bool gone;
        {
            std::lock_guard lock(state->mutex);
            gone = (source.displayID && state->goneDisplays.count(*source.displayID)) ||
                   (source.windowID && state->goneWindows.count(*source.windowID));
        }
        auto goneError = [] {
            return std::make_exception_ptr(SCStreamError(SCStreamError::noCaptureSource,
                                                         "The captured content is no longer available."));
        };
        if (gone) {
            sink.failed(goneError());
            return true;
        }
        const auto [action, fault] = FaultPlan{source.faults}.at(elapsed);
        switch (action) {
            case FaultPlan::Action::end: return true;
            case FaultPlan::Action::fail:
                sink.failed(std::make_exception_ptr(faultError(fault, SCStreamError::errorDomain,
                                                               SCStreamError::systemStoppedStream,
                                                               "The stream was stopped by the system.")));
                return true;
            case FaultPlan::Action::disappear: {
                std::lock_guard lock(state->mutex);
                if (source.displayID) state->goneDisplays.insert(*source.displayID);
                if (source.windowID) state->goneWindows.insert(*source.windowID);
            }
                sink.failed(goneError());
                return true;
            case FaultPlan::Action::idle: idle = true; break;
            case FaultPlan::Action::deliver: break;
        }
        return false;
    };

    auto due = [start, duration](uint64_t n) { return start + scaledNanoseconds(n, duration.value, duration.timescale); };
    auto videoFire = [=](uint64_t n) {
        ScreenSource source;
        SCStreamConfiguration config;
        {
            std::lock_guard lock(*mutex);
            source = *sourceState;
            config = *configurationState;
        }
        const Nanoseconds at = due(n);
        bool idle;
        if (interrupted(source, at - start, idle)) return false;
        CGRect shown = source.rect;
        if (config.sourceRect && config.sourceRect->size.width > 0 && config.sourceRect->size.height > 0)
            shown = {{source.rect.origin.x + config.sourceRect->origin.x, source.rect.origin.y + config.sourceRect->origin.y},
                     config.sourceRect->size};
        const auto width = static_cast<size_t>(config.width > 0 ? config.width : std::lround(shown.size.width * source.scale));
        const auto height =
            static_cast<size_t>(config.height > 0 ? config.height : std::lround(shown.size.height * source.scale));
        // Formats the pattern can't be drawn in (10-bit) are delivered as BGRA.
        const OSType pixelFormat = isDrawable(config.pixelFormat) ? config.pixelFormat : kCVPixelFormatType_32BGRA;

        CMSampleBuffer::Contents contents;
        contents.numSamples = 1;
        contents.timing = {{duration, onClock(at, clock), kCMTimeInvalid}};
        CMAttachmentDictionary info = {{SCStreamFrameInfoStatus, static_cast<int>(idle ? SCFrameStatus::idle
                                                                                        : SCFrameStatus::complete)},
                                       {SCStreamFrameInfoDisplayTime, at}};
        if (!idle) {
            auto picture = CVPixelBuffer::make(width, height, pixelFormat);
            if (!picture) return false;
            SyntheticPattern::draw(*picture, n);
            contents.formatDescription = CMFormatDescription::makeForImageBuffer(*picture);
            contents.imageBuffer = std::move(picture);
            info[SCStreamFrameInfoScreenRect] = CGRectCreateDictionaryRepresentation(shown);
            info[SCStreamFrameInfoContentRect] =
                CGRectCreateDictionaryRepresentation({{0, 0}, {double(width) / source.scale, double(height) / source.scale}});
            info[SCStreamFrameInfoScaleFactor] = source.scale;
        }
        contents.sampleAttachments = {std::move(info)};
        sink.output(SCStreamOutputType::screen, CMSampleBuffer::create(std::move(contents)));
        return true;
    };
    producer->video_ = std::make_unique<TimedLoop>("SyntheticScreen", due, videoFire);

    if (configuration.capturesAudio) {
        auto format = AVAudioFormat::standard(configuration.sampleRate > 0 ? configuration.sampleRate : 48000,
                                              configuration.channelCount > 0 ? configuration.channelCount : 2);
        if (!format) throw SCStreamError(SCStreamError::invalidParameter, "The audio configuration is not valid.");
        const ToneProducer::Timing timing{start, world_.systemAudio.bufferFrames, std::llround(format->sampleRate())};
        const SyntheticTone tone = world_.systemAudio.tone;
        auto audioDue = [timing](uint64_t k) { return timing.bufferStart(k + 1); };
        auto audioFire = [=, format = *format](uint64_t k) {
            ScreenSource source;
            {
                std::lock_guard lock(*mutex);
                source = *sourceState;
            }
            const Nanoseconds bufferStart = timing.bufferStart(k);
            // The video loop tells the stream of faults and losses; audio just ends.
            const auto [action, fault] = FaultPlan{source.faults}.at(bufferStart - start);
            if (action == FaultPlan::Action::end || action == FaultPlan::Action::fail ||
                action == FaultPlan::Action::disappear)
                return false;
            auto pcm = ToneProducer::buffer(format, tone, timing, k);
            sink.output(SCStreamOutputType::audio, CMSampleBuffer::makeAudio(*pcm, onClock(bufferStart, clock)));
            return true;
        };
        producer->audio_ = std::make_unique<TimedLoop>("SyntheticSysAud", audioDue, audioFire);
    }
    return producer;
}

}  // namespace ov::platform
