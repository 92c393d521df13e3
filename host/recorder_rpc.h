#pragma once
// "Recorder": the type a host drives to record. Its type-level actions list
// what can be recorded; "init" makes an OVRecorder from a wire schema, whose
// instance actions are "prepare", "start" and "stop". A recording that ends on
// its own is reported once to the host's "onAbortInstance" identifier.
#include <memory>
#include <optional>
#include <string>

#include "host/halvern_rpc.h"
#include "foundation/json_coding.h"
#include "host/recorder_schema.h"
#include "session/ov_recorder.h"

namespace ov::host {

struct RecorderInitParams {
    RecorderSchema schema;
    std::string onAbortInstance;
};

struct GetCamerasParams {
    bool includeDeskView = false;
};

class RecorderRPC final : public HVRPCObject {
public:
    static constexpr const char* typeName = "Recorder";

    explicit RecorderRPC(std::unique_ptr<OVRecorder> recordingSession)
        : recordingSession_(std::move(recordingSession)) {}

    static std::shared_ptr<RecorderRPC> create(const std::shared_ptr<HalvernRPC>& engine, const HVRPCParams& params);
    static std::optional<Json> performType(const std::string& action, const HVRPCParams& params);

    std::string rpcTypeName() const override { return typeName; }
    std::optional<Json> perform(const std::string& action, const HVRPCParams& params) override;

    OVRecorder& recordingSession() { return *recordingSession_; }

    // A recording in progress is stopped as "stop" would, then released.
    void prepareForRelease() override;

    // Stops every recording of every live Recorder object as "stop" would and
    // waits for them all; the objects stay. For a process that ends or whose
    // host is gone. Returns the number of objects looked at.
    static size_t stopAllRecordings(const char* why);

    // What the recording's end does for the host: one callback request to
    // `target` with the reason's record. Holds the engine weakly.
    static OVRecorder::AbortHandler abortHandler(const std::shared_ptr<HalvernRPC>& engine, std::string target);

private:
    std::unique_ptr<OVRecorder> recordingSession_;
};

// {"url": the bundle's plain path, "info": the bundle description}.
Json recordingResultJSON(const OVRecorderResult& result);
// The host's record of an abort reason: "reason", "result" and, unless the
// user stopped, "error".
Json abortReasonJSON(const OVRecorderAbortReason& reason);

}  // namespace ov::host

namespace ov::coding {
template <>
struct Decodable<host::RecorderInitParams> {
    static host::RecorderInitParams decode(const Decoder& d);
};
template <>
struct Decodable<host::GetCamerasParams> {
    static host::GetCamerasParams decode(const Decoder& d);
};
}  // namespace ov::coding
