// QXBinaryPlistInternal.h - helpers shared by the property-list units.
//
// Private to Sources/: the error every property-list failure carries, the
// guard that turns memory exhaustion into that error, and the big-endian
// reads of the binary format. Stateless, so safe from any thread.
#pragma once

#include <QXFoundation/QXError.h>
#include <qx/Dictionary.h>
#include <qx/Error.h>
#include <qx/Log.h>
#include <qx/Number.h>

#include <cstdint>
#include <new>
#include <stdexcept>

namespace QXBinaryPlistInternal {

/// The code of every property-list read or write failure in NSCocoaErrorDomain.
inline constexpr std::int64_t kPropertyListErrorCode = 3840;

/// The error of a failed property-list read or write: NSCocoaErrorDomain 3840
/// with no text (the log line gives the reason).
inline qx::Ref<qx::Error> makeError(const char* domain = qx::NSCocoaErrorDomain,
                                    std::int64_t code = kPropertyListErrorCode) {
    return QXGenerateError(domain, code);
}

/// Stores the property-list error in *error when the caller gave a place.
inline void setError(qx::Ref<qx::Error>* error, const char* domain = qx::NSCocoaErrorDomain,
                     std::int64_t code = kPropertyListErrorCode) {
    if (error) *error = makeError(domain, code);
}

/// Runs body; allocation failure (a value too large for memory) is a failed
/// read or write like any other: logged, the property-list error stored, and
/// null returned. No exception leaves the library.
template <class Body> auto failingOnExhaustion(qx::Ref<qx::Error>* error, Body body) -> decltype(body()) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
    } catch (const std::length_error&) {
    }
    QXLog("property list too large for memory");
    setError(error);
    return nullptr;
}

/// width bytes at p, big-endian, into 64 bits; of runs longer than 8 bytes
/// only the low 8 bytes survive, as if each byte were shifted in.
inline std::uint64_t readBigEndian(const std::uint8_t* p, std::uint64_t width) {
    switch (width) {
    case 1: return p[0];
    case 2: return (std::uint64_t{p[0]} << 8) | p[1];
    case 4:
        return (std::uint64_t{p[0]} << 24) | (std::uint64_t{p[1]} << 16) | (std::uint64_t{p[2]} << 8) | p[3];
    case 8: {
        std::uint64_t v = 0;
        for (int i = 0; i < 8; ++i) v = (v << 8) | p[i];
        return v;
    }
    default: {
        if (width > 8) {
            p += width - 8;
            width = 8;
        }
        std::uint64_t v = 0;
        for (std::uint64_t i = 0; i < width; ++i) v = (v << 8) | p[i];
        return v;
    }
    }
}

} // namespace QXBinaryPlistInternal
