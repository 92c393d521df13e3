#include "video/output_settings_assistant.h"

#include <algorithm>
#include <cmath>

#include "platform/av_asset_writer.h"

namespace ov {

using namespace platform;

std::unique_ptr<AVOutputSettingsAssistant> AVOutputSettingsAssistant::make(const std::string& preset) {
    if (preset == AVOutputSettingsPreset3840x2160)
        return std::unique_ptr<AVOutputSettingsAssistant>(new AVOutputSettingsAssistant(false, 3840, 2160));
    if (preset == AVOutputSettingsPresetHEVC7680x4320)
        return std::unique_ptr<AVOutputSettingsAssistant>(new AVOutputSettingsAssistant(true, 7680, 4320));
    return nullptr;
}

std::optional<AVSettingsDictionary> AVOutputSettingsAssistant::audioSettings() const {
    return AVSettingsDictionary{{AVFormatIDKey, kAudioFormatMPEG4AAC},
                                {AVSampleRateKey, 48000},
                                {AVNumberOfChannelsKey, 2},
                                {AVChannelLayoutKey, "stereo"}};
}

std::optional<AVSettingsDictionary> AVOutputSettingsAssistant::videoSettings() const {
    int32_t width = maxWidth_, height = maxHeight_;
    if (sourceVideoFormat_) {
        const auto d = sourceVideoFormat_->dimensions();
        const double shrink = std::max({double(d.width) / maxWidth_, double(d.height) / maxHeight_, 1.0});
        width = int32_t(d.width / shrink) & ~1;
        height = int32_t(d.height / shrink) & ~1;
    }
    // About 0.1 bit per pixel at 30 frames per second for H.264 and two thirds
    // of that for HEVC: plenty for screen content, which is mostly still.
    const double bitsPerPixel = hevc_ ? 0.067 : 0.1;
    const auto bitRate = int64_t(std::llround(double(width) * height * 30 * bitsPerPixel));
    return AVSettingsDictionary{
        {AVVideoCodecKey, hevc_ ? AVVideoCodecTypeHEVC : AVVideoCodecTypeH264},
        {AVVideoWidthKey, width},
        {AVVideoHeightKey, height},
        {AVVideoCompressionPropertiesKey,
         {{AVVideoAverageBitRateKey, bitRate}, {AVVideoExpectedSourceFrameRateKey, 30}}}};
}

}  // namespace ov
