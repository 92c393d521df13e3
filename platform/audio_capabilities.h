#pragma once
// What the machine's sound system can do for audio capture.

#include <optional>
#include <string>
#include <vector>

namespace ov::platform {

// Whether audio can be captured per application: the sound server must speak
// the PulseAudio protocol (PulseAudio itself or PipeWire's pulse server), which
// gives a monitor stream per playback stream. True only when such a server
// accepts a connection now.
bool isPerApplicationAudioCaptureAvailable();

// Where a PulseAudio-protocol client would look for the server, in order:
// the addresses of PULSE_SERVER if set, else the user's runtime socket and the
// system-wide one. Entries are "unix:<path>" or "tcp:<host>:<port>".
std::vector<std::string> pulseServerAddresses();

}  // namespace ov::platform
