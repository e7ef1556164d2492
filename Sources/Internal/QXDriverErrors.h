// QXDriverErrors.h - the errors the decompressor's drivers hand out, built
// one way in every driver unit.
#pragma once

#include <QXFoundation/QXError.h>

#include "Internal/QXFoundationPrivate.h"

#include <qx/Exception.h>
#include <qx/String.h>

/// Writes value through error when the caller asked for it.
inline void QXSetError(qx::Ref<qx::Error>* error, qx::Ref<qx::Error> value) {
    if (error) *error = std::move(value);
}

/// A platform file-handle fault, turned into an error at the library's boundary
/// (NSCocoaErrorDomain code: 256 for reads, 512 for writes).
inline qx::Ref<qx::Error> QXExceptionError(const qx::Exception& e, std::int64_t code) {
    return QXGenerateError(qx::NSCocoaErrorDomain, code, nullptr, nullptr, nullptr, QXFLocalizedString("%@"),
                           qx::str(e.description()));
}
