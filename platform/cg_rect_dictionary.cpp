#include "platform/cg_rect_dictionary.h"

#include <cmath>

namespace ov::platform {

nlohmann::json CGRectCreateDictionaryRepresentation(const CGRect& rect) {
    return {{"X", rect.origin.x}, {"Y", rect.origin.y}, {"Width", rect.size.width}, {"Height", rect.size.height}};
}

std::optional<CGRect> CGRectMakeWithDictionaryRepresentation(const nlohmann::json& dictionary) {
    if (!dictionary.is_object()) return std::nullopt;
    double values[4];
    const char* keys[4] = {"X", "Y", "Width", "Height"};
    for (int i = 0; i < 4; ++i) {
        auto it = dictionary.find(keys[i]);
        if (it == dictionary.end() || !it->is_number()) return std::nullopt;
        values[i] = it->get<double>();
        if (!std::isfinite(values[i])) return std::nullopt;
    }
    return CGRect{{values[0], values[1]}, {values[2], values[3]}};
}

}  // namespace ov::platform
