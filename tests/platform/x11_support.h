#pragma once
// What the X11 backend tests share: a sink that keeps what a screen producer
// delivers with the host time of delivery, and pixel readers.

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <vector>

#include "platform/capture/screen_capture_producer.h"
#include "platform/cg_rect_dictionary.h"
#include "platform/cm_clock.h"
#include "platform/sc_stream.h"

namespace ov::testing {

struct DeliveredFrame {
    platform::CMSampleBuffer sample;
    int64_t deliveredAt = 0;  // host nanoseconds
    int status() const { return sample.sampleAttachments().at(0).at(platform::SCStreamFrameInfoStatus).get<int>(); }
    bool complete() const { return status() == static_cast<int>(platform::SCFrameStatus::complete); }
    int64_t time() const { return sample.presentationTimeStamp().value; }
    platform::CGRect screenRect() const {
        return *platform::CGRectMakeWithDictionaryRepresentation(
            sample.sampleAttachments().at(0).at(platform::SCStreamFrameInfoScreenRect));
    }
    const platform::CVPixelBuffer& picture() const { return *sample.imageBuffer(); }
    // 0xRRGGBB at a pixel of the picture.
    uint32_t pixel(size_t x, size_t y) const {
        const auto& p = picture();
        const uint8_t* px = p.baseAddress() + y * p.bytesPerRow() + x * 4;
        return uint32_t(px[2]) << 16 | uint32_t(px[1]) << 8 | px[0];
    }
    // How many pixels of a rectangle have exactly this colour.
    size_t count(uint32_t color, size_t x0, size_t y0, size_t width, size_t height) const {
        size_t n = 0;
        for (size_t y = y0; y < std::min(y0 + height, picture().height()); ++y)
            for (size_t x = x0; x < std::min(x0 + width, picture().width()); ++x) n += pixel(x, y) == color;
        return n;
    }
};

class ScreenSinkCollector {
public:
    // Keeping every picture would keep the producer's pool from reusing
    // buffers (a new 8 MB buffer per frame): rate tests keep times only.
    explicit ScreenSinkCollector(bool keepPictures = true) : keepPictures_(keepPictures) {}

    platform::ScreenCaptureSink sink() {
        return {[this](platform::SCStreamOutputType, const platform::CMSampleBuffer& sample) {
                    const auto at = static_cast<int64_t>(platform::hostTimeNanosecondsNow());
                    std::lock_guard lock(mutex_);
                    if (keepPictures_ || !sample.imageBuffer()) {
                        frames_.push_back({sample, at});
                    } else {
                        platform::CMSampleBuffer::Contents times;
                        times.numSamples = 1;
                        times.timing = sample.sampleTimingInfos();
                        times.sampleAttachments = sample.sampleAttachments();
                        frames_.push_back({platform::CMSampleBuffer::create(std::move(times)), at});
                    }
                    changed_.notify_all();
                },
                [this](std::exception_ptr error) {
                    std::lock_guard lock(mutex_);
                    errors_.push_back(error);
                    changed_.notify_all();
                }};
    }
    bool waitFor(const std::function<bool(const std::vector<DeliveredFrame>&)>& done,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return done(frames_); });
    }
    bool waitForComplete(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return waitFor([&](const auto& frames) {
            return size_t(std::count_if(frames.begin(), frames.end(), [](const auto& f) { return f.complete(); })) >= count;
        }, timeout);
    }
    bool waitForError(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return !errors_.empty(); });
    }
    std::vector<DeliveredFrame> frames() {
        std::lock_guard lock(mutex_);
        return frames_;
    }
    std::vector<DeliveredFrame> completeFrames() {
        std::vector<DeliveredFrame> result;
        for (auto& f : frames())
            if (f.complete()) result.push_back(f);
        return result;
    }
    std::vector<std::exception_ptr> errors() {
        std::lock_guard lock(mutex_);
        return errors_;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        frames_.clear();
    }

private:
    bool keepPictures_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<DeliveredFrame> frames_;
    std::vector<std::exception_ptr> errors_;
};

}  // namespace ov::testing
