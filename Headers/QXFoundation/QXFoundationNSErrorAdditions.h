// QXFoundationNSErrorAdditions.h - queries on platform errors.
//
// All three look through NSUnderlyingErrorKey, so that an error the library
// wrapped around a system error still answers for it.
// They keep no state; any thread.
#pragma once

#include <qx/Error.h>
#include <qx/URL.h>

namespace QXFoundationNSErrorAdditions {

/// The URL the error is about: NSURLErrorKey; else a file URL from
/// NSFilePathErrorKey; else, for NSURLErrorDomain only, the failing URL (or
/// the URL parsed from the failing URL string, which ends the search even
/// when it does not parse); else the underlying error's URL; else nothing.
qx::Ref<qx::URL> URL(const qx::Error& error);

/// POSIX 2, status -43 or 100002, Cocoa 4 or 260. An error of one of these
/// three domains with any other code is false; an error of another domain
/// answers as its underlying error does.
bool isFileNotFoundError(const qx::Error& error);

/// POSIX 13 or 1, status -5000, 100013 or 100001, Cocoa 257 or 513. Any other
/// error, of whatever domain, answers as its underlying error does.
bool isPermissionError(const qx::Error& error);

} // namespace QXFoundationNSErrorAdditions
