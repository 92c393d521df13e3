#pragma once
// The platform's output settings assistant: audio and video settings for a
// preset, the video ones fitted to the source's format. The recorder then
// overrides only the keys it needs.

#include <memory>
#include <optional>
#include <string>

#include "platform/av_capture_output.h"
#include "platform/cm_format_description.h"

namespace ov {

inline constexpr const char* AVOutputSettingsPreset3840x2160 = "AVOutputSettingsPreset3840x2160";
inline constexpr const char* AVOutputSettingsPresetHEVC7680x4320 = "AVOutputSettingsPresetHEVC7680x4320";

class AVOutputSettingsAssistant {
public:
    // None for a preset it doesn't know.
    static std::unique_ptr<AVOutputSettingsAssistant> make(const std::string& preset);

    void setSourceVideoFormat(platform::CMFormatDescriptionRef format) { sourceVideoFormat_ = std::move(format); }

    // AAC at 48 kHz, stereo, with a channel layout.
    std::optional<platform::AVSettingsDictionary> audioSettings() const;
    // The preset's codec at the source's size (within the preset's), with an
    // average bit rate for screen content scaled to that size.
    std::optional<platform::AVSettingsDictionary> videoSettings() const;

private:
    AVOutputSettingsAssistant(bool hevc, int32_t maxWidth, int32_t maxHeight)
        : hevc_(hevc), maxWidth_(maxWidth), maxHeight_(maxHeight) {}
    bool hevc_;
    int32_t maxWidth_;
    int32_t maxHeight_;
    platform::CMFormatDescriptionRef sourceVideoFormat_;
};

}  // namespace ov
