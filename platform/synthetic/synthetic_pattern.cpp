#include "platform/synthetic/synthetic_pattern.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>
#include <vector>

namespace ov::platform {

namespace {
struct BGRA {
    uint8_t b, g, r;
};

size_t counterRows(size_t height) { return std::min(SyntheticPattern::kCounterRows, height); }

// Frame n of the pattern. The counter cells are pure black and white; the
// rest moves with n so that an encoder sees real motion. Everything that
// varies along a row comes from tables made once per frame, so a 1080p
// picture costs a few milliseconds, not a modulo per pixel.
class Frame {
public:
    Frame(size_t width, size_t height, uint64_t n)
        : width_(width), height_(height), counter_(static_cast<uint32_t>(n)), blue_(width), diagonal_(width + height) {
        cellWidth_ = width / SyntheticPattern::kCounterBits;
        // Keep the gradient away from pure black and white, so that it never
        // looks like a counter cell.
        const size_t blueShift = (n % 48) * 4, diagonalShift = n % 192;
        for (size_t x = 0; x < width; ++x) blue_[x] = static_cast<uint8_t>(32 + (x + blueShift) % 192);
        for (size_t k = 0; k < width + height; ++k) diagonal_[k] = static_cast<uint8_t>(32 + (k + diagonalShift) % 192);
        barStart_ = (n % width) * 8 % width;
        barEnd_ = barStart_ + std::max<size_t>(width / 64, 2);
    }

    BGRA at(size_t x, size_t y) const {
        if (y < counterRows(height_)) {
            const size_t cell = x / cellWidth_;
            if (cell >= SyntheticPattern::kCounterBits) return {0, 0, 0};
            const bool bit = (counter_ >> (SyntheticPattern::kCounterBits - 1 - cell)) & 1u;
            const uint8_t v = bit ? 255 : 0;
            return {v, v, v};
        }
        if (x >= barStart_ && x < barEnd_) return {240, 240, 240};
        return {blue_[x], static_cast<uint8_t>(32 + y % 192), diagonal_[x + y]};
    }

private:
    size_t width_, height_;
    uint32_t counter_;
    size_t cellWidth_;
    size_t barStart_, barEnd_;
    std::vector<uint8_t> blue_;
    std::vector<uint8_t> diagonal_;
};

// BT.709 in 16-bit fixed point; full range for '420f', video range otherwise.
// The luma weights sum so that white and black land exactly on 255/0 or 235/16.
struct YCbCrCoefficients {
    int32_t yr, yg, yb, yOffset;
    int32_t cbr, cbg, cbb, crr, crg, crb;
};
constexpr YCbCrCoefficients kFullRange{13933, 46871, 4732, 0, -7508, -25260, 32768, 32768, -29763, -3005};
constexpr YCbCrCoefficients kVideoRange{11966, 40254, 4064, 16, -6596, -22189, 28785, 28785, -26145, -2640};

inline uint8_t clampByte(int32_t v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); }

bool isBiPlanar420(OSType format) {
    return format == kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange ||
           format == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
}
}  // namespace

void SyntheticPattern::draw(CVPixelBuffer& picture, uint64_t n) {
    const size_t width = picture.width(), height = picture.height();
    if (width < static_cast<size_t>(kCounterBits)) throw std::invalid_argument("pattern pictures need 32 pixels across");
    const Frame frame(width, height, n);
    if (picture.pixelFormatType() == kCVPixelFormatType_32BGRA) {
        for (size_t y = 0; y < height; ++y) {
            uint8_t* row = picture.baseAddress() + y * picture.bytesPerRow();
            for (size_t x = 0; x < width; ++x) {
                const BGRA p = frame.at(x, y);
                row[4 * x + 0] = p.b, row[4 * x + 1] = p.g, row[4 * x + 2] = p.r, row[4 * x + 3] = 255;
            }
        }
        return;
    }
    if (isBiPlanar420(picture.pixelFormatType())) {
        const auto& k = picture.pixelFormatType() == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange ? kFullRange
                                                                                                    : kVideoRange;
        for (size_t y = 0; y < height; ++y) {
            uint8_t* luma = picture.baseAddressOfPlane(0) + y * picture.bytesPerRowOfPlane(0);
            uint8_t* chroma = picture.baseAddressOfPlane(1) + (y / 2) * picture.bytesPerRowOfPlane(1);
            for (size_t x = 0; x < width; ++x) {
                const BGRA p = frame.at(x, y);
                luma[x] = clampByte(k.yOffset + ((k.yr * p.r + k.yg * p.g + k.yb * p.b + 32768) >> 16));
                // Chroma of the top-left pixel of each 2x2 block.
                if (y % 2 == 0 && x % 2 == 0) {
                    chroma[x] = clampByte(128 + ((k.cbr * p.r + k.cbg * p.g + k.cbb * p.b + 32768) >> 16));
                    chroma[x + 1] = clampByte(128 + ((k.crr * p.r + k.crg * p.g + k.crb * p.b + 32768) >> 16));
                }
            }
        }
        return;
    }
    throw std::invalid_argument("the test pattern can't be drawn in " + fourCharCodeString(picture.pixelFormatType()));
}

