#pragma once
// What one recording consists of: where its bundle goes and which sources it
// records, each as one item with its own output. Callers build items with the
// factories below; every factory call draws a new item id.

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "session/schema_items.h"

namespace ov {

class OVRecorderSchemaItem {
public:
    explicit OVRecorderSchemaItem(InternalSchemaItem item) : internalItem(std::move(item)) {}

    InternalSchemaItem internalItem;

    const std::string& id() const;

    // ---- custom ----
    static OVRecorderSchemaItem custom(CustomRecordersFunction makeRecorders);

    // ---- webcam: a camera with a microphone, into one movie ----
    static OVRecorderSchemaItem webcam(std::string microphoneID, std::string cameraID,
                                       std::optional<platform::CGSize> maxVideoDimensions,
                                       bool preserveActiveCameraConfiguration, bool leftAudioChannelOnly,
                                       double audioDelay, std::optional<std::string> filename);
    static OVRecorderSchemaItem webcam(std::string microphoneID, std::string cameraID,
                                       std::optional<platform::CGSize> maxVideoDimensions,
                                       bool preserveActiveCameraConfiguration, bool leftAudioChannelOnly,
                                       double audioDelay, WebcamOutputOptions output);

    // ---- microphones: into a file, or as a stream of sample buffers ----
    static OVRecorderSchemaItem microphone(std::string microphoneID, bool leftChannelOnly, double audioDelay,
                                           EchoCancellation echoCancellation, std::optional<std::string> filename);
    static OVRecorderSchemaItem microphone(std::string microphoneID, bool leftChannelOnly, double audioDelay,
                                           EchoCancellation echoCancellation, AudioOutputOptions output);
    static OVRecorderSchemaItem _microphone(std::string microphoneID, SampleBufferCallback callback);
    static OVRecorderSchemaItem microphone(std::string microphoneID, EchoCancellation echoCancellation,
                                           SampleBufferCallback callback);
    static OVRecorderSchemaItem microphone(std::string microphoneID, AudioStreamConfiguration audioConfiguration,
                                           EchoCancellation echoCancellation, SampleBufferCallback callback);

    // ---- system audio: everything except some processes, or only some ----
    static OVRecorderSchemaItem systemAudio(const std::set<SystemAudioExcludeOptions>& excluding,
                                            SystemAudioBackend backend, std::optional<std::string> filename);
    static OVRecorderSchemaItem systemAudio(const std::set<SystemAudioExcludeOptions>& excluding,
                                            SystemAudioBackend backend, AudioOutputOptions output);
    static OVRecorderSchemaItem systemAudio(const std::set<SystemAudioExcludeOptions>& excluding,
                                            SystemAudioBackend backend, PCMBufferCallback callback);
    static OVRecorderSchemaItem systemAudio(std::vector<ProcessID> includedApplicationIDs,
                                            SystemAudioBackend backend, std::optional<std::string> filename);
    static OVRecorderSchemaItem systemAudio(std::vector<ProcessID> includedApplicationIDs,
                                            SystemAudioBackend backend, AudioOutputOptions output);
    static OVRecorderSchemaItem systemAudio(std::vector<ProcessID> includedApplicationIDs,
                                            SystemAudioBackend backend, PCMBufferCallback callback);

    // ---- one application's audio: system audio including that one process ----
    static OVRecorderSchemaItem applicationAudio(ProcessID applicationID, SystemAudioBackend backend,
                                                 std::optional<std::string> filename);
    static OVRecorderSchemaItem applicationAudio(ProcessID applicationID, SystemAudioBackend backend,
                                                 AudioOutputOptions output);
    static OVRecorderSchemaItem applicationAudio(ProcessID applicationID, SystemAudioBackend backend,
                                                 PCMBufferCallback callback);

