// Diagnostics.cpp - the one-line failure reports of the qx program.
#include "Diagnostics.h"

#include "Command.h"

#include <qx/Log.h>

#include <cstdio>

namespace qxtool {

std::string inputDisplayName(std::string_view path) {
    return path == "-" ? std::string("(standard input)") : std::string(path);
}

std::string outputDisplayName(std::string_view path) {
    return path == "-" ? std::string("(standard output)") : std::string(path);
}

int reportFailure(std::string_view name, std::string_view reason) {
    std::string line = "qx: ";
    line.append(name).append(": ").append(reason);
    // A reason never spans lines: the one-line contract is what callers parse.
    for (char& c : line)
        if (c == '\n' || c == '\r') c = ' ';
    line += '\n';
    std::fflush(stdout);
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
    return kExitFailure;
}

std::string reasonFromError(const qx::Ref<qx::Error>& error) {
    if (error) return error->localizedDescription();
    return qx::Error::create(qx::NSCocoaErrorDomain, 3840)->localizedDescription();
}

void routeLibraryLog(bool verbose) {
    if (verbose) {
        qx::setLogSink([](const std::string& line) {
            std::string out = "qx: log: " + line + "\n";
            std::fwrite(out.data(), 1, out.size(), stderr);
        });
    } else {
        qx::setLogSink([](const std::string&) {});
    }
}

} // namespace qxtool
