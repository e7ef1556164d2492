// QXError.h - the library's one way of making errors, its domains, and reporting.
//
// Every error the library hands out is built by QXGenerateError, so that all
// carry the same user-info keys and follow the same wording rules:
//
//  * "QXErrorKey" = true marks the error as the library's;
//  * code -1 in QXErrorDomain with an underlying error takes on the
//    underlying error's domain and code;
//  * with a format, the description is the formatted text; without one it is
//    the platform's text for the domain and code (status codes 100001..100999
//    are errno values in disguise and become POSIX errors first);
//  * the URL, its file path, the underlying error and that error's reason and
//    suggestion are filed under the platform's keys.
//
// Thread-safe; none of these functions keep state.
#pragma once

#include <qx/Error.h>
#include <qx/Format.h>
#include <qx/URL.h>

#include <cstdarg>
#include <cstdint>
#include <string>

extern const char* const QXErrorDomain;             // "com.tovarik.QXFoundation.ErrorDomain"
extern const char* const QXAppleScriptErrorDomain;  // "com.tovarik.QXFoundation.QXAppleScriptErrorDomain"
extern const char* const QXSecurityErrorDomain;     // "com.tovarik.QXFoundation.QXSecurityErrorDomain"
/// Posted on the main thread by QXReportError; user info { "Error": error }.
extern const char* const QXErrorOccurredNotification;

/// A description format for QXGenerateError: a C string, a std::string or a
/// qx::String (so that a looked-up localised format can be passed as it is),
/// or nothing. The text must outlive the call, which temporaries do.
class QXErrorFormat {
public:
    QXErrorFormat() = default;
    QXErrorFormat(std::nullptr_t) {}
    QXErrorFormat(const char* text) : text_(text) {}
    QXErrorFormat(const std::string& text) : text_(text.c_str()) {}
    QXErrorFormat(const qx::Ref<qx::String>& text) : text_(text ? text->utf8().c_str() : nullptr) {}
    const char* c_str() const { return text_; }

private:
    const char* text_ = nullptr;
};

/// Builds an error from already started format arguments. url, underlying,
/// userInfo and format may each be nothing.
qx::Ref<qx::Error> QXvGenerateError(const std::string& domain, std::int64_t code, const qx::Ref<qx::URL>& url,
                                    const qx::Ref<qx::Error>& underlying, const qx::Ref<qx::Dictionary>& userInfo,
                                    const char* format, va_list args);

/// The C-variadic form: gathers the format's values (already in their C
/// types: const qx::Object* for "%@") and calls QXvGenerateError.
qx::Ref<qx::Error> QXGenerateErrorC(const std::string& domain, std::int64_t code, const qx::Ref<qx::URL>& url,
                                    const qx::Ref<qx::Error>& underlying, const qx::Ref<qx::Dictionary>& userInfo,
                                    const char* format, ...);

/// Builds an error. The format's values may be given as qx::Refs (for "%@"),
/// std::strings (for "%s") or plain C values.
///   QXGenerateError(NSPOSIXErrorDomain, ENOENT)
///   QXGenerateError(NSCocoaErrorDomain, 256, url)
///   QXGenerateError(QXErrorDomain, -1, nullptr, nullptr, nullptr, "%@", message)
template <class... Args>
qx::Ref<qx::Error> QXGenerateError(const std::string& domain, std::int64_t code, const qx::Ref<qx::URL>& url = nullptr,
                                   const qx::Ref<qx::Error>& underlying = nullptr,
                                   const qx::Ref<qx::Dictionary>& userInfo = nullptr, QXErrorFormat format = {},
                                   const Args&... args) {
    return QXGenerateErrorC(domain, code, url, underlying, userInfo, format.c_str(), qx::detail::vararg(args)...);
}

/// The error for a script runner's error dictionary: domain
/// QXAppleScriptErrorDomain, code "NSAppleScriptErrorNumber" (0 when absent),
/// description "NSAppleScriptErrorMessage".
qx::Ref<qx::Error> QXAppleScriptError(const qx::Ref<qx::Dictionary>& errorInfo);

/// Posts error as QXErrorOccurredNotification on the main thread (see QXErrorReporter).
void QXReportError(const qx::Ref<qx::Error>& error);
