#pragma once
// Naming the real cause when a source can't be opened or sends nothing. A
// recorder calls one of these before raising its own general error: if the
// discoveries know the source, the call logs one error line and throws an
// OVError built from the source's name and availability ("Can't record 'Studio
// Mic' because it is not connected anymore."); if they don't, it returns and
// the caller's error stands.

#include <cstdint>
#include <memory>
#include <string>

#include "session/source_lookup.h"

namespace ov {

class Logger;

void throwMicrophoneNoAVCaptureDevice(const std::string& microphoneID, const Logger& logger,
                                      const SourceLookup& lookup = *SourceLookup::shared());
void throwMicrophoneNoSampleBuffers(const std::string& microphoneID, const Logger& logger,
                                    const SourceLookup& lookup = *SourceLookup::shared());
void throwCameraNoAVCaptureDevice(const std::string& cameraID, const Logger& logger,
                                  const SourceLookup& lookup = *SourceLookup::shared());
void throwCameraNoSampleBuffers(const std::string& cameraID, const Logger& logger,
                                const SourceLookup& lookup = *SourceLookup::shared());
void throwAppleDeviceNoAVCaptureDevice(const std::string& deviceID, const Logger& logger,
                                       const SourceLookup& lookup = *SourceLookup::shared());
void throwAppleDeviceNoVideoSampleBuffers(const std::string& deviceID, const Logger& logger,
                                          const SourceLookup& lookup = *SourceLookup::shared());
void throwCantFindDisplay(uint32_t displayID, const Logger& logger,
                          const SourceLookup& lookup = *SourceLookup::shared());
void throwCantFindWindow(uint32_t windowID, const Logger& logger,
                         const SourceLookup& lookup = *SourceLookup::shared());

}  // namespace ov
