#pragma once
// The values of OVRecorder's public face: its schema and settings, what a
// recording leaves, how one that ended on its own is reported, and how a stop
// that failed but left files is told. OVRecorder derives from OVRecorderTypes,
// so that callers name them OVRecorder::Schema, OVRecorder::AbortReason, ...

#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "foundation/platform_error.h"
#include "session/grouped_errors.h"
#include "session/ov_recorder_schema.h"

namespace ov {

struct OVBundleInfo;

struct OVRecorderSettings {
    bool allowFrameReordering = true;
    bool updatesUserPreferred = true;
    // False makes pause and resume fail; recorders then retime against the first interval.
    bool _useTimeline = true;
    // Audio segments are the longer ones.
    int audioSegmentDuration = 6;  // seconds
    int videoSegmentDuration = 2;  // seconds
    std::optional<double> keyframeIntervalDuration;  // seconds
};

struct OVRecorderResult {
    std::filesystem::path bundleURL;
    // The description of the bundle's files; shared because it is immutable once written.
    std::shared_ptr<const OVBundleInfo> bundleInfo;
};

// A stop that failed yet left a bundle: the result holds what was produced and
// the group what went wrong.
class OVRecorderPartialResultError : public std::exception, public platform::DescribableError {
public:
    static constexpr const char* domain = "Orvane.OVRecorder.PartialResultError";

    OVRecorderPartialResultError(OVRecorderResult result, GroupedErrors groupedErrors)
        : result(std::move(result)), groupedErrors(std::move(groupedErrors)) {}

    OVRecorderResult result;
    GroupedErrors groupedErrors;

    std::string localizedDescription() const { return groupedErrors.localizedDescription(); }
    std::string debugDescription() const { return groupedErrors.debugDescription(); }
    const char* what() const noexcept override { return groupedErrors.what(); }
    platform::ErrorDescription errorDescription() const override {
        return {domain, 1, localizedDescription(), debugDescription()};
    }
};

// What the owner of a recording learns when it ended on its own.
class OVRecorderAbortReason {
public:
    enum class Kind { userStopped, interrupted, failed };

    static OVRecorderAbortReason userStopped(OVRecorderResult result) {
        return OVRecorderAbortReason(Kind::userStopped, std::move(result), nullptr);
    }
    static OVRecorderAbortReason interrupted(OVRecorderResult result, std::exception_ptr error) {
        return OVRecorderAbortReason(Kind::interrupted, std::move(result), std::move(error));
    }
    static OVRecorderAbortReason failed(OVRecorderResult result, std::exception_ptr error) {
        return OVRecorderAbortReason(Kind::failed, std::move(result), std::move(error));
    }

    Kind kind() const { return kind_; }
    const OVRecorderResult& result() const { return result_; }
    // Null for userStopped.
    const std::exception_ptr& error() const { return error_; }

    // "userStopped", or "interrupted:"/"failed:", the error's text for people
    // when it is an OVError, and its debug text, joined by blanks.
    std::string logErrorDescription() const;
    std::string debugDescription() const { return logErrorDescription(); }

private:
    OVRecorderAbortReason(Kind kind, OVRecorderResult result, std::exception_ptr error)
        : kind_(kind), result_(std::move(result)), error_(std::move(error)) {}
    Kind kind_;
    OVRecorderResult result_;
    std::exception_ptr error_;
};

std::string_view caseName(OVRecorderAbortReason::Kind kind);

struct OVRecorderTypes {
    using Schema = OVRecorderSchema;
    using SchemaItem = OVRecorderSchemaItem;
    using Settings = OVRecorderSettings;
    using Result = OVRecorderResult;
    using AbortReason = OVRecorderAbortReason;
    using PartialResultError = OVRecorderPartialResultError;
};

}  // namespace ov
