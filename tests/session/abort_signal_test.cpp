#include "session/abort_signal.h"

#include <gtest/gtest.h>

#include "platform/sc_stream_error.h"
#include "support/log_capture.h"
#include "foundation/ov_error.h"

namespace ov {
namespace {

using Code = OVError::Code;
using platform::SCStreamError;

std::exception_ptr streamError(int64_t code) {
    return std::make_exception_ptr(SCStreamError(code, "The stream stopped", "SCStreamError(" + std::to_string(code) + ")"));
}

// The signal's error, which must be an OVError (anything else fails the test by escaping).
OVError errorOf(const AbortSignal& signal) {
    if (!signal.error) throw std::logic_error("signal without an error");
    try {
        std::rethrow_exception(signal.error);
    } catch (const OVError& e) {
        return e;
    }
}

TEST(ScreenCaptureStop, UserStopFromTheSystemControlsWhateverTheDisk) {
    for (bool lowDisk : {false, true}) {
        testing::LogCapture log;
        const auto signal = AbortSignal::create(streamError(SCStreamError::userStopped), lowDisk, log.logger);
        EXPECT_EQ(signal.kind, AbortSignal::Kind::userStopped);
        EXPECT_FALSE(signal.error);
        auto line = log.single();
        ASSERT_TRUE(line);
        EXPECT_EQ(line->message, "ScreenCaptureKit stopped by user.");
        EXPECT_EQ(line->level, OVLogLevel::debug);
    }
}

TEST(ScreenCaptureStop, WithoutAnErrorTheDiskDecides) {
    testing::LogCapture log;
    auto signal = AbortSignal::create(nullptr, true, log.logger);
    ASSERT_EQ(signal.kind, AbortSignal::Kind::interrupted);
    const auto lowDisk = errorOf(signal);
    EXPECT_EQ(lowDisk.code(), Code::screenCaptureStoppedLowDiskSpace);
    EXPECT_EQ(lowDisk.localizedDescription(), "Recording stopped due to low disk space.");
    EXPECT_EQ(lowDisk.debugDescription(), "screenCaptureStoppedLowDiskSpace");
    EXPECT_TRUE(lowDisk._userInfo().empty());

    auto lines = log.taken();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].message, "ScreenCaptureKit stopped without error, low disk space.");
    EXPECT_EQ(lines[1].message, "ScreenCaptureKit interrupted.");
    EXPECT_EQ(lines[1].metadata, (LogMetadata{{"error", "screenCaptureStoppedLowDiskSpace"}, {"isLowDiskSpace", "true"}}));

    testing::LogCapture log2;
    const auto unknown = errorOf(AbortSignal::create(nullptr, false, log2.logger));
    EXPECT_EQ(unknown.code(), Code::screenCaptureStoppedWithoutError);
    EXPECT_EQ(unknown.localizedDescription(), "Screen Recording stopped due to unknown error.");
    EXPECT_EQ(log2.taken().at(0).message, "ScreenCaptureKit stopped without error, unknown reason.");
    EXPECT_EQ(log2.taken().at(1).metadata.at("isLowDiskSpace"), "false");
}

TEST(ScreenCaptureStop, ASystemStopIsLowDiskSpaceOnlyWhenTheDiskIsLow) {
    testing::LogCapture log;
    const auto full = createErrorFromScreenCapture(streamError(SCStreamError::systemStoppedStream), true, log.logger);
    EXPECT_EQ(full.code(), Code::screenCaptureStoppedLowDiskSpace);
    EXPECT_EQ(full.localizedDescription(), "Recording stopped due to low disk space") << "this text has no full stop";
    EXPECT_EQ(full._userInfo(), (OVError::UserInfo{{"SCStreamError", "SCStreamError(-3821)"}}));
    EXPECT_EQ(log.single()->message, "ScreenCaptureKit stopped by system, low disk space.");

    testing::LogCapture log2;
    const auto ordinary =
        createErrorFromScreenCapture(streamError(SCStreamError::systemStoppedStream), false, log2.logger);
    EXPECT_EQ(ordinary.code(), Code::screenCaptureStoppedWithError);
    EXPECT_EQ(ordinary.localizedDescription(), "Recording stopped with a screen capture error: The stream stopped.");
    EXPECT_EQ(ordinary._userInfo(), (OVError::UserInfo{{"optionalError", "SCStreamError(-3821)"}}));
    EXPECT_EQ(ordinary.debugDescription(), "screenCaptureStoppedWithError");
    EXPECT_EQ(log2.single()->message, "ScreenCaptureKit stopped with an error.");
}

TEST(ScreenCaptureStop, OtherErrorsInterruptWithTheirOwnText) {
    testing::LogCapture log;
    // Not a stream error at all, with the user-stop number: still an interruption.
    const auto posix = std::make_exception_ptr(platform::PlatformError("Other", -3817, "Pipe closed", "EPIPE"));
    const auto signal = AbortSignal::create(posix, true, log.logger);
    ASSERT_EQ(signal.kind, AbortSignal::Kind::interrupted);
    const auto error = errorOf(signal);
    EXPECT_EQ(error.code(), Code::screenCaptureStoppedWithError);
    EXPECT_EQ(error.localizedDescription(), "Recording stopped with a screen capture error: Pipe closed.");
    EXPECT_EQ(error._userInfo().at("optionalError"), "EPIPE");
}

}  // namespace
}  // namespace ov
