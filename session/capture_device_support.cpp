#include "session/capture_device_support.h"

#include <fmt/format.h>

#include "platform/av_asset_writer.h"

#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <fstream>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <thread>

namespace ov {

using platform::CMClock;
using platform::CMTime;

namespace {

std::string firstLine(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

// The bus number in the top byte and each port of the path in the following
// nibbles: the layout that tools showing USB location ids use, so that two
// identical microphones on different ports are told apart the same way.
std::optional<uint32_t> locationIDOf(const std::filesystem::path& device) {
    try {
        uint32_t location = uint32_t(std::stoul(firstLine(device / "busnum"))) << 24;
        const std::string devpath = firstLine(device / "devpath");
        int shift = 20;
        size_t start = 0;
        while (start < devpath.size() && shift >= 0) {
            size_t dot = devpath.find('.', start);
            const unsigned port = std::stoul(devpath.substr(start, dot - start));
            location |= (port & 0xF) << shift;
            shift -= 4;
            if (dot == std::string::npos) break;
            start = dot + 1;
        }
        return location;
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace

const char* sourceName(USBDeviceTopology::Source source) {
    return source == USBDeviceTopology::Source::uniqueID ? "uniqueID" : "iokit";
}

std::optional<USBDeviceTopology> usbDeviceTopology(const platform::AVCaptureDevice& device) {
    const std::string& uniqueID = device.uniqueID();
    static constexpr std::string_view enginePrefix = "AppleUSBAudioEngine:";
    if (uniqueID.starts_with(enginePrefix)) {
        std::vector<std::string> parts;
        size_t start = 0;
        for (;;) {
            size_t colon = uniqueID.find(':', start);
            parts.push_back(uniqueID.substr(start, colon == std::string::npos ? std::string::npos : colon - start));
            if (colon == std::string::npos) break;
            start = colon + 1;
        }
        if (parts.size() >= 4) {
            try {
                size_t used = 0;
                const unsigned long value = std::stoul(parts[3], &used, 16);
                if (used == parts[3].size() && !parts[3].empty())
                    return USBDeviceTopology{fmt::format("0x{:08x}", uint32_t(value)), USBDeviceTopology::Source::uniqueID};
            } catch (...) {
            }
        }
        return std::nullopt;
    }
    if (device.transportType() != platform::kAVCaptureDeviceTransportTypeUSB) return std::nullopt;
    // The registry walk: the first USB device whose product name is the
    // device's name or model.
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/bus/usb/devices", ec)) {
        const std::string product = firstLine(entry.path() / "product");
        if (product.empty() || (product != device.localizedName() && product != device.modelID())) continue;
        if (auto location = locationIDOf(entry.path()))
            return USBDeviceTopology{fmt::format("0x{:08x}", *location), USBDeviceTopology::Source::iokit};
    }
    return std::nullopt;
}

void logUSBDeviceTopology(const platform::AVCaptureDevice& device, const Logger& logger) {
    if (auto topology = usbDeviceTopology(device)) {
        logger.debug("USB device topology.", [&] {
            return LogMetadata{{"uniqueID", device.uniqueID()},
                               {"locationID", topology->locationID},
                               {"source", sourceName(topology->source)}};
        });
    } else {
        logger.debug("No USB device topology found.", [&] {
            return LogMetadata{{"uniqueID", device.uniqueID()}, {"transportType", std::to_string(device.transportType())}};
        });
    }
}

bool validateAsSynchronizationClock(const CMClock& clock, double after,
                                    const std::optional<platform::CMSampleBuffer>& lastAudioFrame,
                                    const Logger& logger) {
    const auto& host = *CMClock::hostTimeClock();
    logger.info("Synchronization clock is available.",
                [&] { return LogMetadata{{"clock", fmt::format("{}", static_cast<const void*>(&clock))}}; });
    bool good = true;

    const CMTime first = clock.time();
    std::this_thread::sleep_for(std::chrono::duration<double>(after));
    const CMTime second = clock.time();
    if (!(second > first)) {
        logger.error("Synchronization clock time isn't increasing.");
        good = false;
    } else {
        logger.info("Synchronization clock time is increasing.", [&] {
            return LogMetadata{{"first", fmt::format("{}", first.seconds())}, {"second", fmt::format("{}", second.seconds())}};
        });
    }

    const double delta = clock.convertTime(clock.time(), host).seconds() - host.time().seconds();
    if (std::fabs(delta) >= 0.1) {
        logger.error("Clock delta towards host time clock too big.", [&] { return LogMetadata{{"delta", fmt::format("{}", delta)}}; });
        good = false;
    } else {
        logger.info("Clock delta towards host time clock is good.", [&] { return LogMetadata{{"delta", fmt::format("{}", delta)}}; });
    }

    // A clock that counts from the same zero as the host clock maps zero to zero.
    const double zeroDelta = clock.convertTime(platform::kCMTimeZero, host).seconds();
    if (std::fabs(zeroDelta) >= 0.1) {
        logger.error("Clock delta converting time zero is too big.");
        good = false;
    } else {
        logger.info("Clock delta converting time zero clock is good.");
    }

    if (lastAudioFrame) {
        const double frameDelta = clock.time().seconds() - lastAudioFrame->presentationTimeStamp().seconds();
        if (std::fabs(frameDelta) >= 1.0) {
            logger.error("Last frame time delta too far from synchronization clock.",
                         [&] { return LogMetadata{{"delta", fmt::format("{}", frameDelta)}}; });
            good = false;
        } else {
            logger.info("Last frame delta with clock is good.", [&] { return LogMetadata{{"delta", fmt::format("{}", frameDelta)}}; });
        }
    }
    return good;
}

bool validateSessionClock(const std::shared_ptr<const CMClock>& clock, double after,
                          const std::optional<platform::CMSampleBuffer>& lastAudioFrame, const Logger& logger) {
    if (!clock) {
        logger.info("No synchronization clock available.");
        return false;
    }
    return validateAsSynchronizationClock(*clock, after, lastAudioFrame, logger);
}

}  // namespace ov

namespace ov {

platform::AVSettingsDictionary aacOutputSettings(const platform::AVCaptureDevice& microphone) {
    platform::AVSettingsDictionary settings = platform::AVSettingsDictionary::object();
    settings[platform::AVFormatIDKey] = platform::kAudioFormatMPEG4AAC;
    double rate = 48000;
    int channels = 1;
    if (auto format = microphone.activeFormat(); format && format->formatDescription())
        if (const auto& asbd = format->formatDescription()->audioStreamBasicDescription()) {
            rate = asbd->mSampleRate;
            channels = int(asbd->mChannelsPerFrame);
        }
    settings[platform::AVSampleRateKey] = std::min(rate, 48000.0);
    settings[platform::AVNumberOfChannelsKey] = channels;
    settings[platform::AVChannelLayoutKey] = channels == 1 ? "mono" : channels == 2 ? "stereo" : "default";
    return settings;
}

int applyAudioChannelRules(platform::AVSettingsDictionary& settings, bool leftChannelOnly,
                           const platform::AVCaptureDevice& microphone, const Logger& logger) {
    const int preferred = settings.value(platform::AVNumberOfChannelsKey, 0);
    int channels = preferred;
    if (leftChannelOnly) {
        logger.info("Forcing audio channels to 1 because of enabled leftChannelOnly option.",
                    [&] { return LogMetadata{{"AVNumberOfChannels", std::to_string(preferred)}}; });
        channels = 1;
    } else if (preferred <= 0) {
        logger.warning("Missing AVNumberOfChannelsKey from AVOutputSettingsAssistant settings, assuming mono.");
        channels = 1;
    } else if (preferred >= 3) {
        logger.warning("Too many audio channels, capping number of channels in output settings.", [&] {
            return LogMetadata{
                {"preferredNumberOfChannels", std::to_string(preferred)},
                {"modelId", microphone.modelID()},
                {"localizedName", microphone.localizedName()},
                {"activeFormat", microphone.activeFormat() ? microphone.activeFormat()->description() : ""}};
        });
        channels = 2;
    }
    logger.info("Configuring audio output settings.", [&] {
        return LogMetadata{{"preferredNumberOfChannels", std::to_string(preferred)},
                           {"numberOfChannels", std::to_string(channels)}};
    });
    settings[platform::AVNumberOfChannelsKey] = channels;
    if (channels == 1 && settings.contains(platform::AVChannelLayoutKey)) {
        logger.info("Removing AVChannelLayoutKey from audio output settings, because we will only record a single channel.");
        settings.erase(platform::AVChannelLayoutKey);
    }
    return channels;
}

}  // namespace ov

namespace ov {

namespace {

// The process other than ours that has a file open whose link text is `node`.
std::optional<int> processHolding(const std::string& node) {
    namespace fs = std::filesystem;
    std::error_code error;
    const int self = int(::getpid());
    for (const auto& process : fs::directory_iterator("/proc", error)) {
        const std::string name = process.path().filename().string();
        if (name.empty() || !std::isdigit(uint8_t(name[0])) || std::atoi(name.c_str()) == self) continue;
        std::error_code ignored;
        for (const auto& fd : fs::directory_iterator(process.path() / "fd", ignored)) {
            std::error_code linkError;
            if (fs::read_symlink(fd.path(), linkError).string() == node) return std::atoi(name.c_str());
        }
    }
    return std::nullopt;
}

std::string readLine(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

}  // namespace

void logDeviceActiveConfiguration(platform::AVCaptureDevice& device, const std::string& key, const Logger& logger) {
    const std::string message = "Active " + key + " of video device changed";
    auto base = [&] {
        return LogMetadata{{"deviceId", device.uniqueID()},
                           {"activeFormat", device.activeFormat() ? device.activeFormat()->description() : "nil"},
                           {"activeVideoMinFrameDuration", fmt::format("{}", device.activeVideoMinFrameDuration().seconds())},
                           {"activeVideoMaxFrameDuration", fmt::format("{}", device.activeVideoMaxFrameDuration().seconds())}};
    };
    try {
        device.lockForConfiguration();
    } catch (const std::exception&) {
        // Another process holds the device; name it where its node is known.
        std::string name, path;
        std::optional<int> pid;
        if (auto node = device.devicePath()) pid = processHolding(*node);
        if (pid) {
            const auto proc = std::filesystem::path("/proc") / std::to_string(*pid);
            name = readLine(proc / "comm");
            std::error_code error;
            path = std::filesystem::read_symlink(proc / "exe", error).string();
        }
        logger.warning([&] { return message; }, [&] {
            auto metadata = base();
            metadata["otherRunningAppBundleIdentifier"] = pid ? std::to_string(*pid) : "";
            metadata["otherRunningAppName"] = name;
            metadata["otherRunningAppURL"] = path.empty() ? "" : "file://" + path;
            return metadata;
        });
        return;
    }
    device.unlockForConfiguration();
    logger.warning([&] { return message; }, base);
}

}  // namespace ov
