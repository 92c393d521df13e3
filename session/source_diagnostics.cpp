#include "session/source_diagnostics.h"

#include <algorithm>
#include <cctype>
#include <vector>
#include <mutex>

#include "output/ov_logger.h"
#include "foundation/ov_error.h"

namespace ov {

// ---- the lookup ----------------------------------------------------------------------------

std::string_view caseName(CaptureDeviceAvailability a) {
    switch (a) {
        case CaptureDeviceAvailability::available: return "available";
        case CaptureDeviceAvailability::lidClosed: return "lidClosed";
        case CaptureDeviceAvailability::unknownSuspended: return "unknownSuspended";
        case CaptureDeviceAvailability::notConnected: return "notConnected";
    }
    return "available";
}

std::string_view caseName(AppleDeviceAvailability a) {
    switch (a) {
        case AppleDeviceAvailability::available: return "available";
        case AppleDeviceAvailability::notPaired: return "notPaired";
        case AppleDeviceAvailability::notConnected: return "notConnected";
        case AppleDeviceAvailability::pairedNeedsConnect: return "pairedNeedsConnect";
        case AppleDeviceAvailability::pairedNeedsReconnect: return "pairedNeedsReconnect";
    }
    return "available";
}

std::string_view caseName(DisplayAvailability a) {
    switch (a) {
        case DisplayAvailability::available: return "available";
        case DisplayAvailability::lidClosed: return "lidClosed";
        case DisplayAvailability::notConnected: return "notConnected";
    }
    return "available";
}

std::string_view caseName(WindowAvailability a) {
    switch (a) {
        case WindowAvailability::available: return "available";
        case WindowAvailability::notOnScreen: return "notOnScreen";
        case WindowAvailability::closed: return "closed";
    }
    return "available";
}

namespace {
std::mutex sharedLookupMutex;
std::shared_ptr<const SourceLookup>& sharedLookupSlot() {
    static std::shared_ptr<const SourceLookup> lookup = std::make_shared<SourceLookup>();
    return lookup;
}
}  // namespace

std::shared_ptr<const SourceLookup> SourceLookup::shared() {
    std::lock_guard lock(sharedLookupMutex);
    return sharedLookupSlot();
}

void SourceLookup::setShared(std::shared_ptr<const SourceLookup> lookup) {
    std::lock_guard lock(sharedLookupMutex);
    sharedLookupSlot() = lookup ? std::move(lookup) : std::make_shared<SourceLookup>();
}

// ---- the texts -----------------------------------------------------------------------------

namespace {

using Code = OVError::Code;

bool nameMentions(const std::string& name, const std::vector<std::string_view>& words) {
    std::string lower = name;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    return std::any_of(words.begin(), words.end(), [&](std::string_view w) { return lower.find(w) != std::string::npos; });
}

// The opening of a text for people; the kind's word is left out when the name already says it.
struct Prefixes {
    std::vector<std::string_view> words;
    const char* cannotRecord;
    const char* noData;

