#include "platform/linux/v4l2/v4l2_device_provider.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <fcntl.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <regex>
#include <set>

#include <fmt/format.h>

#include "platform/os_log.h"

namespace ov::platform {

namespace fs = std::filesystem;

namespace {

OSLog& log() {
    static OSLog instance(OSLog::defaultSubsystem, "V4L2");
    return instance;
}

std::string readAttribute(const fs::path& path) {
    std::ifstream in(path);
    std::string text;
    if (!in || !std::getline(in, text)) return "";
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '\r')) text.pop_back();
    return text;
}

// uvcvideo names a node "<product>: <product>"; the doubled half goes.
std::string cleanName(std::string name) {
    const auto colon = name.find(": ");
    if (colon != std::string::npos && name.substr(0, colon) == name.substr(colon + 2)) name.resize(colon);
    return name;
}

std::string fromCString(const uint8_t* text, size_t size) {
    return std::string(reinterpret_cast<const char*>(text), strnlen(reinterpret_cast<const char*>(text), size));
}

// What sysfs says of a node; USB cameras carry their vendor, product and serial.
struct SysfsIdentity {
    int index = 0;
    std::string name;
    bool usb = false;
    std::string vendorID, productID, serial, portPath, product, manufacturer, removable;
};

SysfsIdentity sysfsIdentity(const fs::path& sysfsRoot, const std::string& node) {
    SysfsIdentity identity;
    const fs::path base = sysfsRoot / "class" / "video4linux" / node;
    const std::string index = readAttribute(base / "index");
    identity.index = index.empty() ? 0 : std::atoi(index.c_str());
    identity.name = cleanName(readAttribute(base / "name"));
    std::error_code error;
    fs::path device = fs::canonical(base / "device", error);
    if (error) return identity;
    // The node hangs off a USB interface ("1-2:1.0"); its parent is the device.
    for (const fs::path& candidate : {device, device.parent_path()}) {
        if (fs::exists(candidate / "idVendor")) {
            identity.usb = true;
            identity.vendorID = readAttribute(candidate / "idVendor");
            identity.productID = readAttribute(candidate / "idProduct");
            identity.serial = readAttribute(candidate / "serial");
            identity.portPath = candidate.filename().string();
            identity.product = readAttribute(candidate / "product");
            identity.manufacturer = readAttribute(candidate / "manufacturer");
            identity.removable = readAttribute(candidate / "removable");
            break;
        }
    }
    return identity;
}

std::string usbUniqueID(const SysfsIdentity& identity) {
    return fmt::format("usb-{}:{}-{}-video-index{}", identity.vendorID, identity.productID,
                       identity.serial.empty() ? identity.portPath : identity.serial, identity.index);
}

int hexValue(const std::string& text) { return text.empty() ? 0 : int(std::strtol(text.c_str(), nullptr, 16)); }

// Sizes offered for nodes that take any size within bounds.
constexpr std::pair<uint32_t, uint32_t> kSizeLadder[] = {{320, 240},   {640, 360},   {640, 480},   {800, 600},
                                                         {1024, 768},  {1280, 720},  {1280, 960},  {1600, 1200},
                                                         {1920, 1080}, {2560, 1440}, {3840, 2160}};

bool isVideoNode(const std::string& name) { return std::regex_match(name, std::regex("video[0-9]+")); }

}  // namespace

V4L2DeviceProvider::V4L2DeviceProvider(std::shared_ptr<V4L2Io> io, fs::path deviceDirectory, fs::path sysfsRoot)
    : io_(std::move(io)), deviceDirectory_(std::move(deviceDirectory)), sysfsRoot_(std::move(sysfsRoot)) {}

V4L2DeviceProvider::~V4L2DeviceProvider() { stopWatching(); }

void V4L2DeviceProvider::setDevicesChangedHandler(std::function<void()> handler) {
    const bool watch = static_cast<bool>(handler);
    {
        std::lock_guard lock(mutex_);
        *changed_ = std::move(handler);
    }
    if (!watch) {
        stopWatching();
        return;
    }
    std::lock_guard lock(watchMutex_);
    if (watching_.load()) return;
    // The watch is in place before this returns, so no change after it is missed.
    const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) {
        log().error(fmt::format("Camera hotplug can't be watched: inotify: {}", std::strerror(errno)));
        return;
    }
    const uint32_t mask = IN_CREATE | IN_DELETE | IN_ATTRIB | IN_MOVED_TO | IN_MOVED_FROM;
    if (::inotify_add_watch(fd, deviceDirectory_.c_str(), mask) < 0) {
        log().error(fmt::format("Camera hotplug can't be watched in {}: {}", deviceDirectory_.string(), std::strerror(errno)));
        ::close(fd);
        return;
    }
    watching_ = true;
    wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    watcher_ = std::thread([this, fd] { watchDeviceDirectory(fd); });
}

void V4L2DeviceProvider::stopWatching() {
    std::lock_guard lock(watchMutex_);
    watching_ = false;
    const uint64_t one = 1;
    if (wake_ >= 0) (void)!::write(wake_, &one, sizeof one);
    if (watcher_.joinable()) watcher_.join();
    if (wake_ >= 0) ::close(wake_);
    wake_ = -1;
}

