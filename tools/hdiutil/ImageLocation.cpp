// ImageLocation.cpp - where an IMAGE operand points.
#include "ImageLocation.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace hdiutil {

namespace {

bool hasScheme(const std::string& text, const char* scheme) {
    const std::size_t length = std::strlen(scheme);
    return text.size() > length && text.compare(0, length, scheme) == 0 && text[length] == ':';
}

} // namespace

std::string operandPath(const std::string& operand) {
    if (!hasScheme(operand, "file")) return operand;
    const auto url = qx::URL::URLWithString(operand);
    return url ? url->path() : std::string();
}

std::optional<ImageLocation> locateImage(const std::string& operand, std::string& reason) {
    ImageLocation location;
    std::string path = operand;
    if (hasScheme(operand, "http") || hasScheme(operand, "https")) {
        location.url = qx::URL::URLWithString(operand);
        if (!location.url) {
            reason = "image not recognized";
            return std::nullopt;
        }
        return location;
    }
    if (hasScheme(operand, "file") && (path = operandPath(operand)).empty()) {
        reason = "image not recognized";
        return std::nullopt;
    }
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    if (!real || ::stat(real.get(), &location.status) != 0) {
        reason = std::strerror(errno);
        return std::nullopt;
    }
    // Folders (sparse bundles) and devices are no image this tool attaches.
    if (!S_ISREG(location.status.st_mode)) {
        reason = "image not recognized";
        return std::nullopt;
    }
    location.path = real.get();
    location.url = qx::URL::fileURLWithPath(location.path);
    return location;
}

} // namespace hdiutil
