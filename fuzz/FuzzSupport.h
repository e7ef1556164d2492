// FuzzSupport.h - what every libFuzzer target here shares.
//
// A target's only verdict is to abort: libFuzzer keeps the input that did it.
#pragma once

#include <qx/Error.h>
#include <qx/Log.h>

#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <string>

namespace fuzz {

inline void require(bool condition) {
    if (!condition) std::abort();
}

// Malformed input logs freely; keep it out of syslog. Cheap after the first call.
inline void silenceLog() {
    static const qx::LogSink previous = qx::setLogSink([](const std::string&) {});
    (void)previous;
}

// A failure must be one the readers report on purpose: NSCocoaErrorDomain with
// one of codes (any code when codes is empty) or, when allowed, the XML
// parser's own domain. Anything else is an error leaking from below.
inline void requireCleanError(const qx::Ref<qx::Error>& error, std::initializer_list<std::int64_t> codes = {},
                              bool xmlParserAllowed = false) {
    if (!error) return;
    if (xmlParserAllowed && error->domain() == "NSXMLParserErrorDomain") return;
    require(error->domain() == qx::NSCocoaErrorDomain);
    if (codes.size() == 0) return;
    for (std::int64_t code : codes)
        if (error->code() == code) return;
    std::abort();
}

} // namespace fuzz
