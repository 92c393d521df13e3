#pragma once
// The per-sample steps that every video recorder shares once a frame has a
// host-clock time: the retimer in force (the whole timeline, or only its first
// interval), the one session start that audio and video share, the frame's way
// into the writer, the audio path (chopped to the timeline, or offset to zero
// on the first interval), and the end of the recording (retimers finished,
// audio backlog flushed, session ended at the recording's length, writers
// finished).
//
// Nothing here knows where frames come from: a screen recorder feeds it
// through its frame repeater, a camera recorder directly. Frames pass through
// no queue that can grow: the prepare rings overwrite their oldest item and
// the video input drops what it can't take at once. Only audio waits in an
// unbounded buffer, which finishWriting() flushes.
//
// Threads: video and audio may arrive on two queues at once. Each retimer and
// the chopper serialise themselves; the session start is one event on
// "<label>.StartingQueue". The retimers' handlers hold the coordinator weakly.

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "output/av_asset_writer_input_buffer_adaptor.h"
#include "output/av_asset_writer_input_drop_adaptor.h"
#include "output/output_asset_writers.h"
#include "output/ov_logger.h"
#include "platform/cm_clock.h"
#include "platform/cm_sample_buffer.h"
#include "platform/dispatch_queue.h"
#include "timing/prepare_ring_buffer_adapter.h"
#include "timing/recording_interval_bounded_retimer.h"
#include "timing/recording_timeline_bounded_audio_stream.h"
#include "timing/recording_timeline_bounded_retimer.h"
#include "timing/stable_recording_timeline.h"

namespace ov {

// Moves a stream of times so that its first one becomes zero.
class ZeroBasedOffsetRetimer {
public:
    // The time less the first time ever given.
    platform::CMTime retime(const platform::CMTime& time) {
        if (!offset_) offset_ = time;
        return time - *offset_;
    }
    const std::optional<platform::CMTime>& offset() const { return offset_; }

private:
    std::optional<platform::CMTime> offset_;
};

class VideoRecordingCoordinator : public std::enable_shared_from_this<VideoRecordingCoordinator> {
public:
    struct Settings {
        std::shared_ptr<OutputAssetWriters> outputAssetWriters;
        std::shared_ptr<platform::AVAssetWriterInput> videoInput;
        // Absent when the recording has no audio.
        std::shared_ptr<platform::AVAssetWriterInput> audioInput;
        std::shared_ptr<StableRecordingTimeline> recordingTimeline;
        bool useTimeline = true;
        Logger logger{"VideoRecordingCoordinator"};
        // Called when a failure ends capture (an append that can't go on).
        std::function<void(std::exception_ptr)> stopErrorHandler;
        // Prefix of the starting queue's label ("ScreenRecorder" gives
        // "ScreenRecorder.StartingQueue").
        std::string label = "VideoRecorder";
        // The log key of a first frame's own time ("pts" for screens,
        // "originalPresentationTime" for cameras).
        std::string originalTimeKey = "pts";
    };

    static constexpr size_t prepareRingCapacity = 5;
    static constexpr size_t retimerCapacity = 3;

    static std::shared_ptr<VideoRecordingCoordinator> make(Settings settings);
    virtual ~VideoRecordingCoordinator() = default;

    // ---- Video. A frame at its host-clock time goes to the retimer in force.
    // A frame out of order is logged and dropped; any other failure is logged
    // and goes to the stop handler. `repeatAddedTime` marks a repeated frame.
    void appendVideoFrame(const platform::CMSampleBuffer& frame, const platform::CMTime& time,
                          const std::optional<platform::CMTime>& repeatAddedTime = std::nullopt);
    // What the retimer hands out: the frame at its output time, into the writer.
    void retimedVideoFrame(bool isFirst, const platform::CMSampleBuffer& frame, const platform::CMTime& newTime);

    // ---- Audio. `clock` is the capture's clock when it isn't the host's.
    void appendAudioSample(const platform::CMSampleBuffer& sample, const std::shared_ptr<const platform::CMClock>& clock);

    // The writers' one session start, at the first retimed sample's time.
    void startIfNeeded(const platform::CMTime& time);

    // ---- The end. finishRetimers() once capture has stopped and its queues
    // are drained; then finishWriting(), which fails with the writer's error.
    void finishRetimers();
    void finishWriting();

    PrepareRingBufferAdapter<platform::CMSampleBuffer> videoPrepareAdaptor;
    PrepareRingBufferAdapter<platform::CMSampleBuffer> audioPrepareAdaptor;

    bool hasAudio() const { return audioWriterInputAdaptor_ != nullptr; }
    bool didStart() const;
    // Frames the video input took, and frames it refused because it was full.
    uint64_t appendedVideoFrames() const { return appendedVideoFrames_; }
    uint64_t droppedVideoFrames() const { return droppedVideoFrames_; }

protected:
    explicit VideoRecordingCoordinator(Settings settings);

    Settings settings_;
    Logger logger_;

private:
    void install();
    void retimeAndAppendAudio(const platform::CMSampleBuffer& sample);
    void failAudio(const platform::CMSampleBuffer& sample, std::exception_ptr error);
    void failVideo(const platform::CMSampleBuffer& frame, const platform::CMTime& time,
                   const std::optional<platform::CMTime>& repeatAddedTime, std::exception_ptr error);
    void stop(std::exception_ptr error);

    AVAssetWriterInputDropAdaptor videoWriterInputAdaptor_;
    std::shared_ptr<AVAssetWriterInputBufferAdaptor> audioWriterInputAdaptor_;
    std::unique_ptr<RecordingIntervalBoundedRetimer<platform::CMSampleBuffer>> videoRetimerOld_;
    std::unique_ptr<RecordingTimelineBoundedRetimer<platform::CMSampleBuffer>> videoRetimerNew_;
    std::unique_ptr<RecordingTimelineBoundedAudioStream> audioChopper_;
    ZeroBasedOffsetRetimer audioRetimer_;
    std::shared_ptr<platform::DispatchQueue> startingQueue_;
    bool didStart_ = false;
    std::atomic<uint64_t> appendedVideoFrames_{0};
    std::atomic<uint64_t> droppedVideoFrames_{0};
};

}  // namespace ov
