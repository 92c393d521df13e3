#pragma once
// SyntheticWorld: the displays, windows, applications and capture devices
// that the synthetic backend generates, and the faults scripted for them.
//
// A world is built in code by tests, or read from a JSON file (the one named
// by ORVANE_SYNTHETIC_WORLD). Every key is optional unless marked required;
// unknown keys are refused, so that a misspelt fault doesn't silently pass.
//
//   {
//     "displays": [{
//       "id": 1,                       required, unique, > 0
//       "name": "Synthetic Display",
//       "frame": {"x": 0, "y": 0, "width": 1920, "height": 1080},   points, required
//       "scale": 1,                    pixels per point (1..4)
//       "frameRate": 30,               frames per second (0 < rate <= 1000)
//       "isMain": true, "isBuiltIn": false,
//       "synchronizationClock": {"offset": 0.0},   or null for none; seconds ahead of host time
//       "faults": [FAULT, ...]
//     }],
//     "applications": [{"pid": 1001, "name": "Notes", "bundleIdentifier": "dev.example.notes"}],
//     "windows": [{
//       "id": 101,                     required, unique, > 0
//       "title": "Window",             or null
//       "frame": {...},                required, global points
//       "ownerPID": 1001,              one of the applications, or absent
//       "layer": 0, "onScreen": true,
//       "faults": [FAULT, ...]
//     }],
//     "cameras": [DEVICE], "microphones": [DEVICE], "phones": [DEVICE],
//     "systemAudio": AUDIO,            what screen streams capture as system audio
//     "machineModel": "MacBookPro16,1", the machine's model identifier (absent: unknown)
//     "authorization": {"camera": "authorized", "microphone": "authorized", "screen": true,
//                       "inputMonitoring": true, "accessibility": true,
//                       "systemAudio": "authorized",   authorized, denied or undetermined
//                       "grantsRequests": true}        what a request of a notDetermined
//                                                      camera or microphone answers
//                                      statuses: notDetermined, restricted, denied, authorized
//     "input": {
//       "cursor": {"name": "left_ptr", "x": 960, "y": 540},   default: arrow at the main display's centre
//       "events": [{"after": 0.5, "kind": "move" | "buttonDown" | "buttonUp" | "keyDown" | "keyUp" | "cursor",
//                   "x": 10, "y": 20,      move (global points)
//                   "button": 1,           buttonDown/Up: X numbering, 1 left, 2 middle, 3 right, 8, 9 ...
//                   "keysym": "a",         keyDown/Up: an X keysym name ("a", "A", "Escape", "Shift_L")
//                   "name": "xterm"}],     cursor: a theme cursor name; "" for an unnamed cursor
//       "tapFails": false               the input feed can't be created
//     }
//   }
//
//   DEVICE = {
//     "uniqueID": "cam-1",             required, unique across all devices
//     "name": "...", "modelID": "...", "manufacturer": "...",
//     "transportType": "usb ",         four characters: "bltn", "usb ", "virt", "blue"
//     "deviceType": "AVCaptureDeviceTypeExternal",
//     "formats": [{"width": 1280, "height": 720, "frameRate": 30, "pixelFormat": "420v",
//                  "centerStageSupported": false}],        cameras and phones
//     "activeFormat": 0,               index into formats
//     "audio": AUDIO,                  microphones and phones
//     "connected": true, "suspended": false, "inUseByAnotherApplication": false,
//     "synchronizationClock": {"offset": 0.0},   or null
//     "faults": [FAULT, ...]
//   }
//   AUDIO = {"sampleRate": 48000, "channels": 1, "bufferFrames": 1024,
//            "tone": {"frequency": 440, "level": 0.25}}    level: peak amplitude 0..1
//   FAULT = {"kind": "neverDelivers" | "stopsDelivering" | "stopsWithError" | "disappears" | "goesIdle"
//                    | "silentUntilCenterStageToggle" | "hangsOnStop",
//            "after": 0.0,             seconds after capture starts
//            "domain": "...", "code": -3821, "message": "..."}   for stopsWithError
//
// Fault kinds, as a recorder sees them:
//   neverDelivers    capture starts, and no sample ever arrives.
//   stopsDelivering  samples stop arriving after `after`; no error is told.
//   stopsWithError   after `after`, a screen stream stops and its delegate hears
//                    the error (default SCStreamError -3821); a device's
//                    session reports it as a runtime error (default
//                    AVFoundationErrorDomain -11819).
//   disappears       after `after`, the device, display or window is gone:
//                    isConnected false, out of every list, delivery ends with an
//                    error (a session runtime error, or a stream stop -3815).
//   goesIdle         screens: after `after`, frames carry the idle status and no
//                    picture.
//   silentUntilCenterStageToggle
//                    cameras: nothing arrives until the class-level Center Stage
//                    setting changes after capture starts, as some cameras do.
//   hangsOnStop      cameras, microphones, phones: stopping capture doesn't
//                    return for a minute (a driver stuck in a read), while
//                    samples keep coming; `after` is not used.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "foundation/json_coding.h"
#include "platform/av_capture_device.h"
#include "platform/cg_geometry.h"
#include "platform/cm_time.h"

