// ImageLocation.h - where an IMAGE operand points: a local file or an http(s) resource.
//
// The operand is a path (relative ones against the working folder), a file
// URL (percent-encoded, as callers pass a file URL's absolute string), or an
// http or https URL. A local image is named by its real path, links resolved,
// so that every name of one file finds the same cache entry and the same record.
#pragma once

#include <qx/URL.h>

#include <optional>
#include <string>

#include <sys/stat.h>

namespace hdiutil {

struct ImageLocation {
    qx::Ref<qx::URL> url;  // a file URL of the real path, or the http(s) URL
    std::string path;      // the real path of a local image; empty for a remote one
    struct stat status {}; // of the local file

    bool isRemote() const { return path.empty(); }
    /// How records and listings name the image: the path, or the URL's text.
    std::string name() const { return isRemote() ? url->absoluteString() : path; }
};

/// Finds the image operand names. Nothing, with the reason, when the text is
/// no path or URL this tool reads, or the local file is missing or no file.
std::optional<ImageLocation> locateImage(const std::string& operand, std::string& reason);

/// The path a file URL operand names (empty when it names none); any other
/// operand as it is.
std::string operandPath(const std::string& operand);

} // namespace hdiutil