    // ---- displays ----
    static OVRecorderSchemaItem display(uint32_t displayID, std::optional<platform::CGRect> crop,
                                        std::set<ScreenRecordingExcludeOptions> excluding, OVColorSpace colorSpace,
                                        FrameInterval minimumFrameInterval,
                                        std::optional<platform::CGSize> maxVideoDimensions, bool showsCursor,
                                        bool mouseEvents, bool keyboardEvents, bool includeAudio,
                                        std::optional<std::string> filename);
    static OVRecorderSchemaItem display(uint32_t displayID, std::optional<platform::CGRect> crop,
                                        std::set<ScreenRecordingExcludeOptions> excluding, OVColorSpace colorSpace,
                                        FrameInterval minimumFrameInterval,
                                        std::optional<platform::CGSize> maxVideoDimensions, bool showsCursor,
                                        bool mouseEvents, bool keyboardEvents, JSONOutputOptions inputEventsOutput,
                                        bool includeAudio, ScreenRecordingOutputOptions output);
    // With the top window recorded beside the display (enabled or disabled).
    static OVRecorderSchemaItem _display(uint32_t displayID, std::optional<platform::CGRect> crop,
                                         std::set<ScreenRecordingExcludeOptions> excluding, OVColorSpace colorSpace,
                                         FrameInterval minimumFrameInterval,
                                         std::optional<platform::CGSize> maxVideoDimensions, bool showsCursor,
                                         bool mouseEvents, bool keyboardEvents, JSONOutputOptions inputEventsOutput,
                                         bool topWindowInfo, JSONOutputOptions topWindowInfoOutput,
                                         bool includeAudio, ScreenRecordingOutputOptions output);
    // With top window updates from the caller's own stream; none disables it.
    static OVRecorderSchemaItem _display(uint32_t displayID, std::optional<platform::CGRect> crop,
                                         std::set<ScreenRecordingExcludeOptions> excluding, OVColorSpace colorSpace,
                                         FrameInterval minimumFrameInterval,
                                         std::optional<platform::CGSize> maxVideoDimensions, bool showsCursor,
                                         bool mouseEvents, bool keyboardEvents, JSONOutputOptions inputEventsOutput,
                                         std::shared_ptr<TopWindowInfoStream> topWindowInfo,
                                         JSONOutputOptions topWindowInfoOutput, bool includeAudio,
                                         ScreenRecordingOutputOptions output);

    // ---- windows ----
    static OVRecorderSchemaItem desktopIndependentWindow(uint32_t windowID, OVColorSpace colorSpace,
                                                         FrameInterval minimumFrameInterval,
                                                         std::optional<platform::CGSize> maxVideoDimensions,
                                                         bool showsCursor, bool mouseEvents, bool keyboardEvents,
                                                         JSONOutputOptions inputEventsOutput, bool includeAudio,
                                                         std::optional<std::string> filename);
    static OVRecorderSchemaItem desktopIndependentWindow(uint32_t windowID, OVColorSpace colorSpace,
                                                         FrameInterval minimumFrameInterval,
                                                         std::optional<platform::CGSize> maxVideoDimensions,
                                                         bool showsCursor, bool mouseEvents, bool keyboardEvents,
                                                         JSONOutputOptions inputEventsOutput, bool includeAudio,
                                                         ScreenRecordingOutputOptions output);
    static OVRecorderSchemaItem windowBasedCrop(uint32_t windowID, OVColorSpace colorSpace,
                                                FrameInterval minimumFrameInterval,
                                                std::optional<platform::CGSize> maxVideoDimensions, bool showsCursor,
                                                bool mouseEvents, bool keyboardEvents,
                                                JSONOutputOptions inputEventsOutput, bool includeAudio,
                                                std::optional<std::string> filename);
    static OVRecorderSchemaItem windowBasedCrop(uint32_t windowID, OVColorSpace colorSpace,
                                                FrameInterval minimumFrameInterval,
                                                std::optional<platform::CGSize> maxVideoDimensions, bool showsCursor,
                                                bool mouseEvents, bool keyboardEvents,
                                                JSONOutputOptions inputEventsOutput, bool includeAudio,
                                                ScreenRecordingOutputOptions output);

    // ---- attached phones and tablets ----
    static OVRecorderSchemaItem appleDeviceStaticOrientation(std::string deviceID,
                                                             std::optional<std::string> filename);
    static OVRecorderSchemaItem appleDeviceStaticOrientation(std::string deviceID, DeviceOutputOptions output);
    static OVRecorderSchemaItem appleDevice(std::string deviceID, std::optional<std::string> filename);
    static OVRecorderSchemaItem appleDevice(std::string deviceID, DeviceOutputOptions output);
};

struct OVRecorderSchema {
    // Absent: an automatically named folder.
    std::optional<std::filesystem::path> outputDirectory;
    std::vector<OVRecorderSchemaItem> items;
};

}  // namespace ov
