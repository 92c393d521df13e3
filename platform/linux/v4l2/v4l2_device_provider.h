#pragma once
// The `linux` backend's cameras: the V4L2 video capture nodes.
//
// A node counts when it captures video by streaming and offers a format we
// take (MJPEG, YUYV, NV12). UVC metadata nodes, memory-to-memory codecs and
// raw Bayer sensor nodes are left out. Identity comes from sysfs, so that a
// camera keeps its id when its node is renumbered (a replug, another camera
// plugged first): "usb-<vid>:<pid>-<serial or port path>-video-index<N>", or
// the driver's bus_info for cameras that aren't USB devices.
//
// Formats: one per pixel format and size, with the frame rate ranges the
// node lists; MJPEG is offered as the decoded '420f', YUYV as 'yuvs', NV12 as
// '420v'. Nodes that list stepwise or continuous sizes get a ladder of common
// sizes inside their bounds.
//
// The device directory, the sysfs root and the system calls are parameters,
// so that tests run all of it against a fake.
//
// Hotplug: while a change handler is set, a thread watches the device
// directory with inotify (nodes created, removed, renamed or changing their
// permissions) and calls the handler for every "videoN" node that changes.
// No udev daemon is needed, which CI machines and containers lack; the
// listing itself is always a fresh scan.

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/capture/device_provider.h"
#include "platform/linux/v4l2/v4l2_camera.h"
#include "platform/linux/v4l2/v4l2_io.h"

namespace ov::platform {

class V4L2DeviceProvider final : public CaptureDeviceProvider,
                                 public std::enable_shared_from_this<V4L2DeviceProvider> {
public:
    V4L2DeviceProvider(std::shared_ptr<V4L2Io> io = systemV4L2Io(), std::filesystem::path deviceDirectory = "/dev",
                       std::filesystem::path sysfsRoot = "/sys");
    ~V4L2DeviceProvider() override;

    std::string apiName() const override { return "v4l2"; }
    // The nodes present now, probed anew (known cameras aren't opened again).
    std::vector<AVCaptureDeviceRef> devices() const override;
    void setDevicesChangedHandler(std::function<void()> handler) override;

    // The camera with this id, connected or not; null for one never seen.
    std::shared_ptr<V4L2Camera> camera(const std::string& uniqueID) const;

private:
    struct Probe;
    std::shared_ptr<V4L2Camera> probe(const std::string& node) const;
    void deviceGone() const;
    void watchDeviceDirectory(int inotifyFd);
    void stopWatching();

    std::shared_ptr<V4L2Io> io_;
    std::filesystem::path deviceDirectory_;
    std::filesystem::path sysfsRoot_;
    mutable std::mutex mutex_;
    mutable std::map<std::string, std::shared_ptr<V4L2Camera>> known_;
    std::shared_ptr<std::function<void()>> changed_ = std::make_shared<std::function<void()>>();
    std::mutex watchMutex_;
    std::atomic<bool> watching_{false};
    int wake_ = -1;  // eventfd that ends the watcher's wait
    std::thread watcher_;
};

}  // namespace ov::platform
