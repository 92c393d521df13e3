#include "session/ov_bundle_info.h"

#include <cmath>

#include "platform/file_handle.h"
#include "platform/file_manager.h"

namespace ov {
namespace {

using coding::Decoder;
using coding::Json;

constexpr std::pair<OVBundleInfo::FileAssetType, const char*> kTypeNames[] = {
    {OVBundleInfo::FileAssetType::screen, "screen"},
    {OVBundleInfo::FileAssetType::webcam, "webcam"},
    {OVBundleInfo::FileAssetType::audio, "audio"},
    {OVBundleInfo::FileAssetType::mouse, "mouse"},
    {OVBundleInfo::FileAssetType::systemAudio, "systemAudio"},
    {OVBundleInfo::FileAssetType::appleDevice, "appleDevice"},
    {OVBundleInfo::FileAssetType::topWindow, "topWindow"},
};

Json sizeJSON(const OVBundleInfo::Size& size) {
    Json j = Json::object();
    j["width"] = size.width;
    j["height"] = size.height;
    return j;
}

OVBundleInfo::Size decodeSize(const Decoder& d) {
    d.requireObject("Size");
    return {d.decode<double>("width"), d.decode<double>("height")};
}

OVBundleInfo::FileAsset decodeAsset(const Decoder& d) {
    d.requireObject("FileAsset");
    OVBundleInfo::FileAsset asset;
    const Decoder type = d["type"];
    const auto text = type.decode<std::string>();
    bool known = false;
    for (const auto& [value, name] : kTypeNames)
        if (text == name) asset.type = value, known = true;
    if (!known) type.throwDataCorrupted("Cannot initialize FileAssetType from invalid String value " + text);
    asset.filename = d.decode<std::string>("filename");
    asset.related = d.decodeIfPresent<std::vector<std::string>>("related");
    if (auto s = d.ifPresent("recordingSize")) asset.recordingSize = decodeSize(*s);
    asset.recordingScale = d.decodeIfPresent<double>("recordingScale");
    if (auto s = d.ifPresent("videoDimensions")) asset.videoDimensions = decodeSize(*s);
    return asset;
}

// Sorted keys at every level; numbers that JSON cannot hold become strings.
nlohmann::json forBundleFile(const Json& value) {
    switch (value.type()) {
        case Json::value_t::object: {
            nlohmann::json out = nlohmann::json::object();  // std::map: sorted keys
            for (auto it = value.begin(); it != value.end(); ++it) out[it.key()] = forBundleFile(it.value());
            return out;
        }
        case Json::value_t::array: {
            nlohmann::json out = nlohmann::json::array();
            for (const auto& element : value) out.push_back(forBundleFile(element));
            return out;
        }
        case Json::value_t::number_float: {
            const double v = value.get<double>();
            if (std::isnan(v)) return "NaN";
            if (std::isinf(v)) return v > 0 ? "+infinity" : "-infinity";
            return v;
        }
        default:
            return nlohmann::json::parse(value.dump());
    }
}

}  // namespace

const char* fileAssetTypeName(OVBundleInfo::FileAssetType type) {
    for (const auto& [value, name] : kTypeNames)
        if (value == type) return name;
    return "screen";
}

Json OVBundleInfo::toJSON() const {
    Json files_ = Json::array();
    for (const auto& f : files) {
        Json a = Json::object();
        a["type"] = fileAssetTypeName(f.type);
        a["filename"] = f.filename;
        if (f.related) a["related"] = *f.related;
        if (f.recordingSize) a["recordingSize"] = sizeJSON(*f.recordingSize);
        if (f.recordingScale) a["recordingScale"] = *f.recordingScale;
        if (f.videoDimensions) a["videoDimensions"] = sizeJSON(*f.videoDimensions);
        files_.push_back(std::move(a));
    }
    Json j = Json::object();
    j["version"] = version;
    j["files"] = std::move(files_);
    j["duration"] = duration;
    return j;
}

OVBundleInfo OVBundleInfo::fromJSON(const Json& json) { return Decoder(json).decode<OVBundleInfo>(); }

std::string OVBundleInfo::bundleFileText() const { return forBundleFile(toJSON()).dump(2); }

void writeBundleDescription(const OVRecorderResult& result) {
    const OVBundleInfo info = result.bundleInfo ? *result.bundleInfo : OVBundleInfo::empty();
    const auto target = result.bundleURL / "orvane.json";
    auto staging = target;
    staging += ".writing";
    std::error_code ignored;
    std::filesystem::remove(staging, ignored);  // a leftover of a killed writer
    try {
        auto file = platform::FileHandle::createNew(staging);
        file.write(info.bundleFileText());
        file.synchronize();
        file.close();
        platform::FileManager::replaceItemAt(target, staging);
    } catch (...) {
        std::filesystem::remove(staging, ignored);
        throw;
    }
}

}  // namespace ov

ov::OVBundleInfo ov::coding::Decodable<ov::OVBundleInfo>::decode(const Decoder& d) {
    d.requireObject("OVBundleInfo");
    OVBundleInfo info;
    info.version = d.decode<int>("version");
    const Decoder files = d["files"];
    for (size_t i = 0; i < files.count(); ++i) info.files.push_back(decodeAsset(files.at(i)));
    info.duration = d.decode<double>("duration");
    return info;
}
