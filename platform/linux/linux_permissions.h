#pragma once
// What a Linux desktop lets this process reach, read as permissions. Linux has
// no permission prompts: a permission is what the process can actually open.
//
// - Inside a Flatpak or Snap sandbox every kind is `restricted`: what the
//   sandbox lets through is decided by its portals, not by us.
// - Cameras: the V4L2 nodes of the device directory. None at all: authorized
//   (there is nothing to deny; a recorder then fails on the missing camera).
//   Some, and at least one opens for reading and writing: authorized.
//   Some, and none opens: denied (the user is not in the "video" group).
// - Screens, input monitoring and accessibility control: an X display that
//   accepts a connection. A pure Wayland session offers none of them to an X
//   client until a portal backend exists.

#include <filesystem>
#include <functional>

#include "platform/av_capture_device.h"

namespace ov::platform::linux_permissions {

bool isSandboxed();

struct DeviceAccessCheck {
    std::filesystem::path deviceDirectory = "/dev";
    // Whether this process may open the node for reading and writing.
    std::function<bool(const std::filesystem::path& node)> canOpen;
    std::function<bool()> sandboxed = isSandboxed;
};

AVAuthorizationStatus cameraAuthorization(const DeviceAccessCheck& check = {});

// Whether $DISPLAY names an X server that accepts a connection now.
bool xDisplayAccepts();

}  // namespace ov::platform::linux_permissions