    std::string cannotRecordFor(const std::string& name) const {
        return nameMentions(name, words) ? "Can't record '" : cannotRecord;
    }
    std::string noDataFor(const std::string& name, const char* shortForm) const {
        return nameMentions(name, words) ? shortForm : noData;
    }
};

const Prefixes kMicrophone{{"microphone"}, "Can't record microphone '", "No audio from microphone '"};
const Prefixes kCamera{{"camera"}, "Can't record camera '", "No video from camera '"};
const Prefixes kAppleDevice{{"iphone", "ipad"}, "Can't record device '", "No video from device '"};
const Prefixes kDisplay{{"display"}, "Can't record display '", nullptr};

std::string debugText(std::string_view typeName, const std::string& name, const std::string& id,
                      std::string_view availability, std::string_view ending) {
    return std::string(typeName) + " \"" + name + "\" (" + id + ") has availability: " + std::string(availability) +
           std::string(ending);
}

enum class Failure { noCaptureDevice, noSampleBuffers };

constexpr std::string_view endingOf(Failure failure) {
    return failure == Failure::noCaptureDevice ? ", no AVCaptureDevice" : ", provides no sample buffers";
}

// Microphones and cameras share their texts but for the kind's words and the
// suffix of an available device.
[[noreturn]] void throwForCaptureDevice(std::string_view typeName, const Prefixes& prefixes, const char* noDataShort,
                                        const std::string& availableSuffix, Failure failure, Code code,
                                        const std::string& id, const NamedSource<CaptureDeviceAvailability>& source) {
    const std::string& name = source.localizedName;
    std::string text;
    switch (source.availability) {
        case CaptureDeviceAvailability::available:
            text = (failure == Failure::noSampleBuffers ? prefixes.noDataFor(name, noDataShort)
                                                        : prefixes.cannotRecordFor(name)) +
                   name + availableSuffix;
            break;
        case CaptureDeviceAvailability::lidClosed:
            text = prefixes.cannotRecordFor(name) + name + "' because MacBook lid is closed.";
            break;
        case CaptureDeviceAvailability::unknownSuspended:
            text = prefixes.cannotRecordFor(name) + name + "' because it is suspended.";
            break;
        case CaptureDeviceAvailability::notConnected:
            text = prefixes.cannotRecordFor(name) + name + "' because it is not connected anymore.";
            break;
    }
    throw OVError(code, debugText(typeName, name, id, caseName(source.availability), endingOf(failure)), text);
}

void logFound(const Logger& logger, const char* message, const std::string& availabilityKey,
              std::string_view availability) {
    logger.error(message, [&] { return LogMetadata{{availabilityKey, std::string(availability)}}; });
}

void microphone(const std::string& id, const Logger& logger, const SourceLookup& lookup, Failure failure) {
    const auto source = lookup.microphone(id);
    if (!source) return;
    logFound(logger,
             failure == Failure::noCaptureDevice ? "Found in MicrophoneDiscovery as OVMicrophone."
                                                 : "No samples received from microphone, timed out.",
             "OVMicrophone.availability", caseName(source->availability));
    throwForCaptureDevice("OVMicrophone", kMicrophone, "No audio from '", "', make sure it's unmuted and powered on.",
                          failure, failure == Failure::noCaptureDevice ? Code::microphoneUnavailable
                                                                       : Code::noAudioSamplesReceived,
                          id, *source);
}

void camera(const std::string& id, const Logger& logger, const SourceLookup& lookup, Failure failure) {
    const auto source = lookup.camera(id);
    if (!source) return;
    logFound(logger,
             failure == Failure::noCaptureDevice ? "Found in CameraDiscovery as OVCamera."
                                                 : "No samples received from camera, timed out.",
             "OVCamera.availability", caseName(source->availability));
    // The two texts differ in their apostrophe, as they always have.
    const std::string availableSuffix = failure == Failure::noCaptureDevice
                                            ? "', make sure it\u2019s powered on and any privacy shutter is open."
                                            : "', make sure it's powered on and any privacy shutter is open.";
    throwForCaptureDevice("OVCamera", kCamera, "No video from '", availableSuffix, failure,
                          failure == Failure::noCaptureDevice ? Code::cameraUnavailable : Code::noVideoFramesReceived,
                          id, *source);
}

void appleDevice(const std::string& id, const Logger& logger, const SourceLookup& lookup, Failure failure) {
    const auto source = lookup.appleDevice(id);
    if (!source) return;
    logFound(logger,
             failure == Failure::noCaptureDevice ? "Found in AppleDeviceDiscovery as OVAppleDevice."
                                                 : "No samples received from Apple device, timed out.",
             "OVAppleDevice.availability", caseName(source->availability));
    const std::string& name = source->localizedName;
    std::string text;
    if (source->availability == AppleDeviceAvailability::notConnected)
        text = kAppleDevice.cannotRecordFor(name) + name + "' because it is not connected anymore.";
    else if (failure == Failure::noCaptureDevice)
        text = kAppleDevice.cannotRecordFor(name) + name + "', make sure device is unlocked.";
    else if (nameMentions(name, kAppleDevice.words))
        text = "No video from '" + name + "', make sure device is unlocked.";
    else
        text = kAppleDevice.noData + name + "', make sure it is unlocked.";
    throw OVError(failure == Failure::noCaptureDevice ? Code::appleDeviceUnavailable : Code::noVideoFramesReceived,
                  debugText("OVAppleDevice", name, id, caseName(source->availability), endingOf(failure)), text);
}

}  // namespace

void throwMicrophoneNoAVCaptureDevice(const std::string& id, const Logger& logger, const SourceLookup& lookup) {
    microphone(id, logger, lookup, Failure::noCaptureDevice);
}
void throwMicrophoneNoSampleBuffers(const std::string& id, const Logger& logger, const SourceLookup& lookup) {
    microphone(id, logger, lookup, Failure::noSampleBuffers);
}
void throwCameraNoAVCaptureDevice(const std::string& id, const Logger& logger, const SourceLookup& lookup) {
    camera(id, logger, lookup, Failure::noCaptureDevice);
}
void throwCameraNoSampleBuffers(const std::string& id, const Logger& logger, const SourceLookup& lookup) {
    camera(id, logger, lookup, Failure::noSampleBuffers);
}
void throwAppleDeviceNoAVCaptureDevice(const std::string& id, const Logger& logger, const SourceLookup& lookup) {
    appleDevice(id, logger, lookup, Failure::noCaptureDevice);
}
void throwAppleDeviceNoVideoSampleBuffers(const std::string& id, const Logger& logger, const SourceLookup& lookup) {
    appleDevice(id, logger, lookup, Failure::noSampleBuffers);
}

void throwCantFindDisplay(uint32_t displayID, const Logger& logger, const SourceLookup& lookup) {
    const auto source = lookup.display(displayID);
    if (!source) return;
    const std::string id = std::to_string(displayID);
    logger.error("Can't find display for given ID, but there's a OVDisplay.", [&] {
        return LogMetadata{{"displayID", id}, {"OVDisplay.availability", std::string(caseName(source->availability))}};
    });
    const std::string& name = source->localizedName;
    std::string suffix;
    switch (source->availability) {
        case DisplayAvailability::available: suffix = "' because id " + id + " can't be found."; break;
        case DisplayAvailability::lidClosed: suffix = "' because MacBook lid is closed."; break;
        case DisplayAvailability::notConnected: suffix = "' because it is not connected anymore."; break;
    }
    throw OVError(Code::displayUnavailable, debugText("OVDisplay", name, id, caseName(source->availability), ""),
                  kDisplay.cannotRecordFor(name) + name + suffix);
}

void throwCantFindWindow(uint32_t windowID, const Logger& logger, const SourceLookup& lookup) {
    const auto source = lookup.window(windowID);
    if (!source) return;
    const std::string id = std::to_string(windowID);
    logger.error("", [&] {
        return LogMetadata{{"windowID", id}, {"OVWindow.availability", std::string(caseName(source->availability))}};
    });
    const bool hasTitle = source->title && !source->title->empty();
    const bool hasApplicationName = source->applicationName && !source->applicationName->empty();
    const std::string name = hasTitle ? *source->title : hasApplicationName ? *source->applicationName : "";
    std::string text;
    switch (source->availability) {
        case WindowAvailability::available:
            text = hasTitle || hasApplicationName ? "Can't record '" + name + "' because windowID " + id + " can't be found."
                                                  : "Can't record window because windowID " + id + " can't be found.";
            break;
        case WindowAvailability::notOnScreen:
            text = hasTitle               ? "Can't record '" + name + "' because it is not on screen."
                   : hasApplicationName ? "Can't record '" + name + "' window because it is not on screen."
                                          : "Can't record window because it is not on screen.";
            break;
        case WindowAvailability::closed:
            text = hasTitle               ? "Can't record '" + name + "' because the window has been closed."
                   : hasApplicationName ? "Can't record '" + name + "' window because it has been closed."
                                          : "Can't record window because it has been closed.";
            break;
    }
    throw OVError(Code::windowUnavailable, debugText("OVWindow", name, id, caseName(source->availability), ""), text);
}

}  // namespace ov
