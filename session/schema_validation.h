#pragma once
// Checks of a recording schema that need no device: where the bundle goes,
// what its files are called and how far audio may be delayed. A schema that
// fails them is refused before anything touches the disk.

#include <string>

#include "session/ov_recorder_schema.h"

namespace ov {

// Longest accepted audioDelay, in seconds. A delay is a small correction of a
// device's latency; anything near this is a mistake of the caller, and a huge
// one would have the recorder write (and hold in memory) that much silence.
inline constexpr double maxAudioDelaySeconds = 5.0;

// Longest accepted file name or prefix, in bytes: a prefix gets "-audio-0001.m4s"
// and the like appended and must still fit a file name.
inline constexpr size_t maxFilenameLength = 200;

// Fails with OVError invalidConfiguration naming the first problem:
// - an output directory that is not absolute;
// - a filename or filenamePrefix that is not one plain path component (empty,
//   ".", "..", a "/" or a NUL byte, longer than maxFilenameLength), or that
//   takes a name of the bundle's own files ("orvane.json", "orvane.log" and
//   their side files: every name that starts with "orvane.");
// - two items whose files would have the same name (a prefix owns every name
//   that starts with the prefix and "." or "-");
// - an audioDelay that is negative, not finite or above maxAudioDelaySeconds.
void validateSchema(const OVRecorderSchema& schema);

// The name problem of one filename or prefix, or empty when it is fine.
std::string filenameProblem(const std::string& name);

}  // namespace ov
