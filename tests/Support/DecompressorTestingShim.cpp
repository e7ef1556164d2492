// DecompressorTestingShim.cpp - temporary: forwards the chunk-buffer knob to
// the operation's old override until the library provides it.
#include "Internal/QXDecompressorTesting.h"

#include <QXFoundation/QXDecompressionOperation.h>

void QXSetChunkBufferSizeForTesting(std::uint64_t bytes) {
    QXDecompressionOperation::setBufferSizeOverrideForTesting(bytes);
}
