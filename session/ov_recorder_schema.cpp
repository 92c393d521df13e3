#include "session/ov_recorder_schema.h"

#include "platform/audio_capabilities.h"
#include "session/short_id.h"

namespace ov {

std::string_view rawValue(OVVideoCodec codec) {
    switch (codec) {
        case OVVideoCodec::h264: return "h264";
        case OVVideoCodec::hevc: return "hevc";
    }
    return "h264";
}

std::string_view rawValue(OVColorSpace colorSpace) {
    switch (colorSpace) {
        case OVColorSpace::sRGB: return "sRGB";
        case OVColorSpace::displayP3: return "displayP3";
    }
    return "sRGB";
}

std::optional<OVVideoCodec> videoCodecFromRawValue(std::string_view text) {
    if (text == "h264") return OVVideoCodec::h264;
    if (text == "hevc") return OVVideoCodec::hevc;
    return std::nullopt;
}

std::optional<OVColorSpace> colorSpaceFromRawValue(std::string_view text) {
    if (text == "sRGB") return OVColorSpace::sRGB;
    if (text == "displayP3") return OVColorSpace::displayP3;
    return std::nullopt;
}

std::string_view caseName(SystemAudioBackend backend) {
    switch (backend) {
        case SystemAudioBackend::coreAudio: return "coreAudio";
        case SystemAudioBackend::screenCaptureKit: return "screenCaptureKit";
        case SystemAudioBackend::_beta_coreAudio: return "_beta_coreAudio";
    }
    return "coreAudio";
}

SystemAudioBackend defaultSystemAudioBackend() {
    return platform::isPerApplicationAudioCaptureAvailable() ? SystemAudioBackend::coreAudio
                                                             : SystemAudioBackend::screenCaptureKit;
}

const std::string& OVRecorderSchemaItem::id() const {
    return std::visit([](const auto& item) -> const std::string& { return item.id; }, internalItem);
}

namespace {

// The two ways of choosing processes for system audio, as item fields.
struct ProcessSelection {
    std::optional<std::vector<ProcessID>> included;
    std::optional<std::vector<ProcessID>> excluded;
    bool excludeCurrentProcess = false;
};

ProcessSelection excludingSelection(const std::set<SystemAudioExcludeOptions>& excluding) {
    ProcessSelection s;
    s.excluded.emplace();  // an empty set still names an (empty) exclusion list
    for (const auto& option : excluding) {
        if (option.kind == SystemAudioExcludeOptions::Kind::processID)
            s.excluded->push_back(option.pid);
        else
            s.excludeCurrentProcess = true;
    }
    return s;
}

ProcessSelection includingSelection(std::vector<ProcessID> included) {
    return {std::move(included), std::nullopt, false};
}

OVRecorderSchemaItem systemAudioFile(ProcessSelection s, SystemAudioBackend backend, AudioOutputOptions output) {
    return OVRecorderSchemaItem(SystemAudioSchemaItem{ShortID::make(), std::move(s.included),
                                                      std::move(s.excluded), s.excludeCurrentProcess, backend,
                                                      std::move(output)});
}

OVRecorderSchemaItem systemAudioStream(ProcessSelection s, SystemAudioBackend backend, PCMBufferCallback callback) {
    return OVRecorderSchemaItem(SystemAudioStreamSchemaItem{ShortID::make(), std::move(s.included),
                                                            std::move(s.excluded), s.excludeCurrentProcess,
                                                            backend, std::move(callback)});
}

WindowSchemaItemFields windowFields(uint32_t windowID, OVColorSpace colorSpace, FrameInterval minimumFrameInterval,
                                    std::optional<platform::CGSize> maxVideoDimensions, bool showsCursor,
                                    bool mouseEvents, bool keyboardEvents, JSONOutputOptions inputEventsOutput,
                                    bool includeAudio, ScreenRecordingOutputOptions output) {
    WindowSchemaItemFields f;
    f.id = ShortID::make();
    f.windowID = windowID;
    f.colorSpace = colorSpace;
    f.minimumFrameInterval = minimumFrameInterval;
    f.maxVideoDimensions = maxVideoDimensions;
    f.captureAudio = includeAudio;
    f.showsCursor = showsCursor;
    f.mouseEvents = mouseEvents;
    f.keyboardEvents = keyboardEvents;
    f.inputEventsOutputOptions = std::move(inputEventsOutput);
    f.outputOptions = std::move(output);
    return f;
}

DisplaySchemaItem displayItem(uint32_t displayID, std::optional<platform::CGRect> crop,
                              std::set<ScreenRecordingExcludeOptions> excluding, OVColorSpace colorSpace,
                              FrameInterval minimumFrameInterval, std::optional<platform::CGSize> maxVideoDimensions,
                              bool showsCursor, bool mouseEvents, bool keyboardEvents,
                              JSONOutputOptions inputEventsOutput, TopWindowInfo topWindowInfo,
                              JSONOutputOptions topWindowInfoOutput, bool includeAudio,
                              ScreenRecordingOutputOptions output) {
    DisplaySchemaItem d;
    d.id = ShortID::make();
    d.displayID = displayID;
    d.crop = crop;
    d.excludeOptions = std::move(excluding);
    d.colorSpace = colorSpace;
    d.minimumFrameInterval = minimumFrameInterval;
    d.maxVideoDimensions = maxVideoDimensions;
    d.captureAudio = includeAudio;
    d.showsCursor = showsCursor;
    d.mouseEvents = mouseEvents;
    d.keyboardEvents = keyboardEvents;
    d.inputEventsOutputOptions = std::move(inputEventsOutput);
    d.topWindowInfo = std::move(topWindowInfo);
    d.topWindowInfoOutputOptions = std::move(topWindowInfoOutput);
    d.outputOptions = std::move(output);
    return d;
}

}  // namespace

OVRecorderSchemaItem OVRecorderSchemaItem::custom(CustomRecordersFunction makeRecorders) {
    return OVRecorderSchemaItem(CustomSchemaItem{ShortID::make(), std::move(makeRecorders)});
}

OVRecorderSchemaItem OVRecorderSchemaItem::webcam(std::string microphoneID, std::string cameraID,
                                                  std::optional<platform::CGSize> maxVideoDimensions,
                                                  bool preserveActiveCameraConfiguration, bool leftAudioChannelOnly,
                                                  double audioDelay, std::optional<std::string> filename) {
    return webcam(std::move(microphoneID), std::move(cameraID), maxVideoDimensions, preserveActiveCameraConfiguration,
                  leftAudioChannelOnly, audioDelay, WebcamOutputOptions::singleFile(std::move(filename), OVVideoCodec::h264));
}

OVRecorderSchemaItem OVRecorderSchemaItem::webcam(std::string microphoneID, std::string cameraID,
                                                  std::optional<platform::CGSize> maxVideoDimensions,
                                                  bool preserveActiveCameraConfiguration, bool leftAudioChannelOnly,
                                                  double audioDelay, WebcamOutputOptions output) {
    return OVRecorderSchemaItem(WebcamSchemaItem{ShortID::make(), std::move(microphoneID), std::move(cameraID),
                                                 maxVideoDimensions, !preserveActiveCameraConfiguration,
                                                 leftAudioChannelOnly, audioDelay, std::move(output)});
}

OVRecorderSchemaItem OVRecorderSchemaItem::microphone(std::string microphoneID, bool leftChannelOnly,
                                                      double audioDelay, EchoCancellation echoCancellation,
                                                      std::optional<std::string> filename) {
    return microphone(std::move(microphoneID), leftChannelOnly, audioDelay, echoCancellation,
                      AudioOutputOptions::singleFile(std::move(filename)));
}

OVRecorderSchemaItem OVRecorderSchemaItem::microphone(std::string microphoneID, bool leftChannelOnly,
                                                      double audioDelay, EchoCancellation echoCancellation,
                                                      AudioOutputOptions output) {
    return OVRecorderSchemaItem(MicrophoneFileSchemaItem{ShortID::make(), std::move(microphoneID), leftChannelOnly,
                                                         audioDelay, echoCancellation, std::move(output)});
}

OVRecorderSchemaItem OVRecorderSchemaItem::_microphone(std::string microphoneID, SampleBufferCallback callback) {
    return microphone(std::move(microphoneID), EchoCancellation::off, std::move(callback));
}

OVRecorderSchemaItem OVRecorderSchemaItem::microphone(std::string microphoneID, EchoCancellation echoCancellation,
                                                      SampleBufferCallback callback) {
    return OVRecorderSchemaItem(MicrophoneStreamSchemaItem{ShortID::make(), std::move(callback),
                                                           std::move(microphoneID), echoCancellation, std::nullopt});
}

OVRecorderSchemaItem OVRecorderSchemaItem::microphone(std::string microphoneID,
                                                      AudioStreamConfiguration audioConfiguration,
                                                      EchoCancellation echoCancellation, SampleBufferCallback callback) {
    return OVRecorderSchemaItem(MicrophoneStreamSchemaItem{ShortID::make(), std::move(callback),
                                                           std::move(microphoneID), echoCancellation,
                                                           audioConfiguration});
}

OVRecorderSchemaItem OVRecorderSchemaItem::systemAudio(const std::set<SystemAudioExcludeOptions>& excluding,
                                                       SystemAudioBackend backend,
                                                       std::optional<std::string> filename) {
    return systemAudioFile(excludingSelection(excluding), backend, AudioOutputOptions::singleFile(std::move(filename)));
}

OVRecorderSchemaItem OVRecorderSchemaItem::systemAudio(const std::set<SystemAudioExcludeOptions>& excluding,
                                                       SystemAudioBackend backend, AudioOutputOptions output) {
    return systemAudioFile(excludingSelection(excluding), backend, std::move(output));
}

OVRecorderSchemaItem OVRecorderSchemaItem::systemAudio(const std::set<SystemAudioExcludeOptions>& excluding,
                                                       SystemAudioBackend backend, PCMBufferCallback callback) {
    return systemAudioStream(excludingSelection(excluding), backend, std::move(callback));
}

OVRecorderSchemaItem OVRecorderSchemaItem::systemAudio(std::vector<ProcessID> includedApplicationIDs,
                                                       SystemAudioBackend backend,
                                                       std::optional<std::string> filename) {
    return systemAudioFile(includingSelection(std::move(includedApplicationIDs)), backend,
                           AudioOutputOptions::singleFile(std::move(filename)));
}

OVRecorderSchemaItem OVRecorderSchemaItem::systemAudio(std::vector<ProcessID> includedApplicationIDs,
                                                       SystemAudioBackend backend, AudioOutputOptions output) {
    return systemAudioFile(includingSelection(std::move(includedApplicationIDs)), backend, std::move(output));
}

OVRecorderSchemaItem OVRecorderSchemaItem::systemAudio(std::vector<ProcessID> includedApplicationIDs,
                                                       SystemAudioBackend backend, PCMBufferCallback callback) {
    return systemAudioStream(includingSelection(std::move(includedApplicationIDs)), backend, std::move(callback));
}

OVRecorderSchemaItem OVRecorderSchemaItem::applicationAudio(ProcessID applicationID, SystemAudioBackend backend,
                                                            std::optional<std::string> filename) {
    return systemAudio(std::vector<ProcessID>{applicationID}, backend, std::move(filename));
}

OVRecorderSchemaItem OVRecorderSchemaItem::applicationAudio(ProcessID applicationID, SystemAudioBackend backend,
                                                            AudioOutputOptions output) {
    return systemAudio(std::vector<ProcessID>{applicationID}, backend, std::move(output));
}

OVRecorderSchemaItem OVRecorderSchemaItem::applicationAudio(ProcessID applicationID, SystemAudioBackend backend,
                                                            PCMBufferCallback callback) {
    return systemAudio(std::vector<ProcessID>{applicationID}, backend, std::move(callback));
}

OVRecorderSchemaItem OVRecorderSchemaItem::display(uint32_t displayID, std::optional<platform::CGRect> crop,
                                                   std::set<ScreenRecordingExcludeOptions> excluding,
                                                   OVColorSpace colorSpace, FrameInterval minimumFrameInterval,
                                                   std::optional<platform::CGSize> maxVideoDimensions,
                                                   bool showsCursor, bool mouseEvents, bool keyboardEvents,
                                                   bool includeAudio, std::optional<std::string> filename) {
    return display(displayID, crop, std::move(excluding), colorSpace, minimumFrameInterval, maxVideoDimensions,
                   showsCursor, mouseEvents, keyboardEvents, JSONOutputOptions::singleFile(), includeAudio,
                   ScreenRecordingOutputOptions::singleFile(std::move(filename), OVVideoCodec::h264));
}

OVRecorderSchemaItem OVRecorderSchemaItem::display(uint32_t displayID, std::optional<platform::CGRect> crop,
                                                   std::set<ScreenRecordingExcludeOptions> excluding,
                                                   OVColorSpace colorSpace, FrameInterval minimumFrameInterval,
                                                   std::optional<platform::CGSize> maxVideoDimensions,
                                                   bool showsCursor, bool mouseEvents, bool keyboardEvents,
                                                   JSONOutputOptions inputEventsOutput, bool includeAudio,
                                                   ScreenRecordingOutputOptions output) {
    return OVRecorderSchemaItem(displayItem(displayID, crop, std::move(excluding), colorSpace, minimumFrameInterval,
                                            maxVideoDimensions, showsCursor, mouseEvents, keyboardEvents,
                                            std::move(inputEventsOutput), TopWindowInfo::disabled(),
                                            JSONOutputOptions::singleFile(), includeAudio, std::move(output)));
}

OVRecorderSchemaItem OVRecorderSchemaItem::_display(uint32_t displayID, std::optional<platform::CGRect> crop,
                                                    std::set<ScreenRecordingExcludeOptions> excluding,
                                                    OVColorSpace colorSpace, FrameInterval minimumFrameInterval,
                                                    std::optional<platform::CGSize> maxVideoDimensions,
                                                    bool showsCursor, bool mouseEvents, bool keyboardEvents,
                                                    JSONOutputOptions inputEventsOutput, bool topWindowInfo,
                                                    JSONOutputOptions topWindowInfoOutput, bool includeAudio,
                                                    ScreenRecordingOutputOptions output) {
    return OVRecorderSchemaItem(displayItem(
        displayID, crop, std::move(excluding), colorSpace, minimumFrameInterval, maxVideoDimensions, showsCursor,
        mouseEvents, keyboardEvents, std::move(inputEventsOutput),
        topWindowInfo ? TopWindowInfo::enabled() : TopWindowInfo::disabled(), std::move(topWindowInfoOutput),
        includeAudio, std::move(output)));
}

OVRecorderSchemaItem OVRecorderSchemaItem::_display(uint32_t displayID, std::optional<platform::CGRect> crop,
                                                    std::set<ScreenRecordingExcludeOptions> excluding,
                                                    OVColorSpace colorSpace, FrameInterval minimumFrameInterval,
                                                    std::optional<platform::CGSize> maxVideoDimensions,
                                                    bool showsCursor, bool mouseEvents, bool keyboardEvents,
                                                    JSONOutputOptions inputEventsOutput,
                                                    std::shared_ptr<TopWindowInfoStream> topWindowInfo,
                                                    JSONOutputOptions topWindowInfoOutput, bool includeAudio,
                                                    ScreenRecordingOutputOptions output) {
    TopWindowInfo info = topWindowInfo ? TopWindowInfo::custom(std::move(topWindowInfo)) : TopWindowInfo::disabled();
    return OVRecorderSchemaItem(displayItem(displayID, crop, std::move(excluding), colorSpace, minimumFrameInterval,
                                            maxVideoDimensions, showsCursor, mouseEvents, keyboardEvents,
                                            std::move(inputEventsOutput), std::move(info),
                                            std::move(topWindowInfoOutput), includeAudio, std::move(output)));
}

OVRecorderSchemaItem OVRecorderSchemaItem::desktopIndependentWindow(
    uint32_t windowID, OVColorSpace colorSpace, FrameInterval minimumFrameInterval,
    std::optional<platform::CGSize> maxVideoDimensions, bool showsCursor, bool mouseEvents, bool keyboardEvents,
    JSONOutputOptions inputEventsOutput, bool includeAudio, std::optional<std::string> filename) {
    return desktopIndependentWindow(windowID, colorSpace, minimumFrameInterval, maxVideoDimensions, showsCursor,
                                    mouseEvents, keyboardEvents, std::move(inputEventsOutput), includeAudio,
                                    ScreenRecordingOutputOptions::singleFile(std::move(filename), OVVideoCodec::h264));
}

OVRecorderSchemaItem OVRecorderSchemaItem::desktopIndependentWindow(
    uint32_t windowID, OVColorSpace colorSpace, FrameInterval minimumFrameInterval,
    std::optional<platform::CGSize> maxVideoDimensions, bool showsCursor, bool mouseEvents, bool keyboardEvents,
    JSONOutputOptions inputEventsOutput, bool includeAudio, ScreenRecordingOutputOptions output) {
    return OVRecorderSchemaItem(DesktopIndependentWindowSchemaItem{
        windowFields(windowID, colorSpace, minimumFrameInterval, maxVideoDimensions, showsCursor, mouseEvents,
                     keyboardEvents, std::move(inputEventsOutput), includeAudio, std::move(output))});
}

OVRecorderSchemaItem OVRecorderSchemaItem::windowBasedCrop(uint32_t windowID, OVColorSpace colorSpace,
                                                           FrameInterval minimumFrameInterval,
                                                           std::optional<platform::CGSize> maxVideoDimensions,
                                                           bool showsCursor, bool mouseEvents, bool keyboardEvents,
                                                           JSONOutputOptions inputEventsOutput, bool includeAudio,
                                                           std::optional<std::string> filename) {
    return windowBasedCrop(windowID, colorSpace, minimumFrameInterval, maxVideoDimensions, showsCursor, mouseEvents,
                           keyboardEvents, std::move(inputEventsOutput), includeAudio,
                           ScreenRecordingOutputOptions::singleFile(std::move(filename), OVVideoCodec::h264));
}

OVRecorderSchemaItem OVRecorderSchemaItem::windowBasedCrop(uint32_t windowID, OVColorSpace colorSpace,
                                                           FrameInterval minimumFrameInterval,
                                                           std::optional<platform::CGSize> maxVideoDimensions,
                                                           bool showsCursor, bool mouseEvents, bool keyboardEvents,
                                                           JSONOutputOptions inputEventsOutput, bool includeAudio,
                                                           ScreenRecordingOutputOptions output) {
    return OVRecorderSchemaItem(WindowBasedCropSchemaItem{
        windowFields(windowID, colorSpace, minimumFrameInterval, maxVideoDimensions, showsCursor, mouseEvents,
                     keyboardEvents, std::move(inputEventsOutput), includeAudio, std::move(output))});
}

OVRecorderSchemaItem OVRecorderSchemaItem::appleDeviceStaticOrientation(std::string deviceID,
                                                                        std::optional<std::string> filename) {
    return appleDeviceStaticOrientation(std::move(deviceID), DeviceOutputOptions::singleFile(std::move(filename)));
}

OVRecorderSchemaItem OVRecorderSchemaItem::appleDeviceStaticOrientation(std::string deviceID,
                                                                        DeviceOutputOptions output) {
    return OVRecorderSchemaItem(
        AppleDeviceStaticOrientationItem{{ShortID::make(), std::move(deviceID), std::move(output)}});
}

OVRecorderSchemaItem OVRecorderSchemaItem::appleDevice(std::string deviceID, std::optional<std::string> filename) {
    return appleDevice(std::move(deviceID), DeviceOutputOptions::singleFile(std::move(filename)));
}

OVRecorderSchemaItem OVRecorderSchemaItem::appleDevice(std::string deviceID, DeviceOutputOptions output) {
    return OVRecorderSchemaItem(AppleDeviceSchemaItem{{ShortID::make(), std::move(deviceID), std::move(output)}});
}

}  // namespace ov
