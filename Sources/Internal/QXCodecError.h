// QXCodecError.h - the one place where a decoder's result code becomes an error.
//
// Each step names the library call whose result it was; QXCodecError logs the
// step's line and builds its error: zlib, libbz2 and liblzma results keep
// their own code in a domain named after the call, the library's own decoders
// (PBZX, implode, unshrink) map theirs onto the Cocoa and POSIX codes callers
// test for (out of memory 256, bad argument EINVAL, corrupt data 259).
#pragma once

#include <qx/Error.h>

enum class QXCodecStep {
    InflateInit,      // inflateInit2
    Inflate,          // inflate
    BZip2Init,        // BZ2_bzDecompressInit
    BZip2Decompress,  // BZ2_bzDecompress
    XZInit,           // lzma_stream_decoder
    XZCode,           // lzma_code
    PBZXInit,         // QXPBZXDecodeInit (no result: it returns nothing)
    PBZXDecode,       // QXPBZXDecode
    ExplodeInit,      // QXExplodeInit (no result)
    Explode,          // QXExplode
    UnshrinkInit,     // QXUnshrinkInit (no result)
    Unshrink,         // QXUnshrink
};

/// The error for result of step, after logging the step's line (where it has
/// one). Only for results that are failures.
qx::Ref<qx::Error> QXCodecError(QXCodecStep step, int result = 0);
