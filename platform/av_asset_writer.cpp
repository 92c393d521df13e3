#include "platform/av_asset_writer.h"

// The writer's public objects and its encoder thread. The work itself is in
// the parts beside this file: the container and its fragments and segments
// (av_asset_writer_container), the video and audio encoders, and the pixel
// conversion.

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <deque>
#include <stdexcept>
#include <thread>
#include <variant>

#include "foundation/platform_error.h"
#include "platform/av_asset_writer_audio_encoder.h"
#include "platform/av_asset_writer_container.h"
#include "platform/av_asset_writer_support.h"
#include "platform/av_asset_writer_video_encoder.h"
#include "platform/av_audio_pcm_buffer.h"
#include "platform/cv_pixel_buffer.h"

namespace ov::platform {

using writer::errorDomainName;
using writer::setting;
using writer::ticksSince;

namespace {

constexpr std::size_t videoQueueLimit = 8;
constexpr std::size_t audioQueueLimit = 64;

}  // namespace

std::string AVAssetSegmentReport::debugDescription() const {
    std::string text = "AVAssetSegmentReport(";
    for (size_t i = 0; i < trackReports.size(); ++i) {
        const auto& t = trackReports[i];
        text += fmt::format("{}{} earliestPTS:{:.6f} duration:{:.6f}", i ? ", " : "",
                            t.mediaType == AVMediaType::audio ? "audio" : "video",
                            t.earliestPresentationTimeStamp.seconds(), t.duration.seconds());
    }
    return text + ")";
}

// ---- The encoder thread -------------------------------------------------------------------------

struct AVAssetWriterCore {
    using Encoder = std::variant<std::unique_ptr<writer::VideoEncoder>, std::unique_ptr<writer::AudioEncoder>>;
    struct Job {
        enum class Kind { sample, finishInput, finishWriting } kind = Kind::sample;
        int input = -1;
        std::optional<CMSampleBuffer> sample;
        std::function<void()> completion;
    };

    AVAssetWriter* owner = nullptr;
    std::function<void(const std::string&)> notify;
    std::mutex mutex;
    std::condition_variable cv;
    // Offline inputs wait here for room in their queue.
    std::condition_variable roomCv;
    std::deque<Job> jobs;
    std::vector<size_t> pending;
    std::vector<size_t> limits;
    AVAssetWriterStatus status = AVAssetWriterStatus::unknown;
    std::exception_ptr error;
    std::optional<CMTime> sessionStart;
    std::optional<CMTime> sessionEnd;
    bool stopThread = false;
    std::thread thread;
    bool segmented = false;
    std::weak_ptr<AVAssetWriterDelegate> delegate;

    // Encoder thread only (and startWriting before the thread runs).
    std::unique_ptr<writer::AssetWriterContainer> container;
    std::vector<Encoder> encoders;
    std::vector<bool> finishedTracks;

    ~AVAssetWriterCore() {
        {
            std::lock_guard lock(mutex);
            stopThread = true;
        }
        cv.notify_all();
        if (thread.joinable()) thread.join();
        // Encoders before the container: its tracks point at their contexts.
        encoders.clear();
        container.reset();
    }

    void setError(std::exception_ptr e) {
        {
            std::lock_guard lock(mutex);
            if (error) return;
            error = e;
            status = AVAssetWriterStatus::failed;
            for (auto& p : pending) p = 0;
            jobs.erase(std::remove_if(jobs.begin(), jobs.end(), [](const Job& j) { return j.kind == Job::Kind::sample; }),
                       jobs.end());
        }
        // What is on disk stays playable: a file is cut back to its last whole
        // fragment. Failures come from the encoder thread or from startWriting
        // before that thread runs, so the container is never in use elsewhere.
        if (container) container->abandon();
        cv.notify_all();
        roomCv.notify_all();
        if (notify) {
            notify("status");
            notify("error");
        }
    }

    bool failed() {
        std::lock_guard lock(mutex);
        return error != nullptr;
    }

