// QXRef.h - a stable reference to a file: which file, not only where it was.
//
// A reference to a local file keeps the file's path and its identity on this
// machine (the device and inode numbers read when the reference was made).
// Two references, or a reference and a URL, name the same file when their
// identities are equal, whatever path reached it: a hard link, a symbolic
// link, "./" or "../" in the path all lead to the same identity. Identities
// are taken once, so a file replaced at the same path afterwards is another
// file.
//
// References to http(s) images have no identity on this machine; they name
// the same file as another reference or URL when the URLs are equal.
//
// A reference also travels as alias data: a small property list holding the
// URL, which a later process resolves back into a reference. Resolving only
// looks at the path: it never mounts anything, and it fails when the file is
// not reachable.
//
// Immutable; safe to share between threads.
#pragma once

#include <qx/Data.h>
#include <qx/Error.h>
#include <qx/URL.h>

#include <sys/types.h>

#include <string>

class QXRef final : public qx::Object {
public:
    using Ref = qx::Ref<QXRef>;

    /// A reference to the file at url. A file URL must name a reachable file:
    /// otherwise nothing, with Cocoa 260 (no such file) or the POSIX error
    /// that stopped the look-up, each with the URL. An http or https URL is
    /// taken as it is. Nothing for no URL or another scheme (Cocoa 262).
    static Ref refWithURL(const qx::Ref<qx::URL>& url, qx::Ref<qx::Error>* error = nullptr);
    /// As refWithURL, but a file that cannot be reached still gives a
    /// reference: one without identity, which names no file but keeps its URL.
    static Ref refWithUnreachableURL(const qx::Ref<qx::URL>& url);
    /// The reference that aliasData() of some reference describes, resolved
    /// now as refWithURL resolves; nothing (Cocoa 259, not a reference's
    /// alias data, or refWithURL's error) otherwise.
    static Ref refWithAliasData(const qx::Ref<qx::Data>& data, qx::Ref<qx::Error>* error = nullptr);

    /// The URL the reference was made from.
    const qx::Ref<qx::URL>& url() const { return _url; }
    /// Data that refWithAliasData turns back into a reference to this URL.
    qx::Ref<qx::Data> aliasData() const;
    /// True when the reference knows which local file it names.
    bool hasFileIdentity() const { return _hasIdentity; }

    /// True when both references name one file: equal identities, or, for
    /// references without one, equal http(s) URLs. A local reference without
    /// identity names no file, not even its own.
    bool isSameFileAs(const QXRef& other) const;
    /// isSameFileAs against the file url names now (false when unreachable).
    bool isSameFileAsURL(const qx::Ref<qx::URL>& url) const;

    std::string className() const override { return "QXRef"; }
    std::string description() const override;
    /// Equal references name the same file (isSameFileAs); references
    /// without identity are equal when their URLs are.
    bool isEqual(const qx::Object& other) const override;
    std::size_t hash() const override;

    QXRef(qx::Ref<qx::URL> url, bool hasIdentity, dev_t device, ino_t inode);

private:
    const qx::Ref<qx::URL> _url;
    const bool _hasIdentity;
    const dev_t _device;  // meaningful only with _hasIdentity
    const ino_t _inode;
};
