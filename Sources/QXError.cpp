// QXError.cpp - building errors, script errors, and the reporting entry point.
#include <QXFoundation/QXError.h>
#include <QXFoundation/QXErrorReporter.h>

#include "Internal/QXFoundationPrivate.h"

#include <qx/Number.h>

#include <cstdlib>

const char* const QXErrorDomain = "com.tovarik.QXFoundation.ErrorDomain";
const char* const QXAppleScriptErrorDomain = "com.tovarik.QXFoundation.QXAppleScriptErrorDomain";
const char* const QXSecurityErrorDomain = "com.tovarik.QXFoundation.QXSecurityErrorDomain";
const char* const QXErrorOccurredNotification = "QXErrorOccurredNotification";

namespace {

constexpr const char* kQXErrorKey = "QXErrorKey";
constexpr const char* kAppleScriptErrorNumber = "NSAppleScriptErrorNumber";
constexpr const char* kAppleScriptErrorMessage = "NSAppleScriptErrorMessage";

// Status codes in this range carry an errno value plus 100000.
constexpr std::int64_t kFirstWrappedErrno = 100001;
constexpr std::int64_t kEndWrappedErrno = 101000;

std::string formatted(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string s = qx::stringWithFormatV(format, args);
    va_end(args);
    return s;
}

// The description of an error given without a format; nothing when the
// platform has no text for it. May move a wrapped errno to the POSIX domain.
qx::Ref<qx::String> describeCode(std::string& domain, std::int64_t& code) {
    if (domain == qx::NSOSStatusErrorDomain && code >= kFirstWrappedErrno && code < kEndWrappedErrno) {
        domain = qx::NSPOSIXErrorDomain;
        code -= 100000;
    }
    if (domain == qx::NSOSStatusErrorDomain || domain == QXSecurityErrorDomain) {
        // Status codes are 32-bit; wider codes are taken modulo 2^32 as the
        // security service would see them.
        const auto status = static_cast<std::int32_t>(static_cast<std::uint32_t>(code));
        auto message = qx::Error::securityErrorMessage(status);
        if (!message) message = qx::str(formatted("OSStatus %d", status));
        return qx::str(formatted("%@ (%d)", static_cast<const qx::Object*>(message.get()), status));
    }
    return qx::Error::platformFailureReason(domain, code);
}

// The integer value of an object as the platform reads one: numbers as they
// are, strings by their leading decimal digits, anything else 0.
std::int64_t integerValue(const qx::Ref<qx::Object>& object) {
    if (auto n = qx::dyn_cast<qx::Number>(object)) return n->int64Value();
    if (auto s = qx::dyn_cast<qx::String>(object)) return std::strtoll(s->utf8().c_str(), nullptr, 10);
    return 0;
}

} // namespace

qx::Ref<qx::Error> QXvGenerateError(const std::string& domainIn, std::int64_t codeIn, const qx::Ref<qx::URL>& url,
                                    const qx::Ref<qx::Error>& underlying, const qx::Ref<qx::Dictionary>& userInfo,
                                    const char* format, va_list args) {
    std::string domain = domainIn;
    std::int64_t code = codeIn;

    auto info = qx::Dictionary::create();
    info->setObject(qx::Number::withBool(true), kQXErrorKey);
    if (userInfo) info->addEntriesFromDictionary(*userInfo);

    // -1 in our own domain means "be the underlying error".
    if (underlying && domain == QXErrorDomain && code == -1) {
        domain = underlying->domain();
        code = underlying->code();
    }

    qx::Ref<qx::String> description;
    if (format) {
        va_list copy;
        va_copy(copy, args);
        description = qx::str(qx::stringWithFormatV(format, copy));
        va_end(copy);
    } else {
        description = describeCode(domain, code);
    }

    if (url) {
        info->setObject(url, qx::NSURLErrorKey);
        if (url->isFileURL()) info->setObject(qx::str(url->path()), qx::NSFilePathErrorKey);
    }

    if (underlying) {
        info->setObject(underlying, qx::NSUnderlyingErrorKey);
        const auto reason = underlying->localizedFailureReason();
        const auto recovery = underlying->localizedRecoverySuggestion();
        if (reason && recovery)
            info->setObject(qx::str(reason->utf8() + " " + recovery->utf8()), qx::NSLocalizedRecoverySuggestionErrorKey);
        else if (reason || recovery)
            info->setObject(reason ? reason : recovery, qx::NSLocalizedRecoverySuggestionErrorKey);
    }

    if (description) {
        info->setObject(description, qx::NSLocalizedDescriptionKey);
        info->setObject(description, qx::NSLocalizedFailureReasonErrorKey);
    }

    return qx::Error::create(std::move(domain), code, std::move(info));
}

qx::Ref<qx::Error> QXGenerateErrorC(const std::string& domain, std::int64_t code, const qx::Ref<qx::URL>& url,
                                    const qx::Ref<qx::Error>& underlying, const qx::Ref<qx::Dictionary>& userInfo,
                                    const char* format, ...) {
    va_list args;
    va_start(args, format);
    auto error = QXvGenerateError(domain, code, url, underlying, userInfo, format, args);
    va_end(args);
    return error;
}

qx::Ref<qx::Error> QXAppleScriptError(const qx::Ref<qx::Dictionary>& errorInfo) {
    const std::int64_t number = errorInfo ? integerValue(errorInfo->objectForKey(kAppleScriptErrorNumber)) : 0;
    const qx::Ref<qx::Object> message = errorInfo ? errorInfo->objectForKey(kAppleScriptErrorMessage) : nullptr;
    return QXGenerateError(QXAppleScriptErrorDomain, number, nullptr, nullptr, nullptr, QXFLocalizedString("%@"),
                           message);
}

void QXReportError(const qx::Ref<qx::Error>& error) { QXErrorReporter::sharedInstance()->reportError(error); }
