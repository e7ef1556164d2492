// QXExplode.h - decoder for ZIP entries stored with the Imploding method (6).
//
// An imploded entry starts with two or three Shannon-Fano code trees (literal,
// length, distance; the literal tree only when the entry's flags say so) and
// then encodes literals and matches that reach back into a 4 KiB or 8 KiB
// dictionary. The stream has no end marker: the entry's uncompressed size, which
// the caller takes from the ZIP headers, is where decoding stops.
//
// Shape: zlib's. The caller owns the QXExplodeStream, hands input through
// next_in / avail_in in pieces split anywhere (inside a tree description or a
// code included), and calls QXExplode. Input is always taken whole. The bytes
// a call produces stay in the decoder and are handed back by pointer; they are
// valid until the next call or QXExplodeCleanup. Output is never more than the
// uncompressed size. Whatever the input, the decoder reads and writes only its
// own buffers and the caller's input, and its memory stays near the dictionary
// plus one call's output. Every allocation goes through the stream's zalloc and
// zfree (see QXExplodeInitWithAllocator); a refused one ends the stream with
// QXEXPLODE_DATA_ERROR.
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
#define QXEXPLODE_OK 0
/// A code with no leaf in its tree, or memory ran out.
#define QXEXPLODE_DATA_ERROR 1
/// More input is needed; the bytes produced so far were handed out.
#define QXEXPLODE_NEED_INPUT 2
/// A null stream, or a null input pointer with a non-zero count.
#define QXEXPLODE_INVALID_ARGUMENT 3
/// A tree description that gives two codes the same prefix.
#define QXEXPLODE_BAD_TREE 4

typedef struct QXExplodeStream {
    const uint8_t* next_in;  // caller's input
    uint64_t avail_in;       // bytes at next_in; 0 after every call
    uint64_t total_in;       // bytes taken so far
    uint64_t total_out;      // bytes handed out so far
    void* state;             // private; owned by the stream
    QXAllocFunction zalloc;  // as given at Init; null for malloc
    QXFreeFunction zfree;    // as given at Init; null for free
    void* opaque;            // handed to zalloc and zfree
} QXExplodeStream;

/// A decoder for an entry of uncompressedSize bytes: an 8 KiB dictionary when
/// largeDictionary (flag bit 1), 4 KiB otherwise; a literal tree when
/// literalTree (flag bit 2). Null when memory runs out.
QXExplodeStream* QXExplodeInit(uint64_t uncompressedSize, bool largeDictionary, bool literalTree);

/// QXExplodeInit with memory from zalloc and zfree (null for malloc and free),
/// the stream itself included. Null when memory runs out.
QXExplodeStream* QXExplodeInitWithAllocator(uint64_t uncompressedSize, bool largeDictionary, bool literalTree,
                                            QXAllocFunction zalloc, QXFreeFunction zfree, void* opaque);

/// Takes all input and decodes what it can. With QXEXPLODE_OK or
/// QXEXPLODE_NEED_INPUT, *output and *outputLength (each optional) give the
/// bytes this call produced. Any other result ends the stream: only
/// QXExplodeCleanup may follow, and *outputLength is set to 0.
int QXExplode(QXExplodeStream* stream, const uint8_t** output, uint64_t* outputLength);

/// Frees the stream and everything it holds; null is allowed. Returns 0.
int QXExplodeCleanup(QXExplodeStream* stream);

#ifdef __cplusplus
}
#endif
