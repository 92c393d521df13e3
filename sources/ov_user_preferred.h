#pragma once
// OVUserPreferred: the sources the user recorded last, most recent first, at
// most five per kind, kept in the user defaults:
//
//   "OVPreferredMicrophones"  microphone ids (text)
//   "OVPreferredCameras"      camera ids (text)
//   "OVPreferredDisplays"     display ids (unsigned 32-bit)
//   "OVPreferredAppleDevices" phone ids (text)
//
// Anything under a key but a whole array of the element type reads as an
// empty list, and a read never writes. Each update puts the id first, drops
// its repeats, keeps five and asks that kind's discovery to update (through
// the handler the discovery installed, when it exists).

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "output/ov_logger.h"
#include "session/ov_recorder_schema.h"
#include "sources/user_defaults.h"

namespace ov {

class OVUserPreferred {
public:
    enum class Kind { microphone, camera, display, appleDevice };

    static constexpr const char* microphonesKey = "OVPreferredMicrophones";
    static constexpr const char* camerasKey = "OVPreferredCameras";
    static constexpr const char* displaysKey = "OVPreferredDisplays";
    static constexpr const char* appleDevicesKey = "OVPreferredAppleDevices";
    static constexpr size_t maximumCount = 5;

    explicit OVUserPreferred(UserDefaults& defaults) : defaults_(&defaults) {}
    // Over the standard user defaults.
    static OVUserPreferred& shared();

    std::vector<std::string> microphoneIDs() const { return textIDs(microphonesKey); }
    std::vector<std::string> cameraIDs() const { return textIDs(camerasKey); }
    std::vector<uint32_t> displayIDs() const;
    std::vector<std::string> appleDeviceIDs() const { return textIDs(appleDevicesKey); }

    void updateMicrophone(const std::string& id);
    void updateCamera(const std::string& id);
    void updateDisplay(uint32_t id);
    void updateAppleDevice(const std::string& id);

    // Walks the items in order: a webcam updates its camera then its
    // microphone, microphones their microphone, a display its display, phones
    // their device; the last item of a kind thus ends at the head.
    void updateFromSchema(const OVRecorderSchema& schema);

    // What runs a kind's discovery's triggerUpdate(); installed by the discovery.
    static void setTriggerUpdate(Kind kind, std::function<void()> trigger);

private:
    std::vector<std::string> textIDs(const char* key) const;
    void updatePreferredID(const std::string& id, const char* key);
    void updatePreferredID(uint32_t id, const char* key);
    static void triggerUpdate(Kind kind);

    UserDefaults* defaults_;
    Logger logger_{"OVUserPreferred"};
};

}  // namespace ov
