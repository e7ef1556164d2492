// QXCodecError.cpp - decoder results to errors and log lines.
#include "Internal/QXCodecError.h"

#include <QXFoundation/QXError.h>
#include <QXFoundation/QXExplode.h>
#include <QXFoundation/QXPBZXDecode.h>
#include <QXFoundation/QXUnshrink.h>

#include "Internal/QXFoundationPrivate.h"

#include <qx/Log.h>

#include <zlib.h>

#include <string>

using qx::Error;
using qx::Ref;

namespace {

// Corrupt data, numbered as unshrink numbers it; the PBZX decoder reports
// damage through its chunk decoders, but the code keeps its old meaning.
constexpr int kQXPBZXDataError = 5;

Ref<Error> cocoaError(std::int64_t code) { return QXGenerateError(qx::NSCocoaErrorDomain, code); }
Ref<Error> posixError(std::int64_t code) { return QXGenerateError(qx::NSPOSIXErrorDomain, code); }

} // namespace

Ref<Error> QXCodecError(QXCodecStep step, int result) {
    switch (step) {
    case QXCodecStep::InflateInit:
        QXLog("inflateInit2: error %d", result);
        return QXGenerateError("inflateInit2", result, nullptr, nullptr, nullptr,
                               QXFLocalizedString("inflateInit2: %s"), std::string(zError(result)));
    case QXCodecStep::Inflate:
        QXLog("zlib error: %d", result);
        return QXGenerateError("inflate", result, nullptr, nullptr, nullptr, QXFLocalizedString("inflate: %s"),
                               std::string(zError(result)));
    case QXCodecStep::BZip2Init:
        QXLog("BZ2_bzDecompressInit: error %d", result);
        return QXGenerateError("BZ2_bzDecompressInit", result, nullptr, nullptr, nullptr,
                               "BZ2_bzDecompressInit: error %d", result);
    case QXCodecStep::BZip2Decompress:
        QXLog("error decompressing: %d", result);
        return QXGenerateError("BZ2_bzDecompress", result, nullptr, nullptr, nullptr,
                               QXFLocalizedString("BZ2_bzDecompress: error %d"), result);
    case QXCodecStep::XZInit:
        QXLog("lzma_stream_decoder: error %d", result);
        return QXGenerateError("lzma_stream_decoder", result);
    case QXCodecStep::XZCode:
        return QXGenerateError("lzma_code", result);
    case QXCodecStep::PBZXInit:
        QXLog("QXPBZXDecodeInit failed");
        return cocoaError(256);
    case QXCodecStep::PBZXDecode:
        QXLog("Error decoding PBZX file: %ld", static_cast<long>(result));
        switch (result) {
        case QXPBZX_MEM_ERROR: return cocoaError(256);
        case QXPBZX_INVALID_ARGUMENT: return posixError(22);
        case kQXPBZXDataError: return cocoaError(259);
        default: return QXGenerateError("QXPBZXDecode", result);
        }
    case QXCodecStep::ExplodeInit:
    case QXCodecStep::UnshrinkInit:
        return cocoaError(256);
    case QXCodecStep::Explode:
        QXLog("error decompressing: %ld", static_cast<long>(result));
        switch (result) {
        case QXEXPLODE_DATA_ERROR: return cocoaError(256);
        case QXEXPLODE_INVALID_ARGUMENT: return posixError(22);
        case QXEXPLODE_BAD_TREE: return cocoaError(259);
        default: return QXGenerateError("QXExplode", result);
        }
    case QXCodecStep::Unshrink:
        QXLog("Error decompressing: %ld", static_cast<long>(result));
        switch (result) {
        case QXUNSHRINK_MEM_ERROR: return cocoaError(256);
        case QXUNSHRINK_INVALID_ARGUMENT: return posixError(22);
        case QXUNSHRINK_DATA_ERROR: return cocoaError(259);
        default: return QXGenerateError("QXUnshrink", result);
        }
    }
    return QXGenerateError("QXCodec", result);
}
