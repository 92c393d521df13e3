#include "platform/cm_sample_buffer.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "platform/cm_clock.h"

namespace ov::platform {

namespace {

const std::vector<CMSampleTimingInfo> kNoTiming;
const std::vector<CMAudioBufferData> kNoAudio;
const std::vector<CMAttachmentDictionary> kNoAttachments;
const CMAttachmentDictionary kEmptyDictionary = CMAttachmentDictionary::object();
const CMFormatDescriptionRef kNoFormat;
const std::shared_ptr<const CVPixelBuffer> kNoImage;

// The timescale of one audio frame; rates like 44100 are whole numbers, and a
// fractional rate keeps its whole part, as the platform's writers do.
CMTimeScale frameTimescale(double sampleRate) {
    if (!(sampleRate >= 1) || sampleRate > std::numeric_limits<CMTimeScale>::max()) return 0;
    return static_cast<CMTimeScale>(sampleRate);
}

}  // namespace

PlatformError sampleBufferError(OSStatus status, const std::string& debugDescription) {
    return PlatformError("NSOSStatusErrorDomain", status,
                         "The operation couldn’t be completed. (OSStatus error " + std::to_string(status) + ".)",
                         debugDescription);
}

void CMSampleBuffer::validate(const Contents& c) {
    if (c.numSamples < 0) throw sampleBufferError(kCMSampleBufferError_InvalidEntryCount, "Negative sample count");
    const size_t timingCount = c.timing.size();
    if (timingCount > 1 && static_cast<CMItemCount>(timingCount) != c.numSamples)
        throw sampleBufferError(kCMSampleBufferError_InvalidEntryCount,
                                "Timing entries (" + std::to_string(timingCount) + ") must be 0, 1 or one per sample (" +
                                    std::to_string(c.numSamples) + ")");
    if (c.sampleAttachments.size() > static_cast<size_t>(std::max<CMItemCount>(c.numSamples, 1)))
        throw sampleBufferError(kCMSampleBufferError_InvalidEntryCount, "More sample attachments than samples");
    if (!c.attachments.is_object())
        throw sampleBufferError(kCMSampleBufferError_RequiredParameterMissing, "Attachments must be a dictionary");

    if (!c.audioBuffers.empty() && c.imageBuffer)
        throw sampleBufferError(kCMSampleBufferError_InvalidMediaTypeForOperation, "Both audio data and a picture");

    if (c.imageBuffer) {
        if (!c.formatDescription || !c.formatDescription->matchesImageBuffer(*c.imageBuffer))
            throw sampleBufferError(kCMSampleBufferError_InvalidMediaFormat,
                                    "Format description does not match the pixel buffer");
        if (c.numSamples != 1)
            throw sampleBufferError(kCMSampleBufferError_InvalidEntryCount, "A picture is exactly one sample");
    }

    if (!c.audioBuffers.empty()) {
        if (!c.formatDescription || c.formatDescription->mediaType() != kCMMediaType_Audio)
            throw sampleBufferError(kCMSampleBufferError_InvalidMediaFormat, "Audio data needs an audio format");
        for (const auto& b : c.audioBuffers)
            if (!b.data) throw sampleBufferError(kCMSampleBufferError_RequiredParameterMissing, "Audio buffer without data");
        const auto& asbd = *c.formatDescription->audioStreamBasicDescription();
        if (asbd.mFormatID == kAudioFormatLinearPCM) {
            const bool interleaved = !(asbd.mFormatFlags & kAudioFormatFlagIsNonInterleaved);
            const size_t expected = interleaved ? 1 : asbd.mChannelsPerFrame;
            if (c.audioBuffers.size() != expected)
                throw sampleBufferError(kCMSampleBufferError_InvalidSampleData,
                                        "Expected " + std::to_string(expected) + " audio buffers, got " +
                                            std::to_string(c.audioBuffers.size()));
            const uint64_t needed = static_cast<uint64_t>(c.numSamples) * asbd.mBytesPerFrame;
            for (const auto& b : c.audioBuffers) {
                if (b.numberChannels != (interleaved ? asbd.mChannelsPerFrame : 1))
                    throw sampleBufferError(kCMSampleBufferError_InvalidSampleData, "Audio buffer channel count");
                if (b.data->size() < needed)
                    throw sampleBufferError(kCMSampleBufferError_InvalidSampleData,
                                            "Audio buffer holds " + std::to_string(b.data->size()) + " bytes, " +
                                                std::to_string(needed) + " needed");
            }
        }
    }
}

CMSampleBuffer CMSampleBuffer::create(Contents contents) {
    validate(contents);
    return CMSampleBuffer(std::make_shared<const Impl>(std::move(contents)));
}

CMSampleBuffer CMSampleBuffer::makeForImageBuffer(std::shared_ptr<const CVPixelBuffer> imageBuffer,
                                                  const CMSampleTimingInfo& timing,
                                                  CMFormatDescriptionRef formatDescription) {
    if (!imageBuffer) throw sampleBufferError(kCMSampleBufferError_RequiredParameterMissing, "No pixel buffer");
    Contents c;
    c.formatDescription = formatDescription ? std::move(formatDescription)
                                            : CMFormatDescription::makeForImageBuffer(*imageBuffer);
    c.numSamples = 1;
    c.timing = {timing};
    c.imageBuffer = std::move(imageBuffer);
    return create(std::move(c));
}

CMSampleBuffer CMSampleBuffer::makeAudio(const AVAudioPCMBuffer& buffer, const CMTime& presentationTimeStamp) {
    const AVAudioFormat& format = buffer.format();
    if (buffer.frameLength() == 0)
        throw sampleBufferError(kCMSampleBufferError_InvalidSampleData, "PCM buffer holds no frames");
    CMTimeScale timescale = frameTimescale(format.sampleRate());
    if (timescale == 0) throw sampleBufferError(kCMSampleBufferError_InvalidMediaFormat, "Sample rate below 1 Hz");
    Contents c;
    c.formatDescription = format.formatDescription();
    c.numSamples = buffer.frameLength();
    c.timing = {{CMTime(1, timescale), presentationTimeStamp, kCMTimeInvalid}};
    const size_t bytes = size_t{buffer.frameLength()} * format.bytesPerFrame();
    const AudioBufferList* list = buffer.audioBufferList();
    for (uint32_t i = 0; i < list->mNumberBuffers; ++i) {
        const auto* data = static_cast<const uint8_t*>(list->mBuffers[i].mData);
        c.audioBuffers.push_back(
            {list->mBuffers[i].mNumberChannels, std::make_shared<const std::vector<uint8_t>>(data, data + bytes)});
    }
    return create(std::move(c));
}

CMSampleBuffer CMSampleBuffer::from(const AudioBufferList& bufferList, const AudioTimeStamp& timestamp,
                                    const AVAudioFormat& format) {
    if (bufferList.mNumberBuffers != format.bufferCount())
        throw sampleBufferError(kCMSampleBufferError_InvalidSampleData,
                                "Buffer list has " + std::to_string(bufferList.mNumberBuffers) + " buffers, format " +
                                    std::to_string(format.bufferCount()));
    const uint32_t frames = bufferList.mBuffers[0].mDataByteSize / format.bytesPerFrame();
    auto pcm = AVAudioPCMBuffer::make(format, frames);
    if (!pcm) throw sampleBufferError(kCMSampleBufferError_InvalidSampleData, "Buffer list holds no whole frame");
    const size_t bytes = size_t{frames} * format.bytesPerFrame();
    for (uint32_t i = 0; i < bufferList.mNumberBuffers; ++i) {
        const AudioBuffer& b = bufferList.mBuffers[i];
        if (!b.mData || b.mDataByteSize < bytes)
            throw sampleBufferError(kCMSampleBufferError_InvalidSampleData, "Buffer list buffers differ in length");
        std::memcpy(pcm->bufferData(i), b.mData, bytes);
    }
    pcm->setFrameLength(frames);
    return makeAudio(*pcm, hostTimeFromNanoseconds(timestamp.mHostTime));
}

CMItemCount CMSampleBuffer::numSamples() const { return impl_ ? impl_->numSamples : 0; }

CMTime CMSampleBuffer::presentationTimeStamp() const {
    const auto& timing = sampleTimingInfos();
    if (timing.empty()) return kCMTimeInvalid;
    CMTime earliest = timing.front().presentationTimeStamp;
    for (const auto& entry : timing) earliest = CMTimeMinimum(earliest, entry.presentationTimeStamp);
    return earliest;
}

CMTime CMSampleBuffer::decodeTimeStamp() const {
    const auto& timing = sampleTimingInfos();
    return timing.empty() ? kCMTimeInvalid : timing.front().decodeTimeStamp;
}

CMTime CMSampleBuffer::duration() const {
    const auto& timing = sampleTimingInfos();
    if (timing.empty()) return kCMTimeInvalid;
    if (timing.size() == 1) {
        const CMTime& each = timing.front().duration;
        const CMItemCount n = std::max<CMItemCount>(numSamples(), 1);
        if (!each.isNumeric()) return each;
        if (n <= std::numeric_limits<int32_t>::max()) return CMTimeMultiply(each, static_cast<int32_t>(n));
        return CMTimeMultiplyByFloat64(each, static_cast<double>(n));
    }
    CMTime total = kCMTimeZero;
    for (const auto& entry : timing) total = total + entry.duration;
    return total;
}

const std::vector<CMSampleTimingInfo>& CMSampleBuffer::sampleTimingInfos() const {
    return impl_ ? impl_->timing : kNoTiming;
}
const CMFormatDescriptionRef& CMSampleBuffer::formatDescription() const {
    return impl_ ? impl_->formatDescription : kNoFormat;
}
const std::vector<CMAudioBufferData>& CMSampleBuffer::audioBuffers() const {
    return impl_ ? impl_->audioBuffers : kNoAudio;
}
const std::shared_ptr<const CVPixelBuffer>& CMSampleBuffer::imageBuffer() const {
    return impl_ ? impl_->imageBuffer : kNoImage;
}
const std::vector<CMAttachmentDictionary>& CMSampleBuffer::sampleAttachments() const {
    return impl_ ? impl_->sampleAttachments : kNoAttachments;
}
const CMAttachmentDictionary& CMSampleBuffer::attachments() const { return impl_ ? impl_->attachments : kEmptyDictionary; }

bool CMSampleBuffer::isSync() const {
    const auto& all = sampleAttachments();
    if (all.empty() || !all.front().is_object()) return true;
    auto it = all.front().find(kCMSampleAttachmentKey_NotSync);
    return it == all.front().end() || !it->is_boolean() || !it->get<bool>();
}

AudioBufferListHolder CMSampleBuffer::audioBufferList() const {
    AudioBufferListHolder holder;
    const auto& buffers = audioBuffers();
    holder.storage_.reset(new std::byte[AudioBufferListSize(std::max<size_t>(buffers.size(), 1))]());
    auto* list = reinterpret_cast<AudioBufferList*>(holder.storage_.get());
    list->mNumberBuffers = static_cast<uint32_t>(buffers.size());
    for (size_t i = 0; i < buffers.size(); ++i) {
        list->mBuffers[i].mNumberChannels = buffers[i].numberChannels;
        list->mBuffers[i].mDataByteSize = static_cast<uint32_t>(buffers[i].data->size());
        // The platform's struct has no const; the holder's users only read.
        list->mBuffers[i].mData = const_cast<uint8_t*>(buffers[i].data->data());
        holder.keepAlive_.push_back(buffers[i].data);
    }
    return holder;
}

CMSampleBuffer CMSampleBuffer::copyWithNewTiming(std::vector<CMSampleTimingInfo> timing) const {
    if (!impl_) throw sampleBufferError(kCMSampleBufferError_RequiredParameterMissing, "Empty sample buffer");
    Contents c = *impl_;  // the data blocks and the picture are shared, not copied
    c.timing = std::move(timing);
    return create(std::move(c));
}

CMSampleBuffer CMSampleBuffer::withTime(const CMTime& presentationTimeStamp) const {
    const auto& timing = sampleTimingInfos();
    CMTime duration = timing.empty() ? this->duration() : timing.front().duration;
    return copyWithNewTiming({{duration, presentationTimeStamp, kCMTimeInvalid}});
}

std::shared_ptr<AVAudioPCMBuffer> CMSampleBuffer::audioPCMBuffer() const {
    const auto& description = formatDescription();
    if (!description || description->mediaType() != kCMMediaType_Audio)
        throw sampleBufferError(kCMSampleBufferError_InvalidMediaTypeForOperation, "Not an audio sample buffer");
    auto format = AVAudioFormat::fromFormatDescription(*description);
    if (!format) throw sampleBufferError(kCMSampleBufferError_InvalidMediaFormat, "Not linear PCM audio");
    const CMItemCount frames = numSamples();
    if (frames <= 0 || frames > std::numeric_limits<AVAudioFrameCount>::max())
        throw sampleBufferError(kCMSampleBufferError_InvalidSampleData,
                                "Cannot hold " + std::to_string(frames) + " frames in a PCM buffer");
    const auto& buffers = audioBuffers();
    const size_t bytes = static_cast<size_t>(frames) * format->bytesPerFrame();
    if (buffers.size() != format->bufferCount())
        throw sampleBufferError(kCMSampleBufferError_InvalidSampleData, "Audio data does not match its format");
    auto pcm = AVAudioPCMBuffer::make(*format, static_cast<AVAudioFrameCount>(frames));
    if (!pcm) throw sampleBufferError(kCMSampleBufferError_AllocationFailed, "Cannot allocate PCM buffer");
    for (size_t i = 0; i < buffers.size(); ++i) std::memcpy(pcm->bufferData(i), buffers[i].data->data(), bytes);
    pcm->setFrameLength(static_cast<AVAudioFrameCount>(frames));
    return pcm;
}

bool CMSampleBuffer::sharesDataWith(const CMSampleBuffer& other) const {
    if (imageBuffer() && imageBuffer() == other.imageBuffer()) return true;
    const auto& mine = audioBuffers();
    const auto& theirs = other.audioBuffers();
    if (mine.empty() || mine.size() != theirs.size()) return false;
    for (size_t i = 0; i < mine.size(); ++i)
        if (mine[i].data != theirs[i].data) return false;
    return true;
}

}  // namespace ov::platform