    void run() {
        for (;;) {
            Job job;
            {
                std::unique_lock lock(mutex);
                cv.wait(lock, [&] { return stopThread || !jobs.empty(); });
                if (jobs.empty()) return;
                job = std::move(jobs.front());
                jobs.pop_front();
            }
            try {
                if (!failed()) {
                    if (job.kind == Job::Kind::sample) encodeSample(job.input, *job.sample);
                    if (job.kind == Job::Kind::finishInput) finishTrack(job.input);
                    if (job.kind == Job::Kind::finishWriting) finishAll();
                }
            } catch (...) {
                setError(std::current_exception());
            }
            if (job.kind == Job::Kind::sample) {
                std::lock_guard lock(mutex);
                if (pending[job.input] > 0) --pending[job.input];
            }
            roomCv.notify_all();
            if (job.kind == Job::Kind::finishWriting) {
                {
                    std::lock_guard lock(mutex);
                    if (!error) status = AVAssetWriterStatus::completed;
                }
                if (notify) notify("status");
                if (job.completion) job.completion();
            }
        }
    }

    // ---- Opening.

    void open(const std::string& path, AVFileType fileType,
              const std::vector<std::shared_ptr<AVAssetWriterInput>>& inputs, double segmentInterval) {
        // A writer nobody gave an input (the video half of an audio-only
        // segmented recording) produces nothing, and that is no failure.
        if (inputs.empty()) return;
        if (segmented) {
            container = writer::AssetWriterContainer::segments(
                segmentInterval, [this](std::shared_ptr<const std::vector<uint8_t>> data, AVAssetSegmentType type,
                                        const AVAssetSegmentReport* report) {
                    std::shared_ptr<AVAssetWriterDelegate> target;
                    {
                        std::lock_guard lock(mutex);
                        target = delegate.lock();
                    }
                    if (target) target->didOutputSegmentData(*owner, std::move(data), type, report);
                });
        } else {
            container = writer::AssetWriterContainer::file(path, fileType);
        }
        const bool globalHeader = container->needsGlobalHeader();
        for (auto& input : inputs) {
            if (input->mediaType() == AVMediaType::audio) {
                auto encoder = std::make_unique<writer::AudioEncoder>(input->outputSettings(), globalHeader);
                container->addTrack(AVMediaType::audio, encoder->context());
                encoders.emplace_back(std::move(encoder));
            } else {
                auto encoder = std::make_unique<writer::VideoEncoder>(
                    input->outputSettings(), globalHeader,
                    segmented ? std::optional<double>(segmentInterval) : std::nullopt);
                container->addTrack(AVMediaType::video, encoder->context(), encoder->codecTag());
                encoders.emplace_back(std::move(encoder));
            }
            finishedTracks.push_back(false);
        }
        container->writeHeader();
    }

    // ---- Encoding.

    writer::PacketSink sinkFor(int index) {
        return [this, index](AVPacket* packet) { container->write(index, packet); };
    }

    void encodeSample(int index, const CMSampleBuffer& sample) {
        CMTime start, end;
        {
            std::lock_guard lock(mutex);
            if (!sessionStart) return;  // samples before the session are not written
            start = *sessionStart;
            end = sessionEnd.value_or(kCMTimePositiveInfinity);
        }
        if (finishedTracks[size_t(index)]) return;
        auto& encoder = encoders[size_t(index)];
        if (auto* video = std::get_if<std::unique_ptr<writer::VideoEncoder>>(&encoder)) {
            const auto& image = sample.imageBuffer();
            if (!image) return;
            const CMTime pts = sample.presentationTimeStamp();
            if (pts < start || pts >= end) return;
            const int64_t ticks = ticksSince(pts, start, writer::VideoEncoder::kTimescale);
            const bool segmentStart = container->segmentBoundary(ticks, writer::VideoEncoder::kTimescale).has_value();
            (*video)->encode(*image, ticks, segmentStart, sinkFor(index));
            return;
        }
        auto& audio = *std::get<std::unique_ptr<writer::AudioEncoder>>(encoder);
        auto pcm = sample.audioPCMBuffer();
        if (!pcm) return;
        const int64_t rate = audio.sampleRate();
        const int64_t at = ticksSince(sample.presentationTimeStamp(), start, rate);
        const int64_t endSamples = end.isNumeric() ? ticksSince(end, start, rate) : INT64_MAX;
        audio.encode(*pcm, at, endSamples, sinkFor(index));
    }