void V4L2DeviceProvider::watchDeviceDirectory(int fd) {
    alignas(inotify_event) char buffer[4096];
    while (watching_.load()) {
        pollfd descriptors[2] = {{fd, POLLIN, 0}, {wake_, POLLIN, 0}};
        // Asleep until the directory changes or the watch is stopped.
        if (::poll(descriptors, wake_ >= 0 ? 2 : 1, wake_ >= 0 ? -1 : 100) <= 0) continue;
        if (!(descriptors[0].revents & POLLIN)) continue;
        bool changed = false;
        for (;;) {
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n <= 0) break;
            for (ssize_t at = 0; at < n;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
                if (event->len > 0 && isVideoNode(event->name)) changed = true;
                at += ssize_t(sizeof(inotify_event) + event->len);
            }
        }
        // A node just created may not be ready for opening yet (udev sets its
        // permissions after): its ATTRIB event brings another look.
        if (changed) deviceGone();
    }
    ::close(fd);
}

void V4L2DeviceProvider::deviceGone() const {
    std::function<void()> handler;
    {
        std::lock_guard lock(mutex_);
        handler = *changed_;
    }
    if (handler) handler();
}

std::shared_ptr<V4L2Camera> V4L2DeviceProvider::camera(const std::string& uniqueID) const {
    std::lock_guard lock(mutex_);
    auto it = known_.find(uniqueID);
    return it == known_.end() ? nullptr : it->second;
}

std::vector<AVCaptureDeviceRef> V4L2DeviceProvider::devices() const {
    std::vector<std::pair<int, std::string>> nodes;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(deviceDirectory_, error)) {
        const std::string name = entry.path().filename().string();
        if (isVideoNode(name)) nodes.emplace_back(std::atoi(name.c_str() + 5), name);
    }
    std::sort(nodes.begin(), nodes.end());
    std::vector<AVCaptureDeviceRef> out;
    std::set<std::string> present;
    std::lock_guard lock(mutex_);
    for (const auto& [number, node] : nodes) {
        auto camera = probe(node);
        if (!camera || present.count(camera->uniqueID())) continue;
        present.insert(camera->uniqueID());
        out.push_back(camera);
    }
    for (auto& [id, camera] : known_)
        if (!present.count(id) && camera->isConnected()) camera->setPresent(false, "");
    return out;
}

