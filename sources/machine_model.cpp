#include "sources/machine_model.h"

#include <charconv>
#include <map>
#include <mutex>

#include "platform/capture_platform.h"

namespace ov {

std::optional<std::string> MacModelSpecs::getModelIdentifier() {
    static std::once_flag once;
    static std::optional<std::string> model;
    std::call_once(once, [] {
        try {
            model = platform::CapturePlatform::shared()->machineModel();
        } catch (const std::exception&) {
            model = std::nullopt;
        }
    });
    return model;
}

std::optional<MacDeviceFamily> MacModelSpecs::deviceFamily(const std::string& modelID) {
    using F = MacDeviceFamily;
    static const std::map<std::string, F> table = [] {
        std::map<std::string, F> t;
        const auto add = [&](F family, std::initializer_list<const char*> ids) {
            for (const char* id : ids) t.emplace(id, family);
        };
        add(F::macBookPro, {"MacBookPro17,1", "Mac14,7"});
        add(F::macBookPro14, {"MacBookPro18,3", "MacBookPro18,4", "Mac14,5", "Mac14,9", "Mac15,10", "Mac15,3", "Mac15,6",
                              "Mac15,8", "Mac16,1", "Mac16,6", "Mac16,8", "Mac17,2", "Mac17,7", "Mac17,9"});
        add(F::macBookPro16, {"MacBookPro18,1", "MacBookPro18,2", "Mac14,6", "Mac14,10", "Mac15,7", "Mac15,9", "Mac15,11",
                              "Mac16,5", "Mac16,7", "Mac17,6", "Mac17,8"});
        add(F::macBookAir, {"MacBookAir10,1"});
        add(F::macBookAir13, {"Mac14,2", "Mac15,12", "Mac16,12", "Mac17,3"});
        add(F::macBookAir15, {"Mac14,15", "Mac15,13", "Mac16,13", "Mac17,4"});
        add(F::macBookNeo, {"Mac17,5"});
        add(F::macmini, {"Macmini9,1", "Mac14,3", "Mac14,12", "Mac16,10", "Mac16,11"});
        add(F::iMac, {"iMac21,1", "iMac21,2", "Mac15,4", "Mac15,5", "Mac16,2", "Mac16,3"});
        add(F::macStudio, {"Mac13,1", "Mac13,2", "Mac14,13", "Mac14,14", "Mac15,14", "Mac16,9"});
        add(F::macPro, {"Mac14,8"});
        return t;
    }();
    if (const auto it = table.find(modelID); it != table.end()) return it->second;
    const std::pair<const char*, F> prefixes[] = {{"iMac", F::iMac},           {"Macmini", F::macmini},
                                                  {"MacBookAir", F::macBookAir}, {"MacBookPro", F::macBookPro},
                                                  {"MacBook", F::macBook},     {"MacPro", F::macPro}};
    for (const auto& [prefix, family] : prefixes)
        if (modelID.rfind(prefix, 0) == 0) return family;
    return std::nullopt;
}

namespace {

// The major model number after `prefix`, up to the comma; absent if it doesn't parse.
std::optional<int> majorNumber(const std::string& modelID, size_t prefixLength) {
    const std::string rest = modelID.substr(prefixLength);
    const std::string digits = rest.substr(0, rest.find(','));
    int value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size() || digits.empty()) return std::nullopt;
    return value;
}

}  // namespace

bool MacModelSpecs::isT2MacBook(const std::optional<std::string>& modelID) {
    if (!modelID) return false;
    if (modelID->rfind("MacBookAir", 0) == 0) {
        const auto major = majorNumber(*modelID, 10);
        return !major || *major > 7;
    }
    if (modelID->rfind("MacBookPro", 0) == 0) {
        const auto major = majorNumber(*modelID, 10);
        return !major || *major > 14;
    }
    const auto family = deviceFamily(*modelID);
    if (!family) return false;
    switch (*family) {
        case MacDeviceFamily::macBookAir:
        case MacDeviceFamily::macBookAir13:
        case MacDeviceFamily::macBookAir15:
        case MacDeviceFamily::macBookPro:
        case MacDeviceFamily::macBookPro14:
        case MacDeviceFamily::macBookPro16:
        case MacDeviceFamily::macBookNeo:
        case MacDeviceFamily::macBook: return true;
        default: return false;
    }
}

}  // namespace ov
