#pragma once
/* The platform's plain audio structures: stream descriptions, buffer lists and
 * time stamps, laid out as the platform lays them out.
 *
 * This header is C as well as C++, because the mirrored circular buffer is a
 * plain C module that copies buffer lists byte for byte. In C++ the names live
 * in ov::platform; in C they are global. The layouts are the same either way,
 * so a pointer passes between the two sides unchanged. */

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
namespace ov::platform {
#endif

typedef uint32_t FourCharCode;
typedef uint32_t AudioFormatID;
typedef uint32_t AudioFormatFlags;

/* 'lpcm': linear PCM, the only format that sample data is read in here. */
#define OV_FOURCC(a, b, c, d) \
    (((uint32_t)(uint8_t)(a) << 24) | ((uint32_t)(uint8_t)(b) << 16) | ((uint32_t)(uint8_t)(c) << 8) | (uint32_t)(uint8_t)(d))

enum {
    kAudioFormatLinearPCM = OV_FOURCC('l', 'p', 'c', 'm'),
};

enum {
    kAudioFormatFlagIsFloat = (1u << 0),
    kAudioFormatFlagIsBigEndian = (1u << 1),
    kAudioFormatFlagIsSignedInteger = (1u << 2),
    kAudioFormatFlagIsPacked = (1u << 3),
    kAudioFormatFlagIsAlignedHigh = (1u << 4),
    kAudioFormatFlagIsNonInterleaved = (1u << 5),
    kAudioFormatFlagIsNonMixable = (1u << 6),
    kAudioFormatFlagsNativeFloatPacked = (1u << 0) | (1u << 3),
};

/* One stream's format. For non-interleaved data mBytesPerFrame and
 * mBytesPerPacket describe one buffer, which holds one channel, while
 * mChannelsPerFrame counts all channels of the stream. */
typedef struct AudioStreamBasicDescription {
    double mSampleRate;
    AudioFormatID mFormatID;
    AudioFormatFlags mFormatFlags;
    uint32_t mBytesPerPacket;
    uint32_t mFramesPerPacket;
    uint32_t mBytesPerFrame;
    uint32_t mChannelsPerFrame;
    uint32_t mBitsPerChannel;
    uint32_t mReserved;
} AudioStreamBasicDescription;

typedef struct AudioBuffer {
    uint32_t mNumberChannels;
    uint32_t mDataByteSize;
    void* mData;
} AudioBuffer;

/* mNumberBuffers entries follow the count; the array is declared with one
 * entry as the platform does and allocated longer (see AudioBufferListSize). */
typedef struct AudioBufferList {
    uint32_t mNumberBuffers;
    AudioBuffer mBuffers[1];
} AudioBufferList;

/* Bytes needed for a buffer list of `numberBuffers` entries. */
#define AudioBufferListSize(numberBuffers) \
    (sizeof(AudioBufferList) - sizeof(AudioBuffer) + (size_t)(numberBuffers) * sizeof(AudioBuffer))

typedef struct SMPTETime {
    int16_t mSubframes;
    int16_t mSubframeDivisor;
    uint32_t mCounter;
    uint32_t mType;
    uint32_t mFlags;
    int16_t mHours;
    int16_t mMinutes;
    int16_t mSeconds;
    int16_t mFrames;
} SMPTETime;

enum {
    kAudioTimeStampSampleTimeValid = (1u << 0),
    kAudioTimeStampHostTimeValid = (1u << 1),
    kAudioTimeStampRateScalarValid = (1u << 2),
    kAudioTimeStampWordClockTimeValid = (1u << 3),
    kAudioTimeStampSMPTETimeValid = (1u << 4),
    kAudioTimeStampSampleHostTimeValid = (1u << 0) | (1u << 1),
};

/* mHostTime is on the host time clock, in nanoseconds. */
typedef struct AudioTimeStamp {
    double mSampleTime;
    uint64_t mHostTime;
    double mRateScalar;
    uint64_t mWordClockTime;
    SMPTETime mSMPTETime;
    uint32_t mFlags;
    uint32_t mReserved;
} AudioTimeStamp;

#ifdef __cplusplus
}  // namespace ov::platform
#endif
