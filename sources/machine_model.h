#pragma once
// Facts of the machine's model that change what a closed lid means: the
// generations of portable computers that suspend the built-in camera when
// their lid closes. On Linux the model identifier is the DMI product name,
// which such hardware reports as its own ("MacBookPro16,1").

#include <optional>
#include <string>

namespace ov {

enum class MacDeviceFamily {
    iMac,
    macmini,
    macBookAir,
    macBookAir13,
    macBookAir15,
    macBookPro,
    macBookPro14,
    macBookPro16,
    macBookNeo,
    macBook,
    macPro,
    macStudio,
};

struct MacModelSpecs {
    // The capture platform's machine model, read once.
    static std::optional<std::string> getModelIdentifier();
    // The family of a model identifier: the table first, then by prefix.
    static std::optional<MacDeviceFamily> deviceFamily(const std::string& modelID);
    static bool isT2MacBook(const std::optional<std::string>& modelID);
    static bool isT2MacBook() { return isT2MacBook(getModelIdentifier()); }
};

}  // namespace ov
