#pragma once
// Error diagnostics answered from the discoveries: a source's name and
// availability by id, read fresh (an update step runs first), so that a
// recording of a display that went says it is not connected rather than that
// it can't be found.

namespace ov {

// Installs the lookup (SourceLookup::setShared).
void installDiscoverySourceLookup();
// Makes the display, window and application discoveries, so that they know
// what is there before anything goes.
void startDiscoveries();

}  // namespace ov
