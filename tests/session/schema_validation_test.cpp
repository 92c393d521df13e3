// What the library refuses before a recording touches the disk, for callers
// of the library itself (the host's view is tested over the pipes).
#include "session/schema_validation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "foundation/ov_error.h"

namespace ov {
namespace {

using Item = OVRecorderSchemaItem;

OVError::Code refusal(const OVRecorderSchema& schema) {
    try {
        validateSchema(schema);
    } catch (const OVError& e) {
        return e.code();
    }
    return OVError::Code::internalError;  // stands for "accepted"
}

Item microphone(double delay, std::optional<std::string> filename = std::nullopt) {
    return Item::microphone("m", false, delay, EchoCancellation::off, std::move(filename));
}

TEST(SchemaValidation, DelaysThatAreNotAFewSecondsAreRefusedOnEveryItemThatHasOne) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    for (double delay : {nan, inf, -inf, -0.001, maxAudioDelaySeconds + 0.001}) {
        SCOPED_TRACE(delay);
        EXPECT_EQ(refusal({std::nullopt, {microphone(delay)}}), OVError::Code::invalidConfiguration);
        EXPECT_EQ(refusal({std::nullopt, {Item::webcam("m", "c", std::nullopt, false, false, delay, std::nullopt)}}),
                  OVError::Code::invalidConfiguration);
    }
    EXPECT_EQ(refusal({std::nullopt, {microphone(0), microphone(maxAudioDelaySeconds)}}),
              OVError::Code::internalError);
}

TEST(SchemaValidation, DefaultNamesNeverCollideAndGivenOnesAreCheckedAcrossKinds) {
    // Each item draws its own id, so default names differ.
    EXPECT_EQ(refusal({std::nullopt, {microphone(0), microphone(0), microphone(0)}}), OVError::Code::internalError);
    // A screen recording and a microphone asking for one name.
    auto display = Item::display(1, std::nullopt, {}, OVColorSpace::sRGB, FrameInterval{0}, std::nullopt, true, false,
                                 false, false, std::string("take.mov"));
    EXPECT_EQ(refusal({std::nullopt, {display, microphone(0, "take.mov")}}), OVError::Code::invalidConfiguration);
    EXPECT_EQ(refusal({std::filesystem::path("relative"), {}}), OVError::Code::invalidConfiguration);
    EXPECT_EQ(refusal({std::filesystem::path("/absolute"), {}}), OVError::Code::internalError);
}

TEST(SchemaValidation, NamesAreOnePlainComponent) {
    EXPECT_EQ(filenameProblem("mic.m4a"), "");
    EXPECT_EQ(filenameProblem(".hidden.m4a"), "");
    EXPECT_EQ(filenameProblem("orvane-take.m4a"), "") << "only orvane.* is the bundle's";
    EXPECT_NE(filenameProblem("a/b"), "");
    EXPECT_NE(filenameProblem(std::string("a\0b", 3)), "");
    EXPECT_NE(filenameProblem("orvane.tmp"), "") << "the description's intermediate file";
    EXPECT_NE(filenameProblem("orvane.log~"), "") << "the log's hot file";
}

}  // namespace
}  // namespace ov
