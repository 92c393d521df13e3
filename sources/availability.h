#pragma once
// The availability of each kind of source, with the texts a user sees. The
// enumerations themselves live with the error diagnostics (session/), which
// need them below this layer; the case names there are the text form.
//
//   camera, microphone   available, lidClosed, unknownSuspended, notConnected
//   display              available, lidClosed, notConnected
//   Apple device         available, notPaired, notConnected, pairedNeedsConnect, pairedNeedsReconnect
//   window               available, notOnScreen, closed          (no texts)
//   running application  available, notRunning                   (no texts)

#include <string>
#include <string_view>

#include "session/source_lookup.h"

namespace ov {

enum class RunningApplicationAvailability { available, notRunning };
std::string_view caseName(RunningApplicationAvailability availability);

// "Available", "MacBook lid closed", "Suspended", "Not connected".
std::string availabilityStatus(CaptureDeviceAvailability availability);
// "", "Open MacBook lid", "Unsuspend camera"/"Unsuspend microphone", "Connect camera"/"Connect microphone".
std::string availabilityRecoverySuggestion(CaptureDeviceAvailability availability, bool camera);

// "Available", "MacBook lid closed", "Not connected".
std::string availabilityStatus(DisplayAvailability availability);
// "", "Open MacBook lid", "Connect display".
std::string availabilityRecoverySuggestion(DisplayAvailability availability);

std::string availabilityStatus(AppleDeviceAvailability availability);
std::string availabilityRecoverySuggestion(AppleDeviceAvailability availability);

}  // namespace ov
