// QXPBZXDecode.h - splits a PBZX container into its chunks.
//
// A PBZX container is a 4-byte magic ("pbzx", which may be missing), an 8-byte
// big-endian flags word, then chunks: an 8-byte uncompressed size, an 8-byte
// compressed size and that many data bytes (an xz stream when the two sizes
// differ, the plain bytes when they are equal). This decoder decompresses
// nothing: it hands out each chunk's data bytes with flags that say where a
// chunk starts and ends, so that the caller can give every chunk to a decoder
// of its own and decode them in parallel.
//
// Shape: zlib's. The caller owns the QXPBZXDecodeStream, fills next_in /
// avail_in and next_out / avail_out and calls QXPBZXDecode until it has what
// it needs. Input is always taken whole (buffered inside); one call hands out
// bytes of at most one chunk. Input may be split at any byte, inside the
// header or a chunk header included.
//
// The decoder validates nothing about sizes: a chunk header announcing more
// data than ever comes leaves it inside that chunk, returning 3 on every call.
// It never reads or writes outside the buffers it was given. Every allocation
// goes through the stream's zalloc and zfree (see
// QXPBZXDecodeInitWithAllocator); a refused one is QXPBZX_MEM_ERROR, after
// which only QXPBZXDecodeCleanup may follow.
//
// Thread safety: no global state; one stream per thread.
#pragma once

#include <QXFoundation/QXDecoderAllocator.h>

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// At a chunk boundary with nothing pending: a clean end if no input follows.
#define QXPBZX_OK 0
/// Memory for the pending input could not be had.
#define QXPBZX_MEM_ERROR 1
/// Bytes are pending: call again with new output room.
#define QXPBZX_AGAIN 2
/// More input is needed (a header or a chunk is incomplete).
#define QXPBZX_NEED_INPUT 3
/// A null stream, or a null buffer with a non-zero count.
#define QXPBZX_INVALID_ARGUMENT 4

typedef struct QXPBZXDecodeStream {
    const uint8_t* next_in;   // caller's input
    uint64_t avail_in;        // bytes at next_in; 0 after every call
    uint64_t total_in;        // bytes taken so far
    uint8_t* next_out;        // caller's output room
    uint64_t avail_out;       // bytes of room at next_out
    uint64_t total_out;       // chunk data bytes handed out so far

    /// Set by the call that read a chunk header; stays set over calls that
    /// hand out nothing, and is cleared by the first call that continues a
    /// chunk of which bytes were already handed out.
    bool chunk_started;
    /// True when the current chunk's last byte has been handed out. Not valid
    /// before the first call.
    bool chunk_ended;
    /// True when the current chunk's two sizes differ (its data is xz).
    bool chunk_compressed;
    uint64_t chunk_compressed_size;    // from the current chunk header
    uint64_t chunk_uncompressed_size;  // from the current chunk header

    void* state;             // private; owned by the stream
    QXAllocFunction zalloc;  // as given at Init; null for malloc
    QXFreeFunction zfree;    // as given at Init; null for free
    void* opaque;            // handed to zalloc and zfree
} QXPBZXDecodeStream;

/// A new stream with every field zero, or null when memory runs out.
QXPBZXDecodeStream* QXPBZXDecodeInit(void);

/// QXPBZXDecodeInit with memory from zalloc and zfree (null for malloc and
/// free), the stream itself included. Null when memory runs out.
QXPBZXDecodeStream* QXPBZXDecodeInitWithAllocator(QXAllocFunction zalloc, QXFreeFunction zfree, void* opaque);

/// Takes all of the input, then hands out what it can of the current chunk.
/// Returns QXPBZX_OK, QXPBZX_AGAIN or QXPBZX_NEED_INPUT; QXPBZX_MEM_ERROR and
/// QXPBZX_INVALID_ARGUMENT only for the failures they name.
int QXPBZXDecode(QXPBZXDecodeStream* stream);

/// Frees the stream and everything it holds; null is allowed. Returns 0.
int QXPBZXDecodeCleanup(QXPBZXDecodeStream* stream);

#ifdef __cplusplus
}
#endif
