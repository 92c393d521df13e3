#include "session/recorder_assembly.h"

#include "foundation/ov_error.h"
#include "session/recorder_registry.h"
#include "session/short_id.h"

namespace ov {
namespace {

template <class... F>
struct Overloaded : F... {
    using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

std::string backendTag(SystemAudioBackend backend) {
    return backend == SystemAudioBackend::screenCaptureKit ? "sck" : "ca";
}

std::string systemAudioFallback(const std::string& id, const std::optional<std::vector<ProcessID>>& included,
                                SystemAudioBackend backend) {
    if (included && included->size() == 1) return "appaudio-" + backendTag(backend) + "-" + id + ".m4a";
    return "systemaudio-" + backendTag(backend) + "-" + ShortID::make() + ".m4a";
}

}  // namespace

std::string fallbackFilename(const InternalSchemaItem& item) {
    return std::visit(
        Overloaded{
            [](const CustomSchemaItem& i) { return "custom-" + i.id; },
            [](const WebcamSchemaItem& i) { return "webcam-" + i.id + ".mov"; },
            [](const MicrophoneFileSchemaItem& i) { return "microphone-" + i.id + ".m4a"; },
            [](const MicrophoneStreamSchemaItem& i) { return "microphone-" + i.id + ".m4a"; },
            [](const SystemAudioSchemaItem& i) {
                return systemAudioFallback(i.id, i.includedApplicationIDs, i.backend);
            },
            [](const SystemAudioStreamSchemaItem& i) {
                return systemAudioFallback(i.id, i.includedApplicationIDs, i.backend);
            },
            [](const DisplaySchemaItem& i) { return "display-" + i.id + ".mov"; },
            [](const DesktopIndependentWindowSchemaItem& i) { return "window-" + i.id + ".mov"; },
            [](const WindowBasedCropSchemaItem& i) { return "windowcrop-" + i.id + ".mov"; },
            [](const AppleDeviceStaticOrientationItem& i) { return "appledevice-" + i.id + ".mov"; },
            [](const AppleDeviceSchemaItem& i) { return "appledevice-" + i.id + ".mov"; },
        },
        item);
}

std::string itemKindName(const InternalSchemaItem& item) {
    return std::visit(Overloaded{
                          [](const CustomSchemaItem&) { return "custom"; },
                          [](const WebcamSchemaItem&) { return "webcam"; },
                          [](const MicrophoneFileSchemaItem&) { return "microphone"; },
                          [](const MicrophoneStreamSchemaItem&) { return "microphone stream"; },
                          [](const SystemAudioSchemaItem&) { return "system audio"; },
                          [](const SystemAudioStreamSchemaItem&) { return "system audio stream"; },
                          [](const DisplaySchemaItem&) { return "display"; },
                          [](const DesktopIndependentWindowSchemaItem&) { return "window"; },
                          [](const WindowBasedCropSchemaItem&) { return "window crop"; },
                          [](const AppleDeviceStaticOrientationItem&) { return "Apple device (static orientation)"; },
                          [](const AppleDeviceSchemaItem&) { return "Apple device"; },
                      },
                      item);
}

OutputDescription screenSideFileDescription(const ScreenRecordingOutputOptions& videoOptions,
                                            const JSONOutputOptions& sideFileOptions,
                                            const std::filesystem::path& bundleURL,
                                            const std::string& videoFallbackFilename, const std::string& extension) {
    return outputDescription(sideFileOptions, bundleURL, sideFilename(videoOptions, videoFallbackFilename, extension));
}

std::vector<OVBundleInfo::FileAsset> UnsupportedSourceRecorder::prepare() {
    logger_.error("Recorder kind not supported on this system.", [&] { return LogMetadata{{"kind", kind_}}; });
    throw OVError(OVError::Code::configurationNotSupported,
                  "Recording a " + kind_ + " item is not supported by this build (item " + id_ + ").",
                  "Recording a " + kind_ + " is not supported yet.");
}

std::vector<std::shared_ptr<Recorder>> createRecorders(const InternalSchemaItem& item,
                                                       const RecorderAssemblyContext& context) {
    if (const auto* custom = std::get_if<CustomSchemaItem>(&item)) {
        if (!custom->makeRecorders) return {};
        return custom->makeRecorders(context.bundleURL, context.logger, context.onAbort);
    }
    if (const auto factory = RecorderRegistry::shared().factoryFor(item)) return factory(item, context);

    // A kind that no recorder folder registered fails at prepare.
    const std::string id = std::visit([](const auto& i) { return i.id; }, item);
    const std::string kind = itemKindName(item);
    return {std::make_shared<UnsupportedSourceRecorder>(id, kind, context.logger.with("UnsupportedSourceRecorder", id))};
}

}  // namespace ov
