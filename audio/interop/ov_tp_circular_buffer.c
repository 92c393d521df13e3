/* The ring's mirror is one memory file mapped twice into a reservation of
 * twice its size: both views are fixed into address space we already hold, so
 * nothing else can take the second half between the two maps. */
#define _GNU_SOURCE
#include "audio/interop/ov_tp_circular_buffer.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

_Static_assert(sizeof(OVTPCircularBuffer) == 32, "OVTPCircularBuffer is 32 bytes");
_Static_assert(sizeof(AudioTimeStamp) == 64, "a block starts with a 64-byte time stamp");

#define OVTP_ALIGN 16u

static void reportFailure(int line, const char* what, int error) {
    fprintf(stderr, "%s:%d: %s: %s\n", __FILE__, line, what, strerror(error));
}

static void check(bool condition, const char* text) {
    /* Guards against programming faults: ordinary input can't reach these. */
    if (condition) return;
    fprintf(stderr, "OVTPCircularBuffer: assertion failed: %s\n", text);
    abort();
}

static uint32_t alignUp(uintptr_t value) { return (uint32_t)((value + OVTP_ALIGN - 1) & ~(uintptr_t)(OVTP_ALIGN - 1)); }

static int32_t loadFill(OVTPCircularBuffer* buffer) {
    return atomic_load_explicit(&buffer->fillCount, memory_order_seq_cst);
}