namespace ov::platform {

struct SyntheticFault {
    enum class Kind {
        neverDelivers,
        stopsDelivering,
        stopsWithError,
        disappears,
        goesIdle,
        silentUntilCenterStageToggle,
        hangsOnStop
    };
    Kind kind = Kind::neverDelivers;
    double after = 0;
    std::optional<std::string> domain;
    std::optional<int64_t> code;
    std::optional<std::string> message;

    static SyntheticFault make(Kind kind, double after = 0) {
        SyntheticFault fault;
        fault.kind = kind;
        fault.after = after;
        return fault;
    }
};

struct SyntheticTone {
    double frequency = 440;
    double level = 0.25;
};

struct SyntheticAudio {
    double sampleRate = 48000;
    uint32_t channels = 1;
    uint32_t bufferFrames = 1024;
    SyntheticTone tone;
};

struct SyntheticVideoFormat {
    int32_t width = 1280;
    int32_t height = 720;
    double frameRate = 30;
    OSType pixelFormat = kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;
    bool centerStageSupported = false;

    // 1/frameRate as an exact fraction for whole and millesimal rates (29.97
    // gives 1000/29970).
    CMTime frameDuration() const;
};

struct SyntheticDisplay {
    uint32_t id = 1;
    std::string name = "Synthetic Display";
    CGRect frame{{0, 0}, {1920, 1080}};
    double scale = 1;
    double frameRate = 30;
    bool isMain = true;
    bool isBuiltIn = false;
    // Seconds that the stream's clock runs ahead of host time; none: no clock.
    std::optional<double> clockOffset = 0.0;
    std::vector<SyntheticFault> faults;
};

struct SyntheticApplication {
    int32_t pid = 0;
    std::string name;
    std::string bundleIdentifier;
};

struct SyntheticWindow {
    uint32_t id = 0;
    std::optional<std::string> title;
    CGRect frame;
    std::optional<int32_t> ownerPID;
    int32_t layer = 0;
    bool onScreen = true;
    std::vector<SyntheticFault> faults;
};

struct SyntheticDevice {
    enum class Kind { camera, microphone, phone };
    Kind kind = Kind::camera;
    std::string uniqueID;
    std::string name;
    std::string modelID;
    std::string manufacturer;
    uint32_t transportType = kAVCaptureDeviceTransportTypeUSB;
    AVCaptureDeviceType deviceType;
    std::vector<SyntheticVideoFormat> formats;
    size_t activeFormat = 0;
    SyntheticAudio audio;
    bool connected = true;
    bool suspended = false;
    bool inUseByAnotherApplication = false;
    std::optional<double> clockOffset = 0.0;
    std::vector<SyntheticFault> faults;

    // A device of the kind with the kind's defaults (names, type, formats).
    static SyntheticDevice make(Kind kind, std::string uniqueID);
};

struct SyntheticAuthorization {
    AVAuthorizationStatus camera = AVAuthorizationStatus::authorized;
    AVAuthorizationStatus microphone = AVAuthorizationStatus::authorized;
    bool screen = true;
    bool inputMonitoring = true;
    bool accessibility = true;
    // 0 authorized, 1 denied, 2 undetermined: per-application audio capture.
    int systemAudio = 0;
    // The answer to a request while the camera or microphone is notDetermined;
    // the status then settles to authorized or denied.
    bool grantsRequests = true;
};

struct SyntheticInputEvent {
    enum class Kind { move, buttonDown, buttonUp, keyDown, keyUp, cursor };
    // Seconds after the feed starts.
    double after = 0;
    Kind kind = Kind::move;
    double x = 0;
    double y = 0;
    int button = 1;
    std::string keysym;
    std::string name;
};

struct SyntheticInput {
    std::string cursorName = "left_ptr";
    // Absent: the centre of the main display.
    std::optional<CGPoint> cursorLocation;
    std::vector<SyntheticInputEvent> events;
    bool tapFails = false;
};

struct SyntheticWorld {
    // The machine's model identifier; absent: none can be read.
    std::optional<std::string> machineModel;
    std::vector<SyntheticDisplay> displays;
    std::vector<SyntheticApplication> applications;
    std::vector<SyntheticWindow> windows;
    std::vector<SyntheticDevice> devices;
    SyntheticAudio systemAudio{48000, 2, 1024, {440, 0.25}};
    SyntheticAuthorization authorization;
    SyntheticInput input;

    // One 1920x1080 display at 30 fps, one application with one window, one
    // camera (1280x720 at 30 fps), one microphone (440 Hz at 48 kHz, mono).
    static SyntheticWorld makeDefault();
    // An empty world: nothing to capture.
    static SyntheticWorld makeEmpty() { return {}; }

    // Reads a world. Throws coding::DecodingError with the coding path of the
    // offending value.
    static SyntheticWorld decode(const coding::Json& json);
    // Reads a world file. Throws a PlatformError (domain
    // "Orvane.CapturePlatform", code badWorld) naming the file and, for bad
    // content, the coding path.
    static SyntheticWorld load(const std::filesystem::path& path);

    // Checks the world's consistency (unique ids, owners that exist, sizes the
    // pattern fits in); throws std::invalid_argument. decode() checks too.
    void validate() const;
};

std::string toString(SyntheticFault::Kind kind);

}  // namespace ov::platform
