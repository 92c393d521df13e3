#pragma once
/* OVTPCircularBuffer: the lock-free hand-over of audio buffer lists from one
 * real-time producer thread to one consumer thread.
 *
 * The ring's pages are mapped twice, back to back, so any block can be written
 * and read as one contiguous range although the ring wraps: a byte at offset x
 * is at buffer + x and at buffer + x + length. The producer takes no lock,
 * allocates nothing and makes no system call; fillCount, changed only by
 * atomic adds, publishes a block to the consumer and gives its space back.
 *
 * A block: a 64-byte AudioTimeStamp, its total length (a multiple of 16), an
 * AudioBufferList whose entries point into the block, then each buffer's data
 * on a 16-byte boundary. A block's pointers are good until it is consumed.
 *
 * Plain C with C linkage: the real-time side may be called from any thread
 * that a C library runs. */

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "platform/core_audio_types.h"

#ifdef __cplusplus
#include <atomic>
typedef std::atomic<int32_t> OVTPAtomicInt32;
// The structures are C's, which C++ sees in ov::platform.
using ov::platform::AudioBuffer;
using ov::platform::AudioBufferList;
using ov::platform::AudioStreamBasicDescription;
using ov::platform::AudioTimeStamp;
extern "C" {
#else
#include <stdatomic.h>
typedef _Atomic int32_t OVTPAtomicInt32;
#endif

typedef struct OVTPCircularBuffer {
    void* buffer;
    uint32_t length;
    uint32_t tail;
    uint32_t head;
    OVTPAtomicInt32 fillCount;
    bool atomic;
} OVTPCircularBuffer;

typedef struct OVTPCircularABLBlockHeader {
    AudioTimeStamp timestamp;
    uint32_t totalLength;
    AudioBufferList bufferList;
} OVTPCircularABLBlockHeader;

/* Maps a ring of at least `length` bytes (rounded up to whole pages). False,
 * with the failure printed on standard error, when no mapping could be made
 * in three attempts. `structSize` must be the size the caller was compiled
 * with; a mismatch is a fault of the build and aborts. */
bool _OVTPCircularBufferInit(OVTPCircularBuffer* buffer, uint32_t length, size_t structSize);
#define OVTPCircularBufferInit(buffer, length) _OVTPCircularBufferInit((buffer), (length), sizeof(*(buffer)))

/* Unmaps the ring and clears the structure; 0 or the errno of munmap. Only
 * after both sides have stopped. */
int OVTPCircularBufferCleanup(OVTPCircularBuffer* buffer);

/* The producer's one operation: writes a whole block holding `frames` frames
 * of every buffer of `inBufferList` (-1: the first buffer's byte count) with
 * the time stamp (all zero when null). False when the ring has no room: the
 * block is dropped and the ring is unchanged. Zero frames or zero bytes write
 * nothing and return true. */
bool OVTPCircularBufferCopyAudioBufferList(OVTPCircularBuffer* buffer, const AudioBufferList* inBufferList,
                                           const AudioTimeStamp* inTimestamp, uint32_t frames,
                                           const AudioStreamBasicDescription* audioDescription);

/* Completes the block being written at head (after its buffers were filled),
 * giving back what it reserved and did not use. */
void OVTPCircularBufferProduceAudioBufferList(OVTPCircularBuffer* buffer, const AudioTimeStamp* inTimestamp);

/* The consumer: the block at tail, or null while the ring is empty. */
static inline OVTPCircularABLBlockHeader* OVTPCircularBufferNextBufferList(OVTPCircularBuffer* buffer) {
#ifdef __cplusplus
    const int32_t filled = buffer->fillCount.load(std::memory_order_seq_cst);
#else
    const int32_t filled = atomic_load_explicit(&buffer->fillCount, memory_order_seq_cst);
#endif
    if (filled <= 0 || !buffer->buffer) return NULL;
    return (OVTPCircularABLBlockHeader*)((char*)buffer->buffer + buffer->tail);
}

/* Gives a consumed block's `amount` bytes (its totalLength) back to the producer. */
void OVTPCircularBufferConsume(OVTPCircularBuffer* buffer, uint32_t amount);

#ifdef __cplusplus
}
#endif