std::shared_ptr<V4L2Camera> V4L2DeviceProvider::probe(const std::string& node) const {
    const std::string path = (deviceDirectory_ / node).string();
    const SysfsIdentity sysfs = sysfsIdentity(sysfsRoot_, node);
    std::string uniqueID = sysfs.usb ? usbUniqueID(sysfs) : "";
    if (!uniqueID.empty()) {
        auto it = known_.find(uniqueID);
        // A camera we know at the same node: nothing to ask it (it may be streaming).
        if (it != known_.end() && it->second->isConnected() && it->second->nodePath() == path) return it->second;
    }

    const int fd = io_->open(path, O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        log().debug(fmt::format("{}: can't open: {}", path, std::strerror(errno)));
        return nullptr;
    }
    struct Closer {
        V4L2Io& io;
        int fd;
        ~Closer() { io.close(fd); }
    } closer{*io_, fd};

    v4l2_capability capability{};
    if (io_->ioctl(fd, VIDIOC_QUERYCAP, &capability) < 0) return nullptr;
    const uint32_t caps =
        (capability.capabilities & V4L2_CAP_DEVICE_CAPS) ? capability.device_caps : capability.capabilities;
    // Metadata nodes, codecs and output nodes stream too, but aren't cameras.
    if (!(caps & V4L2_CAP_VIDEO_CAPTURE) || !(caps & V4L2_CAP_STREAMING)) return nullptr;
    if (caps & (V4L2_CAP_VIDEO_M2M | V4L2_CAP_VIDEO_M2M_MPLANE | V4L2_CAP_VIDEO_OUTPUT)) return nullptr;
    const std::string driver = fromCString(capability.driver, sizeof capability.driver);
    const std::string card = fromCString(capability.card, sizeof capability.card);
    const std::string busInfo = fromCString(capability.bus_info, sizeof capability.bus_info);
    if (uniqueID.empty())
        uniqueID = fmt::format("{}-video-index{}", busInfo.empty() ? driver + ":" + card : busInfo, sysfs.index);

    if (auto it = known_.find(uniqueID); it != known_.end()) {
        if (!it->second->isConnected() || it->second->nodePath() != path) it->second->setPresent(true, path);
        return it->second;
    }

    // Formats: one per pixel format and size, fastest rate first in its ranges.
    std::vector<AVCaptureDeviceFormatRef> formats;
    std::vector<uint32_t> pixelFormats;
    for (uint32_t i = 0;; ++i) {
        v4l2_fmtdesc description{};
        description.index = i;
        description.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        if (io_->ioctl(fd, VIDIOC_ENUM_FMT, &description) < 0) break;
        const OSType delivered = deliveredPixelFormat(description.pixelformat);
        if (!delivered) continue;
        std::vector<std::pair<uint32_t, uint32_t>> sizes;
        for (uint32_t s = 0;; ++s) {
            v4l2_frmsizeenum size{};
            size.index = s;
            size.pixel_format = description.pixelformat;
            if (io_->ioctl(fd, VIDIOC_ENUM_FRAMESIZES, &size) < 0) break;
            if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
                sizes.emplace_back(size.discrete.width, size.discrete.height);
                continue;
            }
            const auto& step = size.stepwise;
            for (const auto& [w, h] : kSizeLadder) {
                if (w < step.min_width || w > step.max_width || h < step.min_height || h > step.max_height) continue;
                if (step.step_width > 1 && (w - step.min_width) % step.step_width) continue;
                if (step.step_height > 1 && (h - step.min_height) % step.step_height) continue;
                sizes.emplace_back(w, h);
            }
            break;
        }
        for (const auto& [width, height] : sizes) {
            std::vector<AVFrameRateRange> ranges;
            for (uint32_t k = 0;; ++k) {
                v4l2_frmivalenum interval{};
                interval.index = k;
                interval.pixel_format = description.pixelformat;
                interval.width = width;
                interval.height = height;
                if (io_->ioctl(fd, VIDIOC_ENUM_FRAMEINTERVALS, &interval) < 0) break;
                if (interval.type == V4L2_FRMIVAL_TYPE_DISCRETE) {
                    const CMTime d(interval.discrete.numerator, int32_t(interval.discrete.denominator));
                    ranges.push_back({d, d});
                    continue;
                }
                ranges.push_back({CMTime(interval.stepwise.min.numerator, int32_t(interval.stepwise.min.denominator)),
                                  CMTime(interval.stepwise.max.numerator, int32_t(interval.stepwise.max.denominator))});
                break;
            }
            if (ranges.empty()) {
                const CMTime d(1, 30);  // a node that doesn't say runs at its own rate
                ranges.push_back({d, d});
            }
            std::stable_sort(ranges.begin(), ranges.end(), [](const AVFrameRateRange& a, const AVFrameRateRange& b) {
                return a.minFrameDuration < b.minFrameDuration;
            });
            auto formatDescription = CMFormatDescription::makeVideo(
                delivered, {int32_t(width), int32_t(height)}, {{CMFormatDescription::kYCbCrMatrix, "ITU_R_601_4"}},
                ranges.front().minFrameDuration);
            if (!formatDescription) continue;
            formats.push_back(std::make_shared<AVCaptureDeviceFormat>(formatDescription, ranges));
            pixelFormats.push_back(description.pixelformat);
        }
    }
    // Raw Bayer sensors and the like: nothing we can deliver.
    if (formats.empty()) {
        log().debug(path + ": no format we can deliver; left out");
        return nullptr;
    }
    size_t active = 0;
    v4l2_format current{};
    current.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (io_->ioctl(fd, VIDIOC_G_FMT, &current) == 0) {
        for (size_t i = 0; i < formats.size(); ++i) {
            const auto dimensions = formats[i]->formatDescription()->dimensions();
            if (pixelFormats[i] == current.fmt.pix.pixelformat && uint32_t(dimensions.width) == current.fmt.pix.width &&
                uint32_t(dimensions.height) == current.fmt.pix.height) {
                active = i;
                break;
            }
        }
    }

    AVCaptureDevice::Identity identity;
    identity.uniqueID = uniqueID;
    identity.localizedName =
        sysfs.usb && !sysfs.product.empty() ? sysfs.product : !sysfs.name.empty() ? sysfs.name : cleanName(card);
    identity.modelID = sysfs.usb ? fmt::format("UVC Camera VendorID_{} ProductID_{}", hexValue(sysfs.vendorID),
                                               hexValue(sysfs.productID))
                                 : driver;
    identity.manufacturer = sysfs.manufacturer;
    if (driver == "v4l2 loopback")
        identity.transportType = kAVCaptureDeviceTransportTypeVirtual;
    else if (!sysfs.usb || sysfs.removable == "fixed")
        identity.transportType = kAVCaptureDeviceTransportTypeBuiltIn;
    else
        identity.transportType = kAVCaptureDeviceTransportTypeUSB;
    identity.deviceType = identity.transportType == kAVCaptureDeviceTransportTypeBuiltIn
                              ? AVCaptureDeviceTypeBuiltInWideAngleCamera
                              : AVCaptureDeviceTypeExternal;
    identity.mediaTypes = {AVMediaType::video};

    std::weak_ptr<const V4L2DeviceProvider> weak = weak_from_this();
    auto camera = std::make_shared<V4L2Camera>(io_, path, std::move(identity), std::move(formats),
                                               std::move(pixelFormats), active, [weak] {
                                                   if (auto self = weak.lock()) self->deviceGone();
                                               });
    known_[uniqueID] = camera;
    log().info(fmt::format("{}: camera {} ({})", path, camera->localizedName(), uniqueID));
    return camera;
}

}  // namespace ov::platform
