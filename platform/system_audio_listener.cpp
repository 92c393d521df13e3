#include "platform/system_audio_listener.h"

#include <map>
#include <mutex>

#include "foundation/platform_error.h"
#include "platform/capture_platform.h"

namespace ov::platform {

namespace {
std::mutex& registryMutex() {
    static std::mutex mutex;
    return mutex;
}
std::map<std::string, SystemAudioListenerMaker>& registry() {
    static std::map<std::string, SystemAudioListenerMaker> makers;
    return makers;
}
}  // namespace

void registerSystemAudioListener(const std::string& platformName, SystemAudioListenerMaker maker) {
    std::lock_guard lock(registryMutex());
    registry()[platformName] = std::move(maker);
}

std::unique_ptr<SystemAudioListener> makeSystemAudioListener() {
    const std::string name = CapturePlatform::shared()->name();
    SystemAudioListenerMaker maker;
    {
        std::lock_guard lock(registryMutex());
        if (auto it = registry().find(name); it != registry().end()) maker = it->second;
    }
    if (!maker)
        throw PlatformError("Orvane.CapturePlatform", 1, "System audio can't be captured on this platform.",
                            "No system audio listener for the \"" + name + "\" platform.");
    return maker();
}

}  // namespace ov::platform
