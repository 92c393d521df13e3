#include "platform/av_asset.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

#include "platform/av_asset_writer_support.h"

namespace ov::platform {

bool AVURLAsset::isPlayable(const std::filesystem::path& path) {
    writer::quietLibraries();
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) return false;
    AVFormatContext* format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0) return false;
    bool playable = false;
    if (avformat_find_stream_info(format, nullptr) >= 0 && format->nb_streams > 0) {
        AVPacket* packet = av_packet_alloc();
        playable = packet && av_read_frame(format, packet) >= 0 && packet->size > 0;
        av_packet_free(&packet);
    }
    avformat_close_input(&format);
    return playable;
}

}  // namespace ov::platform
