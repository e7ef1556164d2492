// QXDecompressorTesting.h - test-only settings of the decompressor's
// decoders. Not installed; no production code calls these.
#pragma once

#include <cstdint>

/// Chunk decoders (QXDecompressionOperations) made from now on without a
/// ring buffer of their own get one of this many bytes instead of
/// QXDecompressionOperation::bufferSizePerOperation(), so that a test can fill
/// them with little data; 0 restores the default. Process-wide.
void QXSetChunkBufferSizeForTesting(std::uint64_t bytes);

/// While on, zlib, gzip and raw deflate streams set up from now on are
/// decoded by zlib alone, so that a test can hold the faster path to zlib's
/// results on the same input. Process-wide.
void QXSetZlibInflateForTesting(bool on);
