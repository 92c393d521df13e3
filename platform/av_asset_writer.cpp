#include "platform/av_asset_writer.h"

#include <stdexcept>

#include <fmt/format.h>

#include "platform/platform_error.h"

namespace ov::platform {

std::string AVAssetSegmentReport::debugDescription() const {
    std::string text = fmt::format("<AVAssetSegmentReport type:{} trackReports:[", static_cast<int>(segmentType));
    for (size_t i = 0; i < trackReports.size(); ++i) {
        const auto& r = trackReports[i];
        text += fmt::format("{}{{{} earliestPTS:{} duration:{}}}", i ? ", " : "", toString(r.mediaType),
                            r.earliestPresentationTimeStamp.seconds(), r.duration.seconds());
    }
    return text + "]>";
}

struct AVAssetWriterInput::Impl {};
struct AVAssetWriter::Impl {
    mutable std::mutex mutex;
    AVFileTypeProfile profile = AVFileTypeProfile::none;
    CMTime segmentInterval = kCMTimeInvalid;
    CMTime initialSegmentStart = kCMTimeZero;
    std::weak_ptr<AVAssetWriterDelegate> delegate;
    std::vector<std::shared_ptr<AVAssetWriterInput>> inputs;
    AVAssetWriterStatus status = AVAssetWriterStatus::unknown;
    std::exception_ptr error;
};

AVAssetWriterInput::AVAssetWriterInput(AVMediaType mediaType, AVSettingsDictionary outputSettings)
    : mediaType_(mediaType), outputSettings_(std::move(outputSettings)), impl_(std::make_unique<Impl>()) {}
AVAssetWriterInput::~AVAssetWriterInput() = default;

std::shared_ptr<AVAssetWriterInput> AVAssetWriterInput::make(AVMediaType mediaType, AVSettingsDictionary outputSettings) {
    return std::shared_ptr<AVAssetWriterInput>(new AVAssetWriterInput(mediaType, std::move(outputSettings)));
}
bool AVAssetWriterInput::isReadyForMoreMediaData() const { return false; }
bool AVAssetWriterInput::append(const CMSampleBuffer&) { return false; }
void AVAssetWriterInput::markAsFinished() {}

std::shared_ptr<AVAssetWriter> AVAssetWriter::make(const std::string& url, AVFileType fileType) {
    auto writer = std::shared_ptr<AVAssetWriter>(new AVAssetWriter());
    writer->outputURL_ = url;
    writer->outputPath_ = url;
    writer->fileType_ = fileType;
    writer->impl_ = std::make_unique<Impl>();
    return writer;
}
std::shared_ptr<AVAssetWriter> AVAssetWriter::make(UTType) {
    auto writer = std::shared_ptr<AVAssetWriter>(new AVAssetWriter());
    writer->impl_ = std::make_unique<Impl>();
    return writer;
}
AVAssetWriter::~AVAssetWriter() = default;

AVFileTypeProfile AVAssetWriter::outputFileTypeProfile() const { return impl_->profile; }
void AVAssetWriter::setOutputFileTypeProfile(AVFileTypeProfile profile) { impl_->profile = profile; }
CMTime AVAssetWriter::preferredOutputSegmentInterval() const { return impl_->segmentInterval; }
void AVAssetWriter::setPreferredOutputSegmentInterval(const CMTime& interval) { impl_->segmentInterval = interval; }
CMTime AVAssetWriter::initialSegmentStartTime() const { return impl_->initialSegmentStart; }
void AVAssetWriter::setInitialSegmentStartTime(const CMTime& time) { impl_->initialSegmentStart = time; }
std::shared_ptr<AVAssetWriterDelegate> AVAssetWriter::delegate() const { return impl_->delegate.lock(); }
void AVAssetWriter::setDelegate(std::weak_ptr<AVAssetWriterDelegate> delegate) { impl_->delegate = std::move(delegate); }
bool AVAssetWriter::canAdd(const std::shared_ptr<AVAssetWriterInput>& input) const {
    return input && impl_->status == AVAssetWriterStatus::unknown;
}
void AVAssetWriter::add(std::shared_ptr<AVAssetWriterInput> input) {
    if (!canAdd(input)) throw std::logic_error("AVAssetWriter can't add this input");
    impl_->inputs.push_back(std::move(input));
}
std::vector<std::shared_ptr<AVAssetWriterInput>> AVAssetWriter::inputs() const { return impl_->inputs; }
bool AVAssetWriter::startWriting() {
    impl_->status = AVAssetWriterStatus::writing;
    return true;
}
void AVAssetWriter::startSession(const CMTime&) {}
void AVAssetWriter::endSession(const CMTime&) {}
void AVAssetWriter::finishWriting(std::function<void()> completion) {
    impl_->status = AVAssetWriterStatus::completed;
    if (completion) completion();
}
void AVAssetWriter::cancelWriting() { impl_->status = AVAssetWriterStatus::cancelled; }
AVAssetWriterStatus AVAssetWriter::status() const { return impl_->status; }
std::exception_ptr AVAssetWriter::error() const { return impl_->error; }
void AVAssetWriter::fail(std::exception_ptr error) { impl_->error = error; }

namespace {
template <class F>
auto guarded(F&& f) {
    try {
        return f();
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
