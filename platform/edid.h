#pragma once
// The identity a monitor reports in its EDID block: the PNP maker id as the
// big-endian number of bytes 8-9 (4268 is "DEL"), the product code and serial
// number (little-endian), the physical size, and the product name descriptor.

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace ov::platform {

struct EDIDIdentity {
    uint32_t vendorNumber = 0;
    uint32_t modelNumber = 0;
    uint32_t serialNumber = 0;
    // Centimetres, from the basic display parameters; 0 when not given.
    uint32_t widthCentimetres = 0, heightCentimetres = 0;
    // The display product name descriptor (tag 0xFC), trimmed.
    std::optional<std::string> productName;
    // The three letters of the maker id ("DEL").
    std::string manufacturerID() const;
};

// Absent for anything that isn't a whole EDID base block with its header
// (the checksum is not required: some monitors get it wrong).
std::optional<EDIDIdentity> parseEDID(std::span<const uint8_t> bytes);

}  // namespace ov::platform
