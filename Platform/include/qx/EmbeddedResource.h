// EmbeddedResource.h - a file compiled into a library at build time.
#pragma once

#include <cstddef>

namespace qx {

struct EmbeddedResource {
    const char* path;           // relative to the resource directory, e.g. "en.lproj/Localizable.strings"
    const unsigned char* data;
    std::size_t size;
};

} // namespace qx