std::optional<uint32_t> SyntheticPattern::readFrameCounter(const CVPixelBuffer& picture) {
    const size_t width = picture.width(), height = picture.height();
    if (width < static_cast<size_t>(kCounterBits) || height == 0) return std::nullopt;
    const size_t cellWidth = width / kCounterBits;
    const size_t y = counterRows(height) / 2;
    uint8_t black = 0, white = 255;
    const uint8_t* row;
    size_t step;
    if (picture.pixelFormatType() == kCVPixelFormatType_32BGRA) {
        row = picture.baseAddress() + y * picture.bytesPerRow() + 1;  // green
        step = 4;
    } else if (isBiPlanar420(picture.pixelFormatType())) {
        row = picture.baseAddressOfPlane(0) + y * picture.bytesPerRowOfPlane(0);
        step = 1;
        if (picture.pixelFormatType() == kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange) black = 16, white = 235;
    } else {
        return std::nullopt;
    }
    auto near = [](uint8_t v, uint8_t target) { return std::abs(int(v) - int(target)) <= 8; };
    // Below the counter the pattern is never black or white: a blank or
    // foreign picture doesn't read as frame 0.
    if (height > counterRows(height)) {
        const size_t below = counterRows(height);
        const uint8_t v = step == 4 ? picture.baseAddress()[below * picture.bytesPerRow() + 1]
                                    : picture.baseAddressOfPlane(0)[below * picture.bytesPerRowOfPlane(0)];
        if (near(v, black) || near(v, white)) return std::nullopt;
    }
    uint32_t value = 0;
    for (int cell = 0; cell < kCounterBits; ++cell) {
        const uint8_t v = row[(cell * cellWidth + cellWidth / 2) * step];
        const bool isWhite = near(v, white);
        const bool isBlack = near(v, black);
        if (!isWhite && !isBlack) return std::nullopt;
        value = (value << 1) | (isWhite ? 1u : 0u);
    }
    return value;
}

double SyntheticPattern::toneSample(const SyntheticTone& tone, double sampleRate, int64_t sampleIndex) {
    // The phase from the sample's own index: f·n is exact in a double far
    // beyond any recording, and fmod keeps the sine's argument small.
    const double cycles = std::fmod(tone.frequency * static_cast<double>(sampleIndex), sampleRate) / sampleRate;
    return tone.level * std::sin(2.0 * std::numbers::pi * cycles);
}

void SyntheticPattern::fillTone(AVAudioPCMBuffer& buffer, const SyntheticTone& tone, int64_t firstSample) {
    const auto& format = buffer.format();
    const size_t channels = format.channelCount();
    const size_t stride = buffer.stride();
    const size_t bufferCount = format.bufferCount();
    for (AVAudioFrameCount frame = 0; frame < buffer.frameLength(); ++frame) {
        const double sample = toneSample(tone, format.sampleRate(), firstSample + frame);
        for (size_t channel = 0; channel < channels; ++channel) {
            const size_t bufferIndex = bufferCount == 1 ? 0 : channel;
            const size_t index = frame * stride + (bufferCount == 1 ? channel : 0);
            switch (format.commonFormat()) {
                case AVAudioCommonFormat::pcmFormatFloat32:
                    buffer.floatChannelData()[bufferIndex][index] = static_cast<float>(sample);
                    break;
                case AVAudioCommonFormat::pcmFormatFloat64:
                    reinterpret_cast<double*>(buffer.bufferData(bufferIndex))[index] = sample;
                    break;
                case AVAudioCommonFormat::pcmFormatInt16:
                    buffer.int16ChannelData()[bufferIndex][index] = static_cast<int16_t>(std::lround(sample * 32767.0));
                    break;
                case AVAudioCommonFormat::pcmFormatInt32:
                    buffer.int32ChannelData()[bufferIndex][index] =
                        static_cast<int32_t>(std::llround(sample * 2147483647.0));
                    break;
                case AVAudioCommonFormat::otherFormat:
                    throw std::invalid_argument("tones are made in the common PCM formats only");
            }
        }
    }
}

}  // namespace ov::platform
