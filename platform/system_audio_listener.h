#pragma once
// Listening to what the machine plays, for the system-audio permission probe:
// whether the sound server lets this process read its output. Each backend
// registers a maker under its CapturePlatform name.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ov::platform {

class SystemAudioListener {
public:
    // Mono float buffers as they arrive, on the listener's own thread; return
    // true to stop listening early.
    using BufferHandler = std::function<bool(const float* samples, size_t count)>;

    virtual ~SystemAudioListener() = default;

    // Reads the whole output (on Linux the default sink's monitor) for up to
    // `seconds`. Throws PlatformError when the server can't be reached or
    // refuses the stream.
    virtual void listenToSystemOutput(double seconds, const BufferHandler& onBuffer) = 0;

    // Plays `tone` (16-bit mono at `toneRate`, looped) muted, so that nobody
    // hears it, and reads this process's own playback for up to `seconds`.
    // Throws as above.
    virtual void listenToOwnMutedPlayback(const std::vector<int16_t>& tone, int toneRate, double seconds,
                                          const BufferHandler& onBuffer) = 0;
};

using SystemAudioListenerMaker = std::function<std::unique_ptr<SystemAudioListener>()>;

// Registered from a static object of each backend's folder.
void registerSystemAudioListener(const std::string& platformName, SystemAudioListenerMaker maker);
// The listener of the capture platform in use; throws PlatformError
// (domain "Orvane.CapturePlatform", code 1) when it has none.
std::unique_ptr<SystemAudioListener> makeSystemAudioListener();

}  // namespace ov::platform
