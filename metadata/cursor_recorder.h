#pragma once
// Samples the cursor once per display refresh into a CursorTimeline, which
// the input recorder of the same item reads. Writes no file.

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "metadata/cursor_timeline.h"
#include "output/ov_logger.h"
#include "platform/capture/input_provider.h"
#include "platform/cv_display_link.h"
#include "session/recorder.h"

namespace ov {

// A warning that is logged at most once per `rateLimit` seconds per key; the
// keys are independent. The log line carries "rateLimitedAt".
using ThrottledLogWarning =
    std::function<void(const std::string& key, double time, const std::string& message, LogMetadata metadata)>;
ThrottledLogWarning createThrottledLogWarning(double rateLimit, const Logger& logger);

class CursorRecorder final : public Recorder {
public:
    // The cursor source is made at prepare from the capture platform's input
    // provider, unless one is given here (tests).
    CursorRecorder(std::string id, const Logger& logger, std::shared_ptr<platform::CursorSource> source = nullptr);
    ~CursorRecorder() override;

    std::string id() const override { return id_; }
    // Throws OVError inputRecordingUnavailable when the cursor can't be read.
    std::vector<OVBundleInfo::FileAsset> prepare() override;
    std::vector<OVBundleInfo::FileAsset> finish() override;
    void cancel();

    const std::shared_ptr<CursorTimeline>& timeline() const { return timeline_; }
    // One tick of the display link (tests drive it by hand).
    void sampleNow();

    static constexpr double logRateLimit = 10.0;

private:
    std::string id_;
    Logger logger_;
    std::shared_ptr<CursorTimeline> timeline_;
    std::shared_ptr<platform::CursorSource> source_;
    ThrottledLogWarning throttledWarning_;
    uint32_t displayId_ = 0;
    std::unique_ptr<platform::CVDisplayLink> displayLink_;
};

}  // namespace ov
