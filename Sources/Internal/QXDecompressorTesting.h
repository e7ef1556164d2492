// QXDecompressorTesting.h - knobs that only tests turn.
#pragma once

#include <cstdint>

// Gives the PBZX chunk decoders made from now on ring buffers of this many
// bytes (0 restores the default), so tests can make them wait on full buffers.
void QXSetChunkBufferSizeForTesting(std::uint64_t bytes);
