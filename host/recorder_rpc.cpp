#include "host/recorder_rpc.h"

#include <mutex>
#include <thread>

#include "host/audio_buffer_data.h"
#include "host/error_payload.h"
#include "host/globals.h"
#include "host/live_preview_server.h"
#include "platform/audio_capabilities.h"
#include "platform/capture_platform.h"
#include "session/ov_bundle_info.h"
#include "sources/application_discovery.h"
#include "sources/capture_device_discovery.h"
#include "sources/display_discovery.h"
#include "sources/window_discovery.h"
#include "foundation/ov_error.h"

namespace ov::coding {

host::RecorderInitParams Decodable<host::RecorderInitParams>::decode(const Decoder& d) {
    host::RecorderInitParams params;
    params.schema = d.decode<host::RecorderSchema>("schema");
    params.onAbortInstance = d.decode<std::string>("onAbortInstance");
    return params;
}

host::GetCamerasParams Decodable<host::GetCamerasParams>::decode(const Decoder& d) {
    return host::GetCamerasParams{d.decode<bool>("includeDeskView")};
}

}  // namespace ov::coding

namespace ov::host {

using platform::AVMediaType;
using platform::CapturePlatform;

namespace {

Json boundsJSON(const platform::CGRect& rect) {
    Json bounds = Json::object();
    bounds["x"] = rect.origin.x;
    bounds["y"] = rect.origin.y;
    bounds["width"] = rect.size.width;
    bounds["height"] = rect.size.height;
    return bounds;
}

// Phones and tablets deliver muxed audio and video; cameras and microphones don't.
bool isAttachedDevice(const platform::AVCaptureDevice& device) { return device.hasMediaType(AVMediaType::muxed); }

// The list actions answer from the discoveries after a fresh update step,
// so that a list asked for with nobody subscribed is not the last poll's.
Json getDisplays() {
    auto discovery = DisplayDiscovery::shared();
    discovery->update();
    Json list = Json::array();
    for (const auto& display : discovery->current()) {
        Json record = Json::object();
        record["id"] = display->id;
        record["localizedName"] = display->localizedName();
        record["frame"] = boundsJSON(display->frame());
        record["isMain"] = display->isMain();
        record["availability"] = std::string(caseName(display->availability()));
        list.push_back(std::move(record));
    }
    return list;
}

Json getWindows() {
    auto discovery = WindowDiscovery::shared();
    discovery->update();
    Json list = Json::array();
    for (const auto& window : filtered(discovery->current(), OVWindow::FilterOptions::defaultOptions)) {
        Json record = Json::object();
        record["id"] = window->id;
        if (auto title = window->title()) record["title"] = *title;
        record["frame"] = boundsJSON(window->frame());
        record["level"] = window->level().rawValue;
        if (auto pid = window->applicationProcessID()) record["application_process_id"] = *pid;
        if (auto name = window->applicationName()) record["application_name"] = *name;
        list.push_back(std::move(record));
    }
    return list;
}

// From the discoveries: connected devices, sorted by name, with availability.
Json getDevices(CaptureDeviceDiscovery& discovery, bool includeDeskView) {
    const bool cameras = discovery.kind() == CaptureDeviceDiscovery::Kind::camera;
    const auto server = cameras ? Globals::livePreviewServer() : nullptr;
    const auto base = server ? server->baseUrl() : std::nullopt;
    Json list = Json::array();
    for (const auto& device : discovery.devices(includeDeskView)) {
        Json record = Json::object();
        record["id"] = device->id;
        record["name"] = device->localizedName();
        record["model_id"] = device->modelID();
        record["manufacturer"] = device->manufacturer();
        record["availability"] = std::string(caseName(device->availability()));
        if (base) record["preview_url"] = LivePreviewServer::previewURL(*base, device->id);
        list.push_back(std::move(record));
    }
    return list;
}

Json getAppleDevices() {
    Json list = Json::array();
    for (const auto& device : CapturePlatform::shared()->devices()) {
        if (!isAttachedDevice(*device)) continue;
        Json record = Json::object();
        record["id"] = device->uniqueID();
        record["name"] = device->localizedName();
        if (!device->modelID().empty()) record["model_id"] = device->modelID();
        record["availability"] = device->isConnected() ? "available" : "notConnected";
        list.push_back(std::move(record));
    }
    return list;
}

Json getRunningApplications() {
    auto discovery = ApplicationDiscovery::shared();
    discovery->update();
    Json list = Json::array();
    for (const auto& application : discovery->current()) {
        Json record = Json::object();
        record["id"] = application->id;
        if (application->name) record["name"] = *application->name;
        if (application->bundleIdentifier) record["bundle_identifier"] = *application->bundleIdentifier;
        record["availability"] = std::string(caseName(application->availability()));
        list.push_back(std::move(record));
    }
    return list;
}

RecorderSchemaContext schemaContext(const std::shared_ptr<HalvernRPC>& engine) {
    std::weak_ptr<HalvernRPC> weakEngine = engine;
    Logger logger("RecorderRPC");
    RecorderSchemaContext context;
    context.perform = [weakEngine](const std::string& target, const Json& params) {
        if (auto engine = weakEngine.lock()) engine->perform(target, params);
    };
    context.microphoneStreamCallback = [weakEngine, logger](const std::string& target) -> SampleBufferCallback {
        return [weakEngine, logger, target](const platform::CMSampleBuffer& sampleBuffer) {
            auto data = audioBufferData(sampleBuffer, logger);
            if (!data) {
                logger.error("Cannot convert CMSampleBuffer to AudioBufferData, no data sent to stream callback");
                return true;
            }
            if (auto engine = weakEngine.lock()) engine->performStreamData(target, *data);
            return true;
        };
    };
    context.audioStreamCallback = [weakEngine, logger](const std::string& target) -> PCMBufferCallback {
        return [weakEngine, logger, target](const platform::AVAudioPCMBuffer& buffer) {
            auto data = audioBufferData(buffer, logger);
            if (!data) {
                logger.error("Cannot convert AVAudioPCMBuffer to AudioBufferData, no data sent to stream callback");
                return true;
            }
            if (auto engine = weakEngine.lock()) engine->performStreamData(target, *data);
            return true;
        };
    };
    context.perApplicationAudioAvailable = [] { return platform::isPerApplicationAudioCaptureAvailable(); };
    return context;
}

}  // namespace

Json recordingResultJSON(const OVRecorderResult& result) {
    Json record = Json::object();
    record["url"] = result.bundleURL.string();
    record["info"] = (result.bundleInfo ? *result.bundleInfo : OVBundleInfo::empty()).toJSON();
    return record;
}

Json abortReasonJSON(const OVRecorderAbortReason& reason) {
    Json record = Json::object();
    record["reason"] = std::string(caseName(reason.kind()));
    record["result"] = recordingResultJSON(reason.result());
    if (reason.error()) record["error"] = errorPayload(reason.error());
    return record;
}

namespace {
// Every recording object the host has made, for stopAllRecordings().
std::mutex liveRecordersMutex;
std::vector<std::weak_ptr<RecorderRPC>> liveRecorders;
}  // namespace

std::shared_ptr<RecorderRPC> RecorderRPC::create(const std::shared_ptr<HalvernRPC>& engine,
                                                 const HVRPCParams& params) {
    const auto init = decodeParams<RecorderInitParams>(params);
    auto schema = makeSchema(init.schema, schemaContext(engine));
    auto settings = makeSettings(init.schema);

    auto object = std::make_shared<RecorderRPC>(
        std::make_unique<OVRecorder>(std::move(schema.items), std::move(schema.outputDirectory), std::move(settings),
                                     abortHandler(engine, init.onAbortInstance)));
    std::lock_guard lock(liveRecordersMutex);
    std::erase_if(liveRecorders, [](const auto& weak) { return weak.expired(); });
    liveRecorders.push_back(object);
    return object;
}

void RecorderRPC::prepareForRelease() { recordingSession_->stopIfActive("released by the host"); }

size_t RecorderRPC::stopAllRecordings(const char* why) {
    std::vector<std::shared_ptr<RecorderRPC>> objects;
    {
        std::lock_guard lock(liveRecordersMutex);
        for (const auto& weak : liveRecorders)
            if (auto object = weak.lock()) objects.push_back(std::move(object));
    }
    // Concurrently, as one stop finishes its sources: the slowest sets the pace.
    std::vector<std::thread> stops;
    for (const auto& object : objects)
        stops.emplace_back([object, why] { object->recordingSession().stopIfActive(why); });
    for (auto& stop : stops) stop.join();
    return objects.size();
}

OVRecorder::AbortHandler RecorderRPC::abortHandler(const std::shared_ptr<HalvernRPC>& engine, std::string target) {
    std::weak_ptr<HalvernRPC> weakEngine = engine;
    return [weakEngine, target = std::move(target)](const OVRecorderAbortReason& reason) {
        if (auto engine = weakEngine.lock()) engine->perform(target, abortReasonJSON(reason));
    };
}

std::optional<Json> RecorderRPC::performType(const std::string& action, const HVRPCParams& params) {
    if (action == "getDisplays") return getDisplays();
    if (action == "getWindows") return getWindows();
    if (action == "getCameras") {
        const auto decoded = decodeParams<GetCamerasParams>(params);
        auto discovery = CaptureDeviceDiscovery::sharedCameras();
        discovery->update();
        return getDevices(*discovery, decoded.includeDeskView);
    }
    if (action == "getMicrophones") {
        auto discovery = CaptureDeviceDiscovery::sharedMicrophones();
        discovery->update();
        return getDevices(*discovery, true);
    }
    if (action == "getAppleDevices") return getAppleDevices();
    if (action == "getRunningApplications") return getRunningApplications();
    throw HVRPCError(HVRPCStatusCode::notFound, "Unknown action '" + action + "'.");
}

std::optional<Json> RecorderRPC::perform(const std::string& action, const HVRPCParams&) {
    if (action == "prepare") {
        recordingSession_->prepare();
        return std::nullopt;
    }
    if (action == "start") {
        recordingSession_->start();
        return std::nullopt;
    }
    if (action == "stop") return recordingResultJSON(recordingSession_->stop());
    throw HVRPCError(HVRPCStatusCode::notFound, "Unknown action '" + action + "'.");
}

}  // namespace ov::host