static int openMemoryFile(void) {
#ifdef MFD_CLOEXEC
    int fd = memfd_create("OVTPCircularBuffer", MFD_CLOEXEC);
    if (fd >= 0 || errno != ENOSYS) return fd;
#endif
    char name[64];
    snprintf(name, sizeof name, "/OVTPCircularBuffer-%ld-%p", (long)getpid(), (void*)&name);
    int shm = shm_open(name, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (shm >= 0) shm_unlink(name);
    return shm;
}

bool _OVTPCircularBufferInit(OVTPCircularBuffer* buffer, uint32_t length, size_t structSize) {
    if (structSize != sizeof(OVTPCircularBuffer)) {
        fprintf(stderr,
                "OVTPCircularBuffer: Header version mismatch. Check for old versions of OVTPCircularBuffer in your "
                "project\n");
        abort();
    }
    check(length != 0, "length > 0");

    const long page = sysconf(_SC_PAGESIZE);
    const uint64_t rounded = ((uint64_t)length + (uint64_t)page - 1) / (uint64_t)page * (uint64_t)page;
    check(rounded * 2 <= UINT32_MAX, "length fits the ring's offsets");
    const size_t size = (size_t)rounded;

    enum { attempts = 3 };
    for (int attempt = 1; attempt <= attempts; ++attempt) {
        const bool last = attempt == attempts;
        int fd = openMemoryFile();
        if (fd < 0 || ftruncate(fd, (off_t)size) != 0) {
            const int error = errno;
            if (fd >= 0) close(fd);
            if (last) reportFailure(__LINE__, "Buffer allocation", error);
            continue;
        }
        void* reservation = mmap(NULL, size * 2, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (reservation == MAP_FAILED) {
            const int error = errno;
            close(fd);
            if (last) reportFailure(__LINE__, "Buffer allocation", error);
            continue;
        }
        char* base = (char*)reservation;
        void* first = mmap(base, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0);
        void* second = first == MAP_FAILED ? MAP_FAILED
                                           : mmap(base + size, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0);
        const int error = errno;
        close(fd);
        if (first == MAP_FAILED || second == MAP_FAILED) {
            munmap(reservation, size * 2);
            if (last) reportFailure(__LINE__, "Remap buffer memory", error);
            continue;
        }
        if (first != base || second != base + size) {
            munmap(reservation, size * 2);
            if (last) reportFailure(__LINE__, "Couldn't map buffer memory to end of buffer", EFAULT);
            continue;
        }
        buffer->buffer = base;
        buffer->length = (uint32_t)size;
        buffer->head = 0;
        buffer->tail = 0;
        atomic_store_explicit(&buffer->fillCount, 0, memory_order_seq_cst);
        buffer->atomic = true;
        return true;
    }
    return false;
}

int OVTPCircularBufferCleanup(OVTPCircularBuffer* buffer) {
    int status = 0;
    if (buffer->buffer && munmap(buffer->buffer, (size_t)buffer->length * 2) != 0) status = errno;
    buffer->buffer = NULL;
    buffer->length = 0;
    buffer->head = 0;
    buffer->tail = 0;
    atomic_store_explicit(&buffer->fillCount, 0, memory_order_seq_cst);
    buffer->atomic = false;
    return status;
}

bool OVTPCircularBufferCopyAudioBufferList(OVTPCircularBuffer* buffer, const AudioBufferList* inBufferList,
                                           const AudioTimeStamp* inTimestamp, uint32_t frames,
                                           const AudioStreamBasicDescription* audioDescription) {
    if (frames == 0) return true;
    const uint32_t buffers = inBufferList->mNumberBuffers;
    uint32_t byteCount = inBufferList->mBuffers[0].mDataByteSize;
    if (frames != UINT32_MAX) {
        byteCount = frames * audioDescription->mBytesPerFrame;
        check(byteCount <= inBufferList->mBuffers[0].mDataByteSize,
              "byteCount <= inBufferList->mBuffers[0].mDataByteSize");
    }
    if (byteCount == 0) return true;

    const int32_t filled = loadFill(buffer);
    const uint32_t available = buffer->length - (uint32_t)filled;
    if (available == 0 || !buffer->buffer) return false;
    if ((uint64_t)buffers * byteCount + (uint64_t)(buffers - 1) * OVTP_ALIGN + 96 > available) return false;

    char* start = (char*)buffer->buffer + buffer->head;
    OVTPCircularABLBlockHeader* block = (OVTPCircularABLBlockHeader*)start;
    if (inTimestamp)
        memcpy(&block->timestamp, inTimestamp, sizeof(AudioTimeStamp));
    else
        memset(&block->timestamp, 0, sizeof(AudioTimeStamp));
    memset(&block->bufferList, 0, AudioBufferListSize(buffers));
    block->bufferList.mNumberBuffers = buffers;

    char* position = (char*)&block->bufferList + AudioBufferListSize(buffers);
    for (uint32_t i = 0; i < buffers; ++i) {
        position = start + alignUp((uintptr_t)(position - start));
        if ((uint64_t)(position - start) > available) return false;
        block->bufferList.mBuffers[i].mData = position;
        block->bufferList.mBuffers[i].mNumberChannels = inBufferList->mBuffers[i].mNumberChannels;
        block->bufferList.mBuffers[i].mDataByteSize = byteCount;
        position += byteCount;
        if ((uint64_t)(position - start) > available) return false;
    }
    const uint32_t totalLength = alignUp((uintptr_t)(position - start));
    if (totalLength > available) return false;
    block->totalLength = totalLength;

    for (uint32_t i = 0; i < buffers; ++i)
        memcpy(block->bufferList.mBuffers[i].mData, inBufferList->mBuffers[i].mData, byteCount);

    OVTPCircularBufferProduceAudioBufferList(buffer, NULL);
    return true;
}

void OVTPCircularBufferProduceAudioBufferList(OVTPCircularBuffer* buffer, const AudioTimeStamp* inTimestamp) {
    const int32_t filled = loadFill(buffer);
    check(buffer->buffer != NULL && (uint32_t)filled < buffer->length, "buffer->fillCount <= buffer->length");
    const uint32_t availableBytes = buffer->length - (uint32_t)filled;

    char* start = (char*)buffer->buffer + buffer->head;
    OVTPCircularABLBlockHeader* block = (OVTPCircularABLBlockHeader*)start;
    if (inTimestamp) memcpy(&block->timestamp, inTimestamp, sizeof(AudioTimeStamp));

    check(block->bufferList.mBuffers[0].mDataByteSize > 0, "block->bufferList.mBuffers[0].mDataByteSize > 0");
    const AudioBuffer* lastBuffer = &block->bufferList.mBuffers[block->bufferList.mNumberBuffers - 1];
    const uint32_t calculatedLength =
        alignUp((uintptr_t)((char*)lastBuffer->mData + lastBuffer->mDataByteSize - start));
    check(calculatedLength <= block->totalLength && calculatedLength <= availableBytes,
          "calculatedLength <= block->totalLength && calculatedLength <= availableBytes");
    block->totalLength = calculatedLength;

    buffer->head = (buffer->head + calculatedLength) % buffer->length;
    atomic_fetch_add_explicit(&buffer->fillCount, (int32_t)calculatedLength, memory_order_seq_cst);
}

void OVTPCircularBufferConsume(OVTPCircularBuffer* buffer, uint32_t amount) {
    check((uint32_t)loadFill(buffer) >= amount, "buffer->fillCount >= amount");
    buffer->tail = (buffer->tail + amount) % buffer->length;
    atomic_fetch_add_explicit(&buffer->fillCount, -(int32_t)amount, memory_order_seq_cst);
}
