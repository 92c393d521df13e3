#pragma once
// Rectangles in property lists: {"X", "Y", "Width", "Height"}, as screen
// frame attachments carry them.

#include <optional>

#include <nlohmann/json.hpp>

#include "platform/cg_geometry.h"

namespace ov::platform {

nlohmann::json CGRectCreateDictionaryRepresentation(const CGRect& rect);
// Absent unless the value is an object with four finite numbers under those keys.
std::optional<CGRect> CGRectMakeWithDictionaryRepresentation(const nlohmann::json& dictionary);

}  // namespace ov::platform
