#pragma once
// Template definitions of capture_device_support.h.
#include <thread>

namespace ov {

template <class Element>
void drainBackpressureBuffer(UnboundedBackpressureBuffer<Element>& buffer, const std::function<void()>& checkError,
                             const Logger& logger, DrainOptions options) {
    int stalledRounds = 0;
    std::optional<std::size_t> lastCount;
    for (;;) {
        buffer.partialFlush();
        if (checkError) checkError();
        const std::size_t count = buffer.count();
        if (count == 0) {
            logger.info("Flushed all samples from buffer.");
            return;
        }
        logger.debug("Couldn't flush all frames in buffer at once, retrying a bit.",
                     [&] { return LogMetadata{{"itemsInBuffer", std::to_string(count)}}; });
        stalledRounds = lastCount && count < *lastCount ? 0 : stalledRounds + 1;
        lastCount = count;
        if (stalledRounds >= options.stallLimit) {
            logger.info("Backpressure buffer stalled, dropping remaining buffers.",
                        [&] { return LogMetadata{{"itemsInBuffer", std::to_string(count)}}; });
            buffer.clear();
            return;
        }
        std::this_thread::sleep_for(options.interval);
    }
}

}  // namespace ov
