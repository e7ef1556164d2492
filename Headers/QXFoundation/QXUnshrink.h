// QXUnshrink.h - decoder for ZIP entries stored with the Shrinking method (1).
//
// Shrinking is LZW with codes of 9 to 13 bits, read least significant bit
// first. Code 256 introduces a control subcode: 1 widens the codes by one bit,
// 2 frees every table entry from 257 up that is no other entry's parent (a
// partial clear; the width stays). The stream has no end marker: the entry's
// uncompressed size, taken by the caller from the ZIP headers, ends it.
//
// A data code whose previous code was freed by the partial clear just before
// it has no entry to extend; this decoder treats that as corrupt data
// (QXUNSHRINK_DATA_ERROR) rather than guessing at the entry.
//
// Shape: zlib's. The caller owns the QXUnshrinkStream, hands input through
// next_in / avail_in in pieces split anywhere, gives output room through
// next_out / avail_out, and calls QXUnshrink until it returns 0 or fails.
// Input is always taken whole. Any output room works, down to one byte: a
// string that does not fit is kept inside and handed out by the next calls.
// Output is never more than the uncompressed size, and the table never holds
// more than the 8,192 entries that 13-bit codes can name. Whatever the input,
// the decoder reads and writes only its own buffers and the caller's. Every
// allocation goes through the stream's zalloc and zfree (see
// QXUnshrinkInitWithAllocator); a refused one ends the stream with
// QXUNSHRINK_MEM_ERROR.
//
// Thread safety: no global state; one stream per thread.
#pragma once

#include <QXFoundation/QXDecoderAllocator.h>

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Total output has reached the uncompressed size.
#define QXUNSHRINK_OK 0
/// A code's string leads to a missing table entry, or memory ran out.
#define QXUNSHRINK_MEM_ERROR 1
/// More input or more output room is needed.
#define QXUNSHRINK_AGAIN 2
/// A null stream, or a null buffer with a non-zero count.
#define QXUNSHRINK_INVALID_ARGUMENT 3
/// Corrupt data: a widening beyond 13 bits, an undefined code, or a code
/// whose previous code's entry is gone.
#define QXUNSHRINK_DATA_ERROR 4

typedef struct QXUnshrinkStream {
    const uint8_t* next_in;  // caller's input
    uint64_t avail_in;       // bytes at next_in; 0 after every call
    uint64_t total_in;       // bytes taken so far
    uint8_t* next_out;       // caller's output room
    uint64_t avail_out;      // bytes of room at next_out
    uint64_t total_out;      // bytes written so far
    void* state;             // private; owned by the stream
    QXAllocFunction zalloc;  // as given at Init; null for malloc
    QXFreeFunction zfree;    // as given at Init; null for free
    void* opaque;            // handed to zalloc and zfree
} QXUnshrinkStream;

/// A decoder for an entry of uncompressedSize bytes, or null when memory runs out.
QXUnshrinkStream* QXUnshrinkInit(uint64_t uncompressedSize);

/// QXUnshrinkInit with memory from zalloc and zfree (null for malloc and free),
/// the stream itself included. Null when memory runs out.
QXUnshrinkStream* QXUnshrinkInitWithAllocator(uint64_t uncompressedSize, QXAllocFunction zalloc, QXFreeFunction zfree,
                                              void* opaque);

/// Takes all input and decodes as far as input and output room allow.
/// Results 1, 3 and 4 end the stream: only QXUnshrinkCleanup may follow.
int QXUnshrink(QXUnshrinkStream* stream);

/// Frees the stream and everything it holds; null is allowed. Returns 0.
int QXUnshrinkCleanup(QXUnshrinkStream* stream);

#ifdef __cplusplus
}
#endif
