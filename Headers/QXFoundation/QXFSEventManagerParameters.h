// QXFSEventManagerParameters.h - a saved question: these folders, since this event.
//
// An application keeps one across runs (it archives, keyed or not) and asks
// the event manager whether anything under the folders changed after the
// event. Immutable once made; the path prefixes are worked out on first use.
#pragma once

#include <qx/Array.h>
#include <qx/Coder.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

class QXFSEventManagerParameters : public qx::Object, public qx::Coding {
public:
    using Ref = qx::Ref<QXFSEventManagerParameters>;

    static constexpr const char* URLsKey = "QXFSEventManagerParametersURLs";
    static constexpr const char* EventKey = "QXFSEventManagerParametersEvent";

    /// Parameters over URLs (the array is copied; nothing counts as empty)
    /// since event.
    static Ref parametersWithURLs(const qx::Ref<qx::Array>& URLs, std::uint64_t event);
    static Ref initWithURLs(const qx::Ref<qx::Array>& URLs, std::uint64_t event) { return parametersWithURLs(URLs, event); }
    /// Keyed: the array under URLsKey, the event under EventKey as a signed
    /// 64-bit integer. Sequential: the array, then the event as an unsigned
    /// 64-bit number object.
    static Ref initWithCoder(qx::Coder& coder);

    const qx::Ref<qx::Array>& URLs() const { return _URLs; }
    std::uint64_t event() const { return _event; }

    /// For each file URL, its standardised path followed by "/": an event
    /// counts for these parameters when its path begins with one of them, so
    /// /a/b/ takes /a/b/c and /a/b itself (reported as /a/b/) but not /a/bc.
    /// Other URLs give none.
    const std::vector<std::string>& pathPrefixes() const;
    /// The standardised paths of the file URLs, in order.
    std::vector<std::string> standardizedPaths() const;
    /// True when path (standardised, without a final "/") is one of the
    /// folders or lies below one of them.
    bool covers(const std::string& path) const;

    std::string className() const override { return "QXFSEventManagerParameters"; }
    std::string description() const override;
    bool isEqual(const qx::Object& other) const override;
    std::size_t hash() const override;
    /// Immutable: the copy is the object itself.
    qx::Ref<qx::Object> copy() const override;
    void encodeWithCoder(qx::Coder& coder) const override;

    QXFSEventManagerParameters(qx::Ref<qx::Array> URLs, std::uint64_t event) : _URLs(std::move(URLs)), _event(event) {}

private:
    const qx::Ref<qx::Array> _URLs;
    const std::uint64_t _event;
    mutable std::once_flag _prefixesOnce;
    mutable std::vector<std::string> _prefixes;
};

/// path with "." and ".." resolved and redundant separators removed, without
/// a final separator (except for "/" itself). Symbolic links are left alone.
std::string QXFSEventStandardizedPath(const std::string& path);
