// QXDecompressorTesting.h - test-only settings of the decompressor's PBZX
// chunk decoders. Not installed; no production code calls these.
#pragma once

#include <cstdint>

/// Chunk decoders (QXDecompressionOperations) made from now on without a
/// ring buffer of their own get one of this many bytes instead of
/// QXDecompressionOperation::bufferSizePerOperation(), so that a test can fill
/// them with little data; 0 restores the default. Process-wide.
void QXSetChunkBufferSizeForTesting(std::uint64_t bytes);
