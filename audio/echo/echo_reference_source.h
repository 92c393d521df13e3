#pragma once
// Where the echo canceller's reference comes from: a mono float stream of
// everything the machine plays, stamped with host-clock times.
//
// The processor never builds a system-audio tap itself. Whatever captures
// system audio installs a factory here (from a static registration object of
// its own); until one is installed, echo cancellation is not available and a
// recording that asks for it fails at assembly with configurationNotSupported.
#include <functional>
#include <memory>

#include "output/ov_logger.h"
#include "platform/cm_time.h"

namespace ov {

class EchoReferenceSource {
public:
    // Samples of one buffer (mono float at sampleRate()) and the host time of the first.
    using Handler = std::function<void(const float* samples, size_t count, const platform::CMTime& hostTime)>;

    virtual ~EchoReferenceSource() = default;
    // The rate of what the handler gets; known before start.
    virtual double sampleRate() const = 0;
    // Throws when capture can't start. The handler runs on the source's own
    // thread, one buffer at a time, never after stopAndDrain() returns.
    virtual void start(Handler handler) = 0;
    // Stops capture and delivers what was already captured.
    virtual void stopAndDrain() = 0;
};

using EchoReferenceSourceFactory = std::function<std::unique_ptr<EchoReferenceSource>(const Logger& logger)>;

// The factory recorders use; empty until a system-audio capture installs one.
void setEchoReferenceSourceFactory(EchoReferenceSourceFactory factory);
EchoReferenceSourceFactory echoReferenceSourceFactory();

}  // namespace ov
