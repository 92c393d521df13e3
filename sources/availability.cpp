#include "sources/availability.h"

namespace ov {

std::string_view caseName(RunningApplicationAvailability availability) {
    return availability == RunningApplicationAvailability::available ? "available" : "notRunning";
}

std::string availabilityStatus(CaptureDeviceAvailability availability) {
    switch (availability) {
        case CaptureDeviceAvailability::available: return "Available";
        case CaptureDeviceAvailability::lidClosed: return "MacBook lid closed";
        case CaptureDeviceAvailability::unknownSuspended: return "Suspended";
        case CaptureDeviceAvailability::notConnected: return "Not connected";
    }
    return "";
}

std::string availabilityRecoverySuggestion(CaptureDeviceAvailability availability, bool camera) {
    switch (availability) {
        case CaptureDeviceAvailability::available: return "";
        case CaptureDeviceAvailability::lidClosed: return "Open MacBook lid";
        case CaptureDeviceAvailability::unknownSuspended: return camera ? "Unsuspend camera" : "Unsuspend microphone";
        case CaptureDeviceAvailability::notConnected: return camera ? "Connect camera" : "Connect microphone";
    }
    return "";
}

std::string availabilityStatus(DisplayAvailability availability) {
    switch (availability) {
        case DisplayAvailability::available: return "Available";
        case DisplayAvailability::lidClosed: return "MacBook lid closed";
        case DisplayAvailability::notConnected: return "Not connected";
    }
    return "";
}

std::string availabilityRecoverySuggestion(DisplayAvailability availability) {
    switch (availability) {
        case DisplayAvailability::available: return "";
        case DisplayAvailability::lidClosed: return "Open MacBook lid";
        case DisplayAvailability::notConnected: return "Connect display";
    }
    return "";
}

std::string availabilityStatus(AppleDeviceAvailability availability) {
    switch (availability) {
        case AppleDeviceAvailability::available: return "Available";
        case AppleDeviceAvailability::notPaired: return "Device not paired";
        case AppleDeviceAvailability::notConnected: return "Device not connected";
        case AppleDeviceAvailability::pairedNeedsConnect: return "Device paired, but not connected";
        case AppleDeviceAvailability::pairedNeedsReconnect: return "Device paired, needs to reconnect";
    }
    return "";
}

std::string availabilityRecoverySuggestion(AppleDeviceAvailability availability) {
    switch (availability) {
        case AppleDeviceAvailability::available: return "";
        case AppleDeviceAvailability::notPaired: return "Tap 'Trust' on iPhone";
        case AppleDeviceAvailability::notConnected: return "Connect via cable";
        case AppleDeviceAvailability::pairedNeedsConnect: return "(Re-)connect via cable";
        case AppleDeviceAvailability::pairedNeedsReconnect: return "Unplug cable, and reconnect again";
    }
    return "";
}

}  // namespace ov
