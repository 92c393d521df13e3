#include "platform/synthetic/synthetic_world.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <numeric>
#include <set>
#include <sstream>
#include <stdexcept>

#include <fmt/format.h>

#include "platform/capture_platform.h"

namespace ov::platform {

using coding::Decoder;

std::string toString(SyntheticFault::Kind kind) {
    switch (kind) {
        case SyntheticFault::Kind::neverDelivers: return "neverDelivers";
        case SyntheticFault::Kind::stopsDelivering: return "stopsDelivering";
        case SyntheticFault::Kind::stopsWithError: return "stopsWithError";
        case SyntheticFault::Kind::disappears: return "disappears";
        case SyntheticFault::Kind::goesIdle: return "goesIdle";
        case SyntheticFault::Kind::silentUntilCenterStageToggle: return "silentUntilCenterStageToggle";
        case SyntheticFault::Kind::hangsOnStop: return "hangsOnStop";
    }
    return "unknown";
}

CMTime SyntheticVideoFormat::frameDuration() const {
    // Rates are taken to a thousandth, so that 29.97 is exactly 1000/29970.
    const auto perThousandSeconds = static_cast<int64_t>(std::llround(frameRate * 1000.0));
    const int64_t divisor = std::gcd<int64_t, int64_t>(1000, perThousandSeconds);
    return CMTime(1000 / divisor, static_cast<CMTimeScale>(perThousandSeconds / divisor));
}

SyntheticDevice SyntheticDevice::make(Kind kind, std::string uniqueID) {
    SyntheticDevice device;
    device.kind = kind;
    device.uniqueID = std::move(uniqueID);
    switch (kind) {
        case Kind::camera:
            device.name = "Synthetic Camera";
            device.modelID = "SyntheticCamera1,1";
            device.manufacturer = "Orvane";
            device.deviceType = AVCaptureDeviceTypeExternal;
            device.formats = {{1280, 720, 30, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, false},
                              {640, 480, 30, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, false}};
            break;
        case Kind::microphone:
            device.name = "Synthetic Microphone";
            device.modelID = "SyntheticMicrophone1,1";
            device.manufacturer = "Orvane";
            device.deviceType = AVCaptureDeviceTypeMicrophone;
            break;
        case Kind::phone:
            device.name = "Synthetic Phone";
            device.modelID = "SyntheticPhone1,1";
            device.manufacturer = "Orvane";
            device.deviceType = AVCaptureDeviceTypeExternalUnknown;
            device.formats = {{590, 1278, 30, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, false}};
            device.audio = {48000, 2, 1024, {880, 0.25}};
            break;
    }
    return device;
}

SyntheticWorld SyntheticWorld::makeDefault() {
    SyntheticWorld world;
    world.displays.push_back(SyntheticDisplay{});
    world.applications.push_back({1001, "Synthetic Notes", "dev.orvane.synthetic.notes"});
    SyntheticWindow window;
    window.id = 101;
    window.title = "Synthetic Window";
    window.frame = {{100, 100}, {800, 600}};
    window.ownerPID = 1001;
    world.windows.push_back(window);
    world.devices.push_back(SyntheticDevice::make(SyntheticDevice::Kind::camera, "synthetic-camera"));
    world.devices.push_back(SyntheticDevice::make(SyntheticDevice::Kind::microphone, "synthetic-microphone"));
    return world;
}

// ---- Validation.

namespace {
void requireValid(bool condition, const std::string& message) {
    if (!condition) throw std::invalid_argument(message);
}

void validateAudio(const SyntheticAudio& audio, const std::string& owner) {
    requireValid(std::isfinite(audio.sampleRate) && audio.sampleRate >= 1000 && audio.sampleRate <= 384000,
                 owner + ": sampleRate must be between 1000 and 384000");
    // Sample times are computed in whole samples per second.
    requireValid(audio.sampleRate == std::floor(audio.sampleRate), owner + ": sampleRate must be a whole number");
    requireValid(audio.channels >= 1 && audio.channels <= 8, owner + ": channels must be between 1 and 8");
    requireValid(audio.bufferFrames >= 1 && audio.bufferFrames <= 65536,
                 owner + ": bufferFrames must be between 1 and 65536");
    requireValid(std::isfinite(audio.tone.frequency) && audio.tone.frequency >= 0 &&
                     audio.tone.frequency <= audio.sampleRate / 2,
                 owner + ": tone frequency must be between 0 and half the sample rate");
    requireValid(std::isfinite(audio.tone.level) && audio.tone.level >= 0 && audio.tone.level <= 1,
                 owner + ": tone level must be between 0 and 1");
}

// The pattern is drawn in these; a camera's other formats would need a converter.
bool isPatternFormat(OSType format) {
    return format == kCVPixelFormatType_32BGRA || format == kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange ||
           format == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange ||
           // Listed like a camera's packed formats; their pictures are drawn as BGRA.
           format == kCVPixelFormatType_422YpCbCr8_yuvs || format == OV_FOURCC('2', 'v', 'u', 'y');
}

void validateFrameRate(double frameRate, const std::string& owner) {
    requireValid(std::isfinite(frameRate) && frameRate >= 0.001 && frameRate <= 1000,
                 owner + ": frameRate must be above 0 and at most 1000");
}

void validateFaults(const std::vector<SyntheticFault>& faults, const std::string& owner) {
    for (const auto& fault : faults)
        requireValid(std::isfinite(fault.after) && fault.after >= 0, owner + ": a fault's after must be >= 0");
}

void validateRect(const CGRect& rect, const std::string& owner) {
    requireValid(std::isfinite(rect.origin.x) && std::isfinite(rect.origin.y) && std::isfinite(rect.size.width) &&
                     std::isfinite(rect.size.height) && rect.size.width >= 1 && rect.size.height >= 1,
                 owner + ": frame must have finite values and a size of at least 1x1");
}
}  // namespace

void SyntheticWorld::validate() const {
    std::set<uint32_t> displayIDs;
    for (const auto& display : displays) {
        const std::string owner = fmt::format("display {}", display.id);
        requireValid(display.id > 0, "display ids must be above 0");
        requireValid(displayIDs.insert(display.id).second, owner + ": the id is used twice");
        validateRect(display.frame, owner);
        requireValid(std::isfinite(display.scale) && display.scale >= 1 && display.scale <= 4,
                     owner + ": scale must be between 1 and 4");
        // The frame counter takes 32 cells across the top of a picture.
        requireValid(display.frame.size.width * display.scale >= 32, owner + ": must be at least 32 pixels wide");
        validateFrameRate(display.frameRate, owner);
        validateFaults(display.faults, owner);
    }
    std::set<int32_t> pids;
    for (const auto& application : applications) {
        requireValid(application.pid > 0, "application pids must be above 0");
        requireValid(pids.insert(application.pid).second, fmt::format("application {}: the pid is used twice", application.pid));
    }
    std::set<uint32_t> windowIDs;
    for (const auto& window : windows) {
        const std::string owner = fmt::format("window {}", window.id);
        requireValid(window.id > 0, "window ids must be above 0");
        requireValid(windowIDs.insert(window.id).second, owner + ": the id is used twice");
        validateRect(window.frame, owner);
        requireValid(window.frame.size.width >= 32, owner + ": must be at least 32 points wide");
        requireValid(!window.ownerPID || pids.count(*window.ownerPID),
                     owner + ": ownerPID names no application of the world");
        validateFaults(window.faults, owner);
    }
    std::set<std::string> uniqueIDs;
    for (const auto& device : devices) {
        const std::string owner = "device \"" + device.uniqueID + "\"";
        requireValid(!device.uniqueID.empty(), "device uniqueIDs must not be empty");
        requireValid(uniqueIDs.insert(device.uniqueID).second, owner + ": the uniqueID is used twice");
        if (device.kind != SyntheticDevice::Kind::microphone) {
            requireValid(!device.formats.empty(), owner + ": a video device needs at least one format");
            requireValid(device.activeFormat < device.formats.size(), owner + ": activeFormat is not a format index");
            for (const auto& format : device.formats) {
                requireValid(format.width >= 32 && format.height >= 2 && format.width % 2 == 0 &&
                                 format.height % 2 == 0 && format.width <= 16384 && format.height <= 16384,
                             owner + ": format sizes must be even, at least 32x2 and at most 16384x16384");
                validateFrameRate(format.frameRate, owner);
                requireValid(isPatternFormat(format.pixelFormat),
                             owner + ": unsupported pixel format " + fourCharCodeString(format.pixelFormat));
            }
        }
        if (device.kind != SyntheticDevice::Kind::camera) validateAudio(device.audio, owner);
        validateFaults(device.faults, owner);
    }
    validateAudio(systemAudio, "systemAudio");
}

// ---- Decoding.

namespace {
// Refuses keys the world format doesn't know, so that typos are told.
void requireKnownKeys(const Decoder& d, std::string_view typeName, std::initializer_list<std::string_view> known) {
    d.requireObject(typeName);
    for (const auto& key : d.allKeys())
        if (std::find(known.begin(), known.end(), key) == known.end())
            d[key].throwDataCorrupted("Unknown key \"" + key + "\" in " + std::string(typeName));
}

template <class T>
T decodeOr(const Decoder& d, std::string_view key, T fallback) {
    return d.decodeIfPresent<T>(key).value_or(std::move(fallback));
}

double decodeNumber(const Decoder& d, std::string_view key, double fallback, double min, double max) {
    auto value = d.ifPresent(key);
    if (!value) return fallback;
    const double number = value->decode<double>();
    if (!(number >= min && number <= max))
        value->throwDataCorrupted(fmt::format("Expected a number from {:g} to {:g}, found {:g}", min, max, number));
    return number;
}

FourCharCode decodeFourCC(const Decoder& d) {
    const auto text = d.decode<std::string>();
    if (text.size() != 4) d.throwDataCorrupted("Expected four characters, found \"" + text + "\"");
    return OV_FOURCC(text[0], text[1], text[2], text[3]);
}

// A clock offset in seconds; an explicit null says "no clock".
std::optional<double> decodeClock(const Decoder& d, std::optional<double> fallback) {
    if (!d.contains("synchronizationClock")) return fallback;
    if (d.json()["synchronizationClock"].is_null()) return std::nullopt;
    auto clock = d["synchronizationClock"];
    requireKnownKeys(clock, "SynchronizationClock", {"offset"});
    return decodeNumber(clock, "offset", 0.0, -1e6, 1e6);
}

CGRect decodeRect(const Decoder& d) {
    requireKnownKeys(d, "Frame", {"x", "y", "width", "height"});
    return {{d.decode<double>("x"), d.decode<double>("y")}, {d.decode<double>("width"), d.decode<double>("height")}};
}

SyntheticFault decodeFault(const Decoder& d) {
    requireKnownKeys(d, "Fault", {"kind", "after", "domain", "code", "message"});
    SyntheticFault fault;
    const auto kindDecoder = d["kind"];
    const auto kind = kindDecoder.decode<std::string>();
    static const std::pair<const char*, SyntheticFault::Kind> kinds[] = {
        {"neverDelivers", SyntheticFault::Kind::neverDelivers},
        {"stopsDelivering", SyntheticFault::Kind::stopsDelivering},
        {"stopsWithError", SyntheticFault::Kind::stopsWithError},
        {"disappears", SyntheticFault::Kind::disappears},
        {"goesIdle", SyntheticFault::Kind::goesIdle},
        {"silentUntilCenterStageToggle", SyntheticFault::Kind::silentUntilCenterStageToggle},
        {"hangsOnStop", SyntheticFault::Kind::hangsOnStop}};
    bool found = false;
    for (const auto& [name, value] : kinds)
        if (kind == name) fault.kind = value, found = true;
    if (!found)
        kindDecoder.throwDataCorrupted("Unknown fault kind \"" + kind +
                                       "\"; expected neverDelivers, stopsDelivering, stopsWithError, disappears, goesIdle, "
                                       "silentUntilCenterStageToggle or hangsOnStop");
    fault.after = decodeNumber(d, "after", 0.0, 0.0, 1e9);
    fault.domain = d.decodeIfPresent<std::string>("domain");
    fault.code = d.decodeIfPresent<int64_t>("code");
    fault.message = d.decodeIfPresent<std::string>("message");
    return fault;
}

std::vector<SyntheticFault> decodeFaults(const Decoder& d) {
    std::vector<SyntheticFault> faults;
    if (auto list = d.ifPresent("faults")) {
        list->requireArray("Array<Fault>");
        for (size_t i = 0; i < list->count(); ++i) faults.push_back(decodeFault(list->at(i)));
    }
    return faults;
}

SyntheticAudio decodeAudio(const Decoder& d, SyntheticAudio audio) {
    requireKnownKeys(d, "Audio", {"sampleRate", "channels", "bufferFrames", "tone"});
    audio.sampleRate = decodeNumber(d, "sampleRate", audio.sampleRate, 1000, 384000);
    audio.channels = static_cast<uint32_t>(decodeNumber(d, "channels", audio.channels, 1, 8));
    audio.bufferFrames = static_cast<uint32_t>(decodeNumber(d, "bufferFrames", audio.bufferFrames, 1, 65536));
    if (auto tone = d.ifPresent("tone")) {
        requireKnownKeys(*tone, "Tone", {"frequency", "level"});
        audio.tone.frequency = decodeNumber(*tone, "frequency", audio.tone.frequency, 0, audio.sampleRate / 2);
        audio.tone.level = decodeNumber(*tone, "level", audio.tone.level, 0, 1);
    }
    return audio;
}

SyntheticVideoFormat decodeFormat(const Decoder& d) {
    requireKnownKeys(d, "Format", {"width", "height", "frameRate", "pixelFormat", "centerStageSupported"});
    SyntheticVideoFormat format;
    format.width = d.decode<int32_t>("width");
    format.height = d.decode<int32_t>("height");
    format.frameRate = decodeNumber(d, "frameRate", format.frameRate, 0.001, 1000);
    if (auto pixelFormat = d.ifPresent("pixelFormat")) {
        format.pixelFormat = decodeFourCC(*pixelFormat);
        if (!isPatternFormat(format.pixelFormat))
            pixelFormat->throwDataCorrupted("Unsupported pixel format \"" + fourCharCodeString(format.pixelFormat) +
                                            "\"; expected BGRA, 420v, 420f, yuvs or 2vuy");
    }
    format.centerStageSupported = decodeOr<bool>(d, "centerStageSupported", false);
    return format;
}

AVAuthorizationStatus decodeStatus(const Decoder& d) {
    const auto text = d.decode<std::string>();
    for (auto status : {AVAuthorizationStatus::notDetermined, AVAuthorizationStatus::restricted,
                        AVAuthorizationStatus::denied, AVAuthorizationStatus::authorized})
        if (toString(status) == text) return status;
    d.throwDataCorrupted("Unknown authorization status \"" + text +
                         "\"; expected notDetermined, restricted, denied or authorized");
}

SyntheticDevice decodeDevice(const Decoder& d, SyntheticDevice::Kind kind) {
    const char* typeName = kind == SyntheticDevice::Kind::camera       ? "Camera"
                           : kind == SyntheticDevice::Kind::microphone ? "Microphone"
                                                                       : "Phone";
    const bool hasVideo = kind != SyntheticDevice::Kind::microphone;
    const bool hasAudio = kind != SyntheticDevice::Kind::camera;
    std::vector<std::string_view> known = {"uniqueID", "name", "modelID", "manufacturer", "transportType",
                                           "deviceType", "connected", "suspended", "inUseByAnotherApplication",
                                           "synchronizationClock", "faults"};
    if (hasVideo) known.insert(known.end(), {"formats", "activeFormat"});
    if (hasAudio) known.push_back("audio");
    d.requireObject(typeName);
    for (const auto& key : d.allKeys())
        if (std::find(known.begin(), known.end(), key) == known.end())
            d[key].throwDataCorrupted("Unknown key \"" + key + "\" in " + typeName);

    auto device = SyntheticDevice::make(kind, d.decode<std::string>("uniqueID"));
    if (device.uniqueID.empty()) d["uniqueID"].throwDataCorrupted("A uniqueID must not be empty");
    device.name = decodeOr<std::string>(d, "name", device.name);
    device.modelID = decodeOr<std::string>(d, "modelID", device.modelID);
    device.manufacturer = decodeOr<std::string>(d, "manufacturer", device.manufacturer);
    if (auto transport = d.ifPresent("transportType")) device.transportType = decodeFourCC(*transport);
    device.deviceType = decodeOr<std::string>(d, "deviceType", device.deviceType);
    device.connected = decodeOr<bool>(d, "connected", true);
    device.suspended = decodeOr<bool>(d, "suspended", false);
    device.inUseByAnotherApplication = decodeOr<bool>(d, "inUseByAnotherApplication", false);
    device.clockOffset = decodeClock(d, device.clockOffset);
    device.faults = decodeFaults(d);
    if (auto formats = d.ifPresent("formats")) {
        formats->requireArray("Array<Format>");
        if (formats->count() == 0) formats->throwDataCorrupted("A video device needs at least one format");
        device.formats.clear();
        for (size_t i = 0; i < formats->count(); ++i) device.formats.push_back(decodeFormat(formats->at(i)));
    }
    if (auto active = d.ifPresent("activeFormat")) {
        device.activeFormat = active->decode<uint32_t>();
        if (device.activeFormat >= device.formats.size())
            active->throwDataCorrupted(fmt::format("activeFormat {} is not an index of the {} formats",
                                                   device.activeFormat, device.formats.size()));
    }
    if (auto audio = d.ifPresent("audio")) device.audio = decodeAudio(*audio, device.audio);
    return device;
}
}  // namespace

SyntheticWorld SyntheticWorld::decode(const coding::Json& json) {
    const Decoder root(json);
    requireKnownKeys(root, "SyntheticWorld",
                     {"displays", "applications", "windows", "cameras", "microphones", "phones", "systemAudio",
                      "authorization", "machineModel", "input"});
    SyntheticWorld world;
    world.machineModel = root.decodeIfPresent<std::string>("machineModel");
    auto eachOf = [&](std::string_view key, std::string_view typeName, auto&& body) {
        auto list = root.ifPresent(key);
        if (!list) return;
        list->requireArray(typeName);
        for (size_t i = 0; i < list->count(); ++i) body(list->at(i));
    };

    std::set<uint32_t> displayIDs;
    eachOf("displays", "Array<Display>", [&](const Decoder& d) {
        requireKnownKeys(d, "Display",
                         {"id", "name", "frame", "scale", "frameRate", "isMain", "isBuiltIn", "synchronizationClock",
                          "faults"});
        SyntheticDisplay display;
        display.id = d.decode<uint32_t>("id");
        if (display.id == 0) d["id"].throwDataCorrupted("A display id must be above 0");
        if (!displayIDs.insert(display.id).second) d["id"].throwDataCorrupted("The display id is used twice");
        display.name = decodeOr<std::string>(d, "name", display.name);
        display.frame = decodeRect(d["frame"]);
        display.scale = decodeNumber(d, "scale", 1, 1, 4);
        display.frameRate = decodeNumber(d, "frameRate", 30, 0.001, 1000);
        display.isMain = decodeOr<bool>(d, "isMain", world.displays.empty());
        display.isBuiltIn = decodeOr<bool>(d, "isBuiltIn", false);
        display.clockOffset = decodeClock(d, display.clockOffset);
        display.faults = decodeFaults(d);
        world.displays.push_back(display);
    });

    std::set<int32_t> pids;
    eachOf("applications", "Array<Application>", [&](const Decoder& d) {
        requireKnownKeys(d, "Application", {"pid", "name", "bundleIdentifier"});
        SyntheticApplication application;
        application.pid = d.decode<int32_t>("pid");
        if (application.pid <= 0) d["pid"].throwDataCorrupted("A pid must be above 0");
        if (!pids.insert(application.pid).second) d["pid"].throwDataCorrupted("The pid is used twice");
        application.name = decodeOr<std::string>(d, "name", "Application " + std::to_string(application.pid));
        application.bundleIdentifier = decodeOr<std::string>(d, "bundleIdentifier", "");
        world.applications.push_back(application);
    });

    std::set<uint32_t> windowIDs;
    eachOf("windows", "Array<Window>", [&](const Decoder& d) {
        requireKnownKeys(d, "Window", {"id", "title", "frame", "ownerPID", "layer", "onScreen", "faults"});
        SyntheticWindow window;
        window.id = d.decode<uint32_t>("id");
        if (window.id == 0) d["id"].throwDataCorrupted("A window id must be above 0");
        if (!windowIDs.insert(window.id).second) d["id"].throwDataCorrupted("The window id is used twice");
        window.title = d.decodeIfPresent<std::string>("title");
        window.frame = decodeRect(d["frame"]);
        if (auto owner = d.ifPresent("ownerPID")) {
            window.ownerPID = owner->decode<int32_t>();
            if (!pids.count(*window.ownerPID)) owner->throwDataCorrupted("No application has this pid");
        }
        window.layer = decodeOr<int32_t>(d, "layer", 0);
        window.onScreen = decodeOr<bool>(d, "onScreen", true);
        window.faults = decodeFaults(d);
        world.windows.push_back(window);
    });

    std::set<std::string> uniqueIDs;
    auto devicesOf = [&](std::string_view key, std::string_view typeName, SyntheticDevice::Kind kind) {
        eachOf(key, typeName, [&](const Decoder& d) {
            auto device = decodeDevice(d, kind);
            if (!uniqueIDs.insert(device.uniqueID).second)
                d["uniqueID"].throwDataCorrupted("The uniqueID \"" + device.uniqueID + "\" is used twice");
            world.devices.push_back(std::move(device));
        });
    };
    devicesOf("cameras", "Array<Camera>", SyntheticDevice::Kind::camera);
    devicesOf("microphones", "Array<Microphone>", SyntheticDevice::Kind::microphone);
    devicesOf("phones", "Array<Phone>", SyntheticDevice::Kind::phone);

    if (auto audio = root.ifPresent("systemAudio")) world.systemAudio = decodeAudio(*audio, world.systemAudio);
    if (auto authorization = root.ifPresent("authorization")) {
        requireKnownKeys(*authorization, "Authorization",
                         {"camera", "microphone", "screen", "inputMonitoring", "accessibility", "systemAudio",
                          "grantsRequests"});
        if (auto camera = authorization->ifPresent("camera")) world.authorization.camera = decodeStatus(*camera);
        if (auto microphone = authorization->ifPresent("microphone"))
            world.authorization.microphone = decodeStatus(*microphone);
        world.authorization.screen = decodeOr<bool>(*authorization, "screen", true);
        world.authorization.inputMonitoring = decodeOr<bool>(*authorization, "inputMonitoring", true);
        world.authorization.accessibility = decodeOr<bool>(*authorization, "accessibility", true);
        world.authorization.grantsRequests = decodeOr<bool>(*authorization, "grantsRequests", true);
        if (auto systemAudio = authorization->ifPresent("systemAudio")) {
            const auto text = systemAudio->decode<std::string>();
            if (text == "authorized") world.authorization.systemAudio = 0;
            else if (text == "denied") world.authorization.systemAudio = 1;
            else if (text == "undetermined") world.authorization.systemAudio = 2;
            else
                systemAudio->throwDataCorrupted("Unknown system audio status \"" + text +
                                                "\"; expected authorized, denied or undetermined");
        }
    }

    if (auto input = root.ifPresent("input")) {
        requireKnownKeys(*input, "Input", {"cursor", "events", "tapFails"});
        if (auto cursor = input->ifPresent("cursor")) {
            requireKnownKeys(*cursor, "Cursor", {"name", "x", "y"});
            world.input.cursorName = decodeOr<std::string>(*cursor, "name", world.input.cursorName);
            if (cursor->contains("x") || cursor->contains("y"))
                world.input.cursorLocation = CGPoint{cursor->decode<double>("x"), cursor->decode<double>("y")};
        }
        world.input.tapFails = decodeOr<bool>(*input, "tapFails", false);
        if (auto events = input->ifPresent("events")) {
            events->requireArray("Array<InputEvent>");
            for (size_t i = 0; i < events->count(); ++i) {
                const Decoder e = events->at(i);
                requireKnownKeys(e, "InputEvent", {"after", "kind", "x", "y", "button", "keysym", "name"});
                SyntheticInputEvent event;
                event.after = e.decode<double>("after");
                if (!(event.after >= 0)) e["after"].throwDataCorrupted("after must be 0 or more");
                static const std::map<std::string, SyntheticInputEvent::Kind> kinds{
                    {"move", SyntheticInputEvent::Kind::move},       {"buttonDown", SyntheticInputEvent::Kind::buttonDown},
                    {"buttonUp", SyntheticInputEvent::Kind::buttonUp}, {"keyDown", SyntheticInputEvent::Kind::keyDown},
                    {"keyUp", SyntheticInputEvent::Kind::keyUp},     {"cursor", SyntheticInputEvent::Kind::cursor}};
                const auto kind = e.decode<std::string>("kind");
                auto found = kinds.find(kind);
                if (found == kinds.end()) e["kind"].throwDataCorrupted("Unknown input event kind " + kind);
                event.kind = found->second;
                event.x = decodeOr<double>(e, "x", 0);
                event.y = decodeOr<double>(e, "y", 0);
                event.button = decodeOr<int32_t>(e, "button", 1);
                event.keysym = decodeOr<std::string>(e, "keysym", "");
                event.name = decodeOr<std::string>(e, "name", "");
                world.input.events.push_back(std::move(event));
            }
        }
    }

    // What the decoder can't pin to one value (sizes too small for the
    // pattern, say) is still refused, at the root.
    try {
        world.validate();
    } catch (const std::invalid_argument& error) {
        root.throwDataCorrupted(error.what());
    }
    return world;
}

SyntheticWorld SyntheticWorld::load(const std::filesystem::path& path) {
    auto fail = [&](const std::string& detail) -> PlatformError {
        return PlatformError(CapturePlatform::errorDomain, CapturePlatform::badWorld,
                             "The synthetic world file can't be read.",
                             "Synthetic world " + path.string() + ": " + detail);
    };
    std::ifstream file(path, std::ios::binary);
    if (!file) throw fail("can't open the file");
    std::stringstream text;
    text << file.rdbuf();
    try {
        return decode(coding::parseJSON(text.str()));
    } catch (const coding::DecodingError& error) {
        throw fail(error.rendering());
    }
}

}  // namespace ov::platform
