#include "platform/edid.h"

#include <array>

namespace ov::platform {

std::string EDIDIdentity::manufacturerID() const {
    std::string id;
    for (int shift : {10, 5, 0}) {
        const unsigned letter = (vendorNumber >> shift) & 0x1F;
        id += letter >= 1 && letter <= 26 ? char('A' + letter - 1) : '?';
    }
    return id;
}

std::optional<EDIDIdentity> parseEDID(std::span<const uint8_t> bytes) {
    static constexpr std::array<uint8_t, 8> header{0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
    if (bytes.size() < 128) return std::nullopt;
    for (size_t i = 0; i < header.size(); ++i)
        if (bytes[i] != header[i]) return std::nullopt;
    EDIDIdentity identity;
    identity.vendorNumber = uint32_t(bytes[8]) << 8 | bytes[9];
    identity.modelNumber = uint32_t(bytes[10]) | uint32_t(bytes[11]) << 8;
    identity.serialNumber =
        uint32_t(bytes[12]) | uint32_t(bytes[13]) << 8 | uint32_t(bytes[14]) << 16 | uint32_t(bytes[15]) << 24;
    identity.widthCentimetres = bytes[21];
    identity.heightCentimetres = bytes[22];
    // Four 18-byte descriptors; a display descriptor starts with three zero bytes.
    for (size_t offset = 54; offset + 18 <= 126; offset += 18) {
        if (bytes[offset] != 0 || bytes[offset + 1] != 0 || bytes[offset + 2] != 0 || bytes[offset + 3] != 0xFC)
            continue;
        std::string name;
        for (size_t i = offset + 5; i < offset + 18 && bytes[i] != 0x0A; ++i) name += char(bytes[i]);
        while (!name.empty() && (name.back() == ' ' || name.back() == '\0')) name.pop_back();
        if (!name.empty()) identity.productName = name;
        break;
    }
    return identity;
}

}  // namespace ov::platform
