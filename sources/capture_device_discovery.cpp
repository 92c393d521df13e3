#include "sources/capture_device_discovery.h"

#include <algorithm>

#include "platform/capture_platform.h"
#include "platform/dispatch_queue.h"
#include "sources/machine_model.h"
#include "sources/ov_user_preferred.h"

namespace ov {

using platform::AVCaptureDevice;
using platform::AVCaptureDeviceDiscoverySession;
using platform::AVCaptureDeviceRef;
using platform::AVMediaType;

namespace {

constexpr uint32_t builtInTransport = platform::kAVCaptureDeviceTransportTypeBuiltIn;
// This engine's own aggregate devices of system-audio capture are never microphones.
constexpr const char* ownTapPrefix = "Orvane-Tap-";

std::string extendedDescription(const std::vector<AVCaptureDeviceRef>& devices) {
    std::string text = "[";
    for (const auto& d : devices) {
        if (text.size() > 1) text += ", ";
        std::string type = d->deviceType();
        if (type.rfind("AVCaptureDeviceType", 0) == 0) type = type.substr(19);
        text += d->debugDescription() + " modelID:" + d->modelID() + ",manufacturer:" + d->manufacturer() +
                ",transportType:" + std::to_string(d->transportType()) + ",deviceType:" + type;
    }
    return text + "]";
}

bool startsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

}  // namespace

// ---- OVCaptureSource

bool OVCaptureSource::isVirtual() const {
    std::lock_guard lock(fieldMutex_);
    return isVirtual_;
}
std::string OVCaptureSource::localizedName() const {
    std::lock_guard lock(fieldMutex_);
    return localizedName_;
}
std::string OVCaptureSource::modelID() const {
    std::lock_guard lock(fieldMutex_);
    return modelID_;
}
std::string OVCaptureSource::manufacturer() const {
    std::lock_guard lock(fieldMutex_);
    return manufacturer_;
}
CaptureDeviceAvailability OVCaptureSource::availability() const {
    std::lock_guard lock(fieldMutex_);
    return availability_;
}

bool OVCaptureSource::updateFrom(const AVCaptureDevice& device) {
    std::lock_guard lock(fieldMutex_);
    isVirtual_ = device.transportType() == platform::kAVCaptureDeviceTransportTypeVirtual;
    modelID_ = device.modelID();
    manufacturer_ = device.manufacturer();
    if (localizedName_ == device.localizedName()) return false;
    localizedName_ = device.localizedName();
    return true;
}

bool OVCaptureSource::setAvailability(CaptureDeviceAvailability availability) {
    std::lock_guard lock(fieldMutex_);
    if (availability_ == availability) return false;
    availability_ = availability;
    return true;
}

// ---- CaptureDeviceDiscovery

CaptureDeviceDiscovery::CaptureDeviceDiscovery(Kind kind)
    : Discovery(kind == Kind::camera ? "CameraDiscovery" : "MicrophoneDiscovery"), kind_(kind) {}

CaptureDeviceDiscovery::~CaptureDeviceDiscovery() = default;

std::shared_ptr<CaptureDeviceDiscovery> CaptureDeviceDiscovery::make(Kind kind) {
    std::shared_ptr<CaptureDeviceDiscovery> discovery(new CaptureDeviceDiscovery(kind));
    discovery->start();
    return discovery;
}

std::shared_ptr<CaptureDeviceDiscovery> CaptureDeviceDiscovery::sharedCameras() {
    static auto discovery = [] {
        auto d = make(Kind::camera);
        std::weak_ptr<CaptureDeviceDiscovery> weak = d;
        OVUserPreferred::setTriggerUpdate(OVUserPreferred::Kind::camera, [weak] {
            if (auto self = weak.lock()) self->triggerUpdate();
        });
        return d;
    }();
    return discovery;
}

std::shared_ptr<CaptureDeviceDiscovery> CaptureDeviceDiscovery::sharedMicrophones() {
    static auto discovery = [] {
        auto d = make(Kind::microphone);
        std::weak_ptr<CaptureDeviceDiscovery> weak = d;
        OVUserPreferred::setTriggerUpdate(OVUserPreferred::Kind::microphone, [weak] {
            if (auto self = weak.lock()) self->triggerUpdate();
        });
        return d;
    }();
    return discovery;
}

void CaptureDeviceDiscovery::start() {
    using namespace platform;
    if (kind_ == Kind::camera) {
        // Base cameras, then desk-view cameras.
        sessions_.push_back(std::make_unique<AVCaptureDeviceDiscoverySession>(
            std::vector<AVCaptureDeviceType>{AVCaptureDeviceTypeBuiltInWideAngleCamera, AVCaptureDeviceTypeExternal,
                                             AVCaptureDeviceTypeContinuityCamera},
            AVMediaType::video));
        sessions_.push_back(std::make_unique<AVCaptureDeviceDiscoverySession>(
            std::vector<AVCaptureDeviceType>{AVCaptureDeviceTypeDeskViewCamera}, AVMediaType::video));
    } else {
        sessions_.push_back(std::make_unique<AVCaptureDeviceDiscoverySession>(
            std::vector<AVCaptureDeviceType>{AVCaptureDeviceTypeBuiltInMicrophone}, AVMediaType::audio));
        // The built-in camera tells whether the lid is closed.
        sessions_.push_back(std::make_unique<AVCaptureDeviceDiscoverySession>(
            std::vector<AVCaptureDeviceType>{AVCaptureDeviceTypeBuiltInWideAngleCamera}, AVMediaType::video));
    }
    logger_.debug("Starting with initial devices");
    update();
    observeDevices();
}

void CaptureDeviceDiscovery::postUpdate() {
    onMain([](auto& discovery) {
        auto& self = static_cast<CaptureDeviceDiscovery&>(discovery);
        self.logger_.debug("AVCaptureDeviceDiscovery update");
        self.observeDevices();
        self.update();
    });
}

void CaptureDeviceDiscovery::observeDevices() {
    std::weak_ptr<CaptureDeviceDiscovery> weak = std::static_pointer_cast<CaptureDeviceDiscovery>(shared_from_this());
    const auto changed = [weak](const std::string&) {
        if (auto self = weak.lock()) self->postUpdate();
    };
    std::vector<platform::KeyValueObservation> suspended;
    for (const auto& session : sessions_)
        for (const auto& device : session->devices()) suspended.push_back(device->observe({"isSuspended"}, changed));
    std::lock_guard lock(mutex_);
    if (sessionObservations_.empty())
        for (const auto& session : sessions_) sessionObservations_.push_back(session->observe(changed));
    suspendedObservations_ = std::move(suspended);
}

void CaptureDeviceDiscovery::update() {
    std::vector<AVCaptureDeviceRef> primary = sessions_[0]->devices();
    const std::vector<AVCaptureDeviceRef> secondary = sessions_[1]->devices();
    DiscoveryNoticeList<OVCaptureSource> notices;
    std::unique_lock lock(mutex_);
    const bool t2 = MacModelSpecs::isT2MacBook(platform::CapturePlatform::shared()->machineModel());

    bool lidClosed = false;
    if (kind_ == Kind::microphone) {
        primary.erase(std::remove_if(primary.begin(), primary.end(),
                                     [](const AVCaptureDeviceRef& d) { return startsWith(d->localizedName(), ownTapPrefix); }),
                      primary.end());
        logger_.debug("Update devices", [&] { return LogMetadata{{"mics", extendedDescription(primary)}}; });
        for (const auto& camera : secondary)
            if (camera->transportType() == builtInTransport) {
                lidClosed = camera->isSuspended() && t2;
                break;
            }
    } else {
        logger_.debug("Update devices", [&] {
            return LogMetadata{{"cams", extendedDescription(primary)}, {"deskCams", extendedDescription(secondary)}};
        });
    }

    bool changed = false;
    std::map<std::string, AVCaptureDeviceRef> index;
    const auto admit = [&](const std::vector<AVCaptureDeviceRef>& devices, bool deskView) {
        for (const auto& device : devices) {
            index[device->uniqueID()] = device;
            if (!all_.count(device->uniqueID())) {
                all_[device->uniqueID()] = std::make_shared<OVCaptureSource>(device->uniqueID(), deskView);
                changed = true;
            }
        }
    };
    admit(primary, false);
    if (kind_ == Kind::camera) admit(secondary, true);

    for (auto& [id, item] : all_) {
        const auto found = index.find(id);
        if (found == index.end()) {
            if (item->setAvailability(CaptureDeviceAvailability::notConnected)) notices.add(item, "availability");
            continue;
        }
        const auto& device = *found->second;
        if (item->updateFrom(device)) notices.add(item, "localizedName");
        CaptureDeviceAvailability availability;
        if (!device.isConnected())
            availability = CaptureDeviceAvailability::notConnected;
        else if (kind_ == Kind::microphone)
            availability = device.transportType() == builtInTransport && lidClosed ? CaptureDeviceAvailability::lidClosed
                           : device.isSuspended()                               ? CaptureDeviceAvailability::unknownSuspended
                                                                                : CaptureDeviceAvailability::available;
        else
            availability = !device.isSuspended()                                 ? CaptureDeviceAvailability::available
                           : device.transportType() == builtInTransport && t2 ? CaptureDeviceAvailability::lidClosed
                                                                                : CaptureDeviceAvailability::unknownSuspended;
        if (item->setAvailability(availability)) notices.add(item, "availability");
    }
    changed = changed || !notices.empty();
    if (!changed) {
        lock.unlock();
        return;
    }

    std::vector<std::shared_ptr<OVCaptureSource>> published;
    for (const auto& [id, item] : all_)
        if (index.count(id)) published.push_back(item);
    std::sort(published.begin(), published.end(), [](const auto& a, const auto& b) {
        const auto an = a->localizedName(), bn = b->localizedName();
        return an != bn ? an < bn : a->id < b->id;
    });
    publish(std::move(published));
    lock.unlock();
    notices.tell();
}

std::vector<std::shared_ptr<OVCaptureSource>> CaptureDeviceDiscovery::devices(bool includeDeskView) const {
    auto list = current();
    if (!includeDeskView)
        list.erase(std::remove_if(list.begin(), list.end(), [](const auto& c) { return c->isDeskView; }), list.end());
    return list;
}

std::shared_ptr<OVCaptureSource> CaptureDeviceDiscovery::getPreferred() const {
    using A = CaptureDeviceAvailability;
    const auto published = current();
    const auto find = [&](const std::string& id) -> std::shared_ptr<OVCaptureSource> {
        for (const auto& d : published)
            if (d->id == id) return d;
        return nullptr;
    };
    std::vector<std::shared_ptr<OVCaptureSource>> preferred;
    for (const auto& id : kind_ == Kind::camera ? OVUserPreferred::shared().cameraIDs()
                                                 : OVUserPreferred::shared().microphoneIDs())
        if (auto d = find(id)) preferred.push_back(d);
    const auto firstOf = [](const std::vector<std::shared_ptr<OVCaptureSource>>& list, auto&& accept) {
        for (const auto& d : list)
            if (accept(*d)) return d;
        return std::shared_ptr<OVCaptureSource>();
    };
    const auto isAvailable = [](const OVCaptureSource& d) { return d.availability() == A::available; };
    const auto appleAvailable = [&](const OVCaptureSource& d) {
        return isAvailable(d) && startsWith(d.manufacturer(), "Apple");
    };
    const auto any = [](const OVCaptureSource&) { return true; };

    std::shared_ptr<OVCaptureSource> system;
    try {
        const auto device = kind_ == Kind::camera ? AVCaptureDevice::systemPreferredCamera()
                                                  : AVCaptureDevice::defaultDevice(AVMediaType::audio);
        if (device) system = find(device->uniqueID());
    } catch (const std::exception&) {
    }

    if (auto d = firstOf(preferred, isAvailable)) return d;
    if (kind_ == Kind::camera) {
        if (system) return system;
        if (auto d = firstOf(published, appleAvailable)) return d;
        if (auto d = firstOf(published, isAvailable)) return d;
        return firstOf(published, any);
    }
    if (auto d = firstOf(preferred, [](const OVCaptureSource& d) { return d.availability() == A::lidClosed; })) return d;
    if (system && isAvailable(*system)) return system;
    if (auto d = firstOf(published, appleAvailable)) return d;
    if (auto d = firstOf(published, isAvailable)) return d;
    return firstOf(published, any);
}

}  // namespace ov
