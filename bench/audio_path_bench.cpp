// The per-buffer cost of the recorders' audio path: the timeline-bounded
// stream (inside a recording interval, so buffers pass through), then the gap
// filler, then the shifter, on 48 kHz stereo float buffers of 10 and 20 ms.
// A pause every `pauseEvery` buffers makes the stream cut at interval edges too.

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "output/ov_logger.h"
#include "platform/av_audio_format.h"
#include "platform/av_audio_pcm_buffer.h"
#include "platform/cm_sample_buffer.h"
#include "timing/audio_gap_filler.h"
#include "timing/audio_shifter.h"
#include "timing/recording_timeline_bounded_audio_stream.h"

namespace {

using ov::platform::CMSampleBuffer;
using ov::platform::CMTime;

void BM_AudioPath(benchmark::State& state) {
    const int rate = 48000;
    const auto frames = static_cast<uint32_t>(state.range(0) * rate / 1000);
    const int64_t pauseEvery = state.range(1);
    auto pcm = ov::platform::AVAudioPCMBuffer::make(*ov::platform::AVAudioFormat::standard(rate, 2), frames);
    pcm->setFrameLength(frames);
    CMSampleBuffer buffer = CMSampleBuffer::makeAudio(*pcm, CMTime(0, rate));

    auto engine = ov::OVLogger::create(false);
    ov::Logger logger("AudioPathBench", std::nullopt, {}, engine);
    auto live = std::make_shared<ov::VolatileRecordingTimeline>();
    int64_t position = 1000LL * rate;
    live->start(static_cast<double>(position) / rate);
    ov::RecordingTimelineBoundedAudioStream stream(ov::StableRecordingTimeline(live), 3, logger);
    ov::AudioGapFiller filler(logger);
    ov::AudioShifter shifter(0.05);
    int64_t out = 0;
    stream.handler = [&](auto, const CMSampleBuffer& s) {
        for (const auto& f : filler.process(s))
            for (const auto& shifted : shifter.append(f)) out += shifted.numSamples();
    };
    int64_t n = 0;
    bool paused = false;
    for (auto _ : state) {
        if (pauseEvery > 0 && ++n % pauseEvery == 0) {
            // Bounds off the buffer grid, so that edges are cut.
            double at = static_cast<double>(position + frames / 3) / rate;
            if (paused) live->start(at);
            else live->pause(at);
            paused = !paused;
        }
        stream.append(buffer.withTime(CMTime(position, rate)));
        position += frames;
    }
    benchmark::DoNotOptimize(out);
    state.SetItemsProcessed(state.iterations());
    state.counters["frames/buffer"] = frames;
}
BENCHMARK(BM_AudioPath)->ArgNames({"ms", "pauseEvery"})->Args({10, 0})->Args({20, 0})->Args({10, 50})->Args({20, 50});

}  // namespace

BENCHMARK_MAIN();
