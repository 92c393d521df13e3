#pragma once
// A screen capture of one content filter on an X server. Each stream has its
// own connection (its DAMAGE objects, shared memory segment and Composite
// redirection belong to it and go with it) and one capture thread:
//
// - pacing: a timerfd on CLOCK_MONOTONIC at absolute deadlines start + n·T,
//   missed deadlines skipped, never a burst; T is the configured minimum frame
//   interval, else the monitor's refresh interval, never shorter than 1/60 s;
// - a tick with a change (DAMAGE, the pointer or its shape) sends a complete
//   frame, a tick without one an idle sample with no picture; the first tick
//   always sends a complete frame;
// - a display filter that hides nothing on its display grabs the root through
//   MIT-SHM; other filters compose the kept top-level windows' Composite
//   pixmaps with RENDER on the server, bottom to top over black, then grab.
//
// Presentation times are host times (CLOCK_MONOTONIC) taken at the tick.

#include <memory>
#include <string>

#include "platform/capture/screen_capture_producer.h"

namespace ov::platform::x11 {

// Throws SCStreamError: failedToStart when the display can't be opened or
// lacks an extension, noCaptureSource when the filter's display or window
// isn't there.
std::unique_ptr<ScreenCaptureProducer> startX11ScreenCapture(const std::string& display, const SCContentFilter& filter,
                                                             const SCStreamConfiguration& configuration,
                                                             ScreenCaptureSink sink);

}  // namespace ov::platform::x11
