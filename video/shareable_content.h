#pragma once
// Guarded retrieval of the shareable content (displays, windows,
// applications), which the service behind it may be slow to answer or never
// answer at all.
//
// One retrieval runs at a time in the process (a token, FIFO). A retrieval
// asks at 0, 2.0 and 4.0 s without cancelling earlier requests, takes the
// first answer (content or error) and gives up at 4.1 s. If nothing has ever
// come back in this process, a time-out restarts the service once and the
// whole sequence runs again; a final time-out becomes the caller's own
// error, which says what could not be done.

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "foundation/platform_error.h"
#include "output/ov_logger.h"
#include "platform/dispatch_queue.h"
#include "platform/sc_shareable_content.h"
#include "timing/token_bucket.h"

namespace ov {

class ShareableContentError : public platform::PlatformError {
public:
    static constexpr const char* errorDomain = "Orvane.ShareableContentError";
    enum class Case : int {
        timeout = 0,
        timeoutRecordWindow = 1,
        timeoutRecordDisplay = 2,
        timeoutRecordSystemAudio = 3,
        timeoutListWindows = 4,
        timeoutListDisplays = 5,
        timeoutListApplications = 6,
    };
    explicit ShareableContentError(Case kind);
    Case kind() const { return kind_; }
    static std::string message(Case kind);

private:
    Case kind_;
};

class ShareableContent {
public:
    // When the requests go out and when the retrieval gives up, in seconds
    // after its start. Tests shorten them; the defaults are the product's.
    struct Timing {
        double secondRequest = 2.0;
        double thirdRequest = 4.0;
        double timeout = 4.1;
    };

    // Takes the process's token for the whole call. Fails with `timeoutError`
    // on a final time-out; any other failure passes unchanged.
    static platform::SCShareableContent getContentWithRestart(bool includeDesktopAndOffScreenWindows,
                                                              ShareableContentError::Case timeoutError,
                                                              const Logger& logger);

    explicit ShareableContent(Logger logger);
    ~ShareableContent();
    ShareableContent(const ShareableContent&) = delete;
    ShareableContent& operator=(const ShareableContent&) = delete;

    // The content and the number of the request that brought it. Only one call
    // per instance: a second one is a programming fault (std::logic_error).
    std::pair<platform::SCShareableContent, int> getContentWithRetries(bool includeDesktopAndOffScreenWindows);

    static TokenBucket& tokenBucket();
    // Whether content ever came back in this process.
    static bool returnedOnce();

    // ---- For tests.
    static void setTiming(Timing timing);
    static Timing timing();
    static void resetReturnedOnce();

private:
    struct Retrieval;
    Logger logger_;
    std::shared_ptr<Retrieval> retrieval_;
    std::shared_ptr<platform::DispatchQueue> queue_;
};

}  // namespace ov
