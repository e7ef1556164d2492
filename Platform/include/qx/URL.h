// URL.h - file and http(s) URLs; parsing and normalisation through libcurl.
//
// URLs archive themselves as other platforms' keyed archives hold them: the
// absolute text under "NS.relative" and no base under "NS.base" (sequential
// archives: the base, then the text).
#pragma once

#include <qx/Coder.h>
#include <qx/String.h>

namespace qx {

class URL final : public Object, public Coding {
public:
    /// A file URL for an absolute or relative path (relative paths are taken
    /// against the current directory). Nothing for an empty path.
    static Ref<URL> fileURLWithPath(std::string_view path, bool isDirectory = false);
    /// Parses an absolute URL ("file:", "http:", "https:" and other schemes);
    /// nothing when the text is not a valid URL.
    static Ref<URL> URLWithString(std::string_view text);

    const std::string& absoluteString() const { return absolute_; }
    const std::string& scheme() const { return scheme_; }
    const std::string& host() const { return host_; }
    /// The port, or -1 when none is given.
    int port() const { return port_; }
    bool isFileURL() const { return scheme_ == "file"; }
    /// The percent-decoded path (for file URLs, the file-system path).
    const std::string& path() const { return path_; }
    std::string lastPathComponent() const;
    std::string pathExtension() const;
    Ref<URL> URLByAppendingPathComponent(std::string_view component) const;

    std::string className() const override { return "URL"; }
    std::string description() const override { return absolute_; }
    bool isEqual(const Object& other) const override;
    std::size_t hash() const override { return std::hash<std::string>()(absolute_); }
    void encodeWithCoder(Coder& coder) const override;

    URL() = default;

private:
    std::string absolute_, scheme_, host_, path_;
    int port_ = -1;
};

} // namespace qx
