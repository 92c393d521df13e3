#include "sources/ov_user_preferred.h"

#include <algorithm>
#include <type_traits>
#include <array>
#include <mutex>

#include "session/ov_recorder.h"

namespace ov {

namespace {

std::mutex& triggersMutex() {
    static std::mutex mutex;
    return mutex;
}

std::array<std::function<void()>, 4>& triggers() {
    static std::array<std::function<void()>, 4> all;
    return all;
}

template <class T>
std::vector<T> readList(const UserDefaults& defaults, const char* key) {
    const auto value = defaults.object(key);
    if (!value || !value->is_array()) return {};
    std::vector<T> out;
    for (const auto& element : *value) {
        if constexpr (std::is_same_v<T, std::string>) {
            if (!element.is_string()) return {};
            out.push_back(element.get<std::string>());
        } else {
            if (!element.is_number_unsigned() || element.get<uint64_t>() > UINT32_MAX) return {};
            out.push_back(static_cast<T>(element.get<uint64_t>()));
        }
    }
    return out;
}

template <class T>
void update(UserDefaults& defaults, const T& id, const char* key) {
    auto list = readList<T>(defaults, key);
    list.erase(std::remove(list.begin(), list.end(), id), list.end());
    list.insert(list.begin(), id);
    if (list.size() > OVUserPreferred::maximumCount) list.resize(OVUserPreferred::maximumCount);
    defaults.setObject(nlohmann::json(list), key);
}

// The recorder calls back into this folder as a recording starts.
const bool schemaHookInstalled = [] {
    OVRecorder::setUserPreferredUpdater([](const OVRecorderSchema& schema) {
        OVUserPreferred::shared().updateFromSchema(schema);
    });
    return true;
}();

}  // namespace

OVUserPreferred& OVUserPreferred::shared() {
    static OVUserPreferred preferred(UserDefaults::standard());
    return preferred;
}

std::vector<std::string> OVUserPreferred::textIDs(const char* key) const { return readList<std::string>(*defaults_, key); }

std::vector<uint32_t> OVUserPreferred::displayIDs() const { return readList<uint32_t>(*defaults_, displaysKey); }

void OVUserPreferred::updatePreferredID(const std::string& id, const char* key) { update(*defaults_, id, key); }
void OVUserPreferred::updatePreferredID(uint32_t id, const char* key) { update(*defaults_, id, key); }

void OVUserPreferred::setTriggerUpdate(Kind kind, std::function<void()> trigger) {
    std::lock_guard lock(triggersMutex());
    triggers()[static_cast<size_t>(kind)] = std::move(trigger);
}

void OVUserPreferred::triggerUpdate(Kind kind) {
    std::function<void()> trigger;
    {
        std::lock_guard lock(triggersMutex());
        trigger = triggers()[static_cast<size_t>(kind)];
    }
    if (trigger) trigger();
}

void OVUserPreferred::updateMicrophone(const std::string& id) {
    logger_.info("Update preferred microphone");
    updatePreferredID(id, microphonesKey);
    triggerUpdate(Kind::microphone);
}

void OVUserPreferred::updateCamera(const std::string& id) {
    logger_.info("Update preferred camera");
    updatePreferredID(id, camerasKey);
    triggerUpdate(Kind::camera);
}

void OVUserPreferred::updateDisplay(uint32_t id) {
    logger_.info("Update preferred display");
    updatePreferredID(id, displaysKey);
    triggerUpdate(Kind::display);
}

void OVUserPreferred::updateAppleDevice(const std::string& id) {
    logger_.info("Update preferred Apple device");
    updatePreferredID(id, appleDevicesKey);
    triggerUpdate(Kind::appleDevice);
}

void OVUserPreferred::updateFromSchema(const OVRecorderSchema& schema) {
    for (const auto& item : schema.items) {
        const auto& internal = item.internalItem;
        if (const auto* webcam = std::get_if<WebcamSchemaItem>(&internal)) {
            updateCamera(webcam->cameraID);
            updateMicrophone(webcam->microphoneID);
        } else if (const auto* mic = std::get_if<MicrophoneFileSchemaItem>(&internal)) {
            updateMicrophone(mic->microphoneID);
        } else if (const auto* micStream = std::get_if<MicrophoneStreamSchemaItem>(&internal)) {
            updateMicrophone(micStream->microphoneID);
        } else if (const auto* display = std::get_if<DisplaySchemaItem>(&internal)) {
            updateDisplay(display->displayID);
        } else if (const auto* device = std::get_if<AppleDeviceSchemaItem>(&internal)) {
            updateAppleDevice(device->deviceID);
        } else if (const auto* staticDevice = std::get_if<AppleDeviceStaticOrientationItem>(&internal)) {
            updateAppleDevice(staticDevice->deviceID);
        }
    }
}

}  // namespace ov
