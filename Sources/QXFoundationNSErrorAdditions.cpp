// QXFoundationNSErrorAdditions.cpp - URL, not-found and permission queries on errors.
#include <QXFoundation/QXFoundationNSErrorAdditions.h>

namespace QXFoundationNSErrorAdditions {

namespace {

// Underlying errors are followed in a loop, not by recursion, and only so
// deep: user info is editable, and an error that is its own underlying error
// (directly or further down) must give an answer, not hang.
constexpr int kMaxUnderlyingDepth = 1024;

// The next error in the chain; it stays alive as long as e's user info holds it.
const qx::Error* underlyingOf(const qx::Error& e) {
    return e.userInfo()->get<qx::Error>(qx::NSUnderlyingErrorKey).get();
}

} // namespace

qx::Ref<qx::URL> URL(const qx::Error& error) {
    const qx::Error* e = &error;
    for (int depth = 0; e && depth < kMaxUnderlyingDepth; ++depth, e = underlyingOf(*e)) {
        const auto& info = *e->userInfo();
        if (auto url = info.get<qx::URL>(qx::NSURLErrorKey)) return url;
        if (auto path = info.get<qx::String>(qx::NSFilePathErrorKey))
            if (auto url = qx::URL::fileURLWithPath(path->utf8())) return url;
        if (e->domain() == qx::NSURLErrorDomain) {
            if (auto url = info.get<qx::URL>(qx::NSURLErrorFailingURLErrorKey)) return url;
            if (auto text = info.get<qx::String>(qx::NSURLErrorFailingURLStringErrorKey))
                return qx::URL::URLWithString(text->utf8());
        }
    }
    return nullptr;
}

bool isFileNotFoundError(const qx::Error& error) {
    const qx::Error* e = &error;
    for (int depth = 0; e && depth < kMaxUnderlyingDepth; ++depth, e = underlyingOf(*e)) {
        const auto& domain = e->domain();
        const auto code = e->code();
        if (domain == qx::NSPOSIXErrorDomain) return code == 2;
        if (domain == qx::NSOSStatusErrorDomain) return code == -43 || code == 100002;
        if (domain == qx::NSCocoaErrorDomain) return code == 4 || code == 260;
    }
    return false;
}

bool isPermissionError(const qx::Error& error) {
    const qx::Error* e = &error;
    for (int depth = 0; e && depth < kMaxUnderlyingDepth; ++depth, e = underlyingOf(*e)) {
        const auto& domain = e->domain();
        const auto code = e->code();
        if (domain == qx::NSPOSIXErrorDomain && (code == 13 || code == 1)) return true;
        if (domain == qx::NSOSStatusErrorDomain && (code == -5000 || code == 100013 || code == 100001)) return true;
        if (domain == qx::NSCocoaErrorDomain && (code == 257 || code == 513)) return true;
    }
    return false;
}

} // namespace QXFoundationNSErrorAdditions
