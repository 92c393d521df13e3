#pragma once
// What the parts of the asset writer share: its error domain, FFmpeg result
// checks, settings lookup and sample-clock arithmetic. Internal to the writer.

#include <cstdint>
#include <string>

#include "platform/av_capture_output.h"
#include "platform/cm_time.h"

namespace ov::platform::writer {

std::string errorDomainName();

// FFmpeg's own chatter goes nowhere; failures reach callers as errors.
void quietLibraries();

// Throws the writer's error. A failed write of the file system (a full disk,
// a quota) comes out as the POSIX error it is, so that callers can tell
// "no room" from "the encoder broke".
[[noreturn]] void fail(const std::string& what, int code = 0);
inline void check(int code, const char* what) {
    if (code < 0) fail(what, code);
}

template <class T>
T setting(const AVSettingsDictionary& settings, const char* key, T fallback) {
    if (!settings.is_object() || !settings.contains(key) || settings[key].is_null()) return fallback;
    try {
        return settings[key].get<T>();
    } catch (...) {
        return fallback;
    }
}

// The object under `key`, or an empty object.
const AVSettingsDictionary& section(const AVSettingsDictionary& settings, const char* key);

// Exact: (time - origin) in units of 1/rate, rounded to the nearest unit.
int64_t ticksSince(const CMTime& time, const CMTime& origin, int64_t rate);

}  // namespace ov::platform::writer

extern "C" {
struct AVCodecContext;
struct AVPacket;
}

#include <functional>

namespace ov::platform::writer {

// Where an encoder's packets go, in the encoder's time base.
using PacketSink = std::function<void(AVPacket* packet)>;

// Hands every packet the encoder has ready to `sink`.
void receivePackets(AVCodecContext* encoder, AVPacket* packet, const PacketSink& sink);

}  // namespace ov::platform::writer
