#include "session/ov_recorder_types.h"

#include "foundation/ov_error.h"

namespace ov {

std::string_view caseName(OVRecorderAbortReason::Kind kind) {
    switch (kind) {
        case OVRecorderAbortReason::Kind::userStopped: return "userStopped";
        case OVRecorderAbortReason::Kind::interrupted: return "interrupted";
        case OVRecorderAbortReason::Kind::failed: return "failed";
    }
    return "failed";
}

std::string OVRecorderAbortReason::logErrorDescription() const {
    if (kind_ == Kind::userStopped) return "userStopped";
    std::string text = std::string(caseName(kind_)) + ":";
    if (!error_) return text;
    try {
        std::rethrow_exception(error_);
    } catch (const OVError& e) {
        text += " " + e.localizedDescription();
        text += " " + e.debugDescription();
    } catch (...) {
        text += " " + platform::describeError(std::current_exception()).debugDescription;
    }
    return text;
}

}  // namespace ov
