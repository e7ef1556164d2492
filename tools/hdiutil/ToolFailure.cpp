// ToolFailure.cpp - the tool's failure lines.
#include "ToolFailure.h"

#include <QXFoundation/QXDiskImage.h>

#include <cstdio>

namespace hdiutil {

int failWithLine(const std::string& text, int status) {
    std::string line = "hdiutil: " + text;
    // One line, whatever the reason holds: callers parse it as one.
    for (char& c : line)
        if (c == '\n' || c == '\r') c = ' ';
    line += '\n';
    std::fflush(stdout);
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
    return status;
}

int fail(const std::string& verb, const std::string& reason, int status) {
    return failWithLine(verb + " failed - " + reason, status);
}

std::string reasonFromError(const qx::Ref<qx::Error>& error) {
    if (!error) return "image not recognized";
    if (error->domain() == kQXDiskImageErrorDomain) {
        switch (error->code()) {
        case kQXDiskImageErrorReadFailed:
            if (auto underlying = error->underlyingError()) return underlying->localizedDescription();
            break;
        case kQXDiskImageErrorCorrupt:
        case kQXDiskImageErrorUnsupportedImage:
        case kQXDiskImageErrorUnsupportedChunk:
            return "image not recognized";
        default:
            break;
        }
    }
    return error->localizedDescription();
}

} // namespace hdiutil
