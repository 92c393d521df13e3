#include "platform/av_asset_writer_support.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include <cerrno>
#include <cmath>
#include <mutex>

#include "foundation/platform_error.h"

namespace ov::platform::writer {

std::string errorDomainName() { return "Orvane.AVAssetWriter"; }

void quietLibraries() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_ERROR); });
}

void fail(const std::string& what, int code) {
    if (code == AVERROR(ENOSPC) || code == AVERROR(EDQUOT)) throw PlatformError::posix(AVUNERROR(code), what);
    std::string text = what;
    if (code) {
        char reason[AV_ERROR_MAX_STRING_SIZE] = {};
        av_strerror(code, reason, sizeof reason);
        text += ": " + std::string(reason);
    }
    throw PlatformError(errorDomainName(), code, text);
}

const AVSettingsDictionary& section(const AVSettingsDictionary& settings, const char* key) {
    static const AVSettingsDictionary none = AVSettingsDictionary::object();
    if (settings.is_object() && settings.contains(key) && settings[key].is_object()) return settings[key];
    return none;
}

int64_t ticksSince(const CMTime& time, const CMTime& origin, int64_t rate) {
    const CMTime delta = time - origin;
    return static_cast<int64_t>(std::llround(delta.seconds() * double(rate)));
}

void receivePackets(AVCodecContext* encoder, AVPacket* packet, const PacketSink& sink) {
    for (;;) {
        const int r = avcodec_receive_packet(encoder, packet);
        if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return;
        check(r, "Can't encode");
        sink(packet);
        av_packet_unref(packet);
    }
}

}  // namespace ov::platform::writer
