#pragma once
// Delegates for capture tests: they keep what arrives, with the thread-safe
// waits a test needs to let a capture run until it has enough.

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <vector>

#include "platform/av_capture_output.h"
#include "platform/sc_stream.h"

namespace ov::testing {

class CaptureCollector : public platform::AVCaptureVideoDataOutputSampleBufferDelegate,
                         public platform::AVCaptureAudioDataOutputSampleBufferDelegate,
                         public platform::SCStreamOutput,
                         public platform::SCStreamDelegate {
public:
    void captureOutput(platform::AVCaptureOutput&, const platform::CMSampleBuffer& sampleBuffer,
                       platform::AVCaptureConnection&) override {
        add(samples_, sampleBuffer);
    }
    void captureOutputDidDrop(platform::AVCaptureOutput&, const platform::CMSampleBuffer& sampleBuffer,
                              platform::AVCaptureConnection&) override {
        add(dropped_, sampleBuffer);
    }
    void stream(platform::SCStream&, const platform::CMSampleBuffer& sampleBuffer,
                platform::SCStreamOutputType type) override {
        add(type == platform::SCStreamOutputType::screen ? samples_ : audio_, sampleBuffer);
    }
    void streamDidStopWithError(platform::SCStream&, std::exception_ptr error) override {
        std::lock_guard lock(mutex_);
        errors_.push_back(error);
        changed_.notify_all();
    }

    // Waits until `count` samples arrived (or the time is up); true if they did.
    bool waitForSamples(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return waitFor([&] { return samples_.size() >= count; }, timeout);
    }
    bool waitForAudio(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return waitFor([&] { return audio_.size() >= count; }, timeout);
    }
    bool waitForDrops(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return waitFor([&] { return dropped_.size() >= count; }, timeout);
    }
    bool waitForError(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return waitFor([&] { return !errors_.empty(); }, timeout);
    }

    std::vector<platform::CMSampleBuffer> samples() {
        std::lock_guard lock(mutex_);
        return samples_;
    }
    std::vector<platform::CMSampleBuffer> audio() {
        std::lock_guard lock(mutex_);
        return audio_;
    }
    std::vector<platform::CMSampleBuffer> dropped() {
        std::lock_guard lock(mutex_);
        return dropped_;
    }
    std::vector<std::exception_ptr> errors() {
        std::lock_guard lock(mutex_);
        return errors_;
    }

    // Held while each sample is taken in, so a test can keep the delegate busy.
    std::mutex& busy() { return busy_; }

private:
    void add(std::vector<platform::CMSampleBuffer>& list, const platform::CMSampleBuffer& sampleBuffer) {
        std::lock_guard busy(busy_);
        std::lock_guard lock(mutex_);
        list.push_back(sampleBuffer);
        changed_.notify_all();
    }
    template <class Predicate>
    bool waitFor(Predicate predicate, std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, predicate);
    }

    std::mutex busy_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<platform::CMSampleBuffer> samples_;
    std::vector<platform::CMSampleBuffer> audio_;
    std::vector<platform::CMSampleBuffer> dropped_;
    std::vector<std::exception_ptr> errors_;
};

}  // namespace ov::testing
