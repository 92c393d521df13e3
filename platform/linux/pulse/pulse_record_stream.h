#pragma once
// One record stream from a sound-server source, on the asynchronous client
// API: its own threaded main loop and connection, a read callback that only
// copies, and delivery in fixed 20 ms chunks of the requested PCM format.
//
// Stamps: each chunk's capture time is observed as its arrival less the
// stream's latency (from the server's timing information, interpolated) and
// the frames still waiting in front of it; a CaptureClockFilter turns those
// observations into stamps on the frame-count line that follow the host clock
// (CLOCK_MONOTONIC) without jumps.
//
// Format: the server delivers float32 interleaved at the source's own rate and
// channel count; libswresample makes the requested format from it (rate,
// channels, sample type, interleaving), keeping its state across chunks.
//
// Threads: the sink is called on the stream's main-loop thread. A stream that
// fails (the server went away, the source was unloaded) tells sink.failed once.
// stop() returns within a bound: a main loop that doesn't end in time is
// abandoned (its memory is left behind) with an error in the log, and nothing
// is delivered after stop() returns.
#include <memory>
#include <string>

#include "platform/av_audio_format.h"
#include "platform/capture/capture_producer.h"

namespace ov::platform {

struct PulseRecordStreamOptions {
    std::string source;
    // The source's own rate and channels, as the server reports them.
    uint32_t sourceRate = 48000;
    uint32_t sourceChannels = 1;
    // What the sink receives.
    AVAudioFormat format = *AVAudioFormat::standard(48000, 1);
    // Chunk length in seconds.
    double chunkDuration = 0.02;
};

class PulseRecordStream final : public CaptureProducer {
public:
    // Starts connecting; failures arrive at sink.failed. Throws a
    // PlatformError only when the library can't set up at all.
    PulseRecordStream(PulseRecordStreamOptions options, CaptureProducerSink sink);
    ~PulseRecordStream() override;
    void stop() override;

    struct State;

private:
    std::shared_ptr<State> state_;
};

}  // namespace ov::platform