    void finishTrack(int index) {
        if (finishedTracks[size_t(index)]) return;
        finishedTracks[size_t(index)] = true;
        const auto sink = sinkFor(index);
        std::visit([&](auto& encoder) { encoder->flush(sink); }, encoders[size_t(index)]);
        std::optional<CMTime> start, end;
        {
            std::lock_guard lock(mutex);
            start = sessionStart;
            end = sessionEnd;
        }
        std::optional<int64_t> endTicks;
        if (start && end && end->isNumeric())
            endTicks = ticksSince(*end, *start,
                                  std::visit([](auto& encoder) { return int64_t(encoder->timescale()); },
                                             encoders[size_t(index)]));
        container->finishTrack(index, endTicks);
    }

    void finishAll() {
        if (!container || !container->headerWritten()) return;
        for (size_t i = 0; i < encoders.size(); ++i) finishTrack(int(i));
        container->finish();
    }
};

// ---- AVAssetWriterInput ------------------------------------------------------------------------

struct AVAssetWriterInput::Impl {
    std::weak_ptr<AVAssetWriterCore> core;
    int index = -1;
    std::atomic<bool> finished{false};
};

struct AVAssetWriter::Impl {
    std::shared_ptr<AVAssetWriterCore> core = std::make_shared<AVAssetWriterCore>();
    AVFileTypeProfile profile = AVFileTypeProfile::none;
    CMTime segmentInterval = kCMTimeInvalid;
    CMTime initialSegmentStart = kCMTimeZero;
    std::vector<std::shared_ptr<AVAssetWriterInput>> inputs;
};

AVAssetWriterInput::AVAssetWriterInput(AVMediaType mediaType, AVSettingsDictionary outputSettings)
    : mediaType_(mediaType), outputSettings_(std::move(outputSettings)), impl_(std::make_unique<Impl>()) {}

AVAssetWriterInput::~AVAssetWriterInput() = default;

std::shared_ptr<AVAssetWriterInput> AVAssetWriterInput::make(AVMediaType mediaType, AVSettingsDictionary outputSettings) {
    if (mediaType == AVMediaType::muxed) throw std::invalid_argument("A writer input is audio or video");
    if (mediaType == AVMediaType::video) {
        const auto codec = setting<std::string>(outputSettings, AVVideoCodecKey, AVVideoCodecTypeH264);
        if (codec != AVVideoCodecTypeH264 && codec != AVVideoCodecTypeHEVC)
            throw std::invalid_argument("Unknown video codec " + codec);
        const int width = setting<int>(outputSettings, AVVideoWidthKey, 0);
        const int height = setting<int>(outputSettings, AVVideoHeightKey, 0);
        if (width <= 0 || height <= 0) throw std::invalid_argument("Video output settings need a width and a height");
        if (width % 2 || height % 2) throw std::invalid_argument("4:2:0 video needs even dimensions");
    } else if (outputSettings.is_object() && outputSettings.contains(AVFormatIDKey) &&
               setting<uint32_t>(outputSettings, AVFormatIDKey, kAudioFormatMPEG4AAC) != kAudioFormatMPEG4AAC) {
        throw std::invalid_argument("Audio is written as AAC");
    }
    return std::shared_ptr<AVAssetWriterInput>(new AVAssetWriterInput(mediaType, std::move(outputSettings)));
}

bool AVAssetWriterInput::isReadyForMoreMediaData() const {
    auto core = impl_->core.lock();
    if (!core || impl_->finished) return false;
    std::lock_guard lock(core->mutex);
    if (core->status != AVAssetWriterStatus::writing) return false;
    return core->pending[impl_->index] < core->limits[impl_->index];
}

bool AVAssetWriterInput::append(const CMSampleBuffer& sampleBuffer) {
    auto core = impl_->core.lock();
    if (!core || impl_->finished) return false;
    const bool isVideo = bool(sampleBuffer.imageBuffer());
    if (isVideo != (mediaType_ == AVMediaType::video)) return false;
    {
        std::unique_lock lock(core->mutex);
        const int index = impl_->index;
        // An offline input waits for room; a real-time one says no at once.
        if (!realTime_)
            core->roomCv.wait(lock, [&] {
                return core->status != AVAssetWriterStatus::writing || core->pending[index] < core->limits[index];
            });
        if (core->status != AVAssetWriterStatus::writing) return false;
        if (core->pending[index] >= core->limits[index]) return false;
        ++core->pending[index];
        AVAssetWriterCore::Job job;
        job.input = index;
        job.sample = sampleBuffer;
        core->jobs.push_back(std::move(job));
    }
    core->cv.notify_all();
    return true;
}

void AVAssetWriterInput::markAsFinished() {
    if (impl_->finished.exchange(true)) return;
    auto core = impl_->core.lock();
    if (!core) return;
    {
        std::lock_guard lock(core->mutex);
        if (core->status != AVAssetWriterStatus::writing) return;
        AVAssetWriterCore::Job job;
        job.kind = AVAssetWriterCore::Job::Kind::finishInput;
        job.input = impl_->index;
        core->jobs.push_back(std::move(job));
    }
    core->cv.notify_all();
}

// ---- AVAssetWriter -----------------------------------------------------------------------------

std::shared_ptr<AVAssetWriter> AVAssetWriter::make(const std::string& url, AVFileType fileType) {
    std::string path = url;
    if (path.rfind("file://", 0) == 0) path = path.substr(7);
    if (path.empty() || path.front() != '/')
        throw PlatformError(errorDomainName(), EINVAL, "The output URL is not a file path: " + url);
    if (std::filesystem::exists(path))
        throw PlatformError(errorDomainName(), EEXIST, "A file already exists at " + path);
    auto writer = std::shared_ptr<AVAssetWriter>(new AVAssetWriter());
    writer->outputURL_ = "file://" + path;
    writer->outputPath_ = path;
    writer->fileType_ = fileType;
    writer->impl_ = std::make_unique<Impl>();
    writer->wireCore();
    return writer;
}

std::shared_ptr<AVAssetWriter> AVAssetWriter::make(UTType) {
    auto writer = std::shared_ptr<AVAssetWriter>(new AVAssetWriter());
    writer->impl_ = std::make_unique<Impl>();
    writer->impl_->core->segmented = true;
    writer->wireCore();
    return writer;
}

void AVAssetWriter::wireCore() {
    auto& core = *impl_->core;
    core.owner = this;
    core.notify = [this](const std::string& key) { observers_.notify(key); };
}

AVAssetWriter::~AVAssetWriter() {
    // The encoder thread ends with the core; it must not outlive this object.
    if (impl_) impl_->core.reset();
}

AVFileTypeProfile AVAssetWriter::outputFileTypeProfile() const { return impl_->profile; }
void AVAssetWriter::setOutputFileTypeProfile(AVFileTypeProfile profile) { impl_->profile = profile; }
CMTime AVAssetWriter::preferredOutputSegmentInterval() const { return impl_->segmentInterval; }
void AVAssetWriter::setPreferredOutputSegmentInterval(const CMTime& interval) { impl_->segmentInterval = interval; }
CMTime AVAssetWriter::initialSegmentStartTime() const { return impl_->initialSegmentStart; }
void AVAssetWriter::setInitialSegmentStartTime(const CMTime& time) { impl_->initialSegmentStart = time; }

std::shared_ptr<AVAssetWriterDelegate> AVAssetWriter::delegate() const {
    std::lock_guard lock(impl_->core->mutex);
    return impl_->core->delegate.lock();
}

void AVAssetWriter::setDelegate(std::weak_ptr<AVAssetWriterDelegate> delegate) {
    std::lock_guard lock(impl_->core->mutex);
    impl_->core->delegate = std::move(delegate);
}

bool AVAssetWriter::canAdd(const std::shared_ptr<AVAssetWriterInput>& input) const {
    if (!input || input->impl_->index >= 0) return false;
    {
        std::lock_guard lock(impl_->core->mutex);
        if (impl_->core->status != AVAssetWriterStatus::unknown) return false;
    }
    // An audio file holds audio only; a segment stream holds one track.
    if (fileType_ == AVFileType::m4a && input->mediaType() != AVMediaType::audio) return false;
    if (impl_->core->segmented && !impl_->inputs.empty()) return false;
    return true;
}

void AVAssetWriter::add(std::shared_ptr<AVAssetWriterInput> input) {
    if (!canAdd(input)) throw std::logic_error("AVAssetWriter can't add this input");
    input->impl_->index = int(impl_->inputs.size());
    input->impl_->core = impl_->core;
    std::lock_guard lock(impl_->core->mutex);
    impl_->core->pending.push_back(0);
    impl_->core->limits.push_back(input->mediaType() == AVMediaType::video ? videoQueueLimit : audioQueueLimit);
    impl_->inputs.push_back(std::move(input));
}

std::vector<std::shared_ptr<AVAssetWriterInput>> AVAssetWriter::inputs() const { return impl_->inputs; }

bool AVAssetWriter::startWriting() {
    auto& core = *impl_->core;
    {
        std::lock_guard lock(core.mutex);
        if (core.status != AVAssetWriterStatus::unknown) throw std::logic_error("startWriting called twice");
    }
    // Without a preferred interval, a segment writer cuts every six seconds.
    const double interval = impl_->segmentInterval.isNumeric() ? impl_->segmentInterval.seconds() : 6.0;
    try {
        core.open(outputPath_, fileType_.value_or(AVFileType::mov), impl_->inputs, std::max(0.1, interval));
    } catch (...) {
        fail(std::current_exception());
        return false;
    }
    {
        std::lock_guard lock(core.mutex);
        core.status = AVAssetWriterStatus::writing;
    }
    observers_.notify("status");
    core.thread = std::thread([c = &core] { c->run(); });
    return true;
}

void AVAssetWriter::fail(std::exception_ptr error) { impl_->core->setError(std::move(error)); }

void AVAssetWriter::startSession(const CMTime& sourceTime) {
    std::lock_guard lock(impl_->core->mutex);
    if (impl_->core->status != AVAssetWriterStatus::writing || impl_->core->sessionStart)
        throw std::logic_error("startSession needs a writing writer without a session");
    impl_->core->sessionStart = sourceTime;
}

void AVAssetWriter::endSession(const CMTime& sourceTime) {
    std::lock_guard lock(impl_->core->mutex);
    if (!impl_->core->sessionStart) throw std::logic_error("endSession called without a session");
    impl_->core->sessionEnd = sourceTime;
}

void AVAssetWriter::finishWriting(std::function<void()> completion) {
    auto& core = *impl_->core;
    {
        std::lock_guard lock(core.mutex);
        if (core.status == AVAssetWriterStatus::unknown)
            throw std::logic_error("finishWriting called on a writer that never started");
        if (core.status != AVAssetWriterStatus::writing || !core.thread.joinable()) {
            // Nothing more will be written; the completion still runs.
            if (completion) std::thread(std::move(completion)).detach();
            return;
        }
        for (auto& input : impl_->inputs) {
            if (input->impl_->finished.exchange(true)) continue;
            AVAssetWriterCore::Job job;
            job.kind = AVAssetWriterCore::Job::Kind::finishInput;
            job.input = input->impl_->index;
            core.jobs.push_back(std::move(job));
        }
        AVAssetWriterCore::Job job;
        job.kind = AVAssetWriterCore::Job::Kind::finishWriting;
        job.completion = std::move(completion);
        core.jobs.push_back(std::move(job));
    }
    core.cv.notify_all();
}

void AVAssetWriter::cancelWriting() {
    {
        std::lock_guard lock(impl_->core->mutex);
        impl_->core->jobs.clear();
        impl_->core->status = AVAssetWriterStatus::cancelled;
    }
    impl_->core->cv.notify_all();
    impl_->core->roomCv.notify_all();
    observers_.notify("status");
}

AVAssetWriterStatus AVAssetWriter::status() const {
    std::lock_guard lock(impl_->core->mutex);
    return impl_->core->status;
}

std::exception_ptr AVAssetWriter::error() const {
    std::lock_guard lock(impl_->core->mutex);
    return impl_->core->error;
}

namespace {

// A raised exception becomes an error named after its type.
template <class F>
auto guarded(F&& f) {
    try {
        return f();
    } catch (const PlatformError&) {
        throw;
    } catch (const std::exception& e) {
        throw PlatformError(demangledTypeName(e), 0, e.what());
    }
}

}  // namespace

bool AVAssetWriter::safe_startWriting() {
    return guarded([&] { return startWriting(); });
}

void AVAssetWriter::safe_endSession(const CMTime& sourceTime) {
    guarded([&] { endSession(sourceTime); });
}

void AVAssetWriter::safe_finishWriting() {
    guarded([&] {
        std::mutex m;
        std::condition_variable cv;
        bool done = false;
        finishWriting([&] {
            std::lock_guard lock(m);
            done = true;
            cv.notify_all();
        });
        std::unique_lock lock(m);
        cv.wait(lock, [&] { return done; });
    });
}

}  // namespace ov::platform
